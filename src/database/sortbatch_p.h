#ifndef DATABASE_SORTBATCH_P_H
#define DATABASE_SORTBATCH_P_H

//
//  W A R N I N G
//  -------------
//
// This file is not part of the database API. It exists for the convenience
// of the library's own sources and may change from version to version
// without notice.
//

#include "largealloc_p.h"
#include "parallel_p.h"
#include "partitionlist.h"

#include <QtCore/QList>
#include <QtCore/QScopeGuard>

#include <algorithm>
#include <atomic>
#include <cmath>
#include <unordered_set>
#include <vector>

// The sorted index's search and batch engine, over any element and order so
// that it can be tested on plain values. It asks of an element
//     const unsigned char *rowPtr() const   its identity (a row's address),
// and of an order
//     int compare(const T &a, const T &b) const   <0, 0, >0;
//     bool accepts(const T &element) const        the index's filter;
//     void sort(std::vector<T> &elements) const   a stable sort by compare,
// and may tell
//     size_t rowReach() const   how far past its address compare() may read
//                               a row (its last byte), 0 when unknown.
namespace sortbatch {

template <typename Order>
auto rowReachOf(const Order &order, int) -> decltype(order.rowReach())
{
    return order.rowReach();
}
template <typename Order>
size_t rowReachOf(const Order &, long)
{
    return 0;
}
// How far a comparison reads into a row, as the order tells.
template <typename Order>
size_t rowReachOf(const Order &order)
{
    return rowReachOf(order, 0);
}

// Starts a row that a comparison will read on its way. A row seldom starts
// on a cache line: one of a few dozen bytes spans two, and the comparison
// reads both (a value near the start, the null bits at the end), so both
// ends are fetched. Always inlined: g++ takes a function that only
// prefetches for one without effects and drops the calls to it.
Q_ALWAYS_INLINE void prefetchRow(const unsigned char *row, size_t reach)
{
    __builtin_prefetch(row);
    if (reach > 0)
        __builtin_prefetch(row + reach);
}

// Where each of a set of rows stands in an index: a vector sorted by row
// address.
struct RowPosition
{
    const unsigned char *row;
    int position;
    bool operator<(const RowPosition &other) const { return std::less<const unsigned char *>()(row, other.row); }
};

// A batch of a million changes locates a million rows: its tables take
// their pages a huge page at a time.
using Positions = largealloc::Vector<RowPosition>;

// Where `row` stands among the at most `limit` handles from position `from`
// on, or -1. A record sits in the run of its key, which starts at the lower
// bound of the key: comparing row pointers there finds it without reading a
// row, where walking the run would compare (and fetch) each one.
constexpr int RowScan = 512;

template <typename T>
int scanForRow(const PartitionList<T> &list, int from, const unsigned char *row, int limit)
{
    int position = from;
    for (auto it = list.iteratorAt(from); it != list.end() && position - from < limit; ++it, ++position) {
        if (it->rowPtr() == row)
            return position;
    }
    return -1;
}

// A list read as it will stand once the positions `gone` (sorted, distinct,
// in range) are out of it: a batch searches where its additions go before
// its removals are made, so that both are made in one pass. The list must
// not change meanwhile.
template <typename T>
class Without
{
public:
    Without(const PartitionList<T> &list, const std::vector<int> &gone)
        : m_list(&list), m_gone(&gone), m_count(list.count() - static_cast<int>(gone.size()))
    {
        // m_before[b]: how many of `gone` come before element b * Bucket.
        m_before.resize(static_cast<size_t>(m_count / Bucket + 1));
        size_t j = 0;
        for (size_t b = 0; b < m_before.size(); ++b) {
            while (j < gone.size() && kept(j) < static_cast<long long>(b) * Bucket)
                ++j;
            m_before[b] = j;
        }
    }
    int count() const { return m_count; }
    // The list's position of element i: i plus the positions gone at or
    // before it, which are among those of its bucket (a step or two when
    // few go, a binary search when most do).
    int listPosition(int i) const
    {
        const size_t b = static_cast<size_t>(i / Bucket);
        const size_t hi = b + 1 < m_before.size() ? m_before[b + 1] : m_gone->size();
        return i + static_cast<int>(skippedBefore(*m_gone, i, m_before[b], hi));
    }
    class Reader
    {
    public:
        Reader() = default;
        explicit Reader(const Without &without) : m_without(&without), m_reader(*without.m_list) {}
        const T &at(int i) { return m_reader.at(m_without->listPosition(i)); }

    private:
        const Without *m_without = nullptr;
        typename PartitionList<T>::Reader m_reader;
    };

private:
    static constexpr int Bucket = 256;
    // The elements that stay before gone[j].
    long long kept(size_t j) const { return (*m_gone)[j] - static_cast<long long>(j); }

    const PartitionList<T> *m_list;
    const std::vector<int> *m_gone;
    int m_count;
    std::vector<size_t> m_before;
};

template <typename T>
typename PartitionList<T>::Reader readerOf(const PartitionList<T> &list)
{
    return typename PartitionList<T>::Reader(list);
}
template <typename T>
typename Without<T>::Reader readerOf(const Without<T> &without)
{
    return typename Without<T>::Reader(without);
}

// Spreads a list's partition work over the global pool (see
// PartitionList::replace).
struct PoolRunner
{
    template <typename Body>
    void operator()(int jobs, long long work, const Body &body) const
    {
        const int pieces = static_cast<int>(std::min<long long>(jobs, parallel::piecesFor(work)));
        if (pieces <= 1)
            body(0, jobs);
        else
            parallel::forPieces(jobs, pieces, [&body](long long first, long long last) {
                body(static_cast<int>(first), static_cast<int>(last));
            });
    }
};

// Starts the rows of both probes that may follow the probe at mid of
// [lo, hi) on their way, so that a search waits for one row per step less.
template <typename Reader>
Q_ALWAYS_INLINE void prefetchNextProbes(Reader &reader, int lo, int mid, int hi, size_t reach)
{
    if (hi - lo > 2) {
        prefetchRow(reader.at(lo + (mid - lo) / 2).rowPtr(), reach);
        prefetchRow(reader.at(mid + 1 + (hi - mid - 1) / 2).rowPtr(), reach);
    }
}

// The first position in [lo, hi) whose element is above `record` (upper) or
// not below it (lower), by binary search.
template <typename Source, typename T, typename Order>
int boundIn(const Order &order, const Source &list, const T &element, int lo, int hi, bool upper)
{
    auto reader = readerOf(list);
    const size_t reach = rowReachOf(order);
    while (lo < hi) {
        const int mid = lo + (hi - lo) / 2;
        const T &probe = reader.at(mid);
        prefetchNextProbes(reader, lo, mid, hi, reach);
        const int c = order.compare(probe, element);
        if (upper ? c <= 0 : c < 0)
            lo = mid + 1;
        else
            hi = mid;
    }
    return lo;
}

template <typename T>
int positionOf(const Positions &positions, const T &element)
{
    const RowPosition key{element.rowPtr(), -1};
    const auto found = std::lower_bound(positions.begin(), positions.end(), key);
    return found != positions.end() && found->row == key.row ? found->position : -1;
}

// Binary searches of many keys over one list, advancing in lock step, one
// probe each per round: the handles of a round are prefetched, then their
// rows, then compared, so the cache misses of the searches overlap instead of
// queueing. Each search makes exactly the probes it would make alone.
// probe(g, mid, c, lo, hi) takes c = compare(element at mid, key g) and
// narrows [lo, hi); searches end when lo reaches hi.
template <typename T, typename Source, typename Order, typename KeyAt, typename Probe>
void lockstepSearch(const Order &order, const Source &list, int count, KeyAt keyAt, int *lo, int *hi, Probe probe)
{
    constexpr int Group = 32;
    const size_t reach = rowReachOf(order);
    for (int first = 0; first < count; first += Group) {
        const int size = std::min(Group, count - first);
        const T *element[Group];
        // One reader per search: its probes soon stay in one partition.
        decltype(readerOf(list)) readers[Group];
        for (int g = 0; g < size; ++g)
            readers[g] = readerOf(list);
        for (bool active = true; active;) {
            for (int g = first; g < first + size; ++g) {
                if (lo[g] < hi[g]) {
                    element[g - first] = &readers[g - first].at(lo[g] + (hi[g] - lo[g]) / 2);
                    __builtin_prefetch(element[g - first]);
                }
            }
            for (int g = first; g < first + size; ++g) {
                if (lo[g] < hi[g])
                    prefetchRow(element[g - first]->rowPtr(), reach);
            }
            active = false;
            for (int g = first; g < first + size; ++g) {
                if (lo[g] >= hi[g])
                    continue;
                const int mid = lo[g] + (hi[g] - lo[g]) / 2;
                probe(g, mid, order.compare(*element[g - first], keyAt(g)), lo[g], hi[g]);
                active = active || lo[g] < hi[g];
            }
        }
    }
}

// How many pieces `count` searches are worth cutting into for the pool:
// about 20 probes, each a row's cache miss, make a search a microsecond or
// two, so a few hundred pay for waking a thread.
inline int searchPieces(int count)
{
    constexpr int PerPiece = 256;
    return std::max(1, std::min(parallel::piecesFor(static_cast<long long>(count) * 1024), count / PerPiece));
}

// lockstepSearch cut among threads when there are enough searches to pay
// for waking one: the searches are independent, each as it would be alone.
template <typename T, typename Source, typename Order, typename KeyAt, typename Probe>
void lockstepSearchShared(const Order &order, const Source &list, int count, KeyAt keyAt, int *lo, int *hi,
                          Probe probe)
{
    const int pieces = searchPieces(count);
    if (pieces <= 1) {
        lockstepSearch<T>(order, list, count, keyAt, lo, hi, probe);
        return;
    }
    parallel::forPieces(count, pieces, [&](long long first, long long last) {
        const int from = static_cast<int>(first);
        lockstepSearch<T>(
            order, list, static_cast<int>(last - first), [&keyAt, from](int g) -> const T & { return keyAt(from + g); },
            lo + from, hi + from, [&probe, from](int g, int mid, int c, int &low, int &high) {
                probe(from + g, mid, c, low, high);
            });
    });
}

// Finds where each record stands, by row: first in the run of its key
// (the lower bounds of all the keys searched together), then, for those not
// found there, in one linear pass over the whole index. A record further
// than RowScan into its run is left to the linear pass, which finds all such
// records in one sweep instead of one walk each (an arrival-order index is a
// single run).
template <typename T, typename Order>
Positions locate(const Order &order, const PartitionList<T> &list, const std::vector<const T *> &records)
{
    Positions positions;
    Positions missing;
    const int n = list.count();
    // A search costs some twenty probes, each reaching a scattered row,
    // against a few nanoseconds for a step of the pass: for large batches
    // one pass over everything is cheaper than a search per record.
    const bool passOnly = static_cast<double>(records.size()) * std::log2(n + 1.0) * 10.0 >= n;
    if (passOnly) {
        missing.reserve(records.size());
        for (const T *record : records)
            missing.push_back({record->rowPtr(), -1});
    } else {
        positions.reserve(records.size());
        // A record missing from its run needs the pass, and the pass finds
        // every record: after the first miss the searches stop, and the rest
        // wait for the pass (a batch that changed the order's columns misses
        // with nearly every record).
        const int count = static_cast<int>(records.size());
        // Where each record was found: -1 missing from its run, -2 not
        // searched (a miss stopped the searches first).
        std::vector<int> found(static_cast<size_t>(count), -2);
        std::atomic<bool> missed{false};
        constexpr int Round = 32;
        // Searches records [from, to) a round at a time until one misses.
        auto search = [&](int from, int to, int firstRound) {
            int lo[Round];
            int hi[Round];
            for (int first = from, size = 0; first < to && !missed.load(std::memory_order_relaxed);
                 first += size) {
                size = std::min(first == from ? firstRound : Round, to - first);
                std::fill(lo, lo + size, 0);
                std::fill(hi, hi + size, n);
                lockstepSearch<T>(
                    order, list, size,
                    [&records, first](int r) -> const T & { return *records[static_cast<size_t>(first + r)]; },
                    lo, hi, [](int, int mid, int c, int &low, int &high) {
                        if (c < 0)
                            low = mid + 1;
                        else
                            high = mid;
                    });
                for (int r = 0; r < size; ++r) {
                    const size_t k = static_cast<size_t>(first + r);
                    found[k] = scanForRow(list, lo[r], records[k]->rowPtr(), RowScan);
                    if (found[k] == -1)
                        missed.store(true, std::memory_order_relaxed);
                }
            }
        };
        // The first round is a few records: a batch that changed the
        // order's columns misses at once, and pays for few searches. The
        // rest, when there are many, are searched on the pool too.
        constexpr int FirstRound = 4;
        search(0, std::min(FirstRound, count), FirstRound);
        if (!missed.load(std::memory_order_relaxed) && count > FirstRound) {
            const int rest = count - FirstRound;
            parallel::forPieces(rest, searchPieces(rest), [&](long long first, long long last) {
                search(FirstRound + static_cast<int>(first), FirstRound + static_cast<int>(last), Round);
            });
        }
        for (int r = 0; r < count; ++r) {
            const unsigned char *row = records[static_cast<size_t>(r)]->rowPtr();
            const int at = found[static_cast<size_t>(r)];
            if (at >= 0)
                positions.push_back({row, at});
            else
                missing.push_back({row, -1});
        }
    }

    if (!missing.empty()) {
        // One pass over the whole index; each element's row is looked up in
        // an open-addressing table of the rows still missing.
        size_t capacity = 16;
        while (capacity < 2 * missing.size())
            capacity *= 2;
        const size_t mask = capacity - 1;
        largealloc::Vector<const unsigned char *> hashRows(capacity, nullptr);
        largealloc::Vector<int> hashPosition(capacity, -1);
        auto slotOf = [&](const unsigned char *row) {
            quint64 x = reinterpret_cast<quintptr>(row);
            x ^= x >> 33;
            x *= 0xff51afd7ed558ccdULL;
            x ^= x >> 33;
            size_t slot = static_cast<size_t>(x) & mask;
            while (hashRows[slot] && hashRows[slot] != row)
                slot = (slot + 1) & mask;
            return slot;
        };
        size_t left = 0;
        for (const RowPosition &m : missing) {
            const size_t slot = slotOf(m.row);
            if (!hashRows[slot]) {
                hashRows[slot] = m.row;
                ++left;
            }
        }
        // A bitmap of the rows' address bits, small enough to stay in a
        // core's cache and at most one bit in 64 set, turns most elements
        // away before the table.
        size_t filterBits = size_t(1) << 16;
        while (filterBits < (size_t(1) << 20) && filterBits < 64 * missing.size())
            filterBits *= 2;
        std::vector<quint64> filter(filterBits / 64, 0);
        auto filterBit = [filterBits](const unsigned char *row) {
            return static_cast<size_t>((reinterpret_cast<quintptr>(row) >> 4) & (filterBits - 1));
        };
        for (const RowPosition &m : missing)
            filter[filterBit(m.row) >> 6] |= quint64(1) << (filterBit(m.row) & 63);
        // Cut among threads: an element's slot is written only by the
        // piece that holds the element.
        std::atomic<size_t> toFind{left};
        parallel::forEachSegment(list, [&](const T *first, int count, int start) {
            if (toFind.load(std::memory_order_relaxed) == 0)
                return;
            // Counted here and told once a segment: a count shared by every
            // find made the cores pass its cache line back and forth.
            size_t found = 0;
            const auto tell = qScopeGuard([&] {
                if (found)
                    toFind.fetch_sub(found, std::memory_order_relaxed);
            });
            for (int e = 0; e < count; ++e) {
                const unsigned char *row = first[e].rowPtr();
                const size_t bit = filterBit(row);
                if (!(filter[bit >> 6] >> (bit & 63) & 1))
                    continue;
                const size_t slot = slotOf(row);
                if (hashRows[slot] && hashPosition[slot] == -1) {
                    hashPosition[slot] = start + e;
                    if (++found == left)
                        return;
                }
            }
        });
        for (RowPosition &m : missing)
            m.position = hashPosition[slotOf(m.row)];
        if (positions.empty())
            positions.swap(missing);
        else
            positions.insert(positions.end(), missing.begin(), missing.end());
    }
    std::sort(positions.begin(), positions.end());
    return positions;
}

// Applies a batch to a sorted list: removed elements go, updated ones stay
// where they still fit between their neighbours and move (or go, or come)
// otherwise, inserted ones come in; additions go after every equal element
// already there, in arrival order (inserted first, then updated).
template <typename T, typename Order>
void apply(const Order &order, PartitionList<T> &list, const QList<T> &removed, const QList<T> &updated,
           const QList<T> &inserted)
{
    const int n = list.count();

    // Where the removed and updated records stand now.
    std::vector<const T *> changed;
    changed.reserve(static_cast<size_t>(removed.size() + updated.size()));
    for (const T &record : removed)
        changed.push_back(&record);
    for (const T &record : updated)
        changed.push_back(&record);
    const Positions positions = locate(order, list, changed);

    // Positions to delete: those of the first passes, kept sorted, and the
    // few that the re-check below adds.
    std::vector<int> deletedFirst;
    deletedFirst.reserve(changed.size());
    for (const T &record : removed) {
        const int p = positionOf(positions, record);
        if (p != -1)
            deletedFirst.push_back(p);
    }

    // Updated records, checked against their neighbours as they stand at the
    // start of the batch.
    enum Action { Nothing, Add, Delete, Move, Stay };
    std::vector<Action> actions(static_cast<size_t>(updated.size()), Nothing);
    std::vector<int> updatedPositions(static_cast<size_t>(updated.size()), -1);
    for (int u = 0; u < updated.size(); ++u)
        updatedPositions[u] = positionOf(positions, updated[u]);
    // Each record's neighbours, found once (a position's partition is a
    // search of its own) for the fetches and the comparisons; null at an end.
    std::vector<std::pair<const T *, const T *>> neighbours(static_cast<size_t>(updated.size()));
    // Fetched in two steps: the handles (the neighbours' and the record's
    // own) a group before their rows, the rows a group before their
    // comparisons. Inlined: g++ drops calls to a function that only reads
    // and prefetches.
    constexpr int Ahead = 32;
    const size_t reach = rowReachOf(order);
    auto prefetchHandles = [&](int from) __attribute__((always_inline)) {
        const int to = std::min(from + Ahead, updated.size());
        for (int u = from; u < to; ++u) {
            const int p = updatedPositions[u];
            auto &[before, after] = neighbours[static_cast<size_t>(u)];
            before = p > 0 ? &list.at(p - 1) : nullptr;
            after = p != -1 && p + 1 < n ? &list.at(p + 1) : nullptr;
            __builtin_prefetch(&updated[u]);
            if (before)
                __builtin_prefetch(before);
            if (after)
                __builtin_prefetch(after);
        }
    };
    auto prefetchNeighbours = [&](int from) __attribute__((always_inline)) {
        const int to = std::min(from + Ahead, updated.size());
        for (int u = from; u < to; ++u) {
            const auto &[before, after] = neighbours[static_cast<size_t>(u)];
            prefetchRow(updated[u].rowPtr(), reach);
            if (before)
                prefetchRow(before->rowPtr(), reach);
            if (after)
                prefetchRow(after->rowPtr(), reach);
        }
    };
    prefetchHandles(0);
    prefetchHandles(Ahead);
    prefetchNeighbours(0);
    for (int u = 0; u < updated.size(); ++u) {
        if (u % Ahead == 0) {
            prefetchHandles(u + 2 * Ahead);
            prefetchNeighbours(u + Ahead);
        }
        const T &record = updated[u];
        const int p = updatedPositions[u];
        const bool accepted = order.accepts(record);
        if (p == -1) {
            actions[u] = accepted ? Add : Nothing;
        } else if (!accepted) {
            actions[u] = Delete;
            deletedFirst.push_back(p);
        } else if ((neighbours[u].first && order.compare(record, *neighbours[u].first) < 0)
                   || (neighbours[u].second && order.compare(record, *neighbours[u].second) > 0)) {
            actions[u] = Move;
            deletedFirst.push_back(p);
        } else {
            actions[u] = Stay;
        }
    }
    std::sort(deletedFirst.begin(), deletedFirst.end());
    deletedFirst.erase(std::unique(deletedFirst.begin(), deletedFirst.end()), deletedFirst.end());
    std::unordered_set<int> deletedLater;
    auto isDeleted = [&](int p) {
        return std::binary_search(deletedFirst.begin(), deletedFirst.end(), p)
            || (!deletedLater.empty() && deletedLater.count(p));
    };

    // A staying record was checked against neighbours that may leave. Check
    // it again against its nearest neighbours that stay, and move it too when
    // it is out of order with them; that may in turn unsettle the records
    // next to it.
    struct Staying
    {
        int position;
        int entry; // in `updated`
        bool operator<(const Staying &o) const { return position < o.position; }
    };
    std::vector<Staying> staying; // by position; a row given twice has two entries
    for (int u = 0; u < updated.size(); ++u) {
        const int p = updatedPositions[u];
        if (actions[u] == Stay && !isDeleted(p))
            staying.push_back({p, u});
    }
    std::stable_sort(staying.begin(), staying.end());
    auto stayingAt = [&](int p) {
        return std::equal_range(staying.begin(), staying.end(), Staying{p, 0});
    };
    std::vector<int> work;
    for (const Staying &s : staying) {
        if ((work.empty() || work.back() != s.position) && (isDeleted(s.position - 1) || isDeleted(s.position + 1)))
            work.push_back(s.position);
    }
    std::reverse(work.begin(), work.end()); // popped from the back: left to right
    while (!work.empty()) {
        const int p = work.back();
        work.pop_back();
        const auto here = stayingAt(p);
        if (isDeleted(p) || here.first == here.second)
            continue;
        // The last entry of the row stands for it, as any would: they share it.
        const T &record = updated[(here.second - 1)->entry];
        int left = p - 1;
        while (left >= 0 && isDeleted(left))
            --left;
        int right = p + 1;
        while (right < n && isDeleted(right))
            ++right;
        if ((left >= 0 && order.compare(record, list.at(left)) < 0)
            || (right < n && order.compare(record, list.at(right)) > 0)) {
            deletedLater.insert(p);
            for (auto s = here.first; s != here.second; ++s)
                actions[static_cast<size_t>(s->entry)] = Move;
            if (left >= 0 && stayingAt(left).first != stayingAt(left).second)
                work.push_back(left);
            if (right < n && stayingAt(right).first != stayingAt(right).second)
                work.push_back(right);
        }
    }

    // Records to add, in arrival order: the inserted ones, then the updated
    // ones that come (back) in.
    std::vector<T> additions;
    additions.reserve(static_cast<size_t>(inserted.size())
                      + static_cast<size_t>(std::count_if(actions.begin(), actions.end(),
                                                          [](Action a) { return a == Add || a == Move; })));
    for (const T &record : inserted) {
        if (order.accepts(record))
            additions.push_back(record);
    }
    for (int u = 0; u < updated.size(); ++u) {
        if (actions[u] == Add || actions[u] == Move)
            additions.push_back(updated[u]);
    }

    // One sweep deletes every range and compacts the partitions; with the
    // additions' blocks, in the same pass.
    std::vector<int> sortedDeleted(deletedFirst);
    sortedDeleted.insert(sortedDeleted.end(), deletedLater.begin(), deletedLater.end());
    std::sort(sortedDeleted.begin(), sortedDeleted.end());
    QVector<QPair<int, int>> ranges;
    for (const int p : sortedDeleted) {
        if (!ranges.isEmpty() && ranges.last().second == p)
            ranges.last().second = p + 1;
        else
            ranges.append(qMakePair(p, p + 1));
    }
    // The updated records that stayed where they were, for a reader that
    // follows the list's edits.
    auto noteStaying = [&]() {
        std::vector<int> touched;
        for (int u = 0; u < updated.size(); ++u) {
            if (actions[u] == Stay)
                touched.push_back(updatedPositions[u]);
        }
        list.noteTouched(std::move(touched));
    };
    if (additions.empty()) {
        list.replace(ranges, nullptr, nullptr, 0, nullptr, PoolRunner());
        noteStaying();
        return;
    }
    order.sort(additions);
    // The additions' places are searched in the list as it will stand
    // without the deleted elements.
    const Without<T> after(list, sortedDeleted);

    // Additions that share an insertion point go in together as one block;
    // the search cursor only moves forward. The points are found in the list
    // as it stands and then shifted by the blocks that go in before them.
    // Every upper bound is searched at once over the list as it stands (it is
    // in order: whatever was out of order has been taken out); as the
    // additions are in order too, each bound is the search from the previous
    // one on.
    // The bounds of the first and the last addition frame all the others;
    // when they agree (a batch appended at the end, as a load does), every
    // addition shares that point and nothing more is searched.
    const int count = after.count();
    const int additionCount = static_cast<int>(additions.size());
    const int firstBound = boundIn(order, after, additions.front(), 0, count, true);
    const int lastBound = boundIn(order, after, additions.back(), firstBound, count, true);
    std::vector<int> bound(additions.size(), firstBound);
    if (lastBound != firstBound) {
        std::vector<int> limit(additions.size(), lastBound);
        lockstepSearchShared<T>(order, after, additionCount,
                                [&additions](int a) -> const T & { return additions[static_cast<size_t>(a)]; },
                                bound.data(), limit.data(), [](int, int mid, int c, int &low, int &high) {
                                    if (c <= 0)
                                        low = mid + 1;
                                    else
                                        high = mid;
                                });
    }
    std::vector<int> points;
    std::vector<int> sizes;
    int cursor = 0;
    int before = 0;
    for (size_t a = 0; a < additions.size(); ++a) {
        const int lo = std::max(bound[a], cursor);
        if (a == 0 || lo != cursor) {
            if (!sizes.empty())
                before += sizes.back();
            points.push_back(lo + before);
            sizes.push_back(0);
        }
        ++sizes.back();
        cursor = lo;
    }
    list.replace(ranges, points.data(), sizes.data(), static_cast<int>(points.size()), additions.data(),
                 PoolRunner());
    noteStaying();
}

} // namespace sortbatch

#endif // DATABASE_SORTBATCH_P_H
