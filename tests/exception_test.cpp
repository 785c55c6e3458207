#include "testutil.h"

#include <database/exception.h>

#include <QtCore/QCoreApplication>
#include <QtCore/QRegularExpression>

#include <gtest/gtest.h>

namespace {

__attribute__((noinline)) void throwFrom(const QString &message)
{
    throw Exception(message);
}

} // namespace

TEST(Exception, CarriesItsMessageThroughAThrow)
{
    try {
        throwFrom(QStringLiteral("Column name can't be empty."));
        FAIL() << "not thrown";
    } catch (const Exception &e) {
        EXPECT_EQ(e.message, QStringLiteral("Column name can't be empty."));
        EXPECT_FALSE(e.stack.isEmpty());
    }
}

TEST(Exception, StackLinesKeepTheirLayout)
{
    const Exception e(QStringLiteral("x"));
    ASSERT_FALSE(e.stack.isEmpty());
    EXPECT_LE(e.stack.size(), 31);
    const QString application = QCoreApplication::applicationName().leftJustified(35);
    const QRegularExpression layout(QStringLiteral("^(\\d+) +(.{35}) 0x([0-9a-f]{8,}) (.*)$"));
    for (int i = 0; i < e.stack.size(); ++i) {
        const QString &line = e.stack[i];
        SCOPED_TRACE(line.toStdString());
        const QRegularExpressionMatch match = layout.match(line);
        ASSERT_TRUE(match.hasMatch());
        EXPECT_EQ(match.captured(1).toInt(), i + 1);
        EXPECT_EQ(line.left(3), QString::number(i + 1).leftJustified(3));
        EXPECT_EQ(match.captured(2), application);
    }
    // The capturing function is skipped: the innermost line is the constructor,
    // demangled.
    EXPECT_TRUE(e.stack.first().endsWith(QStringLiteral("Exception::Exception(QString const&)")))
        << e.stack.first().toStdString();
}

TEST(Exception, CopiesKeepTheLinesAndEachDumpsThem)
{
    MessageCapture capture;
    QStringList lines;
    {
        const Exception original(QStringLiteral("copied"));
        lines = original.stack;
        const Exception copy(original);
        EXPECT_EQ(copy.message, original.message);
        EXPECT_EQ(copy.stack, original.stack);
        Exception assigned(QStringLiteral("other"));
        assigned = original;
        EXPECT_EQ(assigned.stack, original.stack);
        capture.messages.clear();
    }
    EXPECT_EQ(capture.messages, lines + lines + lines);
}

TEST(Exception, DumpWritesOnlyTheStack)
{
    const Exception e(QStringLiteral("not logged"));
    MessageCapture capture;
    e.dump();
    EXPECT_EQ(capture.messages, e.stack);
}
