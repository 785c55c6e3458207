// The shared workloads W1..W8 and W10: a data generator that any store can replay,
// and the harness that times each run in a child process of its own.
//
// Anyone can run the same operations with another store: the generator is
// SplitMix64 with one stream per purpose, and each row, update, lookup and
// batch is drawn from its stream in a fixed order.

#ifndef DATABASE_BENCH_WORKLOAD_H
#define DATABASE_BENCH_WORKLOAD_H

#include <cstdint>
#include <functional>
#include <string>
#include <vector>

namespace workload {

enum Stream : std::uint64_t { Rows = 1, Updates = 2, Lookups = 3, Batches = 4, Symbols = 5, Pricing = 6, Bytes = 7 };

class SplitMix64
{
public:
    explicit SplitMix64(std::uint64_t stream) : m_state(0x5EEDC0DE2024ULL + stream) {}
    std::uint64_t next()
    {
        std::uint64_t z = (m_state += 0x9E3779B97F4A7C15ULL);
        z = (z ^ (z >> 30)) * 0xBF58476D1CE4E5B9ULL;
        z = (z ^ (z >> 27)) * 0x94D049BB133111EBULL;
        return z ^ (z >> 31);
    }
    // Uniform in [0, n): the high word of next() x n.
    std::uint64_t below(std::uint64_t n)
    {
        return static_cast<std::uint64_t>((static_cast<unsigned __int128>(next()) * n) >> 64);
    }
    double unit() { return static_cast<double>(next() >> 11) * 0x1.0p-53; }

private:
    std::uint64_t m_state;
};

// SplitMix64's finaliser.
inline std::uint64_t mix(std::uint64_t z)
{
    z = (z ^ (z >> 30)) * 0xBF58476D1CE4E5B9ULL;
    z = (z ^ (z >> 27)) * 0x94D049BB133111EBULL;
    return z ^ (z >> 31);
}

// The unique, scattered key of row x - 1 (x counts from 1).
inline std::int64_t keyOf(std::uint64_t x)
{
    const std::uint64_t m = (1ULL << 63) - 1;
    x &= m;
    x ^= x >> 31;
    x = x * 0x9E3779B97F4A7C15ULL & m;
    x ^= x >> 29;
    x = x * 0xBF58476D1CE4E5B9ULL & m;
    x ^= x >> 32;
    return static_cast<std::int64_t>(x);
}

inline double drawPrice(SplitMix64 &random)
{
    return static_cast<double>(10000 + random.below(10000)) / 100.0;
}

constexpr std::int64_t FirstStamp = 1700000000000LL;
constexpr int SymbolLength = 12;

struct Row
{
    std::int64_t key;
    double price;
    std::int32_t qty;
    char symbol[SymbolLength];
    std::int64_t ts;
};

// Draws rows from the rows stream in order; row i must be drawn i-th.
class RowSource
{
public:
    RowSource();
    Row row(std::uint64_t i);

private:
    SplitMix64 m_random;
    std::vector<std::string> m_pool;
};

// The first n rows, drawn from a fresh rows stream.
std::vector<Row> drawRows(int n);

// W2: N price updates of random existing rows.
struct Update
{
    std::uint64_t row;
    std::int64_t key;
    double price;
};
std::vector<Update> updates(int n);
// The first n rows as W3 and W4 find them: with W2's updates applied.
std::vector<Row> updatedRows(int n);
// W3: N keys of random existing rows.
std::vector<std::int64_t> lookups(int n);

// W4: 100 batches of 10,000 changes over a table of n rows.
struct Change
{
    enum Kind { Update, Insert, Remove } kind;
    std::int64_t key; // the row updated or removed; the new row's key
    double price;     // updates
    std::uint64_t row; // inserts: the row number to draw
};
constexpr int BatchCount = 100;
constexpr int BatchUpdates = 4000, BatchInserts = 3000, BatchRemovals = 3000;
// The changes, batch after batch, and in `inserted` the inserted rows, drawn
// from the rows stream after the first n.
std::vector<std::vector<Change>> batches(int n, std::vector<Row> &inserted);

// W8: option quotes on a futures price F, with time to expiry T in years,
// volatility sigma (a fraction) and strike K, drawn in this order.
struct Quote
{
    double F, T, sigma, K;
};
std::vector<Quote> quotes(int count);
// W8 prices n quotes and finds the implied volatility of n / 10.
constexpr int ImpliedShare = 10;

// The order-independent digest W4 prints: rows, the sum of prices in cents,
// and the sum over rows of mix(key * 31 + cents).
struct Digest
{
    std::uint64_t rows = 0;
    std::int64_t cents = 0;
    std::uint64_t hash = 0;
    void add(std::int64_t key, double price)
    {
        const std::int64_t c = static_cast<std::int64_t>(price * 100.0 + (price >= 0 ? 0.5 : -0.5));
        ++rows;
        cents += c;
        hash += mix(static_cast<std::uint64_t>(key) * 31 + static_cast<std::uint64_t>(c));
    }
    std::string text() const;
};

struct Result;
// W8: the timed loop of `price` over the first `count` quotes; the check is
// the sum of the prices.
Result pricingRun(int count, const std::function<double(const Quote &)> &price);
// W8: the implied volatility (a fraction) of each quote's price, the prices
// worked out untimed by `price`; the check is the largest error against the
// quote's volatility and the number of failures (answers below 0).
Result impliedRun(int count, const std::function<double(const Quote &)> &price,
                  const std::function<double(const Quote &, double price)> &implied);

// One timed run: seconds of the measured part, items processed, and a check
// text that must agree between stores (a sum, a digest).
struct Result
{
    double seconds = 0;
    double items = 0;
    std::string check;
    double bytesPerRow = 0; // W1 only: resident bytes per row afterwards
};

struct Entry
{
    std::string workload; // W1 .. W7, W6-save, W6-load
    std::string peer;     // "database batch", "absl btree", ...
    std::string unit;     // what items count
    std::function<Result(int n)> run;
};

// Runs `entry` once in a child process and reports what it measured;
// seconds < 0 when the child failed.
Result runIsolated(const Entry &entry, int n);

struct Summary
{
    double median = 0, min = 0, max = 0, items = 0, bytesPerRow = 0;
    int reps = 0;
    std::string check;
};
Summary summarize(std::vector<Result> results);

// Resident set size of this process in bytes (after returning freed heap
// memory to the system, so that it counts what is live).
double residentBytes();

// Merges the small blocks freed so far into the heap's free space, keeping
// it all with the process. Called before a timed part that follows a large
// free (a million rows): the first allocation of a large block would
// otherwise do it, inside the timing or before it by chance.
void settleHeap();

// A scratch folder for W6 files, removed by the caller.
std::string scratchFolder();

// Command line shared by the programs: --n N, --reps R, --filter TEXT,
// --out FILE.
struct Options
{
    int n = 1000000;
    int reps = 3;
    std::string filter;
    std::string out;
};
Options parseOptions(int argc, char **argv);
bool selected(const Options &options, const Entry &entry);

} // namespace workload

#endif // DATABASE_BENCH_WORKLOAD_H
