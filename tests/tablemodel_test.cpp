// The live model: its signals replayed on a shadow list must give the
// index's rows, under Qt's own model checker, from the same thread and
// while another thread writes.

#include "tablefixture.h"
#include "testutil.h"

#include <database/exception.h>
#include <database/indexvector.h>
#include <database/masterindex.h>
#include <database/tableindexrebuilder.h>
#include <database/tableio.h>
#include <database/tablemodel.h>

#include <QtCore/QCoreApplication>
#include <QtCore/QDataStream>
#include <QtCore/QElapsedTimer>
#include <QtCore/QEventLoop>
#include <QtCore/QRandomGenerator>
#include <QtCore/QSortFilterProxyModel>
#include <QtCore/QThread>
#include <QtTest/QAbstractItemModelTester>

#include <gtest/gtest.h>

#include <chrono>
#include <future>
#include <memory>
#include <set>

namespace {

// Logs the model's signals and replays them on a list of row addresses.
class Recorder
{
public:
    explicit Recorder(TableModel &model) : m_model(model)
    {
        QObject::connect(&model, &QAbstractItemModel::rowsAboutToBeRemoved, [this](const QModelIndex &, int f, int l) {
            log(QStringLiteral("-%1-%2").arg(f).arg(l));
            shadow.erase(shadow.begin() + f, shadow.begin() + l + 1);
        });
        QObject::connect(&model, &QAbstractItemModel::rowsInserted, [this](const QModelIndex &, int f, int l) {
            log(QStringLiteral("+%1-%2").arg(f).arg(l));
            for (int r = f; r <= l; ++r)
                shadow.insert(shadow.begin() + r, m_model.record(r).rowPtr());
        });
        QObject::connect(&model, &QAbstractItemModel::rowsMoved,
                         [this](const QModelIndex &, int f, int l, const QModelIndex &, int to) {
                             log(QStringLiteral("m%1-%2>%3").arg(f).arg(l).arg(to));
                             std::vector<unsigned char *> block(shadow.begin() + f, shadow.begin() + l + 1);
                             shadow.erase(shadow.begin() + f, shadow.begin() + l + 1);
                             const int at = to > f ? to - (l - f + 1) : to;
                             shadow.insert(shadow.begin() + at, block.begin(), block.end());
                         });
        QObject::connect(&model, &QAbstractItemModel::dataChanged, [this](const QModelIndex &a, const QModelIndex &b) {
            log(QStringLiteral("d%1,%2-%3,%4").arg(a.row()).arg(a.column()).arg(b.row()).arg(b.column()));
        });
        QObject::connect(&model, &QAbstractItemModel::columnsInserted, [this](const QModelIndex &, int f, int l) {
            log(QStringLiteral("c%1-%2").arg(f).arg(l));
        });
        QObject::connect(&model, &QAbstractItemModel::layoutChanged, [this] { log("layout"), reread(); });
        QObject::connect(&model, &QAbstractItemModel::modelReset, [this] { log("reset"), reread(); });
        reread();
    }

    QString take() { return std::exchange(m_log, QString()); }
    std::vector<unsigned char *> shadow;

private:
    void log(const QString &entry) { m_log += (m_log.isEmpty() ? "" : " ") + entry; }
    void reread()
    {
        shadow.clear();
        for (int r = 0; r < m_model.rowCount(); ++r)
            shadow.push_back(m_model.record(r).rowPtr());
    }

    TableModel &m_model;
    QString m_log;
};

// Columns key, id (Integer) and note (String): the model shows all three.
void addColumns(Table &table)
{
    addKeyIdColumns(table);
    table.addColumn(QStringLiteral("note"), FieldType::String, 6);
}

// The model against the rows of the index and its table, read independently.
template <typename Rows>
void expectShows(const TableModel &model, const Recorder &recorder, Table &table, const Rows &rowsOf)
{
    TableLocker locker(&table);
    const std::vector<Record> rows = rowsOf();
    ASSERT_EQ(model.rowCount(), static_cast<int>(rows.size()));
    ASSERT_EQ(recorder.shadow.size(), rows.size());
    for (int r = 0; r < model.rowCount(); ++r) {
        const Record &record = rows[static_cast<size_t>(r)];
        ASSERT_EQ(recorder.shadow[static_cast<size_t>(r)], record.rowPtr()) << "row " << r;
        for (int c = 0; c < model.columnCount(); ++c) {
            const QVariant shown = model.data(model.index(r, c));
            const Field field = record.data(c);
            if (field.isNull()) {
                EXPECT_FALSE(shown.isValid());
            } else {
                EXPECT_EQ(shown.toString(), field.toSystemString()) << "row " << r << " column " << c;
            }
        }
    }
}

std::vector<Record> rowsOf(const IndexList &index)
{
    return std::vector<Record>(index.begin(), index.end());
}

Record keyed(const IntKeyIndex &index, int key)
{
    for (const Record &record : index) {
        if (getInt(record, 0) == key)
            return record;
    }
    return Record();
}

TEST(TableModel, SmallChangesGiveExactSignalsAndLargeOnesOneLayoutChange)
{
    Table table(QStringLiteral("trades"));
    addColumns(table);
    auto index = std::make_unique<IntKeyIndex>(&table);
    for (int i = 1; i <= 4; ++i)
        appendRow(table, {10 * i, i});
    TableModel model(index.get());
    QAbstractItemModelTester tester(&model, QAbstractItemModelTester::FailureReportingMode::Fatal);
    Recorder recorder(model);
    QPersistentModelIndex forty;

    struct Step
    {
        const char *what;
        std::function<void()> change;
        const char *expected;
    };
    // Loads a file of the table's columns and one more, holding one row.
    auto loadWithColumn = [&](const QString &name, std::initializer_list<int> row) {
        Table wider(QStringLiteral("wider"));
        for (const ColumnDef &column : table.columns())
            wider.addColumn(column.name, column.type, column.length);
        wider.addColumn(name, FieldType::Integer);
        appendRow(wider, row);
        QByteArray bytes;
        QDataStream out(&bytes, QIODevice::WriteOnly);
        TableIO(&wider).write(out);
        QDataStream in(bytes);
        TableIO(&table).read(in, true);
    };
    const std::vector<Step> steps = {
        {"append between", [&] { appendRow(table, {25, 5}); }, "+2-2"},
        {"one cell", [&] { setInt(keyed(*index, 30), 1, 9); keyed(*index, 30).updated(1); }, "d3,1-3,1"},
        {"key moves the row",
         [&] {
             const Record r = keyed(*index, 10);
             setInt(r, 0, 35);
             r.updated(0);
         },
         "m0-0>4 d3,0-3,0"},
        {"remove", [&] { keyed(*index, 20).remove(); }, "-0-0"},
        {"batch appended at the end",
         [&] { table.appendList({makeRow(table, {50, 6}), makeRow(table, {60, 7}), makeRow(table, {70, 8})}); },
         "+4-6"},
        {"past the threshold",
         [&] {
             forty = model.index(3, 2);
             model.setLayoutThreshold(2);
             table.appendList({makeRow(table, {1, 9}), makeRow(table, {33, 10}), makeRow(table, {99, 11})});
         },
         "layout"},
        {"clear", [&] { table.clear(); }, "layout"},
        {"column added to rows",
         [&] {
             appendRow(table, {1, 1});
             model.update();
             recorder.take();
             table.addColumn(QStringLiteral("extra"), FieldType::Integer);
         },
         "reset"},
        {"indexes rebuilt",
         [&] {
             TableUpdater batch(&table);
             TableIndexRebuilder rebuilder(&table);
             appendRow(table, {5, 12});
         },
         "layout"},
        {"an update while the index is off for a rebuild",
         [&] {
             TableIndexRebuilder rebuilder(&table);
             appendRow(table, {6, 13});
             model.update(); // waits for the index to come back
         },
         "layout"},
        {"a load adds a column",
         [&] {
             loadWithColumn(QStringLiteral("added"), {7, 14});
         },
         "reset"},
        {"a load into an empty table adds a column",
         [&] {
             table.clear();
             model.update();
             recorder.take();
             loadWithColumn(QStringLiteral("more"), {8, 15});
         },
         "c5-5 layout"},
        {"index deleted", [&] { index.reset(); }, "reset"},
    };
    for (const Step &step : steps) {
        step.change();
        model.update();
        EXPECT_EQ(recorder.take(), QString::fromLatin1(step.expected)) << step.what;
        if (index)
            expectShows(model, recorder, table, [&] { return rowsOf(*index); });
        if (QString::fromLatin1(step.what) == QLatin1String("past the threshold")) {
            EXPECT_EQ(forty.row(), 5) << "a persistent index follows its record";
        }
    }
    EXPECT_EQ(model.rowCount(), 0);
    EXPECT_EQ(model.columnCount(), 6);
    EXPECT_FALSE(model.hasPendingChanges());
}

// The slots of views run without the table's lock: a slot that waits for
// another thread's reader (or takes a joined table's lock) does not stall
// the writer. A new master index frees the rows of the old one, but not
// those the model still shows.
TEST(TableModel, SignalsGoOutWithoutTheLockAndShownRowsOutliveTheirIndex)
{
    Table table(QStringLiteral("t"));
    addColumns(table);
    for (int i = 0; i < 3; ++i) {
        const Record row = makeRow(table, {i, 10 + i});
        row.data(2) = QStringLiteral("n%1").arg(i);
        row.append();
    }
    TableModel model(&table);
    QAbstractItemModelTester tester(&model, QAbstractItemModelTester::FailureReportingMode::Fatal);
    std::future<void> reader;
    bool lockFree = false;
    QObject::connect(&model, &QAbstractItemModel::rowsInserted, [&] {
        reader = std::async(std::launch::async, [&] { TableLocker locker(&table); });
        lockFree = reader.wait_for(std::chrono::seconds(2)) == std::future_status::ready;
    });
    appendRow(table, {3, 13});
    model.update();
    reader.wait();
    EXPECT_TRUE(lockFree);

    table.setMasterIndex(new MasterIndexOrdered(&table));
    EXPECT_EQ(table.rowCount(), 0);
    for (int r = 0; r < 4; ++r)
        EXPECT_EQ(model.data(model.index(r, 1)).toInt(), 10 + r) << r;
    EXPECT_EQ(model.data(model.index(2, 2)).toString(), QStringLiteral("n2"));
    model.update();
    EXPECT_EQ(model.rowCount(), 0);
}

// An index in arrival order and one in one vector, beside the sorted one.
class IdVector : public IndexVector
{
public:
    using IndexVector::IndexVector;
    int compare(const Record &a, const Record &b) const override { return getInt(a, 1) - getInt(b, 1); }
    bool filter(const Record &record) const override { return getInt(record, 1) % 3 != 0; }
    QString getClassName() const override { return QStringLiteral("IdVector"); }
};

// A random batch: appends, key and id updates, removals, sometimes a clear
// or a reload of `saved`.
void randomBatch(Table &table, QRandomGenerator &random, int &nextId, const QByteArray &saved)
{
    TableUpdater updater(&table);
    const int kind = random.bounded(40);
    if (kind == 0) {
        table.clear();
        return;
    }
    if (kind == 1 && !saved.isEmpty()) {
        QDataStream stream(saved);
        TableIO(&table).read(stream);
        return;
    }
    const int changes = 1 + random.bounded(kind < 10 ? 40 : 4);
    for (int k = 0; k < changes; ++k) {
        const int rows = table.rowCount();
        const int op = rows ? random.bounded(4) : 0;
        const Record row = rows ? table.masterIndex()->at(random.bounded(rows)) : Record();
        if (op == 0) {
            Record record = makeRow(table, {random.bounded(50), nextId++});
            if (random.bounded(2))
                record.data(2) = QStringLiteral("n%1").arg(nextId);
            record.append();
        } else if (op == 1) {
            setInt(row, 0, random.bounded(50));
            row.updated(0);
        } else if (op == 2) {
            setInt(row, 1, nextId++);
            row.updated(1, 2);
        } else {
            row.remove();
        }
    }
}

TEST(TableModel, RandomBatchesReplayOnEveryKindOfIndex)
{
    for (int source = 0; source < 3; ++source) {
        Table table(QStringLiteral("t"));
        addColumns(table);
        IntKeyIndex sorted(&table);
        IndexList arrival(&table, true);
        IdVector vector(&table);
        std::unique_ptr<TableModel> model(source == 0   ? new TableModel(&sorted)
                                              : source == 1 ? new TableModel(&table)
                                                            : new TableModel(&vector));
        model->setLayoutThreshold(1000);
        QAbstractItemModelTester tester(model.get(), QAbstractItemModelTester::FailureReportingMode::Fatal);
        Recorder recorder(*model);
        auto rows = [&] {
            if (source == 0)
                return rowsOf(sorted);
            if (source == 1)
                return rowsOf(*table.masterIndex());
            std::vector<Record> all;
            for (int i = 0; i < vector.count(); ++i)
                all.push_back(vector.get(i));
            return all;
        };
        QRandomGenerator random(7 + source);
        int nextId = 1;
        for (int batch = 0; batch < 300; ++batch) {
            randomBatch(table, random, nextId, QByteArray());
            if (source == 2)
                vector.resort(); // a batch may leave the vector out of order
            model->update();
            if (source == 2)
                model->refresh();
            expectShows(*model, recorder, table, rows);
            if (HasFatalFailure())
                return;
        }
    }
}

// Batches through Table::process, which a sorted index applies as one edit
// of its list that the model follows instead of rereading the index: moves
// by key, rows the filter takes in and lets go, updates that leave a row in
// place, removals and insertions, each replayed exactly. Now and then two
// batches, or a single change, come between updates: the model then reads
// the index again, and follows the next edit from there.
TEST(TableModel, BatchesFollowedThroughTheIndexEditReplayExactly)
{
    for (const bool filtered : {false, true}) {
        Table table(QStringLiteral("t"));
        addColumns(table);
        IntKeyIndex sorted(&table, 0, [filtered](const Record &r) { return !filtered || getInt(r, 1) % 5 != 0; });
        TableModel model(&sorted);
        model.setLayoutThreshold(1000);
        QAbstractItemModelTester tester(&model, QAbstractItemModelTester::FailureReportingMode::Fatal);
        Recorder recorder(model);
        QRandomGenerator random(filtered ? 31 : 37);
        int nextId = 1;
        for (int i = 0; i < 300; ++i)
            appendRow(table, {random.bounded(100), nextId++});
        model.update();
        for (int round = 0; round < 400; ++round) {
            const int batches = random.bounded(8) == 0 ? 2 : 1;
            for (int b = 0; b < batches; ++b) {
                TableUpdater updater(&table);
                QList<Record> removed, updated, inserted;
                std::set<const unsigned char *> used;
                const int changes = 1 + random.bounded(random.bounded(4) == 0 ? 60 : 8);
                for (int k = 0; k < changes; ++k) {
                    const int op = random.bounded(10);
                    if (op < 2 || table.rowCount() < 50) {
                        inserted.append(makeRow(table, {random.bounded(100), nextId++}));
                        continue;
                    }
                    const Record row = table.masterIndex()->at(random.bounded(table.rowCount()));
                    if (!used.insert(row.rowPtr()).second)
                        continue;
                    if (op < 4) {
                        removed.append(row);
                    } else if (op < 8) {
                        setInt(row, 0, random.bounded(100)); // moves, or stays between equal keys
                        updated.append(row);
                    } else {
                        setInt(row, 1, nextId++); // in place, or in or out of the filter
                        updated.append(row);
                    }
                }
                table.process(removed, updated, 0, 2, inserted);
            }
            if (random.bounded(10) == 0) {
                TableUpdater updater(&table);
                const Record row = table.masterIndex()->at(random.bounded(table.rowCount()));
                setInt(row, 0, random.bounded(100));
                row.updated(0);
            }
            model.update();
            expectShows(model, recorder, table, [&] { return rowsOf(sorted); });
            if (HasFatalFailure())
                return;
        }
    }
}

TEST(TableModel, StaysCurrentWhileAWorkerThreadWrites)
{
    Table table(QStringLiteral("t"));
    addColumns(table);
    IntKeyIndex sorted(&table);
    for (int i = 0; i < 200; ++i)
        appendRow(table, {i % 50, 100000 + i});
    QByteArray saved;
    {
        QDataStream stream(&saved, QIODevice::WriteOnly);
        TableIO(&table).write(stream);
    }
    TableModel model(&sorted);
    QSortFilterProxyModel proxy;
    proxy.setSourceModel(&model);
    proxy.setSortRole(TableModel::SortRole);
    proxy.setFilterKeyColumn(2);
    proxy.setFilterRegularExpression(QStringLiteral("^$|1"));
    proxy.sort(1, Qt::DescendingOrder);
    QAbstractItemModelTester modelTester(&model, QAbstractItemModelTester::FailureReportingMode::Fatal);
    QAbstractItemModelTester proxyTester(&proxy, QAbstractItemModelTester::FailureReportingMode::Fatal);
    Recorder recorder(model);
    int updates = 0;
    QObject::connect(&model, &TableModel::updated, [&] { ++updates; });

    std::unique_ptr<QThread> worker(QThread::create([&] {
        QRandomGenerator random(11);
        int nextId = 1;
        for (int batch = 0; batch < 2000; ++batch)
            randomBatch(table, random, nextId, saved);
    }));
    QEventLoop loop;
    QObject::connect(worker.get(), &QThread::finished, &loop, &QEventLoop::quit);
    worker->start();
    loop.exec();
    worker->wait();
    // Only the events the batches' ends posted bring the model up to date.
    QElapsedTimer waited;
    waited.start();
    while (model.hasPendingChanges() && waited.elapsed() < 10000)
        QCoreApplication::processEvents(QEventLoop::AllEvents, 50);
    EXPECT_FALSE(model.hasPendingChanges());

    EXPECT_GT(updates, 0);
    expectShows(model, recorder, table, [&] { return rowsOf(sorted); });
    // The proxy: the filtered rows, by id from the highest.
    int last = INT_MAX;
    int expected = 0;
    for (const Record &record : sorted)
        expected += record.data(2).isNull() || record.data(2).toString().contains('1');
    EXPECT_EQ(proxy.rowCount(), expected);
    for (int r = 0; r < proxy.rowCount(); ++r) {
        const int id = proxy.data(proxy.index(r, 1), TableModel::ValueRole).toInt();
        EXPECT_LT(id, last);
        last = id;
    }
}

TEST(TableModel, RolesHeadersAndColumnsByName)
{
    Table table(QStringLiteral("t"));
    addColumns(table);
    table.addColumn(QStringLiteral("price"), FieldType::Decimal, 2, true, QStringLiteral("Price"), true,
                    QStringLiteral("last trade"));
    const Record row = makeRow(table, {1, 2});
    row.data(3) = decimal::fromString(QStringLiteral("12.50"));
    row.append();
    TableModel model(&table, {QStringLiteral("price"), QStringLiteral("note")});
    ASSERT_EQ(model.columnCount(), 2);
    EXPECT_EQ(model.tableColumn(0), 3);
    EXPECT_EQ(model.headerData(0, Qt::Horizontal).toString(), QStringLiteral("Price"));
    EXPECT_EQ(model.headerData(0, Qt::Horizontal, Qt::ToolTipRole).toString(), QStringLiteral("last trade"));
    EXPECT_EQ(model.headerData(1, Qt::Horizontal).toString(), QStringLiteral("note"));
    const QModelIndex price = model.index(0, 0);
    EXPECT_EQ(model.data(price).toString(), QStringLiteral("12.50"));
    EXPECT_EQ(model.data(price, Qt::EditRole).value<decimal>(), decimal::fromString(QStringLiteral("12.5")));
    EXPECT_EQ(model.data(price, TableModel::SortRole).userType(), QMetaType::Double);
    EXPECT_EQ(model.data(price, Qt::TextAlignmentRole).toInt(), int(Qt::AlignRight | Qt::AlignVCenter));
    EXPECT_FALSE(model.data(model.index(0, 1)).isValid()) << "a null field";
    EXPECT_FALSE(model.flags(price) & Qt::ItemIsEditable);
    EXPECT_THROW(TableModel(&table, {QStringLiteral("nope")}), Exception);
}

} // namespace
