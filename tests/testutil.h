#ifndef DATABASE_TESTS_TESTUTIL_H
#define DATABASE_TESTS_TESTUTIL_H

#include <QtCore/QString>
#include <QtCore/QStringList>

#include <ostream>

// Collects every Qt log message while it is alive.
class MessageCapture
{
public:
    MessageCapture();
    ~MessageCapture();
    MessageCapture(const MessageCapture &) = delete;
    MessageCapture &operator=(const MessageCapture &) = delete;

    QStringList messages;
};

// Lets GoogleTest print QStrings in failure messages.
inline void PrintTo(const QString &text, std::ostream *os)
{
    *os << '"' << text.toStdString() << '"';
}

#endif // DATABASE_TESTS_TESTUTIL_H
