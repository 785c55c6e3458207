#include "tablefixture.h"
#include "testutil.h"

#include <database/indexsort.h>
#include <database/masterindex.h>
#include <database/table.h>

#include <QtCore/QRandomGenerator>

#include <gtest/gtest.h>

#include <algorithm>
#include <map>
#include <set>

namespace {

// Counts comparisons and exposes the insertion point.
class CountingIndex : public IntKeyIndex
{
public:
    using IntKeyIndex::IntKeyIndex;
    int compare(const Record &a, const Record &b) const override
    {
        ++comparisons;
        return IntKeyIndex::compare(a, b);
    }
    int insertionPoint(const Record &record) const { return indexOfAdd(record); }
    mutable int comparisons = 0;
};

class IndexSortTest : public ::testing::Test
{
protected:
    IndexSortTest() { addKeyIdColumns(table); }

    Record append(int key, int id) { return appendRow(table, {key, id}); }

    // A search key that is in no index.
    Record key(int value) { return makeRow(table, {value, -1}); }

    Table table{QStringLiteral("sorted")};
    CountingIndex index{&table};
};

std::vector<int> keysOf(const IndexSort &index)
{
    std::vector<int> keys;
    for (const Record &record : index)
        keys.push_back(getInt(record, 0));
    return keys;
}

} // namespace

TEST_F(IndexSortTest, SearchesOverEqualKeys)
{
    int id = 0;
    for (const int k : {1, 1, 2, 2, 2, 3})
        append(k, id++);
    ASSERT_EQ(keysOf(index), std::vector<int>({1, 1, 2, 2, 2, 3}));
    EXPECT_EQ(index.search(key(2), -1), 2);
    EXPECT_EQ(index.searchLast(key(2), -1), 4);
    EXPECT_EQ(index.search(key(2), 2), 3);
    EXPECT_EQ(index.searchLast(key(2), 4), -1);
    EXPECT_EQ(index.search(key(4), -1), -1);
    EXPECT_EQ(index.search(key(0), -1), -1);
    EXPECT_EQ(index.insertionPoint(key(2)), 5);
    EXPECT_EQ(index.insertionPoint(key(0)), 0);
    EXPECT_EQ(index.searchFull(key(2), 1), 0); // an offset from position 2
    EXPECT_EQ(index.searchFull(key(2), -1), 2);
    EXPECT_EQ(index.searchFull(key(3), 2), 2);
    EXPECT_EQ(index.searchFull(key(9), -1), -1);

    index.comparisons = 0;
    EXPECT_EQ(index.search(key(3), index.count() - 1), -1);
    EXPECT_EQ(index.searchLast(key(3), index.count() - 1), -1);
    EXPECT_EQ(index.comparisons, 0);
}

// The bulk lookup answers what search(key, -1) answers, key by key, across
// groups of searches that run together, for present, absent and repeated
// keys.
TEST_F(IndexSortTest, SearchManyAnswersAsSearch)
{
    for (int i = 0; i < 100; ++i)
        append(i / 3 * 2, i); // runs of three equal keys, odd keys absent
    QVector<Record> keys;
    for (int k = -2; k < 70; ++k)
        keys.append(key(k));
    keys.append(key(10));
    const QVector<int> found = index.searchMany(keys);
    ASSERT_EQ(found.size(), keys.size());
    for (int i = 0; i < keys.size(); ++i)
        EXPECT_EQ(found[i], index.search(keys[i], -1)) << "key " << getInt(keys[i], 0);
    EXPECT_EQ(found[12], 15); // key 10: the first of its run
    EXPECT_TRUE(IndexSortTest::index.searchMany({}).isEmpty());
}

TEST_F(IndexSortTest, BuildSortsStablyBelowAndAboveTheParallelThreshold)
{
    table.removeIndex(&index);
    QRandomGenerator random(99);
    int id = 0;
    for (const int size : {511, 512, 5000, 40000, 150000}) {
        SCOPED_TRACE(size);
        table.clear();
        index.clear();
        for (int i = 0; i < size; ++i)
            append(random.bounded(size / 50 + 2), id++);
        index.build();
        ASSERT_EQ(index.count(), size);
        const std::vector<int> ids = index.ids();
        const std::vector<int> keys = keysOf(index);
        for (int i = 1; i < size; ++i) {
            ASSERT_LE(keys[i - 1], keys[i]);
            if (keys[i - 1] == keys[i]) {
                ASSERT_LT(ids[i - 1], ids[i]) << "equal keys out of arrival order at " << i;
            }
        }
    }
}

TEST_F(IndexSortTest, ResortOverUnevenPartitionsIsTheStableOrder)
{
    // Partitions of many sizes and keys with many ties: the merges meet
    // partition ends in both runs, merging forwards and backwards.
    QRandomGenerator random(7);
    QList<Record> gone;
    for (int i = 0; i < 60000; ++i) {
        const Record row = append(i, i);
        if ((i / 3000) % 3 != 0 && random.bounded(4) != 0)
            gone.append(row);
    }
    index.process(gone, {}, -1, -1, {});
    const QVector<int> counts = index.list().partitionCounts();
    ASSERT_GT(counts.size(), 2);
    ASSERT_NE(*std::min_element(counts.begin(), counts.end()), *std::max_element(counts.begin(), counts.end()));

    // New keys written behind the index's back; the expected order is a
    // stable sort of the list as it stood.
    std::vector<std::pair<int, int>> expected;
    for (const Record &record : index) {
        const int key = static_cast<int>(random.bounded(40));
        setInt(record, 0, key);
        expected.push_back({key, getInt(record, 1)});
    }
    std::stable_sort(expected.begin(), expected.end(),
                     [](const std::pair<int, int> &a, const std::pair<int, int> &b) { return a.first < b.first; });
    index.resort();
    std::vector<std::pair<int, int>> sorted;
    for (const Record &record : index)
        sorted.push_back({getInt(record, 0), getInt(record, 1)});
    EXPECT_EQ(sorted, expected);
}

TEST_F(IndexSortTest, UpdateMovesOnlyWhenANeighbourIsPassed)
{
    std::vector<Record> records;
    for (int i = 0; i < 5; ++i)
        records.push_back(append(10 * i, i)); // keys 0 10 20 30 40
    setInt(records[2], 0, 25);                 // still between 10 and 30
    table.updated(records[2]);
    EXPECT_EQ(index.ids(), std::vector<int>({0, 1, 2, 3, 4}));
    setInt(records[2], 0, 30); // equal to a neighbour: stays
    table.updated(records[2]);
    EXPECT_EQ(index.ids(), std::vector<int>({0, 1, 2, 3, 4}));
    setInt(records[0], 0, 30); // past two neighbours: after every 30
    table.updated(records[0]);
    EXPECT_EQ(index.ids(), std::vector<int>({1, 2, 3, 0, 4}));
    setInt(records[4], 0, -5);
    index.update(records[4], 0, 1, 4); // with the right position hint
    EXPECT_EQ(index.ids(), std::vector<int>({4, 1, 2, 3, 0}));
    setInt(records[1], 0, 100);
    index.update(records[1], 0, 1, 0); // a wrong hint is not trusted
    EXPECT_EQ(index.ids(), std::vector<int>({4, 2, 3, 0, 1}));
}

TEST_F(IndexSortTest, UpdateFollowsTheFilter)
{
    table.removeIndex(&index);
    IntKeyIndex odd(&table, 0, [](const Record &r) { return getInt(r, 0) % 2 == 1; });
    const Record a = append(1, 1);
    const Record b = append(2, 2);
    EXPECT_EQ(odd.ids(), std::vector<int>({1}));
    setInt(a, 0, 4);
    a.updated();
    EXPECT_TRUE(odd.ids().empty());
    setInt(b, 0, 3);
    b.updated();
    EXPECT_EQ(odd.ids(), std::vector<int>({2}));
}

TEST_F(IndexSortTest, IndexOfFindsARowWhoseKeyChangedUnseen)
{
    std::vector<Record> records;
    for (int i = 0; i < 50; ++i)
        records.push_back(append(i, i));
    setInt(records[10], 0, 1000); // changed in the row, index not told
    EXPECT_EQ(index.indexOf(records[10]), 10);
    EXPECT_TRUE(index.contains(records[10]));
    EXPECT_EQ(index.indexOf(key(5)), -1);

    const QMap<Record, int> positions = index.indexOfs({records[3], records[10], key(7), records[49]});
    EXPECT_EQ(positions.value(records[3]), 3);
    EXPECT_EQ(positions.value(records[10]), 10);
    EXPECT_EQ(positions.value(records[49]), 49);
    EXPECT_EQ(positions.size(), 4);
    EXPECT_EQ(std::count(positions.begin(), positions.end(), -1), 1);
}

// A key changed and never reported leaves the index out of order; builds
// with run-time checks stop at the end of the next batch, naming the index.
TEST_F(IndexSortTest, ABatchThatLeavesTheOrderBrokenStops)
{
#ifdef DATABASE_CHECKS
    ::testing::FLAGS_gtest_death_test_style = "threadsafe";
    std::vector<Record> r;
    for (int i = 0; i < 6; ++i)
        r.push_back(append(10 * i, i));
    index.process({}, {r[1]}, 0, 1, {}); // in order: nothing to say
    EXPECT_DEATH(
        {
            setInt(r[2], 0, 5); // unreported
            index.process({}, {r[4]}, 0, 1, {});
        },
        "IndexSort IntKeyIndex: records 1 and 2 out of order after a batch");
#else
    GTEST_SKIP() << "run-time checks are compiled out of this build";
#endif
}

TEST_F(IndexSortTest, ProcessAppliesABatch)
{
    std::vector<Record> r;
    for (int i = 0; i < 6; ++i)
        r.push_back(append(10 * i, i)); // 0 10 20 30 40 50
    const Record fresh = makeRow(table, {25, 6});
    const Record twice = makeRow(table, {25, 7});
    setInt(r[1], 0, 45); // moves past two neighbours
    setInt(r[4], 0, 41); // still in order
    index.process({r[2], r[5]}, {r[1], r[4]}, 0, 1, {fresh, twice});
    EXPECT_EQ(index.ids(), std::vector<int>({0, 6, 7, 3, 4, 1}));

    // A record both removed and inserted ends up in the index once.
    index.process({r[3]}, {}, -1, -1, {r[3]});
    EXPECT_EQ(index.ids(), std::vector<int>({0, 6, 7, 3, 4, 1}));
    // An updated record that is not in the index comes in.
    index.process({r[0]}, {}, -1, -1, {});
    index.process({}, {r[0]}, 0, 1, {});
    EXPECT_EQ(index.ids(), std::vector<int>({0, 6, 7, 3, 4, 1}));
}

// Random batches against the two invariants: the index holds exactly the
// table's accepted records in key order, untouched equal keys keep their
// relative order, and a batch's insertions keep their arrival order after
// the equal keys already there.
namespace {

void runModel(int rows, int rounds, int maxChanges, int keys)
{
    Table table(QStringLiteral("model"));
    table.addColumn(QStringLiteral("key"), FieldType::Integer);
    table.addColumn(QStringLiteral("id"), FieldType::Integer);
    IntKeyIndex index(&table, 0, [](const Record &r) { return getInt(r, 0) % 5 != 4; });
    QRandomGenerator random(20260101);
    std::vector<Record> live;
    int nextId = 0;

    for (int i = 0; i < rows; ++i) {
        const Record record = makeRow(table, {random.bounded(keys), nextId++});
        record.append();
        live.push_back(record);
    }

    for (int round = 0; round < rounds; ++round) {
        SCOPED_TRACE(round);
        const std::vector<Record> before(index.begin(), index.end());
        const std::vector<Record> masterBefore(table.masterIndex()->begin(), table.masterIndex()->end());
        QList<Record> removed, updated, inserted;
        std::set<const unsigned char *> touched;
        auto pickUntouched = [&]() -> Record {
            for (int attempt = 0; attempt < 10; ++attempt) {
                const Record &r = live[random.bounded(static_cast<int>(live.size()))];
                if (!touched.count(r.rowPtr()))
                    return r;
            }
            return Record();
        };

        const int kind = random.bounded(4);
        const bool single = kind == 3;
        const int changes = single ? 1 : random.bounded(1, maxChanges);
        for (int c = 0; c < changes; ++c) {
            const int what = random.bounded(10);
            if (what < 3 && live.size() > 100 && removed.size() < static_cast<int>(live.size()) / 3) {
                const Record r = pickUntouched();
                if (r.isNull())
                    continue;
                touched.insert(r.rowPtr());
                removed.append(r);
            } else if (what < 7) {
                // A run of neighbours in the index, or a random record.
                if (random.bounded(2) == 0 && index.count() > 10) {
                    const int p = random.bounded(index.count() - 5);
                    for (int k = 0; k < 1 + random.bounded(4); ++k) {
                        const Record r = index.at(p + k);
                        if (touched.count(r.rowPtr()))
                            continue;
                        touched.insert(r.rowPtr());
                        const int neighbour = getInt(index.at(p + k + 1 + random.bounded(3)), 0);
                        setInt(r, 0, random.bounded(3) == 0 ? neighbour : neighbour + random.bounded(-2, 3));
                        updated.append(r);
                    }
                } else {
                    const Record r = pickUntouched();
                    if (r.isNull())
                        continue;
                    touched.insert(r.rowPtr());
                    if (random.bounded(4) != 0)
                        setInt(r, 0, random.bounded(keys));
                    updated.append(r);
                }
            } else {
                const Record r = makeRow(table, {random.bounded(keys), nextId++});
                touched.insert(r.rowPtr());
                inserted.append(r);
            }
        }

        {
            TableUpdater updater(&table);
            if (single) {
                for (const Record &r : removed)
                    r.remove();
                for (const Record &r : updated)
                    r.updated();
                for (const Record &r : inserted)
                    r.append();
            } else {
                table.process(removed, updated, 0, 1, inserted);
            }
        }
        std::set<const unsigned char *> gone;
        for (const Record &r : removed)
            gone.insert(r.rowPtr());
        live.erase(std::remove_if(live.begin(), live.end(), [&](const Record &r) { return gone.count(r.rowPtr()) > 0; }),
                   live.end());
        for (const Record &r : inserted)
            live.push_back(r);

        // Exactly the accepted live records, in key order.
        std::multiset<const unsigned char *> expected, actual;
        for (const Record &r : live) {
            if (index.filter(r))
                expected.insert(r.rowPtr());
        }
        std::vector<Record> after(index.begin(), index.end());
        for (const Record &r : after)
            actual.insert(r.rowPtr());
        ASSERT_EQ(actual, expected);
        for (size_t i = 1; i < after.size(); ++i)
            ASSERT_LE(getInt(after[i - 1], 0), getInt(after[i], 0)) << "out of order at " << i;

        // Untouched records with equal keys: earlier relative order.
        std::map<int, std::vector<const unsigned char *>> untouchedBefore, untouchedAfter;
        for (const Record &r : before) {
            if (!touched.count(r.rowPtr()))
                untouchedBefore[getInt(r, 0)].push_back(r.rowPtr());
        }
        for (const Record &r : after) {
            if (!touched.count(r.rowPtr()))
                untouchedAfter[getInt(r, 0)].push_back(r.rowPtr());
        }
        ASSERT_EQ(untouchedAfter, untouchedBefore);

        // Insertions: arrival order, after the untouched equal keys.
        std::map<const unsigned char *, size_t> at;
        for (size_t i = 0; i < after.size(); ++i)
            at[after[i].rowPtr()] = i;
        std::map<int, size_t> lastInsertedAt;
        for (const Record &r : inserted) {
            if (!index.filter(r))
                continue;
            const int k = getInt(r, 0);
            const size_t p = at.at(r.rowPtr());
            if (lastInsertedAt.count(k)) {
                ASSERT_GT(p, lastInsertedAt[k]) << "inserted records out of arrival order";
            }
            lastInsertedAt[k] = p;
            if (!untouchedAfter[k].empty()) {
                ASSERT_GT(p, at.at(untouchedAfter[k].back())) << "inserted before an equal key";
            }
        }

        // The arrival-order master: removals gone, insertions at the end.
        std::vector<Record> masterExpected;
        for (const Record &r : masterBefore) {
            if (!gone.count(r.rowPtr()))
                masterExpected.push_back(r);
        }
        masterExpected.insert(masterExpected.end(), inserted.begin(), inserted.end());
        ASSERT_EQ(std::vector<Record>(table.masterIndex()->begin(), table.masterIndex()->end()), masterExpected);
    }
    table.removeIndex(&index);
}

} // namespace

TEST(IndexSortModel, RandomBatchesKeepTheInvariants)
{
    runModel(1500, 300, 60, 40);
}

// Batches large enough for the bulk paths: positions found in one pass,
// additions sorted on the worker pool, insertion points searched together.
TEST(IndexSortModel, LargeBatchesKeepTheInvariants)
{
    runModel(60000, 6, 80000, 3000);
}
