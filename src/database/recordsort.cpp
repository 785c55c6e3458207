#include "recordsort_p.h"

#include "parallel_p.h"
#include "sortbatch_p.h"

#include <QtCore/QThreadPool>
#include <QtCore/QVector>

#include <algorithm>
#include <cstring>
#include <memory>

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
    // The record `d` steps on, if it lies in the same segment.
    const Record *ahead(int d) const { return m_end - m_at > d ? m_at + d : nullptr; }
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
    // The record `d` steps on, if it lies in the same segment.
    const Record *ahead(int d) const { return m_at - m_first >= d ? m_at - d : nullptr; }
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
    const long long nbuffer = std::min(na, nb);
    std::unique_ptr<unsigned char[]> storage(new unsigned char[static_cast<size_t>(nbuffer) * sizeof(Record)]);
    Record *buffer = reinterpret_cast<Record *>(storage.get());
    if (na <= nb) {
        copyOut(sequence, a.begin, na, buffer);
        Forward out(sequence, a.begin);
        Forward right(sequence, b.begin);
        long long left = 0;
        long long rightLeft = nb;
        while (left < na && rightLeft > 0) {
            // The rows lie anywhere: each step compares one that no cache
            // holds, so the rows a few steps on are fetched in both runs.
            if (left + Ahead < na)
                sortbatch::prefetchRow(buffer[left + Ahead].rowPtr(), reach);
            if (const Record *next = right.ahead(Ahead))
                sortbatch::prefetchRow(next->rowPtr(), reach);
            // Equal keys: the first run's record goes first.
            if (less(*right.get(), buffer[left])) {
                relocate(out.get(), right.get());
                right.next();
                --rightLeft;
            } else {
                relocate(out.get(), buffer + left);
                ++left;
            }
            out.next();
        }
        for (; left < na; ++left, out.next())
            relocate(out.get(), buffer + left);
    } else {
        copyOut(sequence, b.begin, nb, buffer);
        Backward out(sequence, b.end);
        Backward left(sequence, a.end);
        long long right = nb - 1;
        long long leftLeft = na;
        while (right >= 0 && leftLeft > 0) {
            if (right >= Ahead)
                sortbatch::prefetchRow(buffer[right - Ahead].rowPtr(), reach);
            if (const Record *next = left.ahead(Ahead))
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
        for (; right >= 0; --right, out.next())
            relocate(out.get(), buffer + right);
    }
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

} // namespace recordsort
