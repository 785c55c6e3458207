// Shared by the fuzz targets: a quiet Qt log, and the rule that only the
// kinds of exception the interface names may leave the library.

#ifndef DATABASE_FUZZ_FUZZCOMMON_H
#define DATABASE_FUZZ_FUZZCOMMON_H

#include <database/exception.h>

#include <QtCore/QString>
#include <QtCore/QtGlobal>

#include <cstddef>
#include <cstdint>
#include <cstdlib>

namespace fuzz {

inline void quiet(QtMsgType type, const QMessageLogContext &, const QString &message)
{
    // Fatal messages are assertion failures: let them stop the run.
    if (type == QtFatalMsg) {
        fprintf(stderr, "%s\n", qPrintable(message));
        abort();
    }
}

inline void setUp()
{
    static const bool done = [] {
        qInstallMessageHandler(quiet);
        return true;
    }();
    (void)done;
}

// Runs `body`; an exception of a kind the library documents is an expected
// outcome, anything else escapes and stops the fuzzer.
template <typename Body>
void documented(Body body)
{
    try {
        body();
    } catch (const Exception &) {
    } catch (const QString &) {
    } catch (const char *) {
    }
}

inline QString text(const uint8_t *data, size_t size)
{
    return QString::fromUtf8(reinterpret_cast<const char *>(data), static_cast<int>(size));
}

} // namespace fuzz

#endif // DATABASE_FUZZ_FUZZCOMMON_H
