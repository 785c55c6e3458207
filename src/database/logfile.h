#ifndef DATABASE_LOGFILE_H
#define DATABASE_LOGFILE_H

#include "database_export.h"

#include <QtCore/QFile>
#include <QtCore/QObject>
#include <QtCore/QTextStream>

class QFileInfo;

// LogFile: a text stream appending to a log file. Creating one starts a new
// log: an existing file becomes generation 1 and older generations move up
// one, up to 5 (the oldest is deleted), so at most six files exist. There is
// no rotation while the file is open. Failures to rotate or open are not
// reported: the stream's output is then lost.
//
// Generation n of "folder/app.log" is "folder/app.n.log"; a name without a
// suffix gives names ending in a dot ("log" -> "log.1.").
class DATABASE_EXPORT LogFile : public QObject, public QTextStream
{
    Q_OBJECT

public:
    explicit LogFile(const QString &fileName, QObject *parent = nullptr);
    // Flushes and closes the file.
    ~LogFile() override;

    // The time of day as "hh:mm:ss.zzz", for the head of each line.
    static QString timestamp();

protected:
    static QString rotateName(const QFileInfo &info, int number);

private:
    QFile m_file;
};

#endif // DATABASE_LOGFILE_H
