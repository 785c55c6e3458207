#include "tablefixture.h"
#include "testutil.h"

#include <database/masterindex.h>
#include <database/table.h>

#include <gtest/gtest.h>

namespace {

class MasterIndexTest : public ::testing::Test
{
protected:
    MasterIndexTest()
    {
        table.addColumn(QStringLiteral("key"), FieldType::Integer);
        table.addColumn(QStringLiteral("id"), FieldType::Integer);
    }

    std::vector<int> masterIds() const
    {
        std::vector<int> ids;
        for (const Record &record : *table.masterIndex())
            ids.push_back(getInt(record, 1));
        return ids;
    }

    Table table{QStringLiteral("master")};
};

} // namespace

TEST_F(MasterIndexTest, ANewTableKeepsArrivalOrder)
{
    EXPECT_EQ(table.masterIndex()->getClassName(), QStringLiteral("MasterIndex"));
    for (int id = 0; id < 20; ++id)
        makeRow(table, {20 - id, id}).append();
    std::vector<int> expected;
    for (int id = 0; id < 20; ++id)
        expected.push_back(id);
    EXPECT_EQ(masterIds(), expected);
    table.masterIndex()->rebuild(); // rebuilding a master from itself keeps nothing
    EXPECT_EQ(table.rowCount(), 0);

    for (int id = 0; id < 600; ++id)
        makeRow(table, {id % 7, id}).append();
    table.masterIndex()->resort();
    EXPECT_EQ(getInt(table.masterIndex()->at(599), 1), 599);
    EXPECT_EQ(table.masterIndex()->search(table.masterIndex()->at(0), 41), 42);
    EXPECT_TRUE(table.masterIndex()->columnNames().isEmpty());
    EXPECT_TRUE(table.masterIndex()->toText(table.masterIndex()->at(3)).isEmpty());
    EXPECT_EQ(getInt(table.masterIndex()->findRecord(QStringLiteral("any")), 1), 0);
}

TEST_F(MasterIndexTest, PointerMasterOrdersByRowAddress)
{
    table.setMasterIndex(new MasterPtrIndex(&table));
    std::vector<Record> rows;
    for (int id = 0; id < 50; ++id) {
        rows.push_back(makeRow(table, {0, id}));
        rows.back().append();
    }
    std::sort(rows.begin(), rows.end());
    int i = 0;
    for (const Record &record : *table.masterIndex())
        EXPECT_EQ(record, rows[i++]);
    EXPECT_TRUE(table.masterIndex()->toText(rows[0]).isEmpty());
    EXPECT_TRUE(table.masterIndex()->columnNames().isEmpty());
    EXPECT_TRUE(rows[7].inTable());
    // A fresh blank row is in no index: findRecord finds nothing for it.
    EXPECT_TRUE(table.masterIndex()->findRecord(QStringLiteral("x")).isNull());
}

TEST_F(MasterIndexTest, ProxyDelegatesToTheMasterOfItsBirth)
{
    auto *pointer = new MasterPtrIndex(&table);
    table.setMasterIndex(pointer);
    auto *proxy = new MasterIndexProxy(&table);
    EXPECT_EQ(proxy->getClassName(), QStringLiteral("MasterIndexProxy"));
    const Record a(&table), b(&table);
    EXPECT_EQ(proxy->compare(a, b), pointer->compare(a, b));
    EXPECT_NE(proxy->compare(a, b), 0);
    EXPECT_TRUE(proxy->toText(a).isEmpty());
    EXPECT_EQ(proxy->fromText(QString()).table(), &table);
    delete proxy;
}

TEST_F(MasterIndexTest, RecordLookupByKeyUsesTheMaster)
{
    table.setMasterIndex(new MasterPtrIndex(&table));
    makeRow(table, {1, 1}).append();
    EXPECT_TRUE(Record(&table, QStringLiteral("1")).isNull()); // a blank probe matches no row
}
