#include "tablefixture.h"
#include "testutil.h"

#include <database/exception.h>
#include <database/index.h>
#include <database/indexlist.h>
#include <database/masterindex.h>
#include <database/table.h>
#include <database/indexvector.h>
#include <database/watchindex.h>

#include <QtConcurrent/QtConcurrentRun>
#include <QtCore/QThread>

#include <gtest/gtest.h>

#include <atomic>
#include <functional>
#include <memory>
#include <mutex>
#include <thread>

namespace {

QString addColumnError(Table &table, const QString &name, FieldType::Type type, int length = 0)
{
    try {
        table.addColumn(name, type, length);
    } catch (const Exception &e) {
        return e.message;
    }
    return QStringLiteral("<no error>");
}

QString describe(const QList<Record> &records)
{
    QStringList ids;
    for (const Record &record : records)
        ids.append(QString::number(getInt(record, 1)));
    return QLatin1Char('[') + ids.join(QLatin1Char(',')) + QLatin1Char(']');
}

// Logs every notification it receives as "name:operation(arguments)".
class RecordingIndex : public Index
{
public:
    RecordingIndex(QStringList *log, const QString &name, bool accept = true)
        : m_log(log), m_name(name), m_accept(accept)
    {
    }

    void clear() override { note(QStringLiteral("clear")); }
    void build() override { note(QStringLiteral("build")); }
    void add(const Record &r) override { note(QStringLiteral("add(%1)").arg(getInt(r, 1))); }
    void process(const QList<Record> &removed, const QList<Record> &updated, int first, int last,
                 const QList<Record> &inserted) override
    {
        note(QStringLiteral("process(%1,%2,%3,%4,%5)")
                 .arg(describe(removed), describe(updated), QString::number(first), QString::number(last),
                      describe(inserted)));
    }
    void remove(const Record &r, int position) override
    {
        note(QStringLiteral("remove(%1,%2)").arg(getInt(r, 1)).arg(position));
    }
    bool filter(const Record &) const override { return m_accept; }
    bool contains(const Record &) const override { return false; }
    void update(const Record &r, int first, int last, int position) override
    {
        note(QStringLiteral("update(%1,%2,%3,%4)").arg(getInt(r, 1)).arg(first).arg(last).arg(position));
    }
    int indexOf(const Record &r) const override { return 100 + getInt(r, 1); }
    void beginUpdate() override { note(QStringLiteral("beginUpdate")); }
    void endUpdate() override { note(QStringLiteral("endUpdate")); }
    void dependentBeginUpdate(Table *t) override { note(QStringLiteral("dependentBeginUpdate(%1)").arg(t->name())); }
    void dependentEndUpdate(Table *t) override { note(QStringLiteral("dependentEndUpdate(%1)").arg(t->name())); }
    QString getClassName() const override { return QStringLiteral("RecordingIndex"); }

private:
    void note(const QString &what) const { m_log->append(m_name + QLatin1Char(':') + what); }

    QStringList *m_log;
    QString m_name;
    bool m_accept;
};

// An arrival-order master index that logs what reaches it.
class RecordingMaster : public MasterIndexOrdered
{
public:
    RecordingMaster(Table *table, QStringList *log, bool *deleted = nullptr)
        : MasterIndexOrdered(table), m_log(log), m_deleted(deleted)
    {
    }
    ~RecordingMaster() override
    {
        if (m_deleted)
            *m_deleted = true;
    }

    void clear() override
    {
        m_log->append(QStringLiteral("master:clear"));
        MasterIndexOrdered::clear();
    }
    void add(const Record &r) override
    {
        m_log->append(QStringLiteral("master:add(%1)").arg(getInt(r, 1)));
        MasterIndexOrdered::add(r);
    }
    void process(const QList<Record> &removed, const QList<Record> &updated, int first, int last,
                 const QList<Record> &inserted) override
    {
        m_log->append(QStringLiteral("master:process(%1,%2,%3,%4,%5)")
                          .arg(describe(removed), describe(updated), QString::number(first),
                               QString::number(last), describe(inserted)));
        MasterIndexOrdered::process(removed, updated, first, last, inserted);
    }
    void remove(const Record &r, int position) override
    {
        m_log->append(QStringLiteral("master:remove(%1,%2)").arg(getInt(r, 1)).arg(position));
        MasterIndexOrdered::remove(r, position);
    }
    void update(const Record &r, int first, int last, int position) override
    {
        m_log->append(QStringLiteral("master:update(%1,%2,%3,%4)").arg(getInt(r, 1)).arg(first).arg(last).arg(position));
        MasterIndexOrdered::update(r, first, last, position);
    }
    void beginUpdate() override { m_log->append(QStringLiteral("master:beginUpdate")); }
    void endUpdate() override { m_log->append(QStringLiteral("master:endUpdate")); }

private:
    QStringList *m_log;
    bool *m_deleted;
};

class ProtocolTest : public ::testing::Test
{
protected:
    ProtocolTest()
    {
        table.addColumn(QStringLiteral("key"), FieldType::Integer);
        table.addColumn(QStringLiteral("id"), FieldType::Integer);
        table.setMasterIndex(new RecordingMaster(&table, &log));
        table.addIndex(&first);
        table.addIndex(&second);
        table.addDependentIndex(&dependent);
    }
    ~ProtocolTest() override
    {
        table.removeIndex(&first);
        table.removeIndex(&second);
    }

    Table table{QStringLiteral("orders")};
    QStringList log;
    RecordingIndex first{&log, QStringLiteral("first")};
    RecordingIndex second{&log, QStringLiteral("second"), false};
    RecordingIndex dependent{&log, QStringLiteral("dependent")};
};

} // namespace

// --- Schema -------------------------------------------------------------------

TEST(TableSchema, RowLayoutOfANewTable)
{
    Table table(QStringLiteral("t"));
    EXPECT_EQ(table.rowLength(), 0u);
    EXPECT_EQ(table.rowSize(), 4u);
    EXPECT_EQ(table.columnCount(), 0);
    table.addColumn(QStringLiteral("n"), FieldType::Integer);
    table.addColumn(QStringLiteral("s"), FieldType::String, 10);
    EXPECT_EQ(table.rowLength(), 24u);
    EXPECT_EQ(table.rowSize(), 29u);
    const TableColumnDef &s = table.columnDef(1);
    EXPECT_EQ(s.offset, 4u);
    EXPECT_EQ(s.size, 20u);
    EXPECT_EQ(s.nullIndex, 1);
    EXPECT_EQ(s.nullByteOffset, 24u);
    EXPECT_EQ(s.nullMask, 2);
    EXPECT_EQ(s.table, &table);
    EXPECT_EQ(table.columnTypeName(1), QStringLiteral("VarChar[10]"));
    EXPECT_EQ(Table::base, 4);
}

TEST(TableSchema, TheNinthColumnAddsANullByte)
{
    Table table(QStringLiteral("t"));
    for (int i = 0; i < 8; ++i)
        table.addColumn(QStringLiteral("c%1").arg(i), FieldType::Integer);
    EXPECT_EQ(table.rowSize(), 4u + 32u + 1u);
    table.addColumn(QStringLiteral("c8"), FieldType::Double);
    EXPECT_EQ(table.rowSize(), 4u + 40u + 2u);
    // Every column's null byte follows the slots.
    EXPECT_EQ(table.columnDef(0).nullByteOffset, 40u);
    EXPECT_EQ(table.columnDef(8).nullByteOffset, 41u);
    EXPECT_EQ(table.columnDef(8).nullMask, 1);
}

TEST(TableSchema, DuplicateColumnsAreRefusedUnlessTheyFit)
{
    Table table(QStringLiteral("prices"));
    table.addColumn(QStringLiteral("Price"), FieldType::String, 20);
    table.addColumn(QStringLiteral("Qty"), FieldType::Integer64);

    table.addColumn(QStringLiteral("Price"), FieldType::String, 10); // fits: no-op
    table.addColumn(QStringLiteral("Qty"), FieldType::Integer);      // Integer under Integer64: no-op
    table.addColumn(QStringLiteral("price"), FieldType::String, 20); // case-insensitive duplicate: no-op
    EXPECT_EQ(table.columnCount(), 2);
    EXPECT_EQ(table.columnIndex(QStringLiteral("price")), -1); // lookups stay case-sensitive

    EXPECT_EQ(addColumnError(table, QStringLiteral("Price"), FieldType::String, 30),
              QStringLiteral("Column 'Price' already exists for table 'prices'."));
    EXPECT_EQ(addColumnError(table, QStringLiteral("QTY"), FieldType::Double),
              QStringLiteral("Column 'QTY' already exists for table 'prices'."));
    EXPECT_EQ(addColumnError(table, QString(), FieldType::Integer), QStringLiteral("Column name can't be empty."));
    EXPECT_EQ(addColumnError(table, QStringLiteral("s"), FieldType::String, 0),
              QStringLiteral("Length of string can't be zero"));
    EXPECT_EQ(addColumnError(table, QStringLiteral("x"), FieldType::Invalid), QStringLiteral("Type is undefined."));
    EXPECT_EQ(table.columnCount(), 2);
    EXPECT_EQ(table.rowLength(), 48u);

    Table reverse(QStringLiteral("r"));
    reverse.addColumn(QStringLiteral("Qty"), FieldType::Integer);
    EXPECT_EQ(addColumnError(reverse, QStringLiteral("Qty"), FieldType::Integer64),
              QStringLiteral("Column 'Qty' already exists for table 'r'."));
}

TEST(TableSchema, TitlesFallBackToNames)
{
    Table table(QStringLiteral("name"));
    EXPECT_EQ(table.title(), QStringLiteral("name"));
    table.setTitle(QStringLiteral("Title"));
    EXPECT_EQ(table.title(), QStringLiteral("Title"));
    table.addColumn(QStringLiteral("a"), FieldType::Integer, 0, true, QString(), false, QStringLiteral("about a"));
    table.addColumn(QStringLiteral("b"), FieldDef(FieldType::Decimal, 2), false, QStringLiteral("Bee"));
    EXPECT_EQ(table.columnTitle(0), QStringLiteral("a"));
    EXPECT_EQ(table.columnTitle(1), QStringLiteral("Bee"));
    table.setColumnTitle(0, QStringLiteral("Ay"));
    EXPECT_EQ(table.columnTitle(0), QStringLiteral("Ay"));
    EXPECT_EQ(table.columnDescription(0), QStringLiteral("about a"));

    const QList<ColumnDef> columns = table.columns();
    ASSERT_EQ(columns.size(), 2);
    EXPECT_FALSE(columns[0].secondFlag);
    EXPECT_TRUE(columns[0].nullable);
    EXPECT_FALSE(columns[1].nullable);
    EXPECT_EQ(columns[1].type, FieldType::Decimal);
    EXPECT_EQ(columns[1].length, 2);
    EXPECT_EQ(table.fieldDefs().size(), 2);
    EXPECT_EQ(table.columnType(1), FieldType::Decimal);
}

TEST(TableSchema, LookupsBelowAndAboveTwentyColumns)
{
    Table table(QStringLiteral("wide"));
    for (int i = 0; i < 25; ++i) {
        table.addColumn(QStringLiteral("col%1").arg(i), FieldType::Integer);
        for (int j = 0; j <= i; ++j)
            ASSERT_EQ(table.columnIndex(QStringLiteral("col%1").arg(j)), j);
        EXPECT_EQ(table.columnIndex(QStringLiteral("missing")), -1);
        EXPECT_FALSE(table.columnExists(QStringLiteral("COL0")));
    }
    EXPECT_EQ(table.columnDef(QStringLiteral("col24")).nullIndex, 24);
}

TEST(TableSchema, AddingAColumnKeepsRowsAndRebuildsIndexes)
{
    Table table(QStringLiteral("t"));
    table.addColumn(QStringLiteral("key"), FieldType::Integer);
    table.addColumn(QStringLiteral("id"), FieldType::Integer);
    IntKeyIndex index(&table);
    for (int i = 0; i < 5; ++i)
        makeRow(table, {10 - i, i}).append();

    table.addColumn(QStringLiteral("extra"), FieldType::Integer64, 0, false);
    EXPECT_EQ(table.rowCount(), 5);
    EXPECT_EQ(index.ids(), std::vector<int>({4, 3, 2, 1, 0}));
    int i = 0;
    for (const Record &record : *table.masterIndex()) {
        EXPECT_EQ(Table::references(record.rowPtr()), 2u); // master and index
        EXPECT_EQ(getInt(record, 0), 10 - i);
        EXPECT_EQ(getInt(record, 1), i);
        EXPECT_FALSE(record.data(0).isNull());
        EXPECT_FALSE(record.data(1).isNull());
        const Field extra = record.data(2); // const: read by value, the slot is not aligned
        EXPECT_TRUE(extra.isNull());
        EXPECT_EQ(extra.asInteger64(), 0);
        ++i;
    }
}

TEST(TableSchema, ANullableColumnClearsTheBitBeforeIt)
{
    // Kept from the original layout code: the null bit cleared on rows that
    // exist is number oldColumnCount - 1, not the new column's.
    Table table(QStringLiteral("t"));
    table.addColumn(QStringLiteral("a"), FieldType::Integer);
    table.addColumn(QStringLiteral("id"), FieldType::Integer);
    makeRow(table, {7, 1}).append();
    table.addColumn(QStringLiteral("b"), FieldType::Integer, 0, true);
    const Record record = table.masterIndex()->at(0);
    EXPECT_FALSE(record.data(0).isNull());
    EXPECT_TRUE(record.data(1).isNull());
    EXPECT_EQ(getInt(record, 1), 1);
    EXPECT_TRUE(record.data(2).isNull());
}

TEST(TableSchema, AddingAColumnWarnsAboutRowsHeldElsewhere)
{
    Table table(QStringLiteral("t"));
    table.addColumn(QStringLiteral("a"), FieldType::Integer);
    table.addColumn(QStringLiteral("id"), FieldType::Integer);
    makeRow(table, {1, 1}).append();
    Table::ref(table.masterIndex()->at(0).rowPtr()); // a holder the table cannot see
    MessageCapture capture;
    table.addColumn(QStringLiteral("b"), FieldType::Integer, 0, false);
    EXPECT_EQ(capture.messages, QStringList(QStringLiteral("Table::addColumn : Ref count in realloc is 1")));
    EXPECT_EQ(Table::references(table.masterIndex()->at(0).rowPtr()), 1u);
}

// --- Rows and records ---------------------------------------------------------------

TEST(TableRows, NullBitsAndErase)
{
    Table table(QStringLiteral("t"));
    table.addColumn(QStringLiteral("n"), FieldType::Integer64);
    const Record record(&table);
    Field field = record.data(0);
    FieldType::setInt64(field.data(), 77);
    field.clearNull();
    field.setNull();
    EXPECT_TRUE(field.isNull());
    EXPECT_EQ(qAsConst(field).asInteger64(), 77); // setNull keeps the bytes
    field.clearNull();
    field.erase();
    EXPECT_FALSE(field.isNull()); // erase keeps the bit
    EXPECT_EQ(qAsConst(field).asInteger64(), 0);
    EXPECT_EQ(field.type(), FieldType::Integer64);

    unsigned char area[2] = {0, 0};
    Table::setNullPtr(area, 9, false);
    EXPECT_EQ(area[1], 2);
    EXPECT_FALSE(Table::isNullPtr(area, 9));
    EXPECT_TRUE(Table::isNullPtr(area, 8));
    Table::setNullPtr(area, 9, true);
    EXPECT_EQ(area[1], 0);
}

TEST(TableRows, LookupByKeyTextOnAnArrivalOrderTable)
{
    Table table(QStringLiteral("t"));
    table.addColumn(QStringLiteral("key"), FieldType::Integer);
    table.addColumn(QStringLiteral("id"), FieldType::Integer);
    EXPECT_TRUE(Record(&table, QStringLiteral("x")).isNull());
    makeRow(table, {5, 1}).append();
    makeRow(table, {6, 2}).append();
    // Arrival order has no key: a blank probe compares equal to the first row.
    EXPECT_EQ(getInt(Record(&table, QStringLiteral("whatever")), 1), 1);
    EXPECT_TRUE(Record(&table, QString()).isNull());
}

// --- The update protocol -------------------------------------------------------------

TEST_F(ProtocolTest, EachChangeReachesTheIndexesInItsOrder)
{
    const Record seven = makeRow(table, {1, 7});
    const Record a = makeRow(table, {1, 1}), b = makeRow(table, {2, 2}), c = makeRow(table, {3, 3});
    const QString batch12 = QStringLiteral("process([],[],-1,-1,[1,2])");
    struct Step
    {
        const char *what;
        std::function<void()> change;
        QStringList expected;
    };
    const std::vector<Step> steps = {
        {"append: master, then accepting indexes", [&] { seven.append(); }, {"master:add(7)", "first:add(7)"}},
        {"updated: master first; the record form is the whole row",
         [&] {
             table.updated(seven, 0, 1, 0);
             seven.updated(1);
         },
         {"master:update(7,0,1,0)", "first:update(7,0,1,-1)", "second:update(7,0,1,-1)", "master:update(7,1,1,-1)",
          "first:update(7,1,1,-1)", "second:update(7,1,1,-1)"}},
        {"keeper: saved positions, the master skipped",
         [&] { table.updated(seven, table.buildKeeper(seven)); },
         {"first:update(7,0,1,107)", "second:update(7,0,1,107)"}},
        {"remove: indexes, then the master with its position", [&] { table.remove(seven, 0); },
         {"first:remove(7,-1)", "second:remove(7,-1)", "master:remove(7,0)"}},
        {"appendList and appendRecords go through process",
         [&] {
             table.appendList({makeRow(table, {1, 1}), makeRow(table, {2, 2})});
             table.appendRecords(QVector<Record>{makeRow(table, {3, 1}), makeRow(table, {4, 2})});
         },
         {"master:" + batch12, "first:" + batch12, "second:" + batch12, "master:" + batch12, "first:" + batch12,
          "second:" + batch12}},
        {"process, clear and build",
         [&] {
             table.process({a}, {b}, 0, 1, {c});
             table.clear();
             table.build();
         },
         {"master:process([1],[2],0,1,[3])", "first:process([1],[2],0,1,[3])", "second:process([1],[2],0,1,[3])",
          "first:clear", "second:clear", "master:clear", "first:build", "second:build"}},
    };
    for (const Step &step : steps) {
        log.clear();
        step.change();
        EXPECT_EQ(log, step.expected) << step.what;
    }
    EXPECT_EQ(table.rowCount(), 0);
}

TEST_F(ProtocolTest, OnlyTheOutermostBracketActs)
{
    {
        TableUpdater outer(&table);
        {
            TableUpdater inner(&table);
            TableLocker reader(&table); // the lock is recursive
        }
        log.append(QStringLiteral("inside"));
    }
    EXPECT_EQ(log, QStringList({"dependent:dependentBeginUpdate(orders)", "master:beginUpdate", "first:beginUpdate",
                                "second:beginUpdate", "inside", "first:endUpdate", "second:endUpdate",
                                "dependent:dependentEndUpdate(orders)"}));
}

TEST_F(ProtocolTest, AnExceptionStillClosesTheBatch)
{
    try {
        TableUpdater updater(&table);
        throw 1;
    } catch (int) {
    }
    EXPECT_EQ(log.last(), QStringLiteral("dependent:dependentEndUpdate(orders)"));
    std::atomic<bool> locked{false};
    QtConcurrent::run([&] {
        TableLocker locker(&table);
        locked = true;
    }).waitForFinished();
    EXPECT_TRUE(locked);
}

TEST_F(ProtocolTest, RegistrationSignalsAndNames)
{
    QStringList signals_;
    QObject listener; // the connections end with the test
    QObject::connect(&table, &Table::indexAdded, &listener,
                     [&](Index *i) { signals_ << "added:" + i->getClassName(); });
    QObject::connect(&table, &Table::indexRemoved, &listener,
                     [&](Index *i) { signals_ << "removed:" + i->getClassName(); });
    QObject::connect(&table, &Table::dependentIndexAdded, &listener, [&](Index *) { signals_ << "dependentAdded"; });
    QObject::connect(&table, &Table::dependentIndexRemoved, &listener,
                     [&](Index *) { signals_ << "dependentRemoved"; });

    RecordingIndex third(&log, QStringLiteral("third"));
    table.addIndex(&third);
    table.setIndexName(QStringLiteral("Main"), &third);
    EXPECT_EQ(table.namedIndex(QStringLiteral("Main")), &third);
    EXPECT_EQ(table.indexName(&third), QStringLiteral("Main"));
    EXPECT_EQ(table.indexes(), QList<Index *>({&first, &second, &third}));
    table.removeIndex(&third);
    EXPECT_EQ(table.namedIndex(QStringLiteral("Main")), nullptr);
    EXPECT_TRUE(table.indexName(&third).isEmpty());
    table.removeIndex(&third); // not registered: the signal all the same
    table.removeDependentIndex(&dependent);
    table.addDependentIndex(&dependent);
    EXPECT_EQ(table.dependentIndexes(), QList<Index *>({&dependent}));
    EXPECT_EQ(signals_, QStringList({"added:RecordingIndex", "removed:RecordingIndex", "removed:RecordingIndex",
                                     "dependentRemoved", "dependentAdded"}));
}

TEST(TableMaster, SetMasterIndexDeletesOnlyAnotherIndex)
{
    Table table(QStringLiteral("t"));
    table.addColumn(QStringLiteral("id"), FieldType::Integer);
    QStringList log;
    bool firstDeleted = false, secondDeleted = false;
    auto *master = new RecordingMaster(&table, &log, &firstDeleted);
    table.setMasterIndex(master);
    table.setMasterIndex(master);
    EXPECT_FALSE(firstDeleted);
    EXPECT_EQ(table.masterIndex(), master);
    table.setMasterIndex(new RecordingMaster(&table, &log, &secondDeleted));
    EXPECT_TRUE(firstDeleted);
    EXPECT_FALSE(secondDeleted);
}

TEST(TableLifetime, RowsOutliveTheTableWhileHeld)
{
    Record kept;
    {
        Table table(QStringLiteral("t"));
        table.addColumn(QStringLiteral("key"), FieldType::Integer);
        table.addColumn(QStringLiteral("id"), FieldType::Integer);
        IntKeyIndex index(&table);
        for (int i = 0; i < 3; ++i)
            makeRow(table, {i, i}).append();
        kept = table.masterIndex()->at(1);
        EXPECT_EQ(Table::references(kept.rowPtr()), 3u);
    }
    EXPECT_EQ(Table::references(kept.rowPtr()), 1u);
}

class IntVectorIndex : public IndexVector
{
public:
    using IndexVector::IndexVector;
    int compare(const Record &a, const Record &b) const override { return getInt(a, 0) - getInt(b, 0); }
};

// Misuse that used to read freed or foreign memory gets a clear outcome.
TEST(TableMisuse, UnknownNamesThrowAndIndexesMayOutliveTheirTable)
{
    auto table = std::make_unique<Table>(QStringLiteral("t"));
    addKeyIdColumns(*table);
    const Record row = appendRow(*table, {1, 2});
    for (const auto &lookup : std::vector<std::function<void()>>{
             [&] { row.data(QStringLiteral("prcie")); }, [&] { table->columnDef(QStringLiteral("prcie")); }}) {
        try {
            lookup();
            ADD_FAILURE() << "no exception";
        } catch (const Exception &e) {
            EXPECT_EQ(e.message, QStringLiteral("Column 'prcie' not found in table 't'."));
        }
    }
    auto sorted = std::make_unique<IntKeyIndex>(table.get());
    auto vector = std::make_unique<IntVectorIndex>(table.get());
    auto watch = std::make_unique<WatchIndex>(table.get());
    table.reset(); // before the indexes: their destructors must not touch it
    sorted.reset();
    vector.reset();
    watch.reset();
}

#ifndef QT_NO_DEBUG
TEST(TableMisuseDeathTest, ASecondWriterThreadIsStopped)
{
    GTEST_FLAG_SET(death_test_style, "threadsafe");
    EXPECT_DEATH(
        {
            Table table(QStringLiteral("quotes"));
            TableUpdater writer(&table);
            std::thread([&] { TableUpdater second(&table); }).join();
        },
        "a batch of table 'quotes' is open on another thread");
}
#endif
