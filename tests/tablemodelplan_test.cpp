// The model's update planner, alone: its steps replayed on a plain list must
// give the new rows, touch only changed rows, and announce exactly the
// changed cells.

#include <database/tablemodelplan_p.h>

#include <QtCore/QRandomGenerator>

#include <gtest/gtest.h>

#include <algorithm>
#include <set>
#include <utility>
#include <vector>

namespace {

using tablemodelplan::ChangedRow;
using tablemodelplan::Step;
using Rows = tablemodelplan::Rows;

unsigned char storage[4096];
unsigned char *row(int i)
{
    return storage + i;
}

struct Replay
{
    Rows view;
    std::set<std::pair<int, int>> cells; // (row, model column) announced changed
    bool dataSeen = false;
    int rowSignals = 0;
};

// Applies the steps to `rows` as a view would, checking each against the
// rules a view relies on.
Replay replay(const Rows &rows, const Rows &next, const std::set<const unsigned char *> &changed,
              const std::vector<Step> &steps)
{
    Replay r{rows, {}, false, 0};
    Rows &v = r.view;
    auto onlyChanged = [&](int first, int count) {
        for (int i = first; i < first + count; ++i)
            EXPECT_TRUE(changed.count(v[static_cast<size_t>(i)])) << "an unchanged row at " << i << " was touched";
    };
    for (const Step &s : steps) {
        if (s.kind != Step::Data) {
            EXPECT_FALSE(r.dataSeen) << "a row step after a data step";
        }
        switch (s.kind) {
        case Step::Remove:
            ++r.rowSignals;
            onlyChanged(s.first, s.count);
            v.erase(v.begin() + s.first, v.begin() + s.first + s.count);
            break;
        case Step::Insert:
            ++r.rowSignals;
            v.insert(v.begin() + s.first, next.begin() + s.newIndex, next.begin() + s.newIndex + s.count);
            break;
        case Step::Rebase:
            for (int i = 0; i < s.count; ++i)
                EXPECT_EQ(v[static_cast<size_t>(s.first + i)], next[static_cast<size_t>(s.newIndex + i)]);
            break;
        case Step::Move: {
            ++r.rowSignals;
            onlyChanged(s.first, s.count);
            // Qt refuses a move onto itself.
            EXPECT_FALSE(s.to >= s.first && s.to <= s.first + s.count);
            for (int i = 0; i < s.count; ++i)
                EXPECT_EQ(v[static_cast<size_t>(s.first + i)], next[static_cast<size_t>(s.newIndex + i)]);
            const Rows block(v.begin() + s.first, v.begin() + s.first + s.count);
            v.erase(v.begin() + s.first, v.begin() + s.first + s.count);
            const int at = s.to > s.first ? s.to - s.count : s.to;
            v.insert(v.begin() + at, block.begin(), block.end());
            break;
        }
        case Step::Data:
            r.dataSeen = true;
            EXPECT_GE(s.first, 0);
            EXPECT_LE(s.first + s.count, static_cast<int>(next.size()));
            EXPECT_LE(s.firstColumn, s.lastColumn);
            for (int i = s.first; i < s.first + s.count; ++i) {
                for (int c = s.firstColumn; c <= s.lastColumn; ++c)
                    EXPECT_TRUE(r.cells.insert({i, c}).second) << "cell " << i << "," << c << " announced twice";
            }
            break;
        }
    }
    return r;
}

// A random update: some rows leave, some come, some change in place, some
// of those move; the unchanged ones keep their order. Table column t is
// shown as model column t (columns 0..4), and table column 5 is not shown.
struct Update
{
    Rows rows, next;
    std::vector<ChangedRow> changed;
    std::set<const unsigned char *> changedRows;
    std::set<std::pair<int, int>> expectedCells; // (row in next, model column)
};

Update randomUpdate(QRandomGenerator &random, int size)
{
    Update u;
    int fresh = 0;
    for (; fresh < size; ++fresh)
        u.rows.push_back(row(fresh));
    tablemodelplan::Rows unchanged, moved;
    std::vector<std::pair<unsigned char *, std::pair<int, int>>> inPlace; // row, table columns
    for (unsigned char *r : u.rows) {
        const int fate = static_cast<int>(random.bounded(10));
        if (fate == 0) {
            u.changed.push_back({r, -1, -1}); // left
            u.changedRows.insert(r);
        } else if (fate <= 2) {
            int a = static_cast<int>(random.bounded(6));
            int b = static_cast<int>(random.bounded(6));
            if (a > b)
                std::swap(a, b);
            u.changed.push_back({r, a, b});
            if (random.bounded(3) == 0)
                u.changed.push_back({r, b, b}); // told twice
            u.changedRows.insert(r);
            if (random.bounded(2))
                moved.push_back(r);
            else
                inPlace.push_back({r, {a, b}});
            unchanged.push_back(r); // placeholder, kept in order
        } else {
            unchanged.push_back(r);
        }
    }
    // In-place rows stay in the order of the unchanged ones; moved rows and
    // new rows go anywhere.
    u.next = unchanged;
    for (unsigned char *r : moved)
        u.next.erase(std::find(u.next.begin(), u.next.end(), r));
    for (unsigned char *r : moved)
        u.next.insert(u.next.begin() + random.bounded(static_cast<int>(u.next.size()) + 1), r);
    // Sometimes a run of rows, changed, moves as one block.
    if (u.next.size() > 4 && random.bounded(2)) {
        const int length = 2 + static_cast<int>(random.bounded(3));
        const int from = static_cast<int>(random.bounded(static_cast<int>(u.next.size()) - length + 1));
        const Rows block(u.next.begin() + from, u.next.begin() + from + length);
        for (unsigned char *r : block) {
            u.changed.push_back({r, 0, 0});
            u.changedRows.insert(r);
        }
        u.next.erase(u.next.begin() + from, u.next.begin() + from + length);
        const int to = static_cast<int>(random.bounded(static_cast<int>(u.next.size()) + 1));
        u.next.insert(u.next.begin() + to, block.begin(), block.end());
    }
    const int arrivals = static_cast<int>(random.bounded(4));
    for (int k = 0; k < arrivals; ++k) {
        unsigned char *r = row(fresh++);
        u.changed.push_back({r, -1, -1});
        u.changedRows.insert(r);
        u.next.insert(u.next.begin() + random.bounded(static_cast<int>(u.next.size()) + 1), r);
    }
    // Expected cells: each row in both lists, from the first to the last
    // column any of its changes names.
    for (size_t j = 0; j < u.next.size(); ++j) {
        const unsigned char *r = u.next[j];
        if (std::find(u.rows.begin(), u.rows.end(), r) == u.rows.end())
            continue;
        int first = 99, last = -1;
        for (const ChangedRow &c : u.changed) {
            if (c.row == r) {
                first = std::min(first, c.firstColumn < 0 ? 0 : c.firstColumn);
                last = std::max(last, c.firstColumn < 0 ? 99 : c.lastColumn);
            }
        }
        for (int column = first; column <= std::min(last, 4); ++column)
            u.expectedCells.insert({static_cast<int>(j), column});
    }
    return u;
}

const std::vector<int> shownColumns = {0, 1, 2, 3, 4};

} // namespace

TEST(TableModelPlan, RandomUpdatesReplayToTheNewRowsAndAnnounceExactlyTheChangedCells)
{
    QRandomGenerator random(11);
    int moves = 0;
    for (int round = 0; round < 2000; ++round) {
        const Update u = randomUpdate(random, static_cast<int>(random.bounded(30)));
        std::vector<Step> steps;
        ASSERT_TRUE(tablemodelplan::plan(u.rows, u.next, u.changed, shownColumns, 1000, steps)) << "round " << round;
        const Replay r = replay(u.rows, u.next, u.changedRows, steps);
        ASSERT_EQ(r.view, u.next) << "round " << round;
        ASSERT_EQ(r.cells, u.expectedCells) << "round " << round;
        for (const Step &s : steps)
            moves += s.kind == Step::Move;
        if (HasFailure())
            return;
    }
    EXPECT_GT(moves, 100); // moves were exercised, not only removals and insertions
}

TEST(TableModelPlan, RowsChangedInPlaceAreNotMovedAndNeighboursGoTogether)
{
    Rows rows;
    for (int i = 0; i < 8; ++i)
        rows.push_back(row(i));
    std::vector<Step> steps;
    // Rows 2 and 5 change in place, rows 3 and 4 leave, two new rows come
    // after row 6: one removal, one insertion, two data steps (their
    // columns differ), nothing moved.
    Rows next = {row(0), row(1), row(2), row(5), row(6), row(100), row(101), row(7)};
    const std::vector<ChangedRow> changed = {{row(2), 1, 1}, {row(5), 1, 2}, {row(3), -1, -1},
                                             {row(4), -1, -1}, {row(100), -1, -1}, {row(101), -1, -1}};
    ASSERT_TRUE(tablemodelplan::plan(rows, next, changed, shownColumns, 100, steps));
    std::vector<int> kinds;
    for (const Step &s : steps)
        kinds.push_back(s.kind);
    EXPECT_EQ(kinds, (std::vector<int>{Step::Remove, Step::Insert, Step::Data, Step::Data}));
    EXPECT_EQ(steps[0].first, 3);
    EXPECT_EQ(steps[0].count, 2);
    EXPECT_EQ(steps[1].first, 5);
    EXPECT_EQ(steps[1].count, 2);
    EXPECT_EQ(steps[2].first, 2);
    EXPECT_EQ(steps[2].firstColumn, 1);
    EXPECT_EQ(steps[2].lastColumn, 1);
    EXPECT_EQ(steps[3].first, 3);
    EXPECT_EQ(steps[3].firstColumn, 1);
    EXPECT_EQ(steps[3].lastColumn, 2);

    // A change in a column the model does not show announces nothing.
    ASSERT_TRUE(tablemodelplan::plan(rows, rows, {{row(3), 5, 5}}, shownColumns, 100, steps));
    EXPECT_TRUE(steps.empty());
}

// An update that moved no row is planned from the changed rows' places
// alone, with exactly the steps of the planner that compares both lists.
TEST(TableModelPlan, AnUpdateInPlaceHasTheStepsOfTheFullPlan)
{
    QRandomGenerator random(23);
    auto fields = [](const std::vector<Step> &steps) {
        std::vector<std::vector<int>> out;
        for (const Step &s : steps)
            out.push_back({s.kind, s.first, s.count, s.firstColumn, s.lastColumn});
        return out;
    };
    for (int round = 0; round < 2000; ++round) {
        Rows rows;
        const int n = 1 + static_cast<int>(random.bounded(40));
        for (int i = 0; i < n; ++i)
            rows.push_back(row(i));
        std::vector<ChangedRow> changed;
        std::vector<int> positions;
        for (int k = static_cast<int>(random.bounded(12)); k > 0; --k) {
            const int at = static_cast<int>(random.bounded(n));
            int a = static_cast<int>(random.bounded(7)) - 1, b = static_cast<int>(random.bounded(7)) - 1;
            if (random.bounded(2) && a > b)
                std::swap(a, b); // else an empty range: every column
            changed.push_back({rows[static_cast<size_t>(at)], a, b});
            positions.push_back(at);
        }
        const int threshold = std::vector<int>{0, 1, 3, 1000}[random.bounded(4)];
        std::vector<Step> full, inPlace;
        ASSERT_TRUE(tablemodelplan::plan(rows, rows, changed, shownColumns, threshold, full));
        tablemodelplan::planInPlace(changed, positions, shownColumns, threshold, inPlace);
        ASSERT_EQ(fields(inPlace), fields(full)) << "round " << round;
    }
}

// What an update's signals leave shown is checked against the index's rows
// (after every update in builds with run-time checks).
TEST(TableModelPlan, AViewThatDiffersFromTheIndexIsNamed)
{
    ::testing::FLAGS_gtest_death_test_style = "threadsafe";
    const Rows rows = {row(0), row(1), row(2)};
    TableModelRows view;
    view.reset(rows);
    tablemodelplan::verifyShown(view, rows); // the same: nothing to say
    EXPECT_DEATH(tablemodelplan::verifyShown(view, {row(0), row(2), row(1)}), "TableModel: row 1 shown is not the index's row 1");
    view.remove(2, 1);
    EXPECT_DEATH(tablemodelplan::verifyShown(view, rows), "TableModel: the signals left 2 rows shown, the index has 3");
    // Rows made by following an index's edit, against the index's own.
    tablemodelplan::verifyFollowed(rows, rows);
    EXPECT_DEATH(tablemodelplan::verifyFollowed(rows, {row(0), row(1)}),
                 "following the index's edit gave 3 rows, the index has 2");
    EXPECT_DEATH(tablemodelplan::verifyFollowed(rows, {row(0), row(1), row(3)}),
                 "following the index's edit gave a row 2 that is not the index's");
}

TEST(TableModelPlan, ReorderedUnchangedRowsOrTooManySignalsMeanALayoutChange)
{
    const Rows rows = {row(0), row(1), row(2), row(3)};
    std::vector<Step> steps;
    // Two unchanged rows swapped: the index changed behind the table's back.
    EXPECT_FALSE(tablemodelplan::plan(rows, {row(0), row(2), row(1), row(3)}, {}, shownColumns, 100, steps));
    // A row shown twice.
    EXPECT_FALSE(tablemodelplan::plan(rows, {row(0), row(1), row(1), row(2), row(3)}, {{row(1), 0, 0}}, shownColumns,
                                      100, steps));
    // Three separate removals against a threshold of two.
    const std::vector<ChangedRow> gone = {{row(0), -1, -1}, {row(2), -1, -1}};
    EXPECT_TRUE(tablemodelplan::plan(rows, {row(1), row(3)}, gone, shownColumns, 2, steps));
    EXPECT_FALSE(tablemodelplan::plan(rows, {row(1), row(3)}, gone, shownColumns, 1, steps));
    // Past the threshold of data steps: one step spanning them all.
    const std::vector<ChangedRow> scattered = {{row(0), 0, 0}, {row(2), 3, 4}};
    ASSERT_TRUE(tablemodelplan::plan(rows, rows, scattered, shownColumns, 1, steps));
    ASSERT_EQ(steps.size(), 1u);
    EXPECT_EQ(steps[0].kind, Step::Data);
    EXPECT_EQ(steps[0].first, 0);
    EXPECT_EQ(steps[0].count, 3);
    EXPECT_EQ(steps[0].firstColumn, 0);
    EXPECT_EQ(steps[0].lastColumn, 4);
}

namespace {

// A large update, built in linear time: rows leave, change in place, move
// (some as one block) or arrive; `broken` spoils it as an index changed
// behind the table's back would: 1 swaps two unchanged rows, 2 shows a
// changed row twice, 3 drops an unchanged row, 4 shows a row never told.
struct BigUpdate
{
    Rows rows, next;
    std::vector<ChangedRow> changed;
};

// Addresses that are never read, only compared and hashed.
unsigned char *bigRow(int i)
{
    return reinterpret_cast<unsigned char *>(quintptr(1) << 32) + quintptr(i) * 8;
}

BigUpdate bigUpdate(QRandomGenerator &random, int n, int changes, int broken)
{
    BigUpdate u;
    for (int r = 0; r < n; ++r)
        u.rows.push_back(bigRow(r));
    std::vector<int> fate(static_cast<size_t>(n), 0); // 0 kept, 1 left, 2 in place, 3 moved
    for (int k = 0; k < changes; ++k) {
        const int r = static_cast<int>(random.bounded(n));
        fate[static_cast<size_t>(r)] = 1 + static_cast<int>(random.bounded(3));
        const bool whole = fate[static_cast<size_t>(r)] == 1;
        u.changed.push_back({bigRow(r), whole ? -1 : 1, whole ? -1 : 3});
    }
    Rows stay;
    std::vector<unsigned char *> movers;
    for (int r = 0; r < n; ++r) {
        const int f = fate[static_cast<size_t>(r)];
        if (f == 0 || f == 2)
            stay.push_back(bigRow(r));
        else if (f == 3)
            movers.push_back(bigRow(r));
    }
    for (int a = 0; a < changes / 10 + 1; ++a) {
        movers.push_back(bigRow(n + a));
        u.changed.push_back({bigRow(n + a), -1, -1});
    }
    // Most land anywhere, some together at one place.
    const int together = static_cast<int>(random.bounded(static_cast<int>(stay.size()) + 1));
    std::vector<std::pair<int, unsigned char *>> landing;
    for (unsigned char *m : movers)
        landing.push_back({random.bounded(5) == 0 ? together : static_cast<int>(random.bounded(static_cast<int>(stay.size()) + 1)), m});
    std::stable_sort(landing.begin(), landing.end(),
                     [](const auto &a, const auto &b) { return a.first < b.first; });
    size_t l = 0;
    for (int s = 0; s <= static_cast<int>(stay.size()); ++s) {
        for (; l < landing.size() && landing[l].first == s; ++l)
            u.next.push_back(landing[l].second);
        if (s < static_cast<int>(stay.size()))
            u.next.push_back(stay[static_cast<size_t>(s)]);
    }
    auto unchangedAt = [&](size_t from) {
        for (size_t j = from; j < u.next.size(); ++j) {
            const unsigned char *r = u.next[j];
            const auto k = static_cast<size_t>(r - bigRow(0)) / 8;
            if (k < fate.size() && fate[k] == 0)
                return j;
        }
        return u.next.size();
    };
    const size_t at = unchangedAt(static_cast<size_t>(random.bounded(static_cast<int>(u.next.size()))));
    if (broken == 1) {
        const size_t other = unchangedAt(at + 1);
        if (other < u.next.size())
            std::swap(u.next[at], u.next[other]);
    } else if (broken == 2 && !u.changed.empty()) {
        const ChangedRow &c = u.changed[random.bounded(static_cast<int>(u.changed.size()))];
        if (c.firstColumn >= 0)
            u.next.insert(u.next.begin() + random.bounded(static_cast<int>(u.next.size()) + 1), const_cast<unsigned char *>(c.row));
    } else if (broken == 3 && at < u.next.size()) {
        u.next.erase(u.next.begin() + static_cast<long>(at));
    } else if (broken == 4) {
        u.next.insert(u.next.begin() + random.bounded(static_cast<int>(u.next.size()) + 1), bigRow(10 * n + 7));
    }
    return u;
}

bool sameSteps(const std::vector<Step> &a, const std::vector<Step> &b)
{
    return std::equal(a.begin(), a.end(), b.begin(), b.end(), [](const Step &x, const Step &y) {
        return x.kind == y.kind && x.first == y.first && x.count == y.count && x.to == y.to
            && x.newIndex == y.newIndex && x.firstColumn == y.firstColumn && x.lastColumn == y.lastColumn;
    });
}

} // namespace

// The pass cut among threads answers what the single pass answers, for
// updates sound and broken, changes few and many (some pieces then hold no
// unchanged row), rows that travel far, and changes at either end.
TEST(TableModelPlan, APassCutInPiecesPlansAsTheSinglePassDoes)
{
    QRandomGenerator random(20261124);
    int failed = 0, done = 0;
    for (int round = 0; round < 300; ++round) {
        const bool large = random.bounded(4) == 0;
        const int n = static_cast<int>(large ? 20000 + random.bounded(100000) : 20 + random.bounded(2000));
        const int changes = static_cast<int>(!large && random.bounded(3) == 0 ? random.bounded(n)
                                                                              : random.bounded(1 + n / 100));
        const int broken = random.bounded(3) == 0 ? 1 + static_cast<int>(random.bounded(4)) : 0;
        const BigUpdate u = bigUpdate(random, n, changes, broken);
        for (const int threshold : {1 << 30, 40}) {
            std::vector<Step> single, cut;
            const bool planned = tablemodelplan::plan(u.rows, u.next, u.changed, shownColumns, threshold, single, 1);
            for (const int pieces : {2, 3, 7}) {
                ASSERT_EQ(tablemodelplan::plan(u.rows, u.next, u.changed, shownColumns, threshold, cut, pieces),
                          planned)
                    << "round " << round << " pieces " << pieces << " broken " << broken;
                ASSERT_TRUE(sameSteps(cut, single)) << "round " << round << " pieces " << pieces;
            }
            failed += !planned;
            done += planned;
        }
    }
    // Both outcomes were met.
    EXPECT_GT(failed, 20);
    EXPECT_GT(done, 100);
}

// Given where each changed row was and is, the plan is the one the pass
// over both lists finds, and a failure (too many signals) is the same too.
TEST(TableModelPlan, KnownPlacesPlanAsThePassDoes)
{
    QRandomGenerator random(20261125);
    int planned = 0;
    for (int round = 0; round < 2000; ++round) {
        const Update u = randomUpdate(random, static_cast<int>(random.bounded(30)));
        std::vector<int> oldPositions, newPositions;
        for (const ChangedRow &c : u.changed) {
            const auto was = std::find(u.rows.begin(), u.rows.end(), c.row);
            const auto is = std::find(u.next.begin(), u.next.end(), c.row);
            oldPositions.push_back(was == u.rows.end() ? -1 : static_cast<int>(was - u.rows.begin()));
            newPositions.push_back(is == u.next.end() ? -1 : static_cast<int>(is - u.next.begin()));
        }
        const int threshold = std::vector<int>{2, 5, 1000}[random.bounded(3)];
        std::vector<Step> pass, known;
        const bool passed = tablemodelplan::plan(u.rows, u.next, u.changed, shownColumns, threshold, pass);
        ASSERT_EQ(tablemodelplan::planFollowing(u.rows, u.next, u.changed, oldPositions, newPositions, shownColumns,
                                                threshold, known),
                  passed)
            << "round " << round;
        if (passed) {
            ASSERT_TRUE(sameSteps(known, pass)) << "round " << round;
        }
        planned += passed;
    }
    EXPECT_GT(planned, 500);
    EXPECT_LT(planned, 1900);
}

// An edit applied in pieces gives the rows that removing and inserting one
// by one gives, whatever the cut; positions that do not fit are refused.
TEST(TableModelPlan, AnEditAppliedInPiecesIsTheEditDoneByHand)
{
    QRandomGenerator random(20261126);
    for (int round = 0; round < 500; ++round) {
        const int n = static_cast<int>(random.bounded(200));
        Rows rows;
        for (int i = 0; i < n; ++i)
            rows.push_back(row(i));
        std::vector<int> removed;
        for (int i = 0; i < n; ++i) {
            if (random.bounded(round % 2 ? 3 : 20) == 0)
                removed.push_back(i);
        }
        Rows expected;
        for (int i = 0; i < n; ++i) {
            if (!std::binary_search(removed.begin(), removed.end(), i))
                expected.push_back(rows[static_cast<size_t>(i)]);
        }
        std::vector<int> inserted;
        std::vector<unsigned char *> insertedRows;
        for (int k = static_cast<int>(random.bounded(round % 3 == 0 ? 100 : 8)); k > 0; --k) {
            const int at = static_cast<int>(random.bounded(static_cast<int>(expected.size()) + 1));
            expected.insert(expected.begin() + at, row(1000 + k));
        }
        for (size_t j = 0; j < expected.size(); ++j) {
            if (expected[j] >= row(1000)) { // a new row
                inserted.push_back(static_cast<int>(j));
                insertedRows.push_back(expected[j]);
            }
        }
        for (const int pieces : {1, 2, 3, 7}) {
            Rows next;
            ASSERT_TRUE(tablemodelplan::applyEdit(rows, removed, inserted, insertedRows, next, pieces));
            ASSERT_EQ(next, expected) << "round " << round << ", " << pieces << " pieces";
        }
        // Positions that do not fit: refused, nothing read out of bounds.
        Rows next;
        if (!removed.empty()) {
            std::vector<int> bad = removed;
            bad.push_back(bad.back()); // twice
            EXPECT_FALSE(tablemodelplan::applyEdit(rows, bad, inserted, insertedRows, next, 3));
            bad = removed;
            bad.back() = n; // past the end
            EXPECT_FALSE(tablemodelplan::applyEdit(rows, bad, inserted, insertedRows, next, 2));
        }
        if (inserted.size() > 1) {
            std::vector<int> bad = inserted;
            std::swap(bad.front(), bad.back()); // out of order
            EXPECT_FALSE(tablemodelplan::applyEdit(rows, removed, bad, insertedRows, next, 2));
        }
    }
}
