#ifndef DATABASE_TABLEMODELPLAN_P_H
#define DATABASE_TABLEMODELPLAN_P_H

//
//  W A R N I N G
//  -------------
//
// This file is not part of the database API. It exists for the convenience
// of the library's own sources and may change from version to version
// without notice.
//

#include "database_export.h"
#include "largealloc_p.h"

#include <QtCore/QtGlobal>

#include <vector>

namespace tablemodelplan {
// A view's rows: a million of them are read into it on each update, so it
// takes its pages a huge page at a time, and is sized without zeroing
// before it is written over.
using Rows = largealloc::UninitVector<unsigned char *>;
} // namespace tablemodelplan

// A bit per hash of a row address: most rows of a pass over a million
// handles are not among the changed ones, and a bit test tells so without
// reaching a hash table.
class RowFilter
{
public:
    explicit RowFilter(size_t expected);
    void add(const unsigned char *row)
    {
        const quint64 h = hash(row);
        m_bits[h / 64] |= quint64(1) << (h % 64);
    }
    bool maybe(const unsigned char *row) const
    {
        const quint64 h = hash(row);
        return (m_bits[h / 64] >> (h % 64)) & 1;
    }

private:
    quint64 hash(const unsigned char *row) const
    {
        return (quint64(reinterpret_cast<quintptr>(row)) * 0x9E3779B97F4A7C15ull) >> m_shift;
    }

    std::vector<quint64> m_bits;
    int m_shift;
};

// The rows a view sees while an update is being signalled: pieces of the
// old and the new snapshot, so that every intermediate state between two
// signals answers at() without copying the rows.
class DATABASE_EXPORT TableModelRows
{
public:
    enum Origin : quint8 { Old, New };

    void reset(const tablemodelplan::Rows &rows);
    int count() const { return m_count; }
    unsigned char *at(int i) const;
    // Where element `index` of the old or new snapshot stands now; -1 if
    // it is not shown.
    int positionOf(Origin origin, int index) const;
    void remove(int first, int count);
    void insert(int at, Origin origin, unsigned char *const *base, int index, int count);

private:
    struct Piece
    {
        unsigned char *const *base; // the snapshot's first element
        int index;                  // first element of the piece
        int count;
        Origin origin;
    };
    // Splits so that a piece starts at position i; answers that piece.
    int split(int i);
    void recount();

    std::vector<Piece> m_pieces;
    std::vector<int> m_starts;
    int m_count = 0;
};

// How an update takes a view from one list of rows to the next: which rows
// left, came, moved and changed, as the steps of Qt's item-model signals.
// A pure function of the two lists and the changed rows, so it is tested by
// replaying its steps, without a table or a model.
namespace tablemodelplan {

// A row the table reported changed: in the columns [firstColumn,
// lastColumn] of the table, or anywhere when firstColumn < 0 (it came or
// left). A row may be given several times.
struct DATABASE_EXPORT ChangedRow
{
    const unsigned char *row;
    int firstColumn;
    int lastColumn;
};

struct DATABASE_EXPORT Step
{
    enum Kind : quint8 {
        Remove, // rows [first, first + count) leave
        Insert, // new rows [newIndex, newIndex + count) go in at `first`
        Move,   // rows [first, first + count) go before row `to` (counted
                // before the move); they are new rows from newIndex on
        Rebase, // rows [first, first + count) stay; from now on they are the
                // new rows from newIndex on (no signal)
        Data,   // rows [first, first + count) changed in model columns
                // [firstColumn, lastColumn]
    };
    Kind kind;
    int first;
    int count;
    int to;
    int newIndex;
    int firstColumn;
    int lastColumn;
};

// The steps that take the view from `rows` to `next`, given the changed
// rows and the table column shown in each model column. Every row in both
// lists that is not among the changed ones must keep its relative order,
// and a row may appear once in each list; else, or past `threshold` row
// signals (Remove, Insert and Move steps), answers false: the update is
// one layoutChanged. The Data steps come last, in positions of `next`; past
// `threshold` of them they are one step spanning them all. The pass over
// the rows is cut among threads in `pieces` (0: by the lists' size); the
// answer is the same for any.
DATABASE_EXPORT bool plan(const tablemodelplan::Rows &rows, const tablemodelplan::Rows &next,
                          const std::vector<ChangedRow> &changed, const std::vector<int> &columns, int threshold,
                          std::vector<Step> &steps, int pieces = 0);

// `next` made of `rows` without the rows at the positions `removed` and
// with insertedRows[k] at position inserted[k] of the result (both
// ascending): a copy of runs, cut among threads in `pieces` by position in
// `next` (0: by its size). False, leaving `next` undefined, when the
// positions do not fit the lists.
DATABASE_EXPORT bool applyEdit(const tablemodelplan::Rows &rows, const std::vector<int> &removed,
                               const std::vector<int> &inserted, const std::vector<unsigned char *> &insertedRows,
                               tablemodelplan::Rows &next, int pieces = 0);

// The same steps as plan() when the places of the changed rows are known
// (changed[k] stands at oldPositions[k] in `rows` and newPositions[k] in
// `next`, -1 where it is not), found without a pass over the lists. The
// rows that did not change must be the same, in the same order, in both.
DATABASE_EXPORT bool planFollowing(const tablemodelplan::Rows &rows, const tablemodelplan::Rows &next,
                                   const std::vector<ChangedRow> &changed, const std::vector<int> &oldPositions,
                                   const std::vector<int> &newPositions, const std::vector<int> &columns,
                                   int threshold, std::vector<Step> &steps);

// The steps of an update that moved no row: each changed row stands at
// `positions[k]` (of changed[k]) before and after. They are the ones plan()
// answers for such an update, found without a pass over the rows.
DATABASE_EXPORT void planInPlace(const std::vector<ChangedRow> &changed, const std::vector<int> &positions,
                                 const std::vector<int> &columns, int threshold, std::vector<Step> &steps);

// Stops the program, naming the first difference, unless the view shows
// exactly `rows`: what an update's signals left against what it read from
// the index. Builds with DATABASE_CHECKS run it after every update.
DATABASE_EXPORT void verifyShown(const TableModelRows &view, const tablemodelplan::Rows &rows);

// Stops the program, naming the first difference, unless the rows a model
// made by following an index's edit are the index's rows. Builds with
// DATABASE_CHECKS run it after every edit followed.
DATABASE_EXPORT void verifyFollowed(const tablemodelplan::Rows &followed, const tablemodelplan::Rows &read);

} // namespace tablemodelplan

#endif // DATABASE_TABLEMODELPLAN_P_H
