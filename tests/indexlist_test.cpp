#include "tablefixture.h"
#include "testutil.h"

#include <database/core.h>
#include <database/indexlist.h>
#include <database/table.h>

#include <gtest/gtest.h>

#include <random>

namespace {

class IndexListTest : public ::testing::Test
{
protected:
    IndexListTest()
    {
        table.addColumn(QStringLiteral("key"), FieldType::Integer);
        table.addColumn(QStringLiteral("id"), FieldType::Integer);
    }

    std::vector<int> ids(const IndexList &list) const
    {
        std::vector<int> result;
        for (const Record &record : list)
            result.push_back(getInt(record, 1));
        return result;
    }

    Table table{QStringLiteral("plain")};
};

// Overrides only the flag-less clear() and build(), and counts them.
class CountingList : public IndexList
{
public:
    using IndexList::IndexList;
    void clear() override
    {
        ++clears;
        IndexList::clear();
    }
    void build() override
    {
        ++builds;
        IndexList::build();
    }
    int clears = 0;
    int builds = 0;
};

} // namespace

TEST_F(IndexListTest, DefaultProcessRemovesUpdatesThenInserts)
{
    IndexList list(&table, false);
    EXPECT_TRUE(table.indexes().isEmpty());
    const Record a = makeRow(table, {1, 1}), b = makeRow(table, {2, 2}), c = makeRow(table, {3, 3});
    list.add(a);
    list.add(b);
    // b is updated (removed and added back at the end); c is removed and
    // inserted again: it ends up in the list once.
    list.process({c}, {b}, 0, 1, {c});
    EXPECT_EQ(ids(list), std::vector<int>({1, 2, 3}));
    list.process({a}, {}, -1, -1, {a});
    EXPECT_EQ(ids(list), std::vector<int>({2, 3, 1}));
}

// Large batches of a plain list take one pass; a subclass hears the default
// one record at a time. Both must end the same, rows listed twice, removed
// and updated in one batch, updated twice or absent included.
TEST_F(IndexListTest, ABatchInOnePassEndsAsTheDefaultDoes)
{
    struct OneAtATime : IndexList
    {
        using IndexList::IndexList;
        void add(const Record &record) override
        {
            ++adds;
            IndexList::add(record);
        }
        int adds = 0;
    };
    std::vector<Record> rows;
    for (int i = 0; i < 40; ++i)
        rows.push_back(makeRow(table, {0, i}));
    std::mt19937 random(11);
    for (int round = 0; round < 300; ++round) {
        IndexList fast(&table, false);
        OneAtATime plain(&table, false);
        for (int n = static_cast<int>(random() % 60); n > 0; --n) {
            const Record &row = rows[random() % rows.size()];
            fast.add(row);
            plain.add(row);
        }
        QList<Record> removed, updated, inserted;
        for (QList<Record> *batch : {&removed, &updated, &inserted}) {
            for (int n = static_cast<int>(random() % 30); n > 0; --n)
                batch->append(rows[random() % rows.size()]);
        }
        const int addsBefore = plain.adds;
        fast.process(removed, updated, 0, 1, inserted);
        plain.process(removed, updated, 0, 1, inserted);
        ASSERT_EQ(ids(fast), ids(plain)) << "round " << round;
        ASSERT_EQ(plain.adds - addsBefore, updated.size() + inserted.size()) << "a subclass hears every add";
    }
}

TEST_F(IndexListTest, RebuildClearsAndRefillsFromTheMaster)
{
    for (int id = 0; id < 4; ++id)
        makeRow(table, {id, id}).append();
    CountingList list(&table, true);
    EXPECT_EQ(list.count(), 0); // registering does not fill
    list.rebuild();
    EXPECT_EQ(list.clears, 1);
    EXPECT_EQ(list.builds, 1);
    EXPECT_EQ(ids(list), std::vector<int>({0, 1, 2, 3}));
    list.build(); // build does not clear first
    EXPECT_EQ(list.count(), 8);
    table.clear();
    EXPECT_EQ(list.count(), 0);
    EXPECT_EQ(table.rowCount(), 0);
}

TEST_F(IndexListTest, FindsItsTableThroughTheApplicationCore)
{
    {
        IndexList orphan(QStringLiteral("plain")); // no lookup installed: no table
        EXPECT_EQ(orphan.table(), nullptr);
        EXPECT_TRUE(table.indexes().isEmpty());
    }
    ApplicationCore::setTableLookup([this](const QString &name) {
        return name == QLatin1String("plain") ? &table : nullptr;
    });
    {
        IndexList byName(QStringLiteral("plain"));
        EXPECT_EQ(byName.table(), &table);
        EXPECT_EQ(table.indexes(), QList<Index *>({&byName}));
        IndexList unknown(QStringLiteral("missing"));
        EXPECT_EQ(unknown.table(), nullptr);
    }
    EXPECT_TRUE(table.indexes().isEmpty()); // unregistered on destruction
    ApplicationCore::setTableLookup({});
    EXPECT_EQ(ApplicationCore::table(QStringLiteral("plain")), nullptr);
}

TEST(Index, DefaultsOfTheInterface)
{
    // An index with nothing but the pure operations.
    class Bare : public Index
    {
    public:
        void clear() override {}
        void build() override {}
        void add(const Record &) override { ++adds; }
        void remove(const Record &, int position) override { positions.append(position); }
        bool filter(const Record &) const override { return accept; }
        bool contains(const Record &) const override { return false; }
        QString getClassName() const override { return QStringLiteral("Bare"); }
        int adds = 0;
        QList<int> positions;
        bool accept = true;
    } bare;
    EXPECT_EQ(bare.indexOf(Record()), -1);
    bare.update(Record(), 0, 0, 7); // remove with the position, add back when accepted
    bare.accept = false;
    bare.update(Record(), 0, 0, -1);
    EXPECT_EQ(bare.positions, QList<int>({7, -1}));
    EXPECT_EQ(bare.adds, 1);
    bare.beginUpdate();
    bare.endUpdate();
    bare.dependentBeginUpdate(nullptr);
    bare.dependentEndUpdate(nullptr);
}
