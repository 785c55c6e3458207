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

#include <vector>

namespace recordsort {

// A contiguous run of records: a partition's array, or a whole vector.
struct Segment
{
    Record *first;
    int count;
};

using Less = IndexSort::LessThan;

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

} // namespace recordsort

#endif // DATABASE_RECORDSORT_P_H
