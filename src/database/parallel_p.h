#ifndef DATABASE_PARALLEL_P_H
#define DATABASE_PARALLEL_P_H

//
//  W A R N I N G
//  -------------
//
// This file is not part of the database API. It exists for the convenience
// of the library's own sources and may change from version to version
// without notice.
//

#include "database_export.h"

#include <functional>

// Passes over a million handles are bound by memory bandwidth, which a
// second core nearly doubles: such passes are cut into pieces shared with
// the global thread pool.
namespace parallel {

// Where piece `piece` of [0, count) cut evenly in `pieces` starts (piece
// `pieces` is the end): a caller that keeps something per piece finds it
// from the first position it is given.
inline long long pieceStart(long long count, int pieces, int piece)
{
    return count * piece / pieces;
}

// Runs body(first, last) for `pieces` consecutive ranges that cut
// [0, count) evenly, on the calling thread and on the global pool's threads
// that are free now, and returns when every piece is done; what the pieces
// wrote is then the caller's to read. The caller runs every piece that no
// pool thread took, so a busy pool (even one whose jobs wait for a lock the
// caller holds) costs time, never a deadlock. An exception thrown by a
// piece passes to the caller once the others are done.
DATABASE_EXPORT void forPieces(long long count, int pieces, const std::function<void(long long, long long)> &body);

// Threads to share work among, the caller's included: the pool's, but no
// more than the cores however large the pool was made.
DATABASE_EXPORT int threads();

// How many pieces a pass over `count` elements is worth: one below the size
// where a thread's wake-up outweighs the work.
DATABASE_EXPORT int piecesFor(long long count);

// f(first, count, start) over every segment of a partitioned list, as its
// forEachSegment gives them, in pieces shared as forPieces shares them:
// f runs on several threads at once, on disjoint positions.
template <typename List, typename F>
void forEachSegment(const List &list, F f)
{
    const int n = list.count();
    forPieces(n, piecesFor(n), [&list, &f](long long from, long long to) {
        list.forEachSegmentIn(static_cast<int>(from), static_cast<int>(to), f);
    });
}

} // namespace parallel

#endif // DATABASE_PARALLEL_P_H
