#include "logfile.h"

#include <QtCore/QDir>
#include <QtCore/QFileInfo>
#include <QtCore/QTime>

LogFile::LogFile(const QString &fileName, QObject *parent)
    : QObject(parent)
    , m_file(fileName)
{
    if (QFile::exists(fileName)) {
        const QFileInfo info(fileName);
        for (int n = 5; n >= 1; --n) {
            const QString name = rotateName(info, n);
            if (!QFile::exists(name))
                continue;
            if (n == 5)
                QFile::remove(name);
            else
                QFile::rename(name, rotateName(info, n + 1));
        }
        QFile::rename(fileName, rotateName(info, 1));
    }
    m_file.open(QIODevice::WriteOnly | QIODevice::Append | QIODevice::Text);
    setDevice(&m_file);
}

LogFile::~LogFile()
{
    flush();
    setDevice(nullptr);
    m_file.close();
}

QString LogFile::timestamp()
{
    return QTime::currentTime().toString(QStringLiteral("hh:mm:ss.zzz"));
}

QString LogFile::rotateName(const QFileInfo &info, int number)
{
    // One multi-argument arg(), so that a '%' in a folder name stays as it is.
    return QStringLiteral("%1.%2.%3")
        .arg(info.path() + QDir::separator() + info.completeBaseName(), QString::number(number), info.suffix());
}
