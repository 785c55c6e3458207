#ifndef DATABASE_EXCEPTION_H
#define DATABASE_EXCEPTION_H

#include "database_export.h"

#include <QtCore/QString>
#include <QtCore/QStringList>

// The library's exception for schema and field type errors, thrown by value
// and caught by reference. The text parsers throw a bare QString instead,
// and decimal::fromDouble the C string "decimal:overflow".
//
// Construction captures the calling thread's stack; destruction writes it
// to the Qt debug log, one message per line, so every exception leaves a
// trace without the catcher doing anything. Copies keep the captured lines
// and do not capture again (each copy logs them when it dies).
//
// A stack line reads "%1 %2 0x%3 %4": the frame number (from 1, padded to 3),
// the application name (padded to 35), the start address of the frame's
// function (8 hex digits at least) and its demangled name. At most 31 frames
// are kept; the capturing function itself is left out. Frames are named
// from the full symbol tables of the executable and its libraries (static
// and hidden functions included) through libdw when it is installed, else
// from the dynamic symbols only. A frame without a symbol repeats the
// previous frame's address and name (blank for the first). Capturing costs
// a few microseconds per frame (bench/exception_bench.cpp).
class DATABASE_EXPORT Exception
{
public:
    explicit Exception(const QString &message);
    Exception(const Exception &other) = default;
    Exception &operator=(const Exception &other) = default;
    virtual ~Exception();

    // Writes the stack lines as Qt debug messages; the message is not written.
    void dump() const;

    QString message;
    QStringList stack;

private:
    static QStringList getStack();
};

#endif // DATABASE_EXCEPTION_H
