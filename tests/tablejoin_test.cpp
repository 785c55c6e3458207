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

} // namespace
