#include "testutil.h"

#include <database/indexlimit.h>
#include <database/indexlist.h>
#include <database/masterindex.h>
#include <database/masterindex_fast.h>
#include <database/recordstrans.h>
#include <database/table.h>

#include <QtCore/QRandomGenerator>

#include <gtest/gtest.h>

#include <map>
#include <memory>
#include <set>

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

// The indexes hear a transaction as one batch with the range it took when
// it was made: (column count, -1), which says nothing of the columns, and
// not the range of the columns it changed.
TEST_F(TransTest, IndexesHearTheEmptyRangeTakenAtConstruction)
{
    struct RangeHeard : IndexList
    {
        using IndexList::IndexList;
        void process(const QList<Record> &removed, const QList<Record> &updated, int first, int last,
                     const QList<Record> &inserted) override
        {
            ranges.append({first, last});
            IndexList::process(removed, updated, first, last, inserted);
        }
        QList<QPair<int, int>> ranges;
    } heard(&table, true);
    {
        RecordsTrans trans(&table);
        put(trans, 1, 10);
    }
    {
        RecordsTrans trans(&table);
        put(trans, 1, 11); // an update of column 1 only
    }
    EXPECT_EQ(heard.ranges, (QList<QPair<int, int>>{{2, -1}, {2, -1}}));
    EXPECT_EQ(heard.count(), 1);
    table.removeIndex(&heard);
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


// Many keys in one transaction, each updated, removed, brought back and
// inserted in turn, on a fast master index (whose lookups come from its key
// table): the lists hold each row once, under its last action, in row
// order, and the table ends as a plain map of the same actions.
TEST_F(TransTest, ManyActionsEndAsAPlainModelSays)
{
    Table quotes(QStringLiteral("quotes"));
    quotes.addColumn(QStringLiteral("key"), FieldType::Integer, 0, false);
    quotes.addColumn(QStringLiteral("value"), FieldType::Integer, 0, false);
    MasterIndex_Fast::createMasterIndex(&quotes, {QStringLiteral("key")});
    auto row = [&quotes](int key, int value) {
        const Record record(&quotes);
        Field k = record.data(0), v = record.data(1);
        k = key;
        v = value;
        return record;
    };
    std::map<int, int> model;
    for (int key = 0; key < 3000; key += 2) {
        row(key, -key).append();
        model[key] = -key;
    }
    std::set<int> touched;
    std::unique_ptr<RecordsTrans> copy;
    QRandomGenerator random(5);
    {
        TableUpdater updater(&quotes);
        RecordsTrans trans(&quotes);
        for (int step = 0; step < 20000; ++step) {
            const int key = static_cast<int>(random.bounded(3000));
            touched.insert(key);
            RecordUpdater updater(row(key, 0), trans);
            ASSERT_EQ(updater.isFound(), key % 2 == 0) << key;
            if (random.bounded(3) == 0) {
                updater.remove();
                model.erase(key);
            } else {
                Field value = updater.data(1);
                value = step;
                model[key] = step;
            }
            if (step == 10000)
                copy = std::make_unique<RecordsTrans>(trans);
        }
        for (const QList<Record> &list : {trans.insertList(), trans.updateList(), trans.removeList()}) {
            for (int i = 1; i < list.size(); ++i)
                ASSERT_TRUE(list[i - 1] < list[i]);
        }
        // Keys inserted and then removed were cancelled; removed keys of the
        // table are in the remove list once each.
        int removed = 0;
        for (int key = 0; key < 3000; key += 2)
            removed += model.count(key) ? 0 : 1;
        EXPECT_EQ(trans.removeList().size(), removed);
        int present = 0;
        for (const int key : touched)
            present += model.count(key) ? 1 : 0;
        EXPECT_EQ(trans.insertList().size() + trans.updateList().size(), present);
    }
    std::map<int, int> contents;
    for (const Record &record : *quotes.masterIndex())
        contents[record.data(0).toInteger()] = record.data(1).toInteger();
    EXPECT_EQ(contents, model);

    // The copy holds its own references on the rows it collected: they
    // outlive the original's execution (a sanitizer build would see a row
    // freed under it) until the copy is abandoned.
    EXPECT_FALSE(copy->isEmpty());
    EXPECT_GT(copy->insertList().size() + copy->updateList().size() + copy->removeList().size(), 1000);
    copy->clear();
    EXPECT_TRUE(copy->isEmpty());
}
