#include <database/logfile.h>

#include <QtCore/QDir>
#include <QtCore/QFile>
#include <QtCore/QRegularExpression>
#include <QtCore/QTemporaryDir>

#include <gtest/gtest.h>

namespace {

QString contents(const QString &path)
{
    QFile file(path);
    return file.open(QIODevice::ReadOnly) ? QString::fromUtf8(file.readAll()) : QStringLiteral("<missing>");
}

void write(const QString &path, const QString &text)
{
    QFile file(path);
    ASSERT_TRUE(file.open(QIODevice::WriteOnly));
    file.write(text.toUtf8());
}

TEST(LogFile, RotatesFiveGenerations)
{
    QTemporaryDir dir;
    const QString log = dir.filePath(QStringLiteral("app.log"));
    {
        LogFile first(log);
        first << "only";
    }
    EXPECT_EQ(QDir(dir.path()).entryList(QDir::Files), QStringList({"app.log"}));
    EXPECT_EQ(contents(log), QStringLiteral("only"));

    for (int n = 1; n <= 5; ++n)
        write(dir.filePath(QStringLiteral("app.%1.log").arg(n)), QString::number(n));
    {
        LogFile second(log);
        second << "new " << 42;
    }
    EXPECT_EQ(contents(log), QStringLiteral("new 42"));
    EXPECT_EQ(contents(dir.filePath(QStringLiteral("app.1.log"))), QStringLiteral("only"));
    for (int n = 2; n <= 5; ++n)
        EXPECT_EQ(contents(dir.filePath(QStringLiteral("app.%1.log").arg(n))), QString::number(n - 1));
    EXPECT_EQ(QDir(dir.path()).entryList(QDir::Files).size(), 6);
}

TEST(LogFile, ANameWithoutSuffixAndTheTimestamp)
{
    QTemporaryDir dir;
    write(dir.filePath(QStringLiteral("log")), QStringLiteral("old"));
    { LogFile log(dir.filePath(QStringLiteral("log"))); }
    EXPECT_EQ(contents(dir.filePath(QStringLiteral("log.1."))), QStringLiteral("old"));
    const QString stamp = LogFile::timestamp();
    EXPECT_TRUE(QRegularExpression(QStringLiteral("^\\d\\d:\\d\\d:\\d\\d\\.\\d\\d\\d$")).match(stamp).hasMatch())
        << stamp.toStdString();
}

} // namespace
