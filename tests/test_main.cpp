// Shared main of the test programs: a QCoreApplication for the whole run, and
// a message handler that keeps Qt's log quiet unless a test captures it.

#include "testutil.h"

#include <QtCore/QCoreApplication>

#include <gtest/gtest.h>

namespace {

QStringList *capturedMessages = nullptr;

void handleMessage(QtMsgType type, const QMessageLogContext &, const QString &message)
{
    if (capturedMessages) {
        capturedMessages->append(message);
        return;
    }
    // Exceptions log their stack on destruction; that is noise here.
    if (type != QtDebugMsg)
        fprintf(stderr, "%s\n", qPrintable(message));
}

} // namespace

MessageCapture::MessageCapture()
{
    capturedMessages = &messages;
}

MessageCapture::~MessageCapture()
{
    capturedMessages = nullptr;
}

int main(int argc, char **argv)
{
    testing::InitGoogleTest(&argc, argv);
    qInstallMessageHandler(handleMessage);
    QCoreApplication app(argc, argv);
    QCoreApplication::setApplicationName(QStringLiteral("database-tests"));
    return RUN_ALL_TESTS();
}
