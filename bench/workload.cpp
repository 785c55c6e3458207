#include "workload.h"

#include <malloc.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <chrono>
#include <cmath>
#include <cinttypes>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <fstream>
#include <stdexcept>

namespace workload {

RowSource::RowSource() : m_random(Rows)
{
    SplitMix64 symbols(Symbols);
    m_pool.reserve(1000);
    for (int s = 0; s < 1000; ++s) {
        std::string symbol(SymbolLength, 'A');
        for (char &c : symbol)
            c = static_cast<char>('A' + symbols.below(26));
        m_pool.push_back(symbol);
    }
}

Row RowSource::row(std::uint64_t i)
{
    Row row;
    row.key = keyOf(i + 1);
    row.price = drawPrice(m_random);
    row.qty = static_cast<std::int32_t>(1 + m_random.below(1000));
    std::memcpy(row.symbol, m_pool[m_random.below(1000)].data(), SymbolLength);
    row.ts = FirstStamp + 10 * static_cast<std::int64_t>(i);
    return row;
}

std::vector<Row> drawRows(int n)
{
    RowSource source;
    std::vector<Row> rows(static_cast<size_t>(n));
    for (int i = 0; i < n; ++i)
        rows[static_cast<size_t>(i)] = source.row(static_cast<std::uint64_t>(i));
    return rows;
}

std::vector<Update> updates(int n)
{
    SplitMix64 random(Updates);
    std::vector<Update> result(static_cast<size_t>(n));
    for (Update &u : result) {
        u.row = random.below(static_cast<std::uint64_t>(n));
        u.key = keyOf(u.row + 1);
        u.price = drawPrice(random);
    }
    return result;
}

std::vector<Row> updatedRows(int n)
{
    std::vector<Row> rows = drawRows(n);
    for (const Update &u : updates(n))
        rows[u.row].price = u.price;
    return rows;
}

std::vector<std::int64_t> lookups(int n)
{
    SplitMix64 random(Lookups);
    std::vector<std::int64_t> result(static_cast<size_t>(n));
    for (std::int64_t &key : result)
        key = keyOf(random.below(static_cast<std::uint64_t>(n)) + 1);
    return result;
}

std::vector<Quote> quotes(int count)
{
    SplitMix64 random(Pricing);
    std::vector<Quote> result(static_cast<size_t>(count));
    for (Quote &q : result) {
        q.F = 50 + 100 * random.unit();
        q.T = 7.0 / 365 + (2 - 7.0 / 365) * random.unit();
        q.sigma = 0.1 + 0.7 * random.unit();
        q.K = q.F * std::exp((-2 + 4 * random.unit()) * q.sigma * std::sqrt(q.T));
    }
    return result;
}

namespace {

using PricingClock = std::chrono::steady_clock;

double secondsSince(PricingClock::time_point start)
{
    return std::chrono::duration<double>(PricingClock::now() - start).count();
}

} // namespace

Result pricingRun(int count, const std::function<double(const Quote &)> &price)
{
    const std::vector<Quote> all = quotes(count);
    const auto start = PricingClock::now();
    double sum = 0;
    for (const Quote &q : all)
        sum += price(q);
    const double seconds = secondsSince(start);
    char check[48];
    std::snprintf(check, sizeof check, "sum %.6f", sum);
    return {seconds, static_cast<double>(count), check};
}

Result impliedRun(int count, const std::function<double(const Quote &)> &price,
                  const std::function<double(const Quote &, double price)> &implied)
{
    const std::vector<Quote> all = quotes(count);
    std::vector<double> prices;
    prices.reserve(all.size());
    for (const Quote &q : all)
        prices.push_back(price(q));
    std::vector<double> answers(all.size());
    const auto start = PricingClock::now();
    for (size_t i = 0; i < all.size(); ++i)
        answers[i] = implied(all[i], prices[i]);
    const double seconds = secondsSince(start);
    double worst = 0;
    int failed = 0;
    for (size_t i = 0; i < all.size(); ++i) {
        if (answers[i] < 0)
            ++failed;
        else
            worst = std::max(worst, std::fabs(answers[i] - all[i].sigma));
    }
    char check[64];
    std::snprintf(check, sizeof check, "max error %.1e, failed %d", worst, failed);
    return {seconds, static_cast<double>(count), check};
}

std::vector<std::vector<Change>> batches(int n, std::vector<Row> &inserted)
{
    RowSource rows;
    for (int i = 0; i < n; ++i)
        rows.row(static_cast<std::uint64_t>(i)); // the stream goes on after the table's rows
    SplitMix64 random(Batches);
    std::vector<std::int64_t> live(static_cast<size_t>(n));
    for (int i = 0; i < n; ++i)
        live[static_cast<size_t>(i)] = keyOf(static_cast<std::uint64_t>(i) + 1);
    std::uint64_t nextRow = static_cast<std::uint64_t>(n);
    std::vector<std::vector<Change>> result(BatchCount);
    for (std::vector<Change> &batch : result) {
        std::vector<Change::Kind> kinds;
        kinds.insert(kinds.end(), BatchUpdates, Change::Update);
        kinds.insert(kinds.end(), BatchInserts, Change::Insert);
        kinds.insert(kinds.end(), BatchRemovals, Change::Remove);
        for (size_t i = kinds.size() - 1; i > 0; --i)
            std::swap(kinds[i], kinds[random.below(i + 1)]);
        batch.reserve(kinds.size());
        for (const Change::Kind kind : kinds) {
            Change change{kind, 0, 0, 0};
            switch (kind) {
            case Change::Update:
                change.key = live[random.below(live.size())];
                change.price = drawPrice(random);
                break;
            case Change::Insert:
                change.row = nextRow;
                inserted.push_back(rows.row(nextRow++));
                change.key = inserted.back().key;
                live.push_back(change.key);
                break;
            case Change::Remove: {
                const size_t at = random.below(live.size());
                change.key = live[at];
                live[at] = live.back();
                live.pop_back();
                break;
            }
            }
            batch.push_back(change);
        }
    }
    return result;
}

std::string Digest::text() const
{
    char text[96];
    std::snprintf(text, sizeof text, "%" PRIu64 " %" PRId64 " %" PRIx64, rows, cents, hash);
    return text;
}

namespace {

void writeAll(int fd, const void *data, size_t size)
{
    const char *p = static_cast<const char *>(data);
    while (size > 0) {
        const ssize_t n = ::write(fd, p, size);
        if (n <= 0)
            return;
        p += n;
        size -= static_cast<size_t>(n);
    }
}

std::string readAll(int fd)
{
    std::string text;
    char buffer[4096];
    ssize_t n;
    while ((n = ::read(fd, buffer, sizeof buffer)) > 0)
        text.append(buffer, static_cast<size_t>(n));
    return text;
}

} // namespace

Result runIsolated(const Entry &entry, int n)
{
    int fds[2];
    if (::pipe(fds) != 0)
        throw std::runtime_error("pipe");
    std::fflush(nullptr);
    const pid_t child = ::fork();
    if (child == 0) {
        ::close(fds[0]);
        Result result = entry.run(n);
        char head[128];
        std::snprintf(head, sizeof head, "%.9g %.9g %.9g\n", result.seconds, result.items, result.bytesPerRow);
        writeAll(fds[1], head, std::strlen(head));
        writeAll(fds[1], result.check.data(), result.check.size());
        ::close(fds[1]);
        std::fflush(nullptr);
        ::_exit(0);
    }
    ::close(fds[1]);
    const std::string text = readAll(fds[0]);
    ::close(fds[0]);
    int status = 0;
    ::waitpid(child, &status, 0);
    Result result;
    result.seconds = -1;
    if (!WIFEXITED(status) || WEXITSTATUS(status) != 0)
        return result;
    const size_t newline = text.find('\n');
    if (newline == std::string::npos
        || std::sscanf(text.c_str(), "%lf %lf %lf", &result.seconds, &result.items, &result.bytesPerRow) != 3) {
        result.seconds = -1;
        return result;
    }
    result.check = text.substr(newline + 1);
    return result;
}

Summary summarize(std::vector<Result> results)
{
    Summary s;
    results.erase(std::remove_if(results.begin(), results.end(), [](const Result &r) { return r.seconds < 0; }),
                  results.end());
    s.reps = static_cast<int>(results.size());
    if (results.empty())
        return s;
    std::sort(results.begin(), results.end(), [](const Result &a, const Result &b) { return a.seconds < b.seconds; });
    const Result &median = results[results.size() / 2];
    s.median = median.seconds;
    s.min = results.front().seconds;
    s.max = results.back().seconds;
    s.items = median.items;
    s.bytesPerRow = median.bytesPerRow;
    s.check = median.check;
    return s;
}

void settleHeap()
{
    // Any mallopt() call first merges the main arena's fast blocks; this one
    // sets the fast block limit to its default, which changes nothing else.
    ::mallopt(M_MXFAST, 64 * static_cast<int>(sizeof(std::size_t)) / 4);
}

double residentBytes()
{
    ::malloc_trim(0);
    std::ifstream statm("/proc/self/statm");
    double size = 0, resident = 0;
    statm >> size >> resident;
    return resident * static_cast<double>(::sysconf(_SC_PAGESIZE));
}

std::string scratchFolder()
{
    char pattern[] = "/tmp/database-bench-XXXXXX";
    const char *made = ::mkdtemp(pattern);
    if (!made)
        throw std::runtime_error("mkdtemp");
    return made;
}

Options parseOptions(int argc, char **argv)
{
    Options options;
    for (int i = 1; i < argc; ++i) {
        const std::string arg = argv[i];
        auto value = [&]() -> std::string {
            if (i + 1 >= argc) {
                std::fprintf(stderr, "%s needs a value\n", arg.c_str());
                std::exit(2);
            }
            return argv[++i];
        };
        if (arg == "--n")
            options.n = std::max(1000, std::atoi(value().c_str()));
        else if (arg == "--reps")
            options.reps = std::max(1, std::atoi(value().c_str()));
        else if (arg == "--filter")
            options.filter = value();
        else if (arg == "--out")
            options.out = value();
        else {
            std::printf("usage: %s [--n ROWS] [--reps R] [--filter TEXT] [--out FILE]\n"
                        "  --n       rows of the table (default 1000000)\n"
                        "  --reps    repetitions, each in a child process; the median is reported (default 3)\n"
                        "  --filter  only the workloads whose name or peer contains TEXT\n"
                        "  --out     the results file (tab-separated)\n",
                        argv[0]);
            std::exit(arg == "--help" || arg == "-h" ? 0 : 2);
        }
    }
    return options;
}

bool selected(const Options &options, const Entry &entry)
{
    return options.filter.empty() || entry.workload == options.filter
        || (entry.workload + " " + entry.peer).find(options.filter) != std::string::npos;
}

} // namespace workload
