#ifndef DATABASE_RECORDSORT_P_H
#define DATABASE_RECORDSORT_P_H

//
//  W A R N I N G
//  -------------
//
// This file is not part of the database API. It exists for the convenience
// of the library's own sources and may change from version to version
// without notice.
//

#include "indexsort.h"
#include "table.h"

#include <memory>
#include <thread>
#include <vector>

namespace recordsort {

// A contiguous run of records: a partition's array, or a whole vector.
using Segment = PartitionList<Record>::Segment;

using Less = IndexSort::LessThan;

// How far a comparison of `index` reads into a row: to its null bits, at
// its end. What to prefetch of a row before comparing it.
inline size_t rowReach(const IndexSort *index)
{
    const Table *table = index ? index->table() : nullptr;
    return table && table->rowSize() > 0 ? static_cast<size_t>(table->rowSize() - 1) : 0;
}

// Stable sort of the records of `segments` taken as one sequence, in place:
// equal records keep their order, so the result is the one any stable sort
// gives. Records move bytewise (their reference counts are untouched) and
// stay in the same segments, whose sizes do not change.
//
// Runs inside segments are sorted first, then merged pairwise; each merge
// copies the shorter of its two runs into a buffer of handles, so no more
// than half the records are ever buffered. With `parallel`, the runs of a
// round are sorted and merged on Qt Concurrent's global pool (the caller
// blocks), so `less` must be callable from several threads at once.
void stableSort(const std::vector<Segment> &segments, const Less &less, bool parallel);

// A load's rows sorted run by run for the table's sorted indexes while the
// load goes on, on helper threads that take what the reading leaves of the
// cores, so that each index's build after the load only merges them. A
// build takes the runs only if they still tell its order: the master holds
// the loaded rows in the order they came, the index takes every one of
// them, and each run is still in order (an index built before may have
// written rows). Otherwise it sorts as usual.
class LoadedRuns
{
public:
    explicit LoadedRuns(const std::vector<const IndexSort *> &indexes);
    ~LoadedRuns();
    LoadedRuns(const LoadedRuns &) = delete;
    LoadedRuns &operator=(const LoadedRuns &) = delete;

    // Takes the first `count` records of `batch`, just appended to the
    // table, and leaves them null: their references are the runs' now.
    void take(QList<Record> &batch, int count);

    // Waits for every run's sort, sorting what no helper took: once the
    // rows are in, before any index is built.
    void finish();

    // Fills the empty `list` with the table's records in `index`'s order,
    // from the runs, if they tell it; false (the list left empty) if not.
    bool build(const IndexSort *index, PartitionList<Record> &list);

    // The runs of the load whose indexes this thread is building: the ones
    // a Scope names while it lives.
    static LoadedRuns *current();
    class Scope
    {
    public:
        explicit Scope(LoadedRuns *runs);
        ~Scope();
        Scope(const Scope &) = delete;
        Scope &operator=(const Scope &) = delete;

    private:
        LoadedRuns *m_previous;
    };

private:
    struct Block;
    struct Shared;

    void submit(Block *block);
    void stopHelpers();

    std::unique_ptr<Shared> m_shared;
    std::vector<std::thread> m_helpers;
    bool m_cannotStart = false;
    std::vector<std::unique_ptr<Block>> m_blocks;
    long long m_taken = 0;
    size_t m_built = 0;
    bool m_finished = false;
};

// --- The buffer-less stable merge sort ---------------------------------------
// Works on any random-access iterator over records (a partition list's, a
// vector's) and uses no memory beyond the recursion: the small-list sort of
// the sorted index and the sort of the vector index.

template <class Iterator>
void reverse(Iterator first, Iterator last, int n)
{
    for (int i = 0; i < n / 2; ++i) {
        --last;
        swap(*first, *last);
        ++first;
    }
}

// Swaps the adjacent runs [first, middle) and [middle, last) by reversals.
template <class Iterator>
Iterator rotate(Iterator first, Iterator middle, Iterator last, int n1, int n2)
{
    if (n1 == 0)
        return last;
    if (n2 == 0)
        return first;
    reverse(first, middle, n1);
    reverse(middle, last, n2);
    reverse(first, last, n1 + n2);
    return first + n2;
}

// The first of n elements from `first` that is not less than value (lower)
// or that value is less than (upper).
template <class Iterator, class LessThan>
Iterator bound(Iterator first, int n, const Record &value, const LessThan &less, bool upper)
{
    while (n > 0) {
        const int half = n / 2;
        Iterator middle = first + half;
        if (upper ? !less(value, *middle) : less(*middle, value)) {
            first = ++middle;
            n -= half + 1;
        } else {
            n = half;
        }
    }
    return first;
}

template <class Iterator, class LessThan>
void mergeWithoutBuffer(Iterator first, Iterator middle, Iterator last, int n1, int n2, const LessThan &less)
{
    if (n1 == 0 || n2 == 0)
        return;
    if (n1 + n2 == 2) {
        if (less(*middle, *first))
            swap(*first, *middle);
        return;
    }
    Iterator firstCut;
    Iterator secondCut;
    int n11;
    int n22;
    if (n1 > n2) {
        n11 = n1 / 2;
        firstCut = first + n11;
        secondCut = bound(middle, n2, *firstCut, less, false);
        n22 = static_cast<int>(secondCut - middle);
    } else {
        n22 = n2 / 2;
        secondCut = middle + n22;
        firstCut = bound(first, n1, *secondCut, less, true);
        n11 = static_cast<int>(firstCut - first);
    }
    const Iterator newMiddle = rotate(firstCut, middle, secondCut, n1 - n11, n22);
    mergeWithoutBuffer(first, firstCut, newMiddle, n11, n22, less);
    mergeWithoutBuffer(newMiddle, secondCut, last, n1 - n11, n2 - n22, less);
}

// Stable: split at n / 2, sort both halves, merge them in place.
template <class Iterator, class LessThan>
void mergeSort(Iterator first, Iterator last, int n, const LessThan &less)
{
    if (n < 2)
        return;
    const int half = n / 2;
    const Iterator middle = first + half;
    mergeSort(first, middle, half, less);
    mergeSort(middle, last, n - half, less);
    mergeWithoutBuffer(first, middle, last, half, n - half, less);
}

} // namespace recordsort

#endif // DATABASE_RECORDSORT_P_H
