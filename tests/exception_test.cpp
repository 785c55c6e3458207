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

// Neither exported nor visible to the dynamic linker: only the full symbol
// table names it.
static __attribute__((noinline)) void throwThroughStatic(const QString &message)
{
    throwFrom(message);
    asm volatile("");
}

TEST(Exception, CarriesItsMessageThroughAThrow)
{
    try {
        throwThroughStatic(QStringLiteral("Column name can't be empty."));
        FAIL() << "not thrown";
    } catch (const Exception &e) {
        EXPECT_EQ(e.message, QStringLiteral("Column name can't be empty."));
        // Every frame is named, static and anonymous-namespace functions
        // included, innermost first.
        ASSERT_GE(e.stack.size(), 4);
        EXPECT_TRUE(e.stack[0].endsWith(QStringLiteral(" Exception::Exception(QString const&)")))
            << e.stack[0].toStdString();
        // (An optimised build may name a clone: "... [clone .constprop.0]".)
        EXPECT_TRUE(e.stack[1].contains(QStringLiteral(" (anonymous namespace)::throwFrom(QString const&)")))
            << e.stack[1].toStdString();
        EXPECT_TRUE(e.stack[2].contains(QStringLiteral(" throwThroughStatic(QString const&)")))
            << e.stack[2].toStdString();
        EXPECT_NE(e.stack[1].mid(40, 18), e.stack[2].mid(40, 18)); // addresses differ too
    }
}

__attribute__((noinline)) Exception deep(int depth)
{
    if (depth == 0)
        return Exception(QStringLiteral("deep"));
    Exception e = deep(depth - 1);
    asm volatile("");
    return e;
}

TEST(Exception, StackLinesKeepTheirLayout)
{
    EXPECT_EQ(deep(40).stack.size(), 31); // the cap, however deep the throw
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
