// The workloads W1..W8 and W10 on the library.

#ifndef DATABASE_BENCH_WORKLOAD_DATABASE_H
#define DATABASE_BENCH_WORKLOAD_DATABASE_H

#include "workload.h"

#include <cstddef>
#include <cstdint>
#include <functional>
#include <vector>

namespace workload {

std::vector<Entry> databaseEntries();

// W7: the 256 MiB of the bytes stream, and one timed checksum over it.
std::vector<std::uint64_t> checksumInput();
Result checksumRun(const std::function<std::uint64_t(const char *, std::size_t)> &crc);

} // namespace workload

#endif // DATABASE_BENCH_WORKLOAD_DATABASE_H
