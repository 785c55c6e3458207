#include <database/checksum.h>

#include <benchmark/benchmark.h>

#include <random>
#include <vector>

static void BM_Checksum64(benchmark::State &state)
{
    std::vector<char> buffer(static_cast<size_t>(state.range(0)));
    std::mt19937 random(1);
    for (char &c : buffer)
        c = static_cast<char>(random());
    for (auto _ : state)
        benchmark::DoNotOptimize(qChecksum64(buffer.data(), static_cast<unsigned>(buffer.size())));
    state.SetBytesProcessed(state.iterations() * state.range(0));
}
BENCHMARK(BM_Checksum64)->Arg(64)->Arg(4096)->Arg(1 << 20);
