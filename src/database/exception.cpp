#include "exception.h"

#include <QtCore/QCoreApplication>
#include <QtCore/QDebug>
#include <QtCore/QHash>
#include <QtCore/QMutex>

#include <elfutils/libdwfl.h>

#include <cxxabi.h>
#include <dlfcn.h>
#include <link.h>
#include <execinfo.h>
#include <unistd.h>

#include <algorithm>
#include <cstddef>
#include <cstdlib>
#include <type_traits>

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

// Names code addresses the way a debugger does: from the full symbol tables
// of the executable and of every loaded library (static and hidden
// functions too), read through elfutils' libdwfl. libdw is opened at run
// time, so a machine without it falls back to the dynamic symbols. One
// session serves the whole process; a module loaded after it was made is
// found by reporting the modules again.
class Symbolizer
{
public:
    static Symbolizer &instance()
    {
        static Symbolizer symbolizer;
        return symbolizer;
    }

    // The start address and demangled name of the function holding `pc`;
    // false when libdw is absent or knows no symbol there.
    bool lookup(quintptr pc, quintptr *start, QString *name)
    {
        QMutexLocker locker(&m_mutex);
        if (!m_session)
            return false;
        // libdwfl scans a module's symbol table for each address: answers
        // are kept, so that a throw in a loop pays for its frames once.
        const auto known = m_known.constFind(pc);
        if (known != m_known.constEnd()) {
            *start = known->start;
            *name = known->name;
            return !known->name.isNull();
        }
        Dwfl_Module *module = m_addrmodule(m_session, pc);
        if (!module && modulesChanged()) {
            // What was learnt of unloaded libraries may be wrong now.
            m_known.clear();
            if (report())
                module = m_addrmodule(m_session, pc);
        }
        Symbol symbol;
        GElf_Off offset = 0;
        GElf_Sym elfSymbol;
        const char *found = module ? m_addrinfo(module, pc, &offset, &elfSymbol, nullptr, nullptr, nullptr) : nullptr;
        if (found) {
            symbol.start = pc - offset;
            symbol.name = demangled(found);
        }
        if (m_known.size() >= MaxKnown)
            m_known.clear();
        m_known.insert(pc, symbol);
        *start = symbol.start;
        *name = symbol.name;
        return found != nullptr;
    }

private:
    Symbolizer()
    {
        m_library = dlopen("libdw.so.1", RTLD_NOW | RTLD_LOCAL);
        if (!m_library)
            return;
        const auto resolve = [this](auto &function, const char *symbol) {
            function = reinterpret_cast<std::remove_reference_t<decltype(function)>>(dlsym(m_library, symbol));
            return function != nullptr;
        };
        bool ok = resolve(m_begin, "dwfl_begin") && resolve(m_reportBegin, "dwfl_report_begin")
            && resolve(m_procReport, "dwfl_linux_proc_report") && resolve(m_reportEnd, "dwfl_report_end")
            && resolve(m_addrmodule, "dwfl_addrmodule") && resolve(m_addrinfo, "dwfl_module_addrinfo")
            && resolve(m_callbacks.find_elf, "dwfl_linux_proc_find_elf")
            && resolve(m_callbacks.find_debuginfo, "dwfl_standard_find_debuginfo");
        if (ok) {
            m_callbacks.section_address = nullptr;
            m_callbacks.debuginfo_path = &m_debuginfoPath;
            m_session = m_begin(&m_callbacks);
        }
        if (m_session && !report())
            m_session = nullptr; // left to the process's end, like the library
        modulesChanged();
    }

    struct Symbol
    {
        quintptr start = 0;
        QString name; // null: no symbol
    };
    enum { MaxKnown = 65536 };

    // Whether libraries were loaded or unloaded since the last report: the
    // dynamic linker counts both.
    bool modulesChanged()
    {
        unsigned long long counts[2] = {0, 0};
        dl_iterate_phdr(
            [](dl_phdr_info *info, size_t size, void *data) {
                auto *out = static_cast<unsigned long long *>(data);
                if (size >= offsetof(dl_phdr_info, dlpi_subs) + sizeof info->dlpi_subs) {
                    out[0] = info->dlpi_adds;
                    out[1] = info->dlpi_subs;
                }
                return 1;
            },
            counts);
        const bool changed = counts[0] != m_adds || counts[1] != m_subs;
        m_adds = counts[0];
        m_subs = counts[1];
        return changed;
    }

    // The modules of this process, afresh.
    bool report()
    {
        m_reportBegin(m_session);
        const bool ok = m_procReport(m_session, getpid()) == 0;
        m_reportEnd(m_session, nullptr, nullptr);
        return ok;
    }

    QMutex m_mutex; // libdwfl sessions are not thread-safe
    void *m_library = nullptr;
    Dwfl *m_session = nullptr;
    char *m_debuginfoPath = nullptr;
    Dwfl_Callbacks m_callbacks{};
    decltype(&dwfl_begin) m_begin = nullptr;
    decltype(&dwfl_report_begin) m_reportBegin = nullptr;
    decltype(&dwfl_linux_proc_report) m_procReport = nullptr;
    decltype(&dwfl_report_end) m_reportEnd = nullptr;
    decltype(&dwfl_addrmodule) m_addrmodule = nullptr;
    decltype(&dwfl_module_addrinfo) m_addrinfo = nullptr;
    unsigned long long m_adds = 0;
    unsigned long long m_subs = 0;
    QHash<quintptr, Symbol> m_known;
};

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
    Symbolizer &symbolizer = Symbolizer::instance();
    for (int i = first; i < last; ++i) {
        // A return address may already lie past its function (after a call
        // that does not return): the call itself is one byte before it.
        const quintptr pc = reinterpret_cast<quintptr>(frames[i]) - 1;
        quintptr start = 0;
        QString symbol;
        Dl_info info;
        if (symbolizer.lookup(pc, &start, &symbol)) {
            address = start;
            name = symbol;
        } else if (dladdr(reinterpret_cast<void *>(pc), &info) && info.dli_sname) {
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
