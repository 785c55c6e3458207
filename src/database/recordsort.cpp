#include "recordsort_p.h"

#include "masterindex.h"
#include "parallel_p.h"
#include "sortbatch_p.h"

#include <QtCore/QThreadPool>
#include <QtCore/QVector>

#include <sys/resource.h>
#include <sys/syscall.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <condition_variable>
#include <cstring>
#include <memory>
#include <mutex>
#include <numeric>
#include <system_error>
#include <thread>

namespace recordsort {

// Each item on its own piece: the items are tasks of their own.
template <class Items, class Function>
void mapInParallel(Items &items, Function function)
{
    parallel::forPieces(static_cast<long long>(items.size()), static_cast<int>(items.size()),
                        [&](long long first, long long last) {
                            for (long long i = first; i < last; ++i)
                                function(items[static_cast<size_t>(i)]);
                        });
}

namespace {

// Records are relocated as raw bytes: a move that leaves the reference count
// alone, as the containers do.
inline void relocate(Record *to, const Record *from)
{
    std::memcpy(static_cast<void *>(to), static_cast<const void *>(from), sizeof(Record));
}

// The sequence as a whole: positions count across the segments.
class Sequence
{
public:
    explicit Sequence(const std::vector<Segment> &segments) : m_segments(segments)
    {
        m_starts.reserve(segments.size() + 1);
        long long total = 0;
        for (const Segment &s : segments) {
            m_starts.push_back(total);
            total += s.count;
        }
        m_starts.push_back(total);
    }
    long long size() const { return m_starts.back(); }
    size_t segmentOf(long long position) const
    {
        return static_cast<size_t>(std::upper_bound(m_starts.begin(), m_starts.end(), position) - m_starts.begin())
            - 1;
    }
    const Segment &segment(size_t s) const { return m_segments[s]; }
    long long start(size_t s) const { return m_starts[s]; }
    size_t segmentCount() const { return m_segments.size(); }

private:
    std::vector<Segment> m_segments;
    std::vector<long long> m_starts;
};

// Walks a sequence forwards from a position, a pointer step at a time.
class Forward
{
public:
    Forward(const Sequence &sequence, long long position) : m_sequence(&sequence)
    {
        m_segment = position >= sequence.size() ? sequence.segmentCount() : sequence.segmentOf(position);
        if (m_segment < sequence.segmentCount()) {
            const Segment &s = sequence.segment(m_segment);
            m_at = s.first + (position - sequence.start(m_segment));
            m_end = s.first + s.count;
        }
    }
    Record *get() const { return m_at; }
    // The record `d` steps on, if it lies in the same segment and among
    // the `left` records from here on (the rest of a run: the next run may
    // be another thread's).
    const Record *ahead(int d, long long left) const { return d < left && m_end - m_at > d ? m_at + d : nullptr; }
    void next()
    {
        if (++m_at == m_end && ++m_segment < m_sequence->segmentCount()) {
            const Segment &s = m_sequence->segment(m_segment);
            m_at = s.first;
            m_end = s.first + s.count;
        }
    }

private:
    const Sequence *m_sequence;
    size_t m_segment = 0;
    Record *m_at = nullptr;
    Record *m_end = nullptr;
};

// Walks backwards from the element before a position.
class Backward
{
public:
    Backward(const Sequence &sequence, long long position) : m_sequence(&sequence)
    {
        m_segment = sequence.segmentOf(position - 1);
        const Segment &s = sequence.segment(m_segment);
        m_at = s.first + (position - 1 - sequence.start(m_segment));
        m_first = s.first;
    }
    Record *get() const { return m_at; }
    // The record `d` steps on, if it lies in the same segment and among
    // the `left` records from here on.
    const Record *ahead(int d, long long left) const { return d < left && m_at - m_first >= d ? m_at - d : nullptr; }
    void next()
    {
        if (m_at == m_first) {
            if (m_segment == 0)
                return;
            const Segment &s = m_sequence->segment(--m_segment);
            m_first = s.first;
            m_at = s.first + s.count - 1;
        } else {
            --m_at;
        }
    }

private:
    const Sequence *m_sequence;
    size_t m_segment;
    Record *m_at;
    Record *m_first;
};

struct Run
{
    long long begin;
    long long end;
};

// Merges shorter than this are not worth cutting up for more threads.
constexpr long long MinParallelMerge = 1 << 16;

// Copies n records from a position into `to`.
void copyOut(const Sequence &sequence, long long position, long long n, Record *to)
{
    Forward from(sequence, position);
    for (long long i = 0; i < n; ++i, from.next())
        relocate(to + i, from.get());
}

// How many steps ahead a merge fetches the rows it will compare.
constexpr int Ahead = 16;

// A merge that watches nothing.
struct Unwatched
{
    static constexpr bool readsRows = false;
    void fromFirst(const Record *, long long) {}
    void fromSecond(const Record &, long long) {}
};

// Merges the adjacent sorted runs a and b forwards through a buffer of a;
// returns how many records of b it moved, the rest of b being in place
// already. `watch` is told of each record before it is taken:
// fromFirst(buffer, i) for the first run's i-th, fromSecond(record, taken)
// for the second's. If a comparison throws, the buffered records
// fill the gap the output left before the exception passes on, so that
// the sequence holds each record once.
template <class Watch>
long long mergeForward(const Sequence &sequence, Run a, Run b, const Less &less, Watch &watch)
{
    const long long na = a.end - a.begin;
    const long long nb = b.end - b.begin;
    const size_t reach = rowReach(less.index);
    std::unique_ptr<unsigned char[]> storage(new unsigned char[static_cast<size_t>(na) * sizeof(Record)]);
    Record *buffer = reinterpret_cast<Record *>(storage.get());
    copyOut(sequence, a.begin, na, buffer);
    Forward out(sequence, a.begin);
    Forward right(sequence, b.begin);
    long long left = 0;
    long long taken = 0;
    try {
        while (left < na && taken < nb) {
            // The rows lie anywhere: each step compares one that no cache
            // holds, so the rows a few steps on are fetched in both runs.
            if (left + Ahead < na)
                sortbatch::prefetchRow(buffer[left + Ahead].rowPtr(), reach);
            if (const Record *next = right.ahead(Ahead, nb - taken))
                sortbatch::prefetchRow(next->rowPtr(), reach);
            // Equal keys: the first run's record goes first.
            if (less(*right.get(), buffer[left])) {
                watch.fromSecond(*right.get(), taken);
                relocate(out.get(), right.get());
                right.next();
                ++taken;
            } else {
                watch.fromFirst(buffer, left);
                relocate(out.get(), buffer + left);
                ++left;
            }
            out.next();
        }
        for (; left < na; ++left, out.next()) {
            if (Watch::readsRows && left + Ahead < na)
                sortbatch::prefetchRow(buffer[left + Ahead].rowPtr(), reach);
            watch.fromFirst(buffer, left);
            relocate(out.get(), buffer + left);
        }
    } catch (...) {
        for (; left < na; ++left, out.next())
            relocate(out.get(), buffer + left);
        throw;
    }
    return taken;
}

// Merges the adjacent sorted runs [a.begin, a.end) and [a.end, b.end),
// stably, through a buffer of the shorter one.
void merge(const Sequence &sequence, Run a, Run b, const Less &less)
{
    const long long na = a.end - a.begin;
    const long long nb = b.end - b.begin;
    if (na == 0 || nb == 0)
        return;
    // Already in order: the last of the first run is not above the first of
    // the second.
    if (!less(*Forward(sequence, b.begin).get(), *Backward(sequence, a.end).get()))
        return;
    const size_t reach = rowReach(less.index);
    if (na <= nb) {
        Unwatched unwatched;
        mergeForward(sequence, a, b, less, unwatched);
        return;
    }
    std::unique_ptr<unsigned char[]> storage(new unsigned char[static_cast<size_t>(nb) * sizeof(Record)]);
    Record *buffer = reinterpret_cast<Record *>(storage.get());
    copyOut(sequence, b.begin, nb, buffer);
    Backward out(sequence, b.end);
    Backward left(sequence, a.end);
    long long right = nb - 1;
    long long leftLeft = na;
    try {
        while (right >= 0 && leftLeft > 0) {
            if (right >= Ahead)
                sortbatch::prefetchRow(buffer[right - Ahead].rowPtr(), reach);
            if (const Record *next = left.ahead(Ahead, leftLeft))
                sortbatch::prefetchRow(next->rowPtr(), reach);
            // From the back: the second run's record goes last among equals.
            if (less(buffer[right], *left.get())) {
                relocate(out.get(), left.get());
                left.next();
                --leftLeft;
            } else {
                relocate(out.get(), buffer + right);
                --right;
            }
            out.next();
        }
    } catch (...) {
        for (; right >= 0; --right, out.next())
            relocate(out.get(), buffer + right);
        throw;
    }
    for (; right >= 0; --right, out.next())
        relocate(out.get(), buffer + right);
}

// Whether x may come before y in a run: below it, or equal and before it
// in the order the run's records came (ox, oy).
inline bool comesBefore(const IndexSort *index, const Record &x, const Record &y, quint16 ox, quint16 oy)
{
    const int c = index->compare(x, y);
    return c < 0 || (c == 0 && ox < oy);
}

// Whether the run [run.begin, run.end) is in order, `order` telling where
// each record stood as the run came.
bool runInOrder(const Sequence &sequence, Run run, const quint16 *order, const IndexSort *index)
{
    const size_t reach = rowReach(index);
    Forward previous(sequence, run.begin);
    Forward current(sequence, run.begin + 1);
    bool inOrder = true;
    for (long long k = 1; k < run.end - run.begin && inOrder; ++k, previous.next(), current.next()) {
        if (const Record *next = current.ahead(Ahead, run.end - run.begin - k))
            sortbatch::prefetchRow(next->rowPtr(), reach);
        inOrder = comesBefore(index, *previous.get(), *current.get(), order[k - 1], order[k]);
    }
    return inOrder;
}

// Watches a merge of two runs for a record out of order in its run.
struct RunCheck
{
    static constexpr bool readsRows = true;
    RunCheck(const IndexSort *index, const quint16 *orderA, const quint16 *orderB)
        : index(index), orderA(orderA), orderB(orderB)
    {
    }
    const IndexSort *index;
    const quint16 *orderA;
    const quint16 *orderB;
    bool inOrder = true;
    // The last record taken from b, whose place the output may have
    // taken since.
    alignas(Record) unsigned char lastSecond[sizeof(Record)];

    const Record &previousSecond() const { return *reinterpret_cast<const Record *>(lastSecond); }
    void fromFirst(const Record *buffer, long long i)
    {
        if (inOrder && i > 0)
            inOrder = comesBefore(index, buffer[i - 1], buffer[i], orderA[i - 1], orderA[i]);
    }
    void fromSecond(const Record &record, long long taken)
    {
        if (inOrder && taken > 0)
            inOrder = comesBefore(index, previousSecond(), record, orderB[taken - 1], orderB[taken]);
        relocate(reinterpret_cast<Record *>(lastSecond), &record);
    }
};

// merge() for two runs that were sorted apart from the list, checking on
// the way that each is still in order (orderA, orderB: where each record
// stood as its run came): each record is compared with the one before it
// in its run when the merge takes it, its row just fetched. The merge goes
// to its end either way, so that the list holds each handle once; false if
// a run was out of order.
bool mergeChecked(const Sequence &sequence, Run a, Run b, const quint16 *orderA, const quint16 *orderB,
                  const IndexSort *index)
{
    const Less less{index};
    if (a.end == a.begin || b.end == b.begin
        || !less(*Forward(sequence, b.begin).get(), *Backward(sequence, a.end).get()))
        return runInOrder(sequence, a, orderA, index) && runInOrder(sequence, b, orderB, index);

    RunCheck check(index, orderA, orderB);
    long long taken = mergeForward(sequence, a, b, less, check);

    // The rest of b stayed where it was: only checked.
    const size_t reach = rowReach(index);
    const long long nb = b.end - b.begin;
    const Record *previous = &check.previousSecond();
    for (Forward right(sequence, b.begin + taken); taken < nb && check.inOrder; ++taken, right.next()) {
        if (const Record *next = right.ahead(Ahead, nb - taken))
            sortbatch::prefetchRow(next->rowPtr(), reach);
        // (A comparison that gives different answers may have taken none.)
        if (taken > 0)
            check.inOrder = comesBefore(index, *previous, *right.get(), orderB[taken - 1], orderB[taken]);
        previous = right.get();
    }
    return check.inOrder;
}

// Reverses [begin, end) of the sequence in place.
void reverse(const Sequence &sequence, long long begin, long long end)
{
    if (end - begin < 2)
        return;
    Forward front(sequence, begin);
    Backward back(sequence, end);
    unsigned char spare[sizeof(Record)];
    for (long long k = (end - begin) / 2; k > 0; --k) {
        std::memcpy(spare, static_cast<const void *>(front.get()), sizeof(Record));
        relocate(front.get(), back.get());
        std::memcpy(static_cast<void *>(back.get()), spare, sizeof(Record));
        front.next();
        back.next();
    }
}

// Merges like merge(), cut into `parts` merges that run at once: the first
// half of the output comes from A[0, i) and B[0, j) (i + j = half, ties
// taken from A first, as the merge takes them), so once A[i, na) and
// B[0, j) change places by rotation, the two halves merge independently.
void mergeInParts(const Sequence &sequence, Run a, Run b, const Less &less, int parts)
{
    const long long na = a.end - a.begin;
    const long long nb = b.end - b.begin;
    if (parts < 2 || na + nb < MinParallelMerge || na == 0 || nb == 0) {
        merge(sequence, a, b, less);
        return;
    }
    const long long half = (na + nb) / 2;
    long long lo = std::max(0LL, half - nb);
    long long hi = std::min(na, half);
    while (lo < hi) {
        const long long i = lo + (hi - lo) / 2;
        const long long j = half - i;
        // B[j - 1] not below A[i]: A[i] belongs to the first half too.
        if (j > 0 && !less(*Forward(sequence, b.begin + j - 1).get(), *Forward(sequence, a.begin + i).get()))
            lo = i + 1;
        else
            hi = i;
    }
    const long long i = lo;
    const long long j = half - i;
    // [A0 A1 B0 B1] -> [A0 B0 A1 B1]
    reverse(sequence, a.begin + i, a.end);
    reverse(sequence, b.begin, b.begin + j);
    reverse(sequence, a.begin + i, b.begin + j);
    const Run a0{a.begin, a.begin + i}, b0{a.begin + i, a.begin + half};
    const Run a1{a.begin + half, a.begin + half + (na - i)}, b1{a.begin + half + (na - i), b.end};
    std::vector<std::pair<Run, Run>> halves{{a0, b0}, {a1, b1}};
    mapInParallel(halves, [&](const std::pair<Run, Run> &p) {
        mergeInParts(sequence, p.first, p.second, less, parts / 2);
    });
}

// Runs of this many records are sorted on their own before merging: small
// enough to spread over the threads, large enough to amortise the tasks.
constexpr int RunLength = 4096;

// Merges adjacent sorted runs pairwise, round after round, into one.
void mergeRounds(const Sequence &sequence, std::vector<Run> runs, const Less &less, bool parallel)
{
    while (runs.size() > 1) {
        std::vector<Run> merged;
        std::vector<std::pair<Run, Run>> pairs;
        for (size_t r = 0; r + 1 < runs.size(); r += 2) {
            pairs.push_back({runs[r], runs[r + 1]});
            merged.push_back({runs[r].begin, runs[r + 1].end});
        }
        if (runs.size() % 2)
            merged.push_back(runs.back());
        // Fewer merges than threads: each merge is cut into parts.
        const int threads = parallel ? std::max(1, QThreadPool::globalInstance()->maxThreadCount()) : 1;
        const int parts = std::max(1, threads / static_cast<int>(pairs.size()));
        auto mergePair = [&](const std::pair<Run, Run> &p) {
            mergeInParts(sequence, p.first, p.second, less, parts);
        };
        if (parallel && (pairs.size() > 1 || parts > 1))
            mapInParallel(pairs, mergePair);
        else
            std::for_each(pairs.begin(), pairs.end(), mergePair);
        runs.swap(merged);
    }
}

} // namespace

void stableSort(const std::vector<Segment> &segments, const Less &less, bool parallel)
{
    const Sequence sequence(segments);
    if (sequence.size() < 2)
        return;
    // Input already in order (rows loaded in key order, a re-sort after
    // nothing moved) costs one pass; any other input stops at its first
    // inversion.
    {
        Forward previous(sequence, 0);
        Forward current(sequence, 1);
        long long at = 1;
        for (; at < sequence.size() && !less(*current.get(), *previous.get()); ++at) {
            previous.next();
            current.next();
        }
        if (at == sequence.size())
            return;
    }

    std::vector<Run> runs;
    for (size_t s = 0; s < segments.size(); ++s) {
        const long long start = sequence.start(s);
        for (long long at = 0; at < segments[s].count; at += RunLength)
            runs.push_back({start + at, start + std::min<long long>(at + RunLength, segments[s].count)});
    }
    const size_t reach = rowReach(less.index);
    auto sortRun = [&](const Run &run) {
        const size_t s = sequence.segmentOf(run.begin);
        Record *first = segments[s].first + (run.begin - sequence.start(s));
        // The run's rows fit in the core's cache: fetched together first,
        // their misses overlap, where the sort would meet them one by one.
        for (Record *r = first; r != first + (run.end - run.begin); ++r)
            sortbatch::prefetchRow(r->rowPtr(), reach);
        std::stable_sort(first, first + (run.end - run.begin), less);
    };
    if (parallel && runs.size() > 1)
        mapInParallel(runs, sortRun);
    else
        std::for_each(runs.begin(), runs.end(), sortRun);

    mergeRounds(sequence, std::move(runs), less, parallel);
}

// ---------------------------------------------------------------------------
// Runs sorted while a load goes on

namespace {

thread_local LoadedRuns *currentRuns = nullptr;

} // namespace

// A run: records in the order they came, and for each index the order
// that sorts them (positions in the run).
struct LoadedRuns::Block
{
    explicit Block(size_t indexes) : orders(indexes * RunLength), sorted(indexes, false)
    {
        records.reserve(RunLength);
    }
    std::vector<Record> records;
    std::vector<quint16> orders;
    std::vector<bool> sorted;
};

// What the loader and its helpers share.
struct LoadedRuns::Shared
{
    std::vector<const IndexSort *> indexes;
    // The indexes whose runs no build could take: not worth sorting.
    std::unique_ptr<std::atomic<bool>[]> refused;
    std::mutex mutex;
    std::condition_variable work; // a run came, or the load is over
    std::vector<Block *> queue;   // runs waiting for their sort
    bool over = false;            // no run comes any more

    void sort(Block &block) const
    {
        const int n = static_cast<int>(block.records.size());
        if (indexes.empty() || n == 0)
            return;
        // The rows come from anywhere in memory: fetched together first.
        const size_t reach = rowReach(indexes.front());
        for (const Record &record : block.records)
            sortbatch::prefetchRow(record.rowPtr(), reach);
        for (size_t j = 0; j < indexes.size(); ++j) {
            if (refused[j].load(std::memory_order_relaxed))
                continue;
            quint16 *order = block.orders.data() + j * RunLength;
            std::iota(order, order + n, 0);
            const Less less{indexes[j]};
            const Record *records = block.records.data();
            // A comparison that throws leaves the run unsorted: the build
            // sorts as usual then, and meets the exception where it always
            // did.
            try {
                std::stable_sort(order, order + n, [&](quint16 a, quint16 b) { return less(records[a], records[b]); });
                block.sorted[j] = true;
            } catch (...) {
                block.sorted[j] = false;
            }
        }
    }

    void drain()
    {
        for (;;) {
            Block *block;
            {
                const std::lock_guard<std::mutex> lock(mutex);
                if (queue.empty())
                    return;
                block = queue.back();
                queue.pop_back();
            }
            sort(*block);
        }
    }

    // A helper sorts the runs as they come, until the load is over.
    void help()
    {
        lowerPriority();
        for (;;) {
            Block *block;
            {
                std::unique_lock<std::mutex> lock(mutex);
                work.wait(lock, [&] { return !queue.empty() || over; });
                if (queue.empty())
                    return;
                block = queue.back();
                queue.pop_back();
            }
            sort(*block);
        }
    }

    // A helper takes what the reading leaves of the cores: a load that
    // inflates on a thread of its own has three threads on two cores, and
    // a helper that took the inflate's turn would hold up every row.
    static void lowerPriority()
    {
#ifdef __linux__
        // A thread of its own, so its nice value is its own.
        setpriority(PRIO_PROCESS, static_cast<id_t>(syscall(SYS_gettid)), 10);
#endif
    }
};

LoadedRuns::LoadedRuns(const std::vector<const IndexSort *> &indexes) : m_shared(std::make_unique<Shared>())
{
    m_shared->indexes = indexes;
    m_shared->refused.reset(new std::atomic<bool>[indexes.size()]);
    for (size_t j = 0; j < indexes.size(); ++j)
        m_shared->refused[j] = false;
}

LoadedRuns::~LoadedRuns()
{
    // No run is sorted any more; the helpers finish the ones they hold.
    {
        const std::lock_guard<std::mutex> lock(m_shared->mutex);
        m_shared->queue.clear();
    }
    stopHelpers();
}

void LoadedRuns::stopHelpers()
{
    {
        const std::lock_guard<std::mutex> lock(m_shared->mutex);
        m_shared->over = true;
    }
    m_shared->work.notify_all();
    for (std::thread &helper : m_helpers)
        helper.join();
    m_helpers.clear();
}

LoadedRuns *LoadedRuns::current()
{
    return currentRuns;
}

LoadedRuns::Scope::Scope(LoadedRuns *runs) : m_previous(currentRuns)
{
    currentRuns = runs;
}

LoadedRuns::Scope::~Scope()
{
    currentRuns = m_previous;
}

void LoadedRuns::take(QList<Record> &batch, int count)
{
    if (count <= 0)
        return;
    // Runs that a build is bound to refuse are not sorted: the master does
    // not end with the rows just appended (it keeps them in another order,
    // or dropped some), or an index leaves a row out.
    const std::vector<const IndexSort *> &indexes = m_shared->indexes;
    const Table *table = indexes.empty() ? nullptr : indexes.front()->table();
    const MasterIndex *master = table ? table->masterIndex() : nullptr;
    const bool inOrder = master && master->count() == m_taken + count
        && master->at(master->count() - 1).rowPtr() == batch.at(count - 1).rowPtr();
    for (size_t j = 0; j < indexes.size(); ++j) {
        std::atomic<bool> &refused = m_shared->refused[j];
        // A filter that throws refuses them too: the build meets it again
        // where it always did.
        try {
            for (int i = 0; i < count && !refused.load(std::memory_order_relaxed); ++i)
                if (!inOrder || !indexes[j]->filter(batch.at(i)))
                    refused.store(true, std::memory_order_relaxed);
        } catch (...) {
            refused.store(true, std::memory_order_relaxed);
        }
    }
    for (int i = 0; i < count; ++i) {
        if (m_blocks.empty() || m_blocks.back()->records.size() == RunLength) {
            if (!m_blocks.empty())
                submit(m_blocks.back().get());
            m_blocks.push_back(std::make_unique<Block>(m_shared->indexes.size()));
        }
        m_blocks.back()->records.push_back(std::move(batch[i]));
    }
    m_taken += count;
}

void LoadedRuns::submit(Block *block)
{
    {
        const std::lock_guard<std::mutex> lock(m_shared->mutex);
        m_shared->queue.push_back(block);
    }
    m_shared->work.notify_one();
    // The loader is one thread; the others sort, a helper each, started
    // with the first runs. Threads of their own, not the pool's: a pool
    // thread would keep the helper's lower priority.
    const size_t most = static_cast<size_t>(parallel::threads() - 1);
    if (m_helpers.size() < most && !m_cannotStart) {
        try {
            Shared *shared = m_shared.get();
            while (m_helpers.size() < most)
                m_helpers.emplace_back([shared] { shared->help(); });
        } catch (const std::system_error &) {
            // No thread to be had: the loader sorts the runs at the end.
            m_cannotStart = true;
        }
    }
}

void LoadedRuns::finish()
{
    if (m_finished)
        return;
    m_finished = true;
    // The last run, full or not, waits for nothing more.
    if (!m_blocks.empty()) {
        const std::lock_guard<std::mutex> lock(m_shared->mutex);
        m_shared->queue.push_back(m_blocks.back().get());
    }
    // What no helper took, the loader sorts itself.
    m_shared->drain();
    stopHelpers();
}

bool LoadedRuns::build(const IndexSort *index, PartitionList<Record> &list)
{
    finish();
    const std::vector<const IndexSort *> &indexes = m_shared->indexes;
    const auto found = std::find(indexes.begin(), indexes.end(), index);
    if (found == indexes.end())
        return false;
    // The last index to build takes the runs' references instead of
    // adding its own: the rows are not touched for them.
    const bool last = ++m_built == indexes.size();
    const Table *table = index->table();
    const MasterIndex *master = table ? table->masterIndex() : nullptr;
    if (!master || master->count() != m_taken || list.count() != 0)
        return false;
    const size_t j = static_cast<size_t>(found - indexes.begin());
    if (m_shared->refused[j].load(std::memory_order_relaxed))
        return false;

    // The master's order is the one the rows came in, and the index takes
    // every row.
    {
        size_t b = 0;
        size_t k = 0;
        for (const Record &record : *master) {
            if (record.rowPtr() != m_blocks[b]->records[k].rowPtr() || !index->filter(record))
                return false;
            if (++k == m_blocks[b]->records.size()) {
                ++b;
                k = 0;
            }
        }
    }
    for (const std::unique_ptr<Block> &block : m_blocks)
        if (!block->sorted[j])
            return false;

    // The runs go into the list in their order, their handles relocated;
    // the references are taken in the order the rows came, the order they
    // lie in memory.
    std::unique_ptr<unsigned char[]> gathered(new unsigned char[RunLength * sizeof(Record)]);
    Record *out = reinterpret_cast<Record *>(gathered.get());
    for (const std::unique_ptr<Block> &block : m_blocks) {
        std::vector<Record> copies;
        if (!last)
            copies = block->records;
        std::vector<Record> &from = last ? block->records : copies;
        const quint16 *order = block->orders.data() + j * RunLength;
        const int n = static_cast<int>(from.size());
        for (int k = 0; k < n; ++k)
            relocate(out + k, &from[order[k]]);
        list.appendRelocated(out, n);
        // Their handles are the list's: null here, nothing to release.
        std::memset(static_cast<void *>(from.data()), 0, static_cast<size_t>(n) * sizeof(Record));
    }

    // Each run must still be in order, equal rows as they came: an index
    // built before this one may have written rows. Checked run by run just
    // before the first merge, which then finds the rows in the cache.
    const std::vector<Segment> segments = list.segments();
    const Sequence sequence(segments);
    std::vector<Run> runs;
    for (const std::unique_ptr<Block> &block : m_blocks) {
        const long long begin = runs.empty() ? 0 : runs.back().end;
        runs.push_back({begin, begin + static_cast<long long>(block->records.size())});
    }
    const Less less{index};
    std::atomic<bool> inOrder{true};
    std::vector<size_t> firsts;
    for (size_t r = 0; r < runs.size(); r += 2)
        firsts.push_back(r);
    try {
        mapInParallel(firsts, [&](size_t r) {
            const quint16 *order = m_blocks[r]->orders.data() + j * RunLength;
            const bool ok = r + 1 < runs.size()
                ? mergeChecked(sequence, runs[r], runs[r + 1], order, m_blocks[r + 1]->orders.data() + j * RunLength,
                               index)
                : runInOrder(sequence, runs[r], order, index);
            if (!ok)
                inOrder.store(false, std::memory_order_relaxed);
        });
    } catch (...) {
        // The usual sort meets the comparison's exception again.
        inOrder = false;
    }
    if (!inOrder.load()) {
        list.clear();
        return false;
    }
    std::vector<Run> merged;
    for (size_t r = 0; r < runs.size(); r += 2)
        merged.push_back({runs[r].begin, r + 1 < runs.size() ? runs[r + 1].end : runs[r].end});
    mergeRounds(sequence, std::move(merged), less, true);
    return true;
}
} // namespace recordsort
