#include <database/core.h>
#include <database/masterindex.h>
#include <database/recordstrans.h>
#include <database/tableindexrebuilder.h>
#include <database/tableio.h>
#include <database/tablejoin.h>
#include <database/watchindex.h>

#include <gtest/gtest.h>

#include <QtCore/QBuffer>
#include <QtCore/QDataStream>
#include <QtCore/QMap>

#include <atomic>
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <random>
#include <thread>

namespace {

enum InstrumentColumn { IBoard, ICode, IName, ILot };
enum OrderColumn { OId, OBoard, OCode, OQty, OName, OLot };

int lotOf(const Record &record)
{
    const Field lot = record.data(OLot);
    return lot.isNull() ? -1 : lot.toInteger();
}

// Orders by their joined lot (null first): it must hear of every refill.
class ByLot : public IndexSort
{
public:
    explicit ByLot(Table *table) : IndexSort(table, true) {}
    int compare(const Record &a, const Record &b) const override { return lotOf(a) - lotOf(b); }
};

// Hears the orders after the join: the column ranges of updates, and the
// orders it was told of with a matching instrument but no lot.
class Spy : public Index
{
public:
    explicit Spy(Table *table) : m_table(table) { table->addIndex(this); }
    ~Spy() override { m_table->removeIndex(this); }
    void clear() override {}
    void build() override {}
    void add(const Record &) override {}
    void remove(const Record &, int) override {}
    bool filter(const Record &) const override { return true; }
    bool contains(const Record &) const override { return false; }
    void update(const Record &record, int firstColumn, int lastColumn, int) override
    {
        ranges.append(qMakePair(firstColumn, lastColumn));
        ++heard[record.rowPtr()];
        if (expectLot && lotOf(record) < 0)
            ++nullLots;
    }
    QString getClassName() const override { return QStringLiteral("Spy"); }

    QList<QPair<int, int>> ranges;
    QHash<const unsigned char *, int> heard;
    bool expectLot = false;
    int nullLots = 0;

private:
    Table *m_table;
};

// An index of the main table that copies the joined lots when it is built,
// as client indexes that read joined columns do.
class IndexDependLots : public Index
{
public:
    explicit IndexDependLots(Table *table) : m_table(table) { table->addIndex(this); }
    ~IndexDependLots() override { m_table->removeIndex(this); }
    void clear() override { lots.clear(); }
    void build() override
    {
        lots.clear();
        for (const Record &record : *m_table->masterIndex())
            lots.append(lotOf(record));
    }
    void add(const Record &) override {}
    void remove(const Record &, int) override {}
    bool filter(const Record &) const override { return true; }
    bool contains(const Record &) const override { return false; }
    QString getClassName() const override { return QStringLiteral("IndexDependLots"); }

    QList<int> lots;

private:
    Table *m_table;
};

QString keyText(const Record &record, int board, int code)
{
    return record.data(board).toString() + QLatin1Char('|') + record.data(code).toString();
}

class JoinTest : public ::testing::Test
{
protected:
    void SetUp() override
    {
        instruments.addColumn(QStringLiteral("board"), FieldType::String, 4);
        instruments.addColumn(QStringLiteral("code"), FieldType::String, 12);
        instruments.addColumn(QStringLiteral("name"), FieldType::String, 20);
        instruments.addColumn(QStringLiteral("lot"), FieldType::Integer);
        instruments.setMasterIndex(
            new MasterIndexColumn(&instruments, QStringList({QStringLiteral("board"), QStringLiteral("code")})));
        orders.addColumn(QStringLiteral("id"), FieldType::Integer);
        orders.addColumn(QStringLiteral("board"), FieldType::String, 4);
        orders.addColumn(QStringLiteral("code"), FieldType::String, 16); // wider than the instrument's
        orders.addColumn(QStringLiteral("qty"), FieldType::Integer);
        orders.addColumn(QStringLiteral("name"), FieldType::String, 20);
        orders.addColumn(QStringLiteral("lot"), FieldType::Integer);
        orders.setMasterIndex(new MasterIndexColumn(&orders, QStringLiteral("id")));
        for (int i = 0; i < 30; ++i)
            putInstrument(boardOf(i), QStringLiteral("C%1").arg(i % 15), 10 + i);
        TableUpdater updater(&orders);
        for (int i = 0; i < 400; ++i)
            addOrder();
    }

    static QString boardOf(int i) { return i % 2 ? QStringLiteral("SPBF") : QStringLiteral("TQBR"); }

    Record putInstrument(const QString &board, const QString &code, int lot)
    {
        TableUpdater updater(&instruments);
        Record record(&instruments);
        record.data(IBoard) = board;
        record.data(ICode) = code;
        record.data(IName) = board + code;
        record.data(ILot) = lot;
        record.append();
        return record;
    }

    // Codes C15..C19 have no instrument.
    void addOrder()
    {
        Record record(&orders);
        record.data(OId) = nextId++;
        record.data(OBoard) = boardOf(static_cast<int>(random() % 2));
        record.data(OCode) = QStringLiteral("C%1").arg(random() % 20);
        record.data(OQty) = 1;
        record.append();
    }

    Record instrument(int i) { return instruments.masterIndex()->at(i); }

    // Every order's joined columns against a recomputation from scratch, and
    // the lot index against the orders.
    void expectJoined(const char *step)
    {
        SCOPED_TRACE(step);
        QMap<QString, Record> byKey;
        for (const Record &record : *instruments.masterIndex())
            byKey.insert(keyText(record, IBoard, ICode), record);
        int wrong = 0;
        QString first;
        for (const Record &order : *orders.masterIndex()) {
            const Record match = byKey.value(keyText(order, OBoard, OCode));
            const bool right = match.isNull()
                ? order.data(OName).isNull() && order.data(OLot).isNull()
                : order.data(OName).toString() == match.data(IName).toString()
                    && !order.data(OLot).isNull() && order.data(OLot).toInteger() == match.data(ILot).toInteger();
            if (!right && wrong++ == 0)
                first = keyText(order, OBoard, OCode) + QLatin1Char(' ') + order.data(OName).toString();
        }
        EXPECT_EQ(wrong, 0) << "first: " << first.toStdString();
        ASSERT_EQ(byLot.count(), orders.rowCount());
        for (int i = 1; i < byLot.count(); ++i)
            ASSERT_LE(lotOf(byLot.at(i - 1)), lotOf(byLot.at(i))) << "at " << i;
    }

    static QByteArray save(Table &table)
    {
        QByteArray bytes;
        QDataStream stream(&bytes, QIODevice::WriteOnly);
        TableIO(&table).write(stream);
        return bytes;
    }
    static void load(Table &table, const QByteArray &bytes)
    {
        QDataStream stream(bytes);
        TableIO(&table).read(stream);
    }

    void join(TableJoin &join)
    {
        join.addDependent(instruments.masterIndex(), QStringList({QStringLiteral("name"), QStringLiteral("lot")}));
    }

    std::mt19937 random{2024};
    int nextId = 1;
    Table instruments{QStringLiteral("instruments")};
    Table orders{QStringLiteral("orders")};
    ByLot byLot{&orders};
};

TEST_F(JoinTest, JoinedColumnsFollowEveryChangeOfEitherTable)
{
    WatchIndex watch(&orders);
    TableJoin join(orders.masterIndex());
    EXPECT_EQ(orders.indexes().first(), join.mainIndex()); // ahead of the earlier indexes
    join.addDependent(instruments.masterIndex(), QStringList({QStringLiteral("name"), QStringLiteral("lot")}));
    expectJoined("joined");
    EXPECT_GT(watch.updated().size(), 250); // the filled orders were announced

    {
        TableUpdater updater(&orders);
        for (int i = 0; i < 100; ++i)
            addOrder();
    }
    expectJoined("orders added");

    for (int batch = 0; batch < 3; ++batch) {
        TableUpdater updater(&instruments);
        for (int i = 0; i < 10; ++i) {
            const Record record = instrument(static_cast<int>(random() % 30));
            record.data(ILot) = static_cast<int>(random() % 1000);
            record.data(IName) = QStringLiteral("N%1").arg(random() % 1000);
            record.updated(IName, ILot);
        }
    }
    expectJoined("instruments updated");
    {
        // A transaction applied on its own: updates, a new instrument for
        // orders that had none, a removal.
        RecordsTrans trans(&instruments);
        for (int i = 0; i < 6; ++i) {
            Record key(&instruments);
            key.data(IBoard) = boardOf(i);
            key.data(ICode) = QStringLiteral("C%1").arg(i < 5 ? i : 16);
            RecordUpdater row(key, trans);
            row.data(ILot) = 500 + i;
            row.data(IName) = QStringLiteral("T%1").arg(i);
        }
        Record key(&instruments);
        key.data(IBoard) = boardOf(1);
        key.data(ICode) = QStringLiteral("C7");
        RecordUpdater(key, trans).remove();
    }
    expectJoined("instruments through a transaction");

    watch.clear();
    const Record gone = instrument(3);
    const QString board = gone.data(IBoard).toString(), code = gone.data(ICode).toString();
    {
        TableUpdater updater(&instruments);
        gone.remove();
    }
    expectJoined("instrument removed");
    const int touched = watch.updated().size();
    EXPECT_GT(touched, 0);
    putInstrument(board, code, 777);
    expectJoined("instrument back");

    // Reloads: each file holds values that differ from the other table's now.
    const QByteArray savedOrders = save(orders);
    const QByteArray savedInstruments = save(instruments);
    {
        TableUpdater updater(&instruments);
        const Record record = instrument(0);
        record.data(ILot) = 4321;
        record.updated(ILot);
    }
    expectJoined("before reloads");
    load(orders, savedOrders);
    expectJoined("orders reloaded");
    load(instruments, savedInstruments);
    expectJoined("instruments reloaded");
    {
        TableUpdater updater(&instruments);
        instruments.clear();
    }
    expectJoined("instruments cleared");
    load(instruments, savedInstruments);
    expectJoined("instruments loaded again");

    {
        TableUpdater updater(&orders);
        for (int i = 0; i < orders.rowCount(); i += 7) {
            const Record order = orders.masterIndex()->at(i);
            order.data(OCode) = QStringLiteral("C%1").arg(random() % 20);
            order.updated(OCode);
        }
    }
    expectJoined("order keys changed");
    {
        RecordsTrans trans(&orders);
        for (int id = 1; id < 60; id += 3) {
            Record key(&orders);
            key.data(OId) = id;
            RecordUpdater row(key, trans);
            row.data(OCode) = QStringLiteral("C%1").arg(random() % 20);
        }
    }
    expectJoined("order keys changed in a transaction");

    // Rebuilding either table's indexes after changes nobody heard of.
    {
        TableUpdater updater(&instruments);
        TableIndexRebuilder rebuilder(&instruments);
        instrument(5).data(ILot) = 55;
        instrument(6).remove();
    }
    expectJoined("instruments rebuilt");
    {
        TableUpdater updater(&orders);
        TableIndexRebuilder rebuilder(&orders);
        addOrder();
    }
    expectJoined("orders rebuilt");
    EXPECT_EQ(orders.indexes().first(), join.mainIndex());
}

TEST_F(JoinTest, SetUpChecksAndQueries)
{
    TableJoin join(orders.masterIndex());
    const auto pairs = TableJoinNamespace::connectIndexes(orders.masterIndex(), instruments.masterIndex());
    EXPECT_EQ(pairs, (QList<QPair<int, int>>{{OBoard, IBoard}, {OCode, ICode}}));
    const struct
    {
        QStringList columns;
        QString message;
    } refused[] = {
        {{"nothing"}, "Column 'nothing' not found to join table 'orders'."},
        {{"qty"}, "Column 'qty' not found to join table 'instruments'."},
        {{"code"}, "Column 'code' of table 'orders' is a key and can't be filled by a join."},
    };
    for (const auto &row : refused) {
        try {
            join.addDependent(instruments.masterIndex(), row.columns);
            ADD_FAILURE() << row.message.toStdString();
        } catch (const QString &message) {
            EXPECT_EQ(message, row.message);
        }
    }
    EXPECT_TRUE(join.dependentTables().isEmpty());
    EXPECT_THROW(TableJoin(instruments.masterIndex()).addDependent(orders.masterIndex(), QStringList()), QString);

    bool dependent = true;
    EXPECT_TRUE(TableJoin::isJoinIndex(join.mainIndex(), &dependent));
    EXPECT_FALSE(dependent);
    EXPECT_FALSE(TableJoin::isJoinIndex(&byLot, &dependent));
    EXPECT_FALSE(dependent);
    EXPECT_EQ(TableJoin::table(&byLot), nullptr);

    // A dependent table destroyed before the join is let go of.
    {
        auto *codes = new Table(QStringLiteral("codes"));
        codes->addColumn(QStringLiteral("code"), FieldType::String, 12);
        codes->addColumn(QStringLiteral("lot"), FieldType::Integer);
        codes->setMasterIndex(new MasterIndexColumn(codes, QStringLiteral("code")));
        TableJoin early(orders.masterIndex());
        early.addDependent(codes->masterIndex(), QStringList({QStringLiteral("lot")}));
        delete codes;
        TableUpdater updater(&orders);
        addOrder();
    }

    TableJoin *registered = nullptr;
    ApplicationCore::setJoinRegistration([&](TableJoin *j) { registered = j; });
    join.registerWithCore();
    ApplicationCore::setJoinRegistration({});
    EXPECT_EQ(registered, &join);
}

// A writer of orders and a writer of instruments at once: they take the two
// locks in one order, so both finish, and the joined columns are right.
TEST_F(JoinTest, WritersOfBothTablesDoNotDeadlock)
{
    TableJoin join(orders.masterIndex());
    join.addDependent(instruments.masterIndex(), QStringList({QStringLiteral("name"), QStringLiteral("lot")}));
    std::thread instrumentWriter([this] {
        std::mt19937 local(1);
        for (int i = 0; i < 300; ++i) {
            TableUpdater updater(&instruments);
            const Record record = instruments.masterIndex()->at(static_cast<int>(local() % 30));
            record.data(ILot) = static_cast<int>(local() % 100);
            record.updated(ILot);
        }
    });
    for (int i = 0; i < 300; ++i) {
        TableUpdater updater(&orders);
        addOrder();
        const Record order = orders.masterIndex()->at(static_cast<int>(random() % orders.rowCount()));
        order.data(OCode) = QStringLiteral("C%1").arg(random() % 20);
        order.updated(OCode);
    }
    instrumentWriter.join();
    expectJoined("after both writers");
}

// What each way of changing the instruments must leave right, one step at
// a time: batches, bare locks (whose refill waits until the lock is let
// go of), no lock at all, transactions, key changes in place.
TEST_F(JoinTest, EveryWayOfChangingTheDependentTableRefills)
{
    TableJoin join(orders.masterIndex());
    this->join(join);
    std::mt19937 steps(7);
    auto pick = [&] { return instrument(static_cast<int>(steps() % static_cast<unsigned>(instruments.rowCount()))); };
    for (int step = 0; step < 300; ++step) {
        const int how = static_cast<int>(steps() % 3); // a batch, a bare lock, no lock
        std::unique_ptr<TableUpdater> updater;
        std::unique_ptr<TableLocker> locker;
        if (how == 0)
            updater = std::make_unique<TableUpdater>(&instruments);
        else if (how == 1)
            locker = std::make_unique<TableLocker>(&instruments);
        switch (steps() % 5) {
        case 0:
            if (instruments.rowCount() > 5)
                pick().remove();
            break;
        case 1: {
            Record record(&instruments);
            record.data(IBoard) = boardOf(static_cast<int>(steps()));
            record.data(ICode) = QStringLiteral("C%1").arg(steps() % 20);
            record.data(IName) = QStringLiteral("new");
            record.data(ILot) = static_cast<int>(steps() % 100);
            if (instruments.masterIndex()->search(record, -1) >= 0)
                break;
            record.append();
            break;
        }
        case 2: {
            // The key in place: the orders of the old key lose the row,
            // those of the new one gain it.
            const Record record = pick();
            Record probe(&instruments);
            probe.data(IBoard) = record.data(IBoard).toString();
            probe.data(ICode) = QStringLiteral("C%1").arg(steps() % 25); // no order has C20..C24
            if (instruments.masterIndex()->search(probe, -1) >= 0)
                break;
            record.data(ICode) = probe.data(ICode).toString();
            record.updated(ICode);
            break;
        }
        case 3: {
            const Record record = pick();
            record.data(ILot) = static_cast<int>(steps() % 1000);
            record.updated(ILot);
            break;
        }
        default: {
            updater.reset();
            locker.reset();
            RecordsTrans trans(&instruments);
            Record key(&instruments);
            key.data(IBoard) = boardOf(static_cast<int>(steps()));
            key.data(ICode) = QStringLiteral("C%1").arg(steps() % 20);
            RecordUpdater row(key, trans);
            row.data(ILot) = static_cast<int>(steps() % 1000);
            if (steps() % 3 == 0)
                row.remove();
        }
        }
        updater.reset();
        locker.reset();
        expectJoined(qPrintable(QStringLiteral("step %1").arg(step)));
        if (HasFailure())
            return;
    }
}

TEST_F(JoinTest, AJoinKeyChangeIsAChangeOfTheJoinedColumns)
{
    TableJoin join(orders.masterIndex());
    this->join(join);
    Spy spy(&orders);
    const Record order = orders.masterIndex()->at(0);
    {
        TableUpdater updater(&orders);
        order.data(OCode) = QStringLiteral("C99");
        order.updated(OCode);
        order.data(OQty) = 5;
        order.updated(OQty);
    }
    // The key change reaches the later indexes as a change of the name and
    // lot too; the quantity as itself.
    EXPECT_EQ(spy.ranges, (QList<QPair<int, int>>{{OCode, OLot}, {OQty, OQty}}));
    expectJoined("key changed");
}

// Keys that match nothing: a null field, a text the dependent key column
// cannot take. Neither throws, from an append or from a batch's end.
TEST_F(JoinTest, KeysThatCannotMatchLeaveTheColumnsNull)
{
    Table lots(QStringLiteral("lots"));
    lots.addColumn(QStringLiteral("code"), FieldType::Integer);
    lots.addColumn(QStringLiteral("lot"), FieldType::Integer);
    lots.setMasterIndex(new MasterIndexColumn(&lots, QStringLiteral("code")));
    Table trades(QStringLiteral("trades"));
    trades.addColumn(QStringLiteral("id"), FieldType::Integer);
    trades.addColumn(QStringLiteral("code"), FieldType::String, 8);
    trades.addColumn(QStringLiteral("lot"), FieldType::Integer);
    trades.setMasterIndex(new MasterIndexColumn(&trades, QStringLiteral("id")));
    TableJoin join(trades.masterIndex());
    join.addDependent(lots.masterIndex(), QStringList({QStringLiteral("lot")}));
    {
        TableUpdater updater(&lots);
        for (int code : {0, 7}) {
            Record lot(&lots);
            lot.data(0) = code;
            lot.data(1) = code + 100;
            lot.append();
        }
        Record nullKey(&lots); // a row whose key is null
        nullKey.data(1) = 999;
        nullKey.append();
    }
    const char *codes[] = {"7", "abc", nullptr, "", "7x"};
    {
        TableUpdater updater(&trades);
        int id = 0;
        for (const char *code : codes) {
            Record trade(&trades);
            trade.data(0) = id++;
            if (code)
                trade.data(1) = QString::fromLatin1(code);
            ASSERT_NO_THROW(trade.append()) << code;
        }
    }
    {
        TableUpdater updater(&lots); // refills at its end
        const Record seven = lots.masterIndex()->at(lots.masterIndex()->search(Record(&lots, QStringLiteral("7")), -1));
        seven.data(1) = 107;
        seven.updated(1);
    }
    QStringList joined;
    for (const Record &trade : *trades.masterIndex())
        joined.append(trade.data(2).isNull() ? QStringLiteral("-") : trade.data(2).toString());
    EXPECT_EQ(joined, QStringList({"107", "-", "-", "-", "-"}));
}

TEST_F(JoinTest, JoinsThatWouldCloseACycleAreRefused)
{
    Table lots(QStringLiteral("lots"));
    lots.addColumn(QStringLiteral("id"), FieldType::Integer);
    lots.addColumn(QStringLiteral("board"), FieldType::String, 4);
    lots.addColumn(QStringLiteral("code"), FieldType::String, 12);
    lots.setMasterIndex(new MasterIndexColumn(&lots, QStringList({QStringLiteral("board"), QStringLiteral("code")})));
    TableJoin ordersToInstruments(orders.masterIndex());
    ordersToInstruments.addDependent(instruments.masterIndex(), QStringList({QStringLiteral("name")}));
    TableJoin instrumentsToLots(instruments.masterIndex());
    instrumentsToLots.addDependent(lots.masterIndex(), QStringList());
    TableJoin lotsToOrders(lots.masterIndex());
    TableJoin self(instruments.masterIndex());
    const struct
    {
        TableJoin *join;
        MasterIndex *dependent;
        QString message;
    } refused[] = {
        {&self, instruments.masterIndex(), "Table 'instruments' can't be joined to itself."},
        {&lotsToOrders, orders.masterIndex(), "Joining table 'orders' to table 'lots' would make a cycle of joins."},
    };
    for (const auto &row : refused) {
        try {
            row.join->addDependent(row.dependent, QStringList());
            ADD_FAILURE() << row.message.toStdString();
        } catch (const QString &message) {
            EXPECT_EQ(message, row.message);
        }
    }
}

// A reload of the instruments refills each order once, in one batch of the
// orders, without showing nulls between; an order-side rebuild fills the
// joined columns before the "IndexDepend" group reads them.
TEST_F(JoinTest, ReloadsAndRebuildsFillOnce)
{
    TableJoin join(orders.masterIndex());
    this->join(join);
    IndexDependLots dependLots(&orders);
    const QByteArray saved = save(instruments);
    {
        TableUpdater updater(&instruments);
        for (const Record &record : *instruments.masterIndex()) {
            record.data(ILot) = 1;
            record.updated(ILot);
        }
    }
    Spy spy(&orders);
    spy.expectLot = true;
    load(instruments, saved);
    EXPECT_EQ(spy.nullLots, 0);
    for (int times : spy.heard)
        EXPECT_EQ(times, 1);
    expectJoined("reloaded");

    {
        TableUpdater updater(&orders);
        TableIndexRebuilder rebuilder(&orders);
        for (int i = 0; i < 20; ++i)
            addOrder();
    }
    QList<int> lots;
    for (const Record &record : *orders.masterIndex())
        lots.append(lotOf(record));
    EXPECT_EQ(dependLots.lots, lots);
}

// A load of many orders sorts the lot index's runs while the rows come, by
// the lots the file holds; the join, built first, fills the lots the
// instruments have, and the index must end in their order.
TEST_F(JoinTest, ALargeLoadSortsByTheLotsTheJoinFills)
{
    TableJoin join(orders.masterIndex());
    this->join(join);
    // The file: orders of the same columns, their lots the other way round.
    Table file(QStringLiteral("orders"));
    for (const TableColumnDef *def : orders.fieldDefs())
        file.addColumn(def->name, def->type, def->length, def->nullable);
    {
        TableUpdater updater(&file);
        for (int i = 0; i < 70000; ++i) {
            Record record(&file);
            record.data(OId) = 100000 + i; // as many digits each: the key order
            record.data(OBoard) = boardOf(i % 3);
            record.data(OCode) = QStringLiteral("C%1").arg(i % 20);
            record.data(OQty) = 1;
            record.data(OLot) = 1000 - i % 40;
            record.append();
        }
    }
    load(orders, save(file));
    ASSERT_EQ(orders.rowCount(), 70000);
    expectJoined("loaded");
    // Saved with the lots the join gave: the runs hold at the build.
    load(orders, save(orders));
    expectJoined("loaded as joined");
}

// Instruments reloaded from a file with many more columns: the join's
// lookups follow the wider rows.
TEST_F(JoinTest, ADependentTableThatGainsColumnsKeepsJoining)
{
    TableJoin join(orders.masterIndex());
    this->join(join);
    Table wide(QStringLiteral("instruments"));
    for (const ColumnDef &column : instruments.columns())
        wide.addColumn(column.name, column.type, column.length);
    for (int i = 0; i < 40; ++i)
        wide.addColumn(QStringLiteral("extra%1").arg(i), FieldType::String, 32);
    {
        TableUpdater updater(&wide);
        for (const Record &record : *instruments.masterIndex()) {
            Record copy(&wide);
            for (int c = 0; c < instruments.columnCount(); ++c)
                copy.data(c) = record.data(c);
            copy.data(ILot) = record.data(ILot).toInteger() + 1;
            copy.append();
        }
    }
    QDataStream stream(save(wide));
    TableIO(&instruments).read(stream, true);
    ASSERT_EQ(instruments.columnCount(), 44);
    expectJoined("wider");
    for (int i = 0; i < 30; ++i) {
        TableUpdater updater(&orders);
        addOrder();
    }
    expectJoined("orders added to the wider");
}

// A writer of the orders while the instruments are reloaded, over and over:
// the reload takes the orders' lock before its own, as the writer does.
TEST_F(JoinTest, ReloadingTheDependentTableWhileTheMainTableIsWritten)
{
    TableJoin join(orders.masterIndex());
    this->join(join);
    const QByteArray saved = save(instruments);
    std::atomic<bool> done{false};
    std::thread watchdog([&] {
        for (int i = 0; i < 600 && !done; ++i)
            std::this_thread::sleep_for(std::chrono::milliseconds(100));
        if (!done) {
            std::fprintf(stderr, "deadlock: reload and writer still waiting after 60 s\n");
            std::abort();
        }
    });
    std::thread writer([&] {
        std::mt19937 local(3);
        for (int i = 0; i < 400; ++i) {
            TableUpdater updater(&orders);
            const Record order = orders.masterIndex()->at(static_cast<int>(local() % 300));
            order.data(OCode) = QStringLiteral("C%1").arg(local() % 20);
            order.updated(OCode);
        }
    });
    for (int i = 0; i < 100; ++i)
        load(instruments, saved);
    writer.join();
    done = true;
    watchdog.join();
    expectJoined("after the reloads");
}

// Builds with run-time checks stop a thread that locks a main table while
// it holds one of its dependent tables, naming both, instead of letting it
// deadlock some day with a writer of the main table; and a join whose maps
// no longer agree with its tables (a key changed and not reported), instead
// of leaving its rows joined to the wrong key.
TEST_F(JoinTest, BuildsWithChecksStopMisuse)
{
#ifdef DATABASE_CHECKS
    ::testing::FLAGS_gtest_death_test_style = "threadsafe";
    TableJoin join(orders.masterIndex());
    this->join(join);
    {
        TableLocker main(&orders);
        TableLocker dependent(&instruments); // the right order
    }
    EXPECT_DEATH(
        {
            TableLocker dependent(&instruments);
            TableUpdater main(&orders);
        },
        "Lock order: table 'orders' locked while this thread holds table 'instruments'");

    const Record order = orders.masterIndex()->at(7);
    EXPECT_DEATH(
        {
            TableLocker locker(&orders);
            order.data(OCode) = QStringLiteral("C99");
            order.data(OQty) = 2;
            order.updated(OQty);
        },
        "TableJoin of 'orders' and 'instruments': main row 7 is not filed under its key");
    {
        TableLocker locker(&orders); // reported: nothing to stop
        order.data(OCode) = QStringLiteral("C99");
        order.updated(OCode);
    }
#else
    GTEST_SKIP() << "run-time checks are compiled out of this build";
#endif
}

} // namespace
