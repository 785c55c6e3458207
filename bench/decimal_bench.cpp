// Decimal comparison is on the hot path of every sorted index over a Decimal
// column; parsing and printing are on the path of every file and grid.

#include <database/decimal.h>

#include <QtCore/QStringList>

#include <benchmark/benchmark.h>

#include <random>
#include <vector>

namespace {

std::vector<decimal> randomDecimals(size_t count, bool mixedScales)
{
    std::mt19937_64 random(7);
    std::vector<decimal> values;
    values.reserve(count);
    for (size_t i = 0; i < count; ++i) {
        const long long mantissa = static_cast<long long>(random() % 2000000) - 1000000;
        const short scale = mixedScales ? static_cast<short>(random() % 6) : 2;
        values.emplace_back(mantissa, scale);
    }
    return values;
}

} // namespace

static void BM_DecimalCompare(benchmark::State &state)
{
    const std::vector<decimal> values = randomDecimals(4096, state.range(0) != 0);
    size_t i = 0;
    for (auto _ : state) {
        benchmark::DoNotOptimize(values[i & 4095].compare(values[(i + 1) & 4095]));
        ++i;
    }
}
BENCHMARK(BM_DecimalCompare)->ArgName("mixedScales")->Arg(0)->Arg(1);

static void BM_DecimalAdd(benchmark::State &state)
{
    const std::vector<decimal> values = randomDecimals(4096, true);
    decimal total;
    size_t i = 0;
    for (auto _ : state) {
        total += values[i++ & 4095];
        benchmark::DoNotOptimize(total);
    }
}
BENCHMARK(BM_DecimalAdd);

static void BM_DecimalFromString(benchmark::State &state)
{
    const QStringList texts = {QStringLiteral("101.25"), QStringLiteral("-7"), QStringLiteral("0.005"),
                               QStringLiteral("15e2")};
    int i = 0;
    for (auto _ : state)
        benchmark::DoNotOptimize(decimal::fromString(texts[i++ & 3]));
}
BENCHMARK(BM_DecimalFromString);

static void BM_DecimalToString(benchmark::State &state)
{
    const std::vector<decimal> values = randomDecimals(4096, true);
    size_t i = 0;
    for (auto _ : state)
        benchmark::DoNotOptimize(values[i++ & 4095].toString());
}
BENCHMARK(BM_DecimalToString);
