#include "testutil.h"

#include <database/indexlimit.h>
#include <database/masterindex.h>
#include <database/recordstrans.h>
#include <database/table.h>

#include <QtCore/QRandomGenerator>

#include <gtest/gtest.h>

#include <map>

namespace {

// Keyed by "key"; "value" doubles as the age order of the limit index.
class TransTest : public ::testing::Test
{
protected:
    TransTest()
    {
        table.addColumn(QStringLiteral("key"), FieldType::Integer, 0, false);
        table.addColumn(QStringLiteral("value"), FieldType::Integer, 0, false);
        MasterIndexColumn::createMasterIndex(&table, {QStringLiteral("key")});
    }

    Record keyOf(int key)
    {
        const Record record(&table);
        Field field = record.data(0);
        field = key;
        return record;
    }

    void put(RecordsTrans &trans, int key, int value)
    {
        RecordUpdater updater(keyOf(key), trans);
        Field field = updater.data(1);
        field = value;
    }

    std::map<int, int> contents() const
    {
        std::map<int, int> result;
        for (const Record &record : *table.masterIndex())
            result[record.data(0).toInteger()] = record.data(1).toInteger();
        return result;
    }

    Table table{QStringLiteral("positions")};
};

// Drops the records with the smallest value first.
class OldestFirst : public IndexLimit
{
public:
    using IndexLimit::IndexLimit;
    int compare(const Record &a, const Record &b) const override { return a.data(1).compare(b.data(1)); }
    QList<int> asked;
    QList<Record> toRemove(int count, const QList<Record> &keep) override
    {
        asked.append(count);
        return IndexLimit::toRemove(count, keep);
    }
};

} // namespace

TEST_F(TransTest, EqualNewKeysShareOneRecord)
{
    RecordsTrans trans(&table);
    RecordUpdater first(keyOf(1), trans);
    RecordUpdater second(keyOf(1), trans);
    EXPECT_FALSE(first.isFound());
    EXPECT_EQ(static_cast<const Record &>(first), static_cast<const Record &>(second));
    EXPECT_EQ(trans.insertList().size(), 1);
    Field value = second.data(QStringLiteral("value"));
    value = 10;
    trans.execute();
    EXPECT_EQ(contents(), (std::map<int, int>{{1, 10}}));
    EXPECT_TRUE(trans.isEmpty());
    trans.clear();
}

TEST_F(TransTest, ExistingKeysAreUpdatedOrRemoved)
{
    {
        RecordsTrans trans(&table);
        put(trans, 1, 10);
        put(trans, 2, 20);
    } // applied on destruction
    EXPECT_EQ(contents(), (std::map<int, int>{{1, 10}, {2, 20}}));

    RecordsTrans trans(&table);
    RecordUpdater one(keyOf(1), trans);
    EXPECT_TRUE(one.isFound());
    EXPECT_EQ(trans.updateList(), QList<Record>({table.masterIndex()->at(0)}));
    EXPECT_EQ(one.table(), &table);
    one.remove();
    EXPECT_TRUE(trans.updateList().isEmpty());
    EXPECT_EQ(trans.removeList().size(), 1);
    RecordUpdater again(keyOf(1), trans); // an updater brings it back to update
    EXPECT_EQ(trans.updateList().size(), 1);
    again.remove();

    RecordUpdater fresh(keyOf(3), trans);
    fresh.remove(); // cancels the pending insert
    EXPECT_EQ(trans.insertList().size(), 0);
    trans.execute();
    EXPECT_EQ(contents(), (std::map<int, int>{{2, 20}}));

    RecordsTrans abandoned(&table);
    put(abandoned, 9, 9);
    abandoned.clear();
    EXPECT_TRUE(abandoned.isEmpty());
}

TEST_F(TransTest, ARemovedNewKeyLeavesNothing)
{
    RecordsTrans trans(&table);
    RecordUpdater fresh(keyOf(5), trans);
    fresh.remove();
    EXPECT_TRUE(trans.isEmpty());
}

TEST_F(TransTest, TheLimitIndexNamesTheSurplus)
{
    OldestFirst limit(10, &table);
    EXPECT_EQ(table.namedIndex(QStringLiteral("IndexLimit")), &limit);
    EXPECT_EQ(limit.getClassName(), QStringLiteral("IndexLimit"));
    {
        RecordsTrans trans(&table);
        for (int key = 0; key < 10; ++key)
            put(trans, key, 100 + key);
    }
    ASSERT_EQ(limit.count(), 10);
    {
        TableUpdater updater(&table);
        RecordsTrans trans(&table);
        put(trans, 0, 500); // the oldest is updated: kept
        for (int key = 20; key < 23; ++key)
            put(trans, key, 200 + key);
    }
    EXPECT_EQ(limit.asked, QList<int>({3}));
    const std::map<int, int> expected{{0, 500}, {4, 104}, {5, 105}, {6, 106}, {7, 107}, {8, 108},
                                      {9, 109}, {20, 220}, {21, 221}, {22, 222}};
    EXPECT_EQ(contents(), expected);
    EXPECT_EQ(limit.count(), 10);

    // Exactly one over the limit: the oldest one goes.
    {
        RecordsTrans trans(&table);
        put(trans, 30, 330);
    }
    EXPECT_EQ(limit.count(), 10);
    EXPECT_EQ(contents().count(4), 0u);
    EXPECT_EQ(contents().count(30), 1u);

    EXPECT_TRUE(limit.toRemove(0, {}).isEmpty());
    EXPECT_TRUE(limit.toRemove(-3, {}).isEmpty());
    EXPECT_EQ(limit.toRemove(50, {}).size(), 10);
    limit.setLimit(4);
    EXPECT_EQ(limit.limit(), 4);
    table.removeIndex(&limit);
}

// Random transactions against a map: inserts, updates and removals by key,
// in many small transactions and in a few with thousands of pending keys.
TEST_F(TransTest, RandomTransactionsMatchAMap)
{
    QRandomGenerator random(4242);
    std::map<int, int> model;
    struct Shape
    {
        int rounds, maxChanges, keys;
    };
    for (const Shape shape : {Shape{300, 30, 60}, Shape{4, 20000, 30000}}) {
        for (int round = 0; round < shape.rounds; ++round) {
            SCOPED_TRACE(round);
            TableUpdater updater(&table);
            RecordsTrans trans(&table);
            for (int change = random.bounded(1, shape.maxChanges); change > 0; --change) {
                const int key = random.bounded(shape.keys);
                if (random.bounded(3) == 0) {
                    RecordUpdater(keyOf(key), trans).remove();
                    model.erase(key);
                } else {
                    const int value = random.bounded(1000);
                    put(trans, key, value);
                    model[key] = value;
                }
            }
            const QList<Record> inserts = trans.insertList();
            for (int i = 1; i < inserts.size(); ++i)
                ASSERT_TRUE(inserts[i - 1] < inserts[i]) << "insertList out of row-address order";
            trans.execute();
            ASSERT_EQ(contents(), model);
            ASSERT_EQ(table.rowCount(), static_cast<int>(model.size()));
        }
    }
}
