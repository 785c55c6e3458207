#include "tablefixture.h"
#include "testutil.h"

#include <database/masterindex.h>
#include <database/masterindex_fast.h>
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

namespace {

// Key columns: a (Integer), b (String 4), then c (Double) and d (Integer,
// nullable); all but d are not nullable.
class ColumnMasterTest : public ::testing::Test
{
protected:
    ColumnMasterTest()
    {
        table.addColumn(QStringLiteral("a"), FieldType::Integer, 0, false);
        table.addColumn(QStringLiteral("b"), FieldType::String, 4, false);
        table.addColumn(QStringLiteral("c"), FieldType::Double, 0, false);
        table.addColumn(QStringLiteral("d"), FieldType::Integer, 0, true);
    }

    Record add(int a, const QString &b)
    {
        const Record record(&table);
        Field fa = record.data(0), fb = record.data(1);
        fa = a;
        fb = b;
        record.append();
        return record;
    }

    std::vector<QString> keys() const
    {
        std::vector<QString> result;
        for (const Record &record : *table.masterIndex())
            result.push_back(record.toString());
        return result;
    }

    QString fastError(const QStringList &columns)
    {
        try {
            MasterIndex_Fast index(&table, columns);
        } catch (const QString &message) {
            return message;
        }
        return QStringLiteral("<no error>");
    }

    Table table{QStringLiteral("keyed")};
};

} // namespace

TEST_F(ColumnMasterTest, OrdersByKeyValuesAndFindsByText)
{
    MasterIndexColumn::createMasterIndex(&table, {QStringLiteral("a"), QStringLiteral("b")});
    EXPECT_EQ(table.masterIndex()->getClassName(), QStringLiteral("MasterIndex"));
    EXPECT_EQ(table.masterIndex()->columnNames(), QStringList({"a", "b"}));
    add(2, QStringLiteral("b"));
    add(2, QStringLiteral("a"));
    add(1, QStringLiteral("z"));
    EXPECT_EQ(keys(), std::vector<QString>({"1,z", "2,a", "2,b"}));
    EXPECT_EQ(table.masterIndex()->findRecord(QStringLiteral("2,b")).toString(), QStringLiteral("2,b"));
    EXPECT_TRUE(table.masterIndex()->findRecord(QStringLiteral("3,b")).isNull());
    EXPECT_EQ(Record(&table, QStringLiteral("2,a")).toString(), QStringLiteral("2,a"));
    EXPECT_TRUE(Record(&table, QStringLiteral("9,a")).isNull());

    const Record blank(&table);
    EXPECT_TRUE(table.masterIndex()->toText(blank).isNull());
    try {
        table.masterIndex()->fromText(QStringLiteral("1"));
        ADD_FAILURE() << "no error";
    } catch (const QString &message) {
        EXPECT_EQ(message, QStringLiteral("Master index can't restore from text. Incorrect columns numbers: 1 != 2"));
    }
    const Record probe = table.masterIndex()->fromText(QStringLiteral("5,"));
    EXPECT_EQ(probe.data(0).toInteger(), 5);
    EXPECT_TRUE(probe.data(1).isNull()); // an empty part makes the field null
    EXPECT_FALSE(probe.inTable());
}

TEST_F(ColumnMasterTest, FastIndexOrdersByRawBytes)
{
    table.setMasterIndex(MasterIndex_Fast::create(&table, {QStringLiteral("a")}));
    EXPECT_EQ(table.masterIndex()->getClassName(), QStringLiteral("MasterIndex_Fast"));
    add(1, QStringLiteral("x"));
    add(256, QStringLiteral("y"));
    add(2, QStringLiteral("z"));
    // Little-endian slots: 256 (00 01 ..) sorts before 1 (01 00 ..).
    EXPECT_EQ(keys(), std::vector<QString>({"256", "1", "2"}));
    EXPECT_EQ(table.masterIndex()->findRecord(QStringLiteral("2")).data(1).toString(), QStringLiteral("z"));

    Table wide(QStringLiteral("wide"));
    wide.addColumn(QStringLiteral("k"), FieldType::Integer64, 0, false);
    wide.addColumn(QStringLiteral("s"), FieldType::String, 3, false);
    MasterIndex_Fast::createMasterIndex(&wide, {QStringLiteral("k"), QStringLiteral("s")});
    for (const auto &key : std::vector<std::pair<long long, const char *>>{
             {7, "ab"}, {7, "b"}, {7, "aa"}, {1, "a"}, {256, "a"}}) {
        const Record r(&wide);
        Field k = r.data(0), text = r.data(1);
        k = key.first;
        text = QString::fromLatin1(key.second);
        r.append();
    }
    QStringList order;
    for (const Record &r : *wide.masterIndex())
        order.append(r.toString());
    // An 8-byte key keeps its little-endian bytes too: 256 before 1 before 7.
    EXPECT_EQ(order, QStringList({"256,a", "1,a", "7,aa", "7,ab", "7,b"}));
}

TEST_F(ColumnMasterTest, FastIndexRefusesUnsuitableColumns)
{
    table.addColumn(QStringLiteral("e"), FieldType::Integer, 0, false);
    table.addColumn(QStringLiteral("f"), FieldType::Integer, 0, false);
    EXPECT_EQ(fastError({"a", "e"}), QStringLiteral("Columns must be sequenced: 4(e) / 1"));
    EXPECT_EQ(fastError({"c"}), QStringLiteral("Type 'Double' unsuported for c"));
    EXPECT_EQ(fastError({"d"}), QStringLiteral("Columns can't be nullable d"));
    EXPECT_EQ(fastError({"zz"}), QStringLiteral("Column 'zz' not found to create index."));
    EXPECT_EQ(fastError({"e", "f"}), QStringLiteral("<no error>"));

    MessageCapture capture;
    MasterIndex *fallback = MasterIndex_Fast::create(&table, {QStringLiteral("a"), QStringLiteral("e")});
    EXPECT_EQ(fallback->getClassName(), QStringLiteral("MasterIndex"));
    EXPECT_EQ(capture.messages, QStringList(QStringLiteral("Невозможно использовать оптимальный MasterIndex для 'keyed':\n"
                                                           "Columns must be sequenced: 4(e) / 1")));
    delete fallback;
    EXPECT_THROW(MasterIndex_Fast::create(&table, {QStringLiteral("zz")}), QString);
}

TEST_F(ColumnMasterTest, NamedSecondaryIndexes)
{
    MasterIndex *byB = MasterIndexColumn::createIndex(QStringLiteral("byB"), &table, {QStringLiteral("b")});
    EXPECT_EQ(table.namedIndex(QStringLiteral("byB")), byB);
    EXPECT_TRUE(table.indexes().contains(byB));
    add(1, QStringLiteral("q"));
    EXPECT_EQ(byB->count(), 1);

    MasterIndex_Fast::createIndex(QStringLiteral("fastA"), &table, {QStringLiteral("a")});
    Index *fastA = table.namedIndex(QStringLiteral("fastA"));
    ASSERT_NE(fastA, nullptr);
    EXPECT_FALSE(table.indexes().contains(fastA)); // named, not added
    table.removeIndex(byB);
    delete byB;
    delete fastA;
}
