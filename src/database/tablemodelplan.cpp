#include "tablemodelplan_p.h"

#include "parallel_p.h"
#include "partitionlist.h"

#include <algorithm>
#include <atomic>
#include <cstring>
#include <climits>
#include <functional>
#include <cstdint>
#include <utility>

RowFilter::RowFilter(size_t expected)
{
    // 128 bits a row: one row in a hundred and thirty of those not changed
    // reaches the table, and the bits of a thousand rows stay in the
    // first-level cache.
    m_shift = 64 - 12;
    while ((size_t(1) << (64 - m_shift)) < expected * 128 && m_shift > 64 - 24)
        --m_shift;
    m_bits.assign((size_t(1) << (64 - m_shift)) / 64, 0);
}

// ---------------------------------------------------------------------------
// The rows as the view sees them

void TableModelRows::reset(const tablemodelplan::Rows &rows)
{
    m_pieces.clear();
    if (!rows.empty())
        m_pieces.push_back({rows.data(), 0, static_cast<int>(rows.size()), Old});
    recount();
}

void TableModelRows::recount()
{
    m_starts.resize(m_pieces.size());
    int start = 0;
    for (size_t k = 0; k < m_pieces.size(); ++k) {
        m_starts[k] = start;
        start += m_pieces[k].count;
    }
    m_count = start;
}

unsigned char *TableModelRows::at(int i) const
{
    const auto k = static_cast<size_t>(std::upper_bound(m_starts.begin(), m_starts.end(), i) - m_starts.begin() - 1);
    const Piece &piece = m_pieces[k];
    return piece.base[piece.index + i - m_starts[k]];
}

int TableModelRows::positionOf(Origin origin, int index) const
{
    for (size_t k = 0; k < m_pieces.size(); ++k) {
        const Piece &piece = m_pieces[k];
        if (piece.origin == origin && index >= piece.index && index < piece.index + piece.count)
            return m_starts[k] + index - piece.index;
    }
    return -1;
}

int TableModelRows::split(int i)
{
    if (i >= m_count)
        return static_cast<int>(m_pieces.size());
    const auto k = static_cast<size_t>(std::upper_bound(m_starts.begin(), m_starts.end(), i) - m_starts.begin() - 1);
    const int offset = i - m_starts[k];
    if (offset == 0)
        return static_cast<int>(k);
    Piece tail = m_pieces[k];
    tail.index += offset;
    tail.count -= offset;
    m_pieces[k].count = offset;
    m_pieces.insert(m_pieces.begin() + static_cast<long>(k) + 1, tail);
    recount();
    return static_cast<int>(k) + 1;
}

void TableModelRows::remove(int first, int count)
{
    const int a = split(first);
    const int b = split(first + count);
    m_pieces.erase(m_pieces.begin() + a, m_pieces.begin() + b);
    recount();
}

void TableModelRows::insert(int at, Origin origin, unsigned char *const *base, int index, int count)
{
    const int k = split(at);
    m_pieces.insert(m_pieces.begin() + k, Piece{base, index, count, origin});
    recount();
}

// ---------------------------------------------------------------------------
// The plan

namespace tablemodelplan {

namespace {

// The changed rows by address: open addressing over a power of two at least
// twice their count, so that a lookup is a multiply and a probe or two.
class RowIds
{
public:
    explicit RowIds(size_t expected)
    {
        size_t capacity = 16;
        while (capacity < 2 * expected)
            capacity *= 2;
        m_rows.assign(capacity, nullptr);
        m_ids.resize(capacity);
        m_mask = capacity - 1;
    }
    // The id of `row`, given `next` when it is new; `added` says which.
    size_t insert(const unsigned char *row, size_t next, bool *added)
    {
        size_t slot = slotOf(row);
        *added = !m_rows[slot];
        if (*added) {
            m_rows[slot] = row;
            m_ids[slot] = next;
        }
        return m_ids[slot];
    }
    // The id of `row`, or SIZE_MAX.
    size_t find(const unsigned char *row) const
    {
        const size_t slot = slotOf(row);
        return m_rows[slot] ? m_ids[slot] : SIZE_MAX;
    }

private:
    size_t slotOf(const unsigned char *row) const
    {
        size_t slot = static_cast<size_t>((quint64(reinterpret_cast<quintptr>(row)) * 0x9E3779B97F4A7C15ull) >> 32)
            & m_mask;
        while (m_rows[slot] && m_rows[slot] != row)
            slot = (slot + 1) & m_mask;
        return slot;
    }

    std::vector<const unsigned char *> m_rows;
    std::vector<size_t> m_ids;
    size_t m_mask = 0;
};

// Runs of adjacent model columns, as (first, last) pairs.
using ColumnRuns = std::vector<std::pair<int, int>>;

// One changed row of an update: where it was and is, and what changed.
struct Change
{
    const unsigned char *row = nullptr;
    int firstColumn = INT_MAX; // the union of the changed table columns
    int lastColumn = -1;
    bool allColumns = false;
    bool data = false;
    bool stable = false; // shown in both, not moved
    bool placed = false; // inserted or moved by this update
    int oldPos = -1;
    int newPos = -1;
    int oldAnchor = -1; // rows unchanged before it, in the old and new rows
    int newAnchor = -1;
    int predecessorOld = -1; // old position of the unchanged row before it in the new rows
};

// Marks the longest run of `changes` (in old order) whose new positions
// increase: they stay where they are.
void markStable(std::vector<Change *> &changes)
{
    std::vector<int> tails; // index into changes of the run's last element, by length
    std::vector<int> before(changes.size(), -1);
    for (size_t i = 0; i < changes.size(); ++i) {
        const int position = changes[i]->newPos;
        const auto it = std::lower_bound(tails.begin(), tails.end(), position,
                                         [&](int k, int p) { return changes[static_cast<size_t>(k)]->newPos < p; });
        if (it != tails.begin())
            before[i] = *(it - 1);
        if (it == tails.end())
            tails.push_back(static_cast<int>(i));
        else
            *it = static_cast<int>(i);
    }
    for (int k = tails.empty() ? -1 : tails.back(); k != -1; k = before[static_cast<size_t>(k)])
        changes[static_cast<size_t>(k)]->stable = true;
}


// The Data steps of the changed rows `changes`, in order of their new
// positions: adjacent rows with the same columns together, and past
// `threshold` signals one step spanning them all.
void dataSteps(const std::vector<Change *> &changes, const std::vector<int> &columns, int threshold,
               std::vector<Step> &steps)
{
    struct Block
    {
        int first;
        int last;
        ColumnRuns runs;
    };
    std::vector<Block> blocks;
    int dataSignals = 0;
    for (const Change *change : changes) {
        if (!change->data)
            continue;
        ColumnRuns runs;
        for (int c = 0; c < static_cast<int>(columns.size()); ++c) {
            const int column = columns[static_cast<size_t>(c)];
            if (!change->allColumns && (column < change->firstColumn || column > change->lastColumn))
                continue;
            if (!runs.empty() && runs.back().second == c - 1)
                runs.back().second = c;
            else
                runs.emplace_back(c, c);
        }
        if (runs.empty())
            continue;
        if (!blocks.empty() && blocks.back().last == change->newPos - 1 && blocks.back().runs == runs) {
            blocks.back().last = change->newPos;
            continue;
        }
        dataSignals += static_cast<int>(runs.size());
        blocks.push_back({change->newPos, change->newPos, std::move(runs)});
    }
    if (dataSignals > threshold) {
        int left = INT_MAX;
        int right = -1;
        for (const Block &block : blocks) {
            left = std::min(left, block.runs.front().first);
            right = std::max(right, block.runs.back().second);
        }
        blocks = {{blocks.front().first, blocks.back().last, {{left, right}}}};
    }
    for (const Block &block : blocks) {
        for (const auto &run : block.runs)
            steps.push_back({Step::Data, block.first, block.last - block.first + 1, 0, 0, run.first, run.second});
    }
}

// Merges what changed of each row: the union of its columns, or every
// column for a row that left and came back.
void merge(Change &change, const ChangedRow &c)
{
    change.data = true;
    if (c.firstColumn < 0 || c.lastColumn < c.firstColumn) {
        change.allColumns = true;
    } else {
        change.firstColumn = std::min(change.firstColumn, c.firstColumn);
        change.lastColumn = std::max(change.lastColumn, c.lastColumn);
    }
}

// The pass of plan() cut into pieces of `next`, each walked by its own
// thread from where its first unchanged row stands in `rows` (found near
// its own position: a row's place moves by at most the number of changed
// rows). What each piece found is joined, and checked where the pieces
// meet, afterwards.
struct Found
{
    int position;
    int id;
};

struct PieceScan
{
    std::vector<Found> inNext; // changed rows of next, in order
    std::vector<Found> inRows; // changed rows of rows, in order
    int anchor = -1;           // where the piece's first unchanged row stands in rows
    int end = -1;              // the rows the piece consumed end here
    bool fallBack = false;     // no unchanged row, or not found near: the serial pass decides
    bool differs = false;      // the unchanged rows differ: the plan fails
};

enum class Scan { Done, Differs, FallBack };

template <typename Find>
Scan scanInPieces(const tablemodelplan::Rows &rows, const tablemodelplan::Rows &next, Find find, size_t changedCount,
                  int pieces, std::vector<Found> &inNext, std::vector<Found> &inRows)
{
    const long long oldCount = static_cast<long long>(rows.size());
    const long long newCount = static_cast<long long>(next.size());
    const long long reach = static_cast<long long>(changedCount);
    std::vector<PieceScan> scans(static_cast<size_t>(pieces));
    std::vector<long long> starts;
    for (int p = 0; p < pieces; ++p)
        starts.push_back(parallel::pieceStart(newCount, pieces, p));
    parallel::forPieces(newCount, pieces, [&](long long from, long long to) {
        const auto piece = std::lower_bound(starts.begin(), starts.end(), from) - starts.begin();
        Q_ASSERT(piece < pieces && starts[static_cast<size_t>(piece)] == from);
        PieceScan &scan = scans[static_cast<size_t>(piece)];
        long long j = from;
        int id;
        auto changedAt = [&find, &id](const unsigned char *row) {
            id = find(row);
            return id >= 0;
        };
        for (; j < to && changedAt(next[static_cast<size_t>(j)]); ++j)
            scan.inNext.push_back({static_cast<int>(j), id});
        if (j == to) {
            scan.fallBack = true;
            return;
        }
        const unsigned char *first = next[static_cast<size_t>(j)];
        long long i = std::max<long long>(0, j - reach);
        const long long last = std::min(oldCount, j + reach + 1);
        while (i < last && rows[static_cast<size_t>(i)] != first)
            ++i;
        if (i == last) {
            scan.fallBack = true;
            return;
        }
        scan.anchor = static_cast<int>(i);
        if (from == 0) {
            // Before the first unchanged row, only changed ones.
            for (long long k = 0; k < i; ++k) {
                if (!changedAt(rows[static_cast<size_t>(k)])) {
                    scan.differs = true;
                    return;
                }
                scan.inRows.push_back({static_cast<int>(k), id});
            }
        }
        for (; j < to; ++j) {
            const unsigned char *row = next[static_cast<size_t>(j)];
            if (changedAt(row)) {
                scan.inNext.push_back({static_cast<int>(j), id});
                continue;
            }
            // Most rows are unchanged and where they were.
            if (i < oldCount && rows[static_cast<size_t>(i)] == row) {
                ++i;
                continue;
            }
            for (; i < oldCount && changedAt(rows[static_cast<size_t>(i)]); ++i)
                scan.inRows.push_back({static_cast<int>(i), id});
            if (i >= oldCount || rows[static_cast<size_t>(i)] != row) {
                scan.differs = true;
                return;
            }
            ++i;
        }
        for (; i < oldCount && changedAt(rows[static_cast<size_t>(i)]); ++i)
            scan.inRows.push_back({static_cast<int>(i), id});
        scan.end = static_cast<int>(i);
    });
    for (const PieceScan &scan : scans) {
        if (scan.fallBack)
            return Scan::FallBack;
    }
    for (size_t p = 0; p < scans.size(); ++p) {
        const int meets = p + 1 < scans.size() ? scans[p + 1].anchor : static_cast<int>(oldCount);
        if (scans[p].differs || scans[p].end != meets)
            return Scan::Differs;
    }
    for (const PieceScan &scan : scans) {
        inNext.insert(inNext.end(), scan.inNext.begin(), scan.inNext.end());
        inRows.insert(inRows.end(), scan.inRows.begin(), scan.inRows.end());
    }
    return Scan::Done;
}

// What the pieces found, given to the changes as the serial pass gives it:
// anchors count the unchanged rows before, and a row that follows an
// unchanged one names where that one stood in `rows`.
bool placeFound(const std::vector<Found> &inNext, const std::vector<Found> &inRows, std::vector<Change> &changes)
{
    size_t passed = 0; // changed rows of `rows` before the unchanged one sought
    for (size_t k = 0; k < inNext.size(); ++k) {
        Change &change = changes[static_cast<size_t>(inNext[k].id)];
        if (change.newPos != -1)
            return false;
        const int j = inNext[k].position;
        change.newPos = j;
        change.newAnchor = j - static_cast<int>(k);
        change.predecessorOld = -1;
        if (j > 0 && (k == 0 || inNext[k - 1].position != j - 1)) {
            // The unchanged row before it is the (anchor - 1)-th of both
            // lists; in `rows` it stands after the changed rows before it.
            const int unchanged = change.newAnchor - 1;
            while (passed < inRows.size() && inRows[passed].position - static_cast<int>(passed) <= unchanged)
                ++passed;
            change.predecessorOld = unchanged + static_cast<int>(passed);
        }
    }
    for (size_t k = 0; k < inRows.size(); ++k) {
        Change &change = changes[static_cast<size_t>(inRows[k].id)];
        if (change.oldPos != -1)
            return false;
        change.oldPos = inRows[k].position;
        change.oldAnchor = inRows[k].position - static_cast<int>(k);
    }
    return true;
}

} // namespace

void planInPlace(const std::vector<ChangedRow> &changed, const std::vector<int> &positions,
                 const std::vector<int> &columns, int threshold, std::vector<Step> &steps)
{
    steps.clear();
    RowIds ids(changed.size());
    std::vector<Change> changes;
    changes.reserve(changed.size());
    for (size_t k = 0; k < changed.size(); ++k) {
        bool added = false;
        const size_t id = ids.insert(changed[k].row, changes.size(), &added);
        if (added) {
            changes.emplace_back();
            changes.back().row = changed[k].row;
            changes.back().newPos = positions[k];
        }
        merge(changes[id], changed[k]);
    }
    std::vector<Change *> order;
    order.reserve(changes.size());
    for (Change &change : changes)
        order.push_back(&change);
    std::sort(order.begin(), order.end(), [](const Change *a, const Change *b) { return a->newPos < b->newPos; });
    dataSteps(order, columns, threshold, steps);
}

namespace {

// The changed rows, once each, with what changed of each merged.
struct ChangeSet
{
    explicit ChangeSet(const std::vector<ChangedRow> &changed) : ids(changed.size()), filter(changed.size())
    {
        for (const ChangedRow &c : changed) {
            bool added = false;
            const size_t id = ids.insert(c.row, changes.size(), &added);
            if (added) {
                changes.emplace_back();
                changes.back().row = c.row;
                filter.add(c.row);
            }
            merge(changes[id], c);
        }
    }
    Change *find(const unsigned char *row)
    {
        if (!filter.maybe(row))
            return nullptr;
        const size_t id = ids.find(row);
        return id == SIZE_MAX ? nullptr : &changes[id];
    }

    RowIds ids;
    std::vector<Change> changes;
    RowFilter filter;
};

// The steps, once every change knows where it was and is (and its anchors).
bool finish(const tablemodelplan::Rows &rows, const tablemodelplan::Rows &next, ChangeSet &set,
            const std::vector<int> &columns, int threshold, std::vector<Step> &steps);

} // namespace

bool plan(const tablemodelplan::Rows &rows, const tablemodelplan::Rows &next,
          const std::vector<ChangedRow> &changed, const std::vector<int> &columns, int threshold,
          std::vector<Step> &steps, int pieces)
{
    steps.clear();
    ChangeSet set(changed);
    std::vector<Change> &changes = set.changes;
    const RowIds &ids = set.ids;
    const RowFilter &filter = set.filter;
    auto find = [&set](const unsigned char *row) { return set.find(row); };

    // One pass over both row lists: the unchanged rows must come in the same
    // order in both (else the index changed behind the table's back, and
    // the update rereads everything); the changed ones get their places.
    const int oldCount = static_cast<int>(rows.size());
    const int newCount = static_cast<int>(next.size());
    if (pieces <= 0)
        pieces = parallel::piecesFor(std::max(oldCount, newCount));
    Scan scan = Scan::FallBack;
    if (pieces > 1 && newCount >= pieces) {
        std::vector<Found> inNext, inRows;
        scan = scanInPieces(
            rows, next,
            [&](const unsigned char *row) {
                if (!filter.maybe(row))
                    return -1;
                const size_t id = ids.find(row);
                return id == SIZE_MAX ? -1 : static_cast<int>(id);
            },
            changes.size(), pieces, inNext, inRows);
        if (scan == Scan::Differs || (scan == Scan::Done && !placeFound(inNext, inRows, changes)))
            return false;
    }
    int i = 0;
    int unchanged = 0;
    int lastUnchangedOld = -1;
    bool previousUnchanged = false;
    for (int j = scan == Scan::Done ? newCount : 0; j < newCount; ++j) {
        // Most rows are unchanged and where they were.
        if (i < oldCount && rows[static_cast<size_t>(i)] == next[static_cast<size_t>(j)]
            && !filter.maybe(next[static_cast<size_t>(j)])) {
            lastUnchangedOld = i++;
            ++unchanged;
            previousUnchanged = true;
            continue;
        }
        if (Change *change = find(next[static_cast<size_t>(j)])) {
            if (change->newPos != -1)
                return false;
            change->newPos = j;
            change->newAnchor = unchanged;
            change->predecessorOld = previousUnchanged ? lastUnchangedOld : -1;
            previousUnchanged = false;
            continue;
        }
        for (; i < oldCount; ++i) {
            Change *change = find(rows[static_cast<size_t>(i)]);
            if (!change)
                break;
            if (change->oldPos != -1)
                return false;
            change->oldPos = i;
            change->oldAnchor = unchanged;
        }
        if (i >= oldCount || rows[static_cast<size_t>(i)] != next[static_cast<size_t>(j)])
            return false;
        lastUnchangedOld = i++;
        ++unchanged;
        previousUnchanged = true;
    }
    for (i = scan == Scan::Done ? oldCount : i; i < oldCount; ++i) {
        Change *change = find(rows[static_cast<size_t>(i)]);
        if (!change || change->oldPos != -1)
            return false;
        change->oldPos = i;
        change->oldAnchor = unchanged;
    }
    return finish(rows, next, set, columns, threshold, steps);
}

bool applyEdit(const tablemodelplan::Rows &rows, const std::vector<int> &removed, const std::vector<int> &inserted,
               const std::vector<unsigned char *> &insertedRows, tablemodelplan::Rows &next, int pieces)
{
    const size_t oldCount = rows.size();
    if (removed.size() > oldCount || inserted.size() != insertedRows.size()
        || (!removed.empty() && (removed.front() < 0 || static_cast<size_t>(removed.back()) >= oldCount)))
        return false;
    const size_t newCount = oldCount - removed.size() + inserted.size();
    if (!inserted.empty() && (inserted.front() < 0 || static_cast<size_t>(inserted.back()) >= newCount))
        return false;
    auto ascending = [](const std::vector<int> &v) {
        return std::adjacent_find(v.begin(), v.end(), std::greater_equal<int>()) == v.end();
    };
    if (!ascending(removed) || !ascending(inserted))
        return false;
    next.resize(newCount);
    if (pieces <= 0)
        pieces = parallel::piecesFor(static_cast<long long>(newCount));
    std::atomic<bool> fits{true};
    parallel::forPieces(static_cast<long long>(newCount), pieces, [&](long long first, long long last) {
        const size_t end = static_cast<size_t>(last);
        size_t j = static_cast<size_t>(first);
        size_t a = static_cast<size_t>(std::lower_bound(inserted.begin(), inserted.end(), static_cast<int>(j))
                                       - inserted.begin());
        // Position j holds the (j - a)-th old row that stays.
        const size_t staying = j - a;
        size_t d = skippedBefore(removed, static_cast<long long>(staying));
        size_t r = staying + d;
        while (j < end) {
            if (a < inserted.size() && static_cast<size_t>(inserted[a]) == j) {
                next[j++] = insertedRows[a++];
                continue;
            }
            while (d < removed.size() && static_cast<size_t>(removed[d]) == r) {
                ++r;
                ++d;
            }
            const size_t toInsert = a < inserted.size() ? static_cast<size_t>(inserted[a]) : newCount;
            const size_t toRemove = d < removed.size() ? static_cast<size_t>(removed[d]) : oldCount;
            if (toInsert < j || toRemove < r || r >= oldCount) {
                fits = false;
                return;
            }
            const size_t run = std::min({toInsert - j, toRemove - r, end - j});
            std::memcpy(next.data() + j, rows.data() + r, run * sizeof(unsigned char *));
            j += run;
            r += run;
        }
    });
    return fits;
}

bool planFollowing(const tablemodelplan::Rows &rows, const tablemodelplan::Rows &next,
                   const std::vector<ChangedRow> &changed, const std::vector<int> &oldPositions,
                   const std::vector<int> &newPositions, const std::vector<int> &columns, int threshold,
                   std::vector<Step> &steps)
{
    steps.clear();
    ChangeSet set(changed);
    // Each changed row's places, once each, in the order of the lists.
    std::vector<Found> inRows;
    std::vector<Found> inNext;
    std::vector<char> given(set.changes.size(), 0);
    for (size_t k = 0; k < changed.size(); ++k) {
        const int id = static_cast<int>(set.ids.find(changed[k].row));
        if (given[static_cast<size_t>(id)])
            continue;
        given[static_cast<size_t>(id)] = 1;
        if (oldPositions[k] >= 0)
            inRows.push_back({oldPositions[k], id});
        if (newPositions[k] >= 0)
            inNext.push_back({newPositions[k], id});
    }
    auto byPosition = [](const Found &a, const Found &b) { return a.position < b.position; };
    std::sort(inRows.begin(), inRows.end(), byPosition);
    std::sort(inNext.begin(), inNext.end(), byPosition);
    if (!placeFound(inNext, inRows, set.changes))
        return false;
    return finish(rows, next, set, columns, threshold, steps);
}

namespace {

bool finish(const tablemodelplan::Rows &rows, const tablemodelplan::Rows &next, ChangeSet &set,
            const std::vector<int> &columns, int threshold, std::vector<Step> &steps)
{
    std::vector<Change> &changes = set.changes;
    auto find = [&set](const unsigned char *row) { return set.find(row); };
    const int newCount = static_cast<int>(next.size());

    // Rows shown in both that stayed between the same unchanged rows, and
    // in order among themselves, are not moved.
    std::vector<Change *> kept;
    std::vector<int> removed;
    std::vector<Change *> targets;
    for (Change &change : changes) {
        if (change.oldPos >= 0 && change.newPos >= 0)
            kept.push_back(&change);
        else if (change.oldPos >= 0)
            removed.push_back(change.oldPos);
    }
    std::sort(kept.begin(), kept.end(), [](const Change *a, const Change *b) { return a->oldPos < b->oldPos; });
    for (size_t a = 0; a < kept.size();) {
        size_t b = a;
        std::vector<Change *> candidates;
        for (; b < kept.size() && kept[b]->oldAnchor == kept[a]->oldAnchor; ++b) {
            if (kept[b]->newAnchor == kept[b]->oldAnchor)
                candidates.push_back(kept[b]);
        }
        markStable(candidates);
        a = b;
    }
    for (Change &change : changes) {
        if (change.newPos >= 0 && !change.stable)
            targets.push_back(&change);
    }
    std::sort(removed.begin(), removed.end(), std::greater<int>());
    std::sort(targets.begin(), targets.end(), [](const Change *a, const Change *b) { return a->newPos < b->newPos; });

    TableModelRows view;
    view.reset(rows);

    // Signals: runs of removed rows, then runs of inserted or moved ones.
    int signalCount = 0;
    for (size_t k = 0; k < removed.size(); ++k) {
        if (k == 0 || removed[k] != removed[k - 1] - 1)
            ++signalCount;
    }
    for (size_t k = 0; k < targets.size(); ++k) {
        const Change *t = targets[k];
        const Change *p = k ? targets[k - 1] : nullptr;
        const bool joins = p && t->newPos == p->newPos + 1 && (t->oldPos < 0) == (p->oldPos < 0)
            && (t->oldPos < 0 || t->oldPos == p->oldPos + 1);
        if (!joins)
            ++signalCount;
    }
    if (signalCount > threshold)
        return false;

    for (size_t k = 0; k < removed.size();) {
        size_t e = k + 1;
        while (e < removed.size() && removed[e] == removed[e - 1] - 1)
            ++e;
        const int first = removed[e - 1];
        const int last = removed[k];
        steps.push_back({Step::Remove, first, last - first + 1, 0, 0, 0, 0});
        view.remove(first, last - first + 1);
        k = e;
    }

    // Each row goes right after its predecessor in the new rows, in the
    // new order: that predecessor is in place already, and nothing is put
    // between the two later.
    auto predecessorPosition = [&](const Change *t) {
        if (t->newPos == 0)
            return -1;
        const Change *p = find(next[static_cast<size_t>(t->newPos - 1)]);
        if (!p)
            return view.positionOf(TableModelRows::Old, t->predecessorOld);
        if (p->placed)
            return view.positionOf(TableModelRows::New, t->newPos - 1);
        return view.positionOf(TableModelRows::Old, p->oldPos);
    };
    for (size_t k = 0; k < targets.size();) {
        Change *t = targets[k];
        const int to = predecessorPosition(t) + 1;
        int count = 1;
        if (t->oldPos < 0) {
            while (k + static_cast<size_t>(count) < targets.size()) {
                const Change *n = targets[k + static_cast<size_t>(count)];
                if (n->oldPos >= 0 || n->newPos != t->newPos + count)
                    break;
                ++count;
            }
            steps.push_back({Step::Insert, to, count, 0, t->newPos, 0, 0});
            view.insert(to, TableModelRows::New, next.data(), t->newPos, count);
        } else {
            const int from = view.positionOf(TableModelRows::Old, t->oldPos);
            while (k + static_cast<size_t>(count) < targets.size()) {
                const Change *n = targets[k + static_cast<size_t>(count)];
                if (n->oldPos < 0 || n->newPos != t->newPos + count
                    || view.positionOf(TableModelRows::Old, n->oldPos) != from + count)
                    break;
                ++count;
            }
            if (to == from || to == from + count) {
                // In place already: only the bookkeeping moves.
                steps.push_back({Step::Rebase, from, count, 0, t->newPos, 0, 0});
                view.remove(from, count);
                view.insert(from, TableModelRows::New, next.data(), t->newPos, count);
            } else {
                steps.push_back({Step::Move, from, count, to, t->newPos, 0, 0});
                view.remove(from, count);
                view.insert(to > from ? to - count : to, TableModelRows::New, next.data(), t->newPos, count);
            }
        }
        for (int m = 0; m < count; ++m)
            targets[k + static_cast<size_t>(m)]->placed = true;
        k += static_cast<size_t>(count);
    }
    Q_ASSERT(view.count() == newCount);

    // dataChanged: the changed columns of each row shown before and after.
    std::sort(kept.begin(), kept.end(), [](const Change *a, const Change *b) { return a->newPos < b->newPos; });
    dataSteps(kept, columns, threshold, steps);
    return true;
}

} // namespace

void verifyFollowed(const tablemodelplan::Rows &followed, const tablemodelplan::Rows &read)
{
    if (followed.size() != read.size())
        qFatal("TableModel: following the index's edit gave %d rows, the index has %d",
               static_cast<int>(followed.size()), static_cast<int>(read.size()));
    for (size_t i = 0; i < followed.size(); ++i) {
        if (followed[i] != read[i])
            qFatal("TableModel: following the index's edit gave a row %d that is not the index's", static_cast<int>(i));
    }
}

void verifyShown(const TableModelRows &view, const tablemodelplan::Rows &rows)
{
    if (view.count() != static_cast<int>(rows.size()))
        qFatal("TableModel: the signals left %d rows shown, the index has %d", view.count(),
               static_cast<int>(rows.size()));
    for (int i = 0; i < view.count(); ++i) {
        if (view.at(i) != rows[static_cast<size_t>(i)])
            qFatal("TableModel: row %d shown is not the index's row %d after an update", i, i);
    }
}

} // namespace tablemodelplan
