#include "exception.h"

#include <QtCore/QCoreApplication>
#include <QtCore/QDebug>

#include <cxxabi.h>
#include <dlfcn.h>
#include <execinfo.h>

#include <algorithm>
#include <cstdlib>

Exception::Exception(const QString &message)
    : message(message)
    , stack(getStack())
{
}

Exception::~Exception()
{
    dump();
}

void Exception::dump() const
{
    const QMessageLogger logger("src/database/exception", 0, "void __cdecl Exception::dump(void) const");
    for (const QString &line : stack)
        logger.debug("%s", qUtf8Printable(line));
}

namespace {

QString demangled(const char *symbol)
{
    int status = 0;
    char *name = abi::__cxa_demangle(symbol, nullptr, nullptr, &status);
    if (status != 0 || !name)
        return QString::fromLatin1(symbol);
    const QString result = QString::fromLatin1(name);
    std::free(name);
    return result;
}

} // namespace

// Kept out of line so that it is a frame of its own, which is not shown.
__attribute__((noinline)) QStringList Exception::getStack()
{
    // Line 1 is the frame that called this function. Usually that is
    // frame 1, but an interposed backtrace() (a sanitizer's) adds frames of
    // its own in front: find the caller by its return address.
    enum { MaxLines = 31, Extra = 8 };
    void *frames[MaxLines + 1 + Extra];
    const int count = backtrace(frames, MaxLines + 1 + Extra);
    void *const caller = __builtin_extract_return_addr(__builtin_return_address(0));
    int first = 1;
    for (int i = 0; i < count && i <= Extra + 1; ++i) {
        if (frames[i] == caller) {
            first = i;
            break;
        }
    }
    const int last = std::min(count, first + MaxLines);

    QStringList lines;
    const QString application = QCoreApplication::applicationName();
    // Like a symbol record reused across lookups: a frame without a symbol
    // keeps what the previous frame found.
    quintptr address = 0;
    QString name;
    for (int i = first; i < last; ++i) {
        Dl_info info;
        if (dladdr(frames[i], &info) && info.dli_sname) {
            address = reinterpret_cast<quintptr>(info.dli_saddr);
            name = demangled(info.dli_sname);
        }
        const int number = i - first + 1;
        lines.append(QStringLiteral("%1 %2 0x%3 %4")
                         .arg(QStringLiteral("%1").arg(number, -3), QStringLiteral("%1").arg(application, -35),
                              QStringLiteral("%1").arg(address, 8, 16, QLatin1Char('0')), name));
    }
    return lines;
}
