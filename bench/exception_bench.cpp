// What an Exception costs: the stack is captured and named at every
// construction, and the lines go to the Qt log when it is destroyed.

#include <database/exception.h>

#include <QtCore/QtGlobal>

#include <benchmark/benchmark.h>

namespace {

void quiet(QtMsgType, const QMessageLogContext &, const QString &) {}

__attribute__((noinline)) void throwIt(int depth)
{
    if (depth > 0) {
        throwIt(depth - 1);
        asm volatile("");
    } else {
        throw Exception(QStringLiteral("Incorrect type conversion."));
    }
}

} // namespace

// A throw and catch from `depth` frames down, the stack named and logged.
static void BM_ThrowAndCatch(benchmark::State &state)
{
    const QtMessageHandler previous = qInstallMessageHandler(quiet);
    int lines = 0;
    for (auto _ : state) {
        try {
            throwIt(static_cast<int>(state.range(0)));
        } catch (const Exception &e) {
            lines = e.stack.size();
        }
    }
    qInstallMessageHandler(previous);
    state.counters["frames"] = lines;
}
BENCHMARK(BM_ThrowAndCatch)->Arg(0)->Arg(20)->Unit(benchmark::kMicrosecond);
