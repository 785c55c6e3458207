// Joins and live models under real threads: orders joined to instruments (by
// board and code) and to prices (by code), one writer thread per table, a
// thread that reloads a dependent table from a saved file (sometimes one
// with more columns), and models of the orders and of an instrument index on
// this thread's event loop. Writers change rows in batches, transactions and
// under bare locks. After each round every table is checked against a plain
// map, every joined value against the maps, and every model against its
// index. Runs DATABASE_STRESS_SECONDS seconds (default 3), from
// DATABASE_STRESS_SEED.

#include <database/masterindex.h>
#include <database/recordstrans.h>
#include <database/tableio.h>
#include <database/tablejoin.h>
#include <database/tablemodel.h>

#include <QtCore/QCoreApplication>
#include <QtCore/QDataStream>
#include <QtCore/QElapsedTimer>
#include <QtCore/QEventLoop>
#include <QtCore/QSortFilterProxyModel>
#include <QtCore/QThread>
#include <QtTest/QAbstractItemModelTester>

#include <gtest/gtest.h>

#include <chrono>
#include <cstdlib>
#include <functional>
#include <map>
#include <memory>
#include <random>

#include <csignal>
#include <cstdio>
#include <cstring>
#include <unistd.h>

namespace {

// A crash prints the seed and round it happened in, which an assertion's
// trace would have said: only what a signal handler may call is used.
char crashNote[96];
void noteCrash(int signal)
{
    const ssize_t written = ::write(STDERR_FILENO, crashNote, std::strlen(crashNote));
    (void)written;
    std::signal(signal, SIG_DFL);
    std::raise(signal);
}

} // namespace

namespace {

const char *const boards[] = {"TQBR", "SPBF"};

QString anyCode(std::mt19937 &random, int codes)
{
    return QStringLiteral("C%1").arg(random() % static_cast<unsigned>(codes));
}

// Orders by an integer column, null first; the record order breaks ties.
class ByNumber : public IndexSort
{
public:
    ByNumber(Table *table, int column) : IndexSort(table, true), m_column(column) {}
    int compare(const Record &a, const Record &b) const override
    {
        const int x = value(a), y = value(b);
        return x < y ? -1 : x > y;
    }
    QString getClassName() const override { return QStringLiteral("ByNumber"); }

private:
    int value(const Record &r) const { return r.data(m_column).isNull() ? -1 : r.data(m_column).toInteger(); }
    int m_column;
};

// What a dependent table holds: its key, as text, to a text and a number
// (a null text stays null).
struct Values
{
    QString text;
    int number;
    bool operator==(const Values &o) const { return text == o.text && number == o.number; }
};
using DepModel = std::map<QString, Values>;

struct Dependent
{
    std::unique_ptr<Table> table;
    QStringList keys; // key column names
    int text = 0;     // column numbers
    int number = 0;
    DepModel model;
    std::vector<std::pair<QByteArray, DepModel>> saved;
    int extraColumns = 0;

    QString keyOf(const Record &r) const
    {
        QStringList parts;
        for (const QString &key : keys)
            parts.append(r.data(key).toString());
        return parts.join(QLatin1Char('|'));
    }
    // A new record carrying the key `text` (parts joined by '|').
    Record keyed(const QString &text) const
    {
        Record r(table.get());
        const QStringList parts = text.split(QLatin1Char('|'));
        for (int i = 0; i < keys.size(); ++i)
            r.data(keys.at(i)) = parts.at(i);
        return r;
    }
    Record find(const QString &text) const
    {
        MasterIndex *master = table->masterIndex();
        const int at = master->search(keyed(text), -1);
        return at < 0 ? Record() : master->at(at);
    }
    QString anyKey(std::mt19937 &random) const
    {
        const QString code = anyCode(random, 30);
        return keys.size() == 2 ? QString::fromLatin1(boards[random() % 2]) + QLatin1Char('|') + code : code;
    }
};

struct Order
{
    QString board, code;
    int qty;
};

class JoinStress : public ::testing::Test
{
protected:
    enum { Id, Board, Code, Qty, Text0, Number0, Text1, Number1 };

    void SetUp() override
    {
        orders.addColumn(QStringLiteral("id"), FieldType::Integer);
        orders.addColumn(QStringLiteral("board"), FieldType::String, 4);
        orders.addColumn(QStringLiteral("code"), FieldType::String, 16);
        orders.addColumn(QStringLiteral("qty"), FieldType::Integer);
        for (int i = 0; i < 2; ++i) {
            orders.addColumn(QStringLiteral("text%1").arg(i), FieldType::String, 20);
            orders.addColumn(QStringLiteral("number%1").arg(i), FieldType::Integer);
        }
        orders.setMasterIndex(new MasterIndexColumn(&orders, QStringLiteral("id")));
        const QStringList keys[] = {{QStringLiteral("board"), QStringLiteral("code")}, {QStringLiteral("code")}};
        for (int i = 0; i < 2; ++i) {
            Dependent &dep = deps[i];
            dep.table = std::make_unique<Table>(i ? QStringLiteral("prices") : QStringLiteral("instruments"));
            for (const QString &key : keys[i])
                dep.table->addColumn(key, FieldType::String, 12);
            dep.table->addColumn(QStringLiteral("text%1").arg(i), FieldType::String, 20);
            dep.table->addColumn(QStringLiteral("number%1").arg(i), FieldType::Integer);
            dep.keys = keys[i];
            dep.text = keys[i].size();
            dep.number = dep.text + 1;
            dep.table->setMasterIndex(new MasterIndexColumn(dep.table.get(), keys[i]));
        }
        byNumber = std::make_unique<ByNumber>(&orders, Number0);
        instrumentsByNumber = std::make_unique<ByNumber>(deps[0].table.get(), deps[0].number);
        join = std::make_unique<TableJoin>(orders.masterIndex());
        for (int i = 0; i < 2; ++i)
            join->addDependent(deps[i].table->masterIndex(),
                               QStringList({QStringLiteral("text%1").arg(i), QStringLiteral("number%1").arg(i)}));
    }

    // --- writers: each touches only its own table and map ---------------------

    // One group of changes to a dependent table, in a batch, a transaction
    // or under a bare lock.
    static void writeDependent(Dependent &dep, std::mt19937 &random)
    {
        const int how = static_cast<int>(random() % 3);
        if (how == 1) {
            // Fields are written under the table's lock: in a batch, or under
            // a bare lock that the transaction is applied in as well.
            std::unique_ptr<TableUpdater> updater;
            std::unique_ptr<TableLocker> locker;
            if (random() % 2)
                updater = std::make_unique<TableUpdater>(dep.table.get());
            else
                locker = std::make_unique<TableLocker>(dep.table.get());
            RecordsTrans trans(dep.table.get());
            for (int n = 1 + static_cast<int>(random() % 6); n > 0; --n) {
                const QString key = dep.anyKey(random);
                RecordUpdater row(dep.keyed(key), trans);
                if (random() % 4 == 0) {
                    row.remove();
                    dep.model.erase(key);
                } else {
                    const Values v{QStringLiteral("t%1").arg(random() % 100), static_cast<int>(random() % 50)};
                    row.data(dep.text) = v.text;
                    row.data(dep.number) = v.number;
                    dep.model[key] = v;
                }
            }
            return;
        }
        std::unique_ptr<TableUpdater> updater;
        std::unique_ptr<TableLocker> locker;
        if (how == 0)
            updater = std::make_unique<TableUpdater>(dep.table.get());
        else
            locker = std::make_unique<TableLocker>(dep.table.get());
        for (int n = how == 0 ? 1 + static_cast<int>(random() % 8) : 1; n > 0; --n) {
            const QString key = dep.anyKey(random);
            const Record row = dep.find(key);
            const int op = static_cast<int>(random() % 4);
            if (row.isNull()) {
                const Record added = dep.keyed(key);
                Values v{random() % 5 ? QStringLiteral("n%1").arg(random() % 100) : QString(),
                         static_cast<int>(random() % 50)};
                if (!v.text.isNull())
                    added.data(dep.text) = v.text;
                added.data(dep.number) = v.number;
                added.append();
                dep.model[key] = v;
            } else if (op == 0) {
                row.remove();
                dep.model.erase(key);
            } else if (op == 1) {
                // The key changes in place, to one that is free.
                const QString to = dep.anyKey(random);
                if (!dep.find(to).isNull())
                    continue;
                const QString code = to.section(QLatin1Char('|'), -1);
                const QString board = dep.keys.size() == 2 ? to.section(QLatin1Char('|'), 0, 0) : QString();
                if (!board.isNull())
                    row.data(QStringLiteral("board")) = board;
                row.data(QStringLiteral("code")) = code;
                row.updated(0, dep.keys.size() - 1);
                dep.model[to] = dep.model[key];
                dep.model.erase(key);
            } else {
                const Values v{QStringLiteral("u%1").arg(random() % 100), static_cast<int>(random() % 50)};
                row.data(dep.text) = v.text;
                row.data(dep.number) = v.number;
                row.updated(dep.text, dep.number);
                dep.model[key] = v;
            }
        }
    }

    Record findOrder(int id)
    {
        Record probe(&orders);
        probe.data(Id) = id;
        const int at = orders.masterIndex()->search(probe, -1);
        return at < 0 ? Record() : orders.masterIndex()->at(at);
    }

    int anyOrder(std::mt19937 &random)
    {
        if (model.empty())
            return -1;
        auto it = model.lower_bound(static_cast<int>(random() % static_cast<unsigned>(nextId)));
        return it == model.end() ? model.begin()->first : it->first;
    }

    void writeOrders(std::mt19937 &random)
    {
        const int how = static_cast<int>(random() % 3);
        auto newOrder = [&](const Record &r, int id) {
            const Order o{QString::fromLatin1(boards[random() % 2]), anyCode(random, 25),
                          static_cast<int>(random() % 1000)};
            r.data(Id) = id;
            r.data(Board) = o.board;
            r.data(Code) = o.code;
            r.data(Qty) = o.qty;
            model[id] = o;
        };
        if (how == 1) {
            std::unique_ptr<TableUpdater> updater;
            std::unique_ptr<TableLocker> locker;
            if (random() % 2)
                updater = std::make_unique<TableUpdater>(&orders);
            else
                locker = std::make_unique<TableLocker>(&orders);
            RecordsTrans trans(&orders);
            for (int n = 1 + static_cast<int>(random() % 6); n > 0; --n) {
                const bool fresh = random() % 2 || model.empty();
                const int id = fresh ? nextId++ : anyOrder(random);
                Record key(&orders);
                key.data(Id) = id;
                RecordUpdater row(key, trans);
                if (fresh) {
                    newOrder(row, id);
                } else if (random() % 3 == 0) {
                    row.remove();
                    model.erase(id);
                } else {
                    const QString code = anyCode(random, 25);
                    row.data(Code) = code;
                    model[id].code = code;
                }
            }
            return;
        }
        std::unique_ptr<TableUpdater> updater;
        std::unique_ptr<TableLocker> locker;
        if (how == 0)
            updater = std::make_unique<TableUpdater>(&orders);
        else
            locker = std::make_unique<TableLocker>(&orders);
        for (int n = how == 0 ? 1 + static_cast<int>(random() % 8) : 1; n > 0; --n) {
            const int op = model.size() < 50 ? 0 : static_cast<int>(random() % 4);
            const Record row = op ? findOrder(anyOrder(random)) : Record();
            if (op == 0) {
                const Record r(&orders);
                newOrder(r, nextId++);
                r.append();
            } else if (op == 1) {
                model.erase(row.data(Id).toInteger());
                row.remove();
            } else if (op == 2) {
                Order &o = model[row.data(Id).toInteger()];
                o.board = QString::fromLatin1(boards[random() % 2]);
                o.code = anyCode(random, 25);
                row.data(Board) = o.board;
                row.data(Code) = o.code;
                row.updated(Board, Code);
            } else {
                const int qty = static_cast<int>(random() % 1000);
                model[row.data(Id).toInteger()].qty = qty;
                row.data(Qty) = qty;
                row.updated(Qty);
            }
        }
    }

    // --- between rounds ------------------------------------------------------

    static QByteArray save(Table &table)
    {
        QByteArray bytes;
        QDataStream stream(&bytes, QIODevice::WriteOnly);
        TableIO(&table).write(stream);
        return bytes;
    }

    // A file of the dependent table as it is now, sometimes with a column
    // more than the table has.
    void snapshot(Dependent &dep, std::mt19937 &random)
    {
        if (dep.saved.size() >= 4)
            dep.saved.erase(dep.saved.begin());
        if (dep.extraColumns >= 4 || random() % 3) {
            dep.saved.emplace_back(save(*dep.table), dep.model);
            return;
        }
        Table wide(dep.table->name());
        for (const ColumnDef &column : dep.table->columns())
            wide.addColumn(column.name, column.type, column.length);
        wide.addColumn(QStringLiteral("extra%1").arg(dep.extraColumns++), FieldType::String, 24);
        for (const Record &row : *dep.table->masterIndex()) {
            const Record copy(&wide);
            for (int c = 0; c < dep.table->columnCount(); ++c) {
                if (!row.data(c).isNull())
                    copy.data(c) = row.data(c);
            }
            copy.data(wide.columnCount() - 1) = QStringLiteral("wide");
            copy.append();
        }
        dep.saved.emplace_back(save(wide), dep.model);
    }

    void expectTables()
    {
        ASSERT_EQ(orders.rowCount(), static_cast<int>(model.size()));
        for (const Record &r : *orders.masterIndex()) {
            const auto it = model.find(r.data(Id).toInteger());
            ASSERT_NE(it, model.end());
            ASSERT_EQ(r.data(Board).toString(), it->second.board);
            ASSERT_EQ(r.data(Code).toString(), it->second.code);
            ASSERT_EQ(r.data(Qty).toInteger(), it->second.qty);
        }
        for (const Dependent &dep : deps) {
            ASSERT_EQ(dep.table->rowCount(), static_cast<int>(dep.model.size())) << dep.table->name().toStdString();
            for (const Record &r : *dep.table->masterIndex()) {
                const auto it = dep.model.find(dep.keyOf(r));
                ASSERT_NE(it, dep.model.end());
                ASSERT_EQ(r.data(dep.text).toString(), it->second.text);
                ASSERT_EQ(r.data(dep.text).isNull(), it->second.text.isNull());
                ASSERT_EQ(r.data(dep.number).toInteger(), it->second.number);
            }
        }
        // Every joined value, from the maps.
        for (const Record &r : *orders.masterIndex()) {
            const Order &o = model[r.data(Id).toInteger()];
            for (int i = 0; i < 2; ++i) {
                const DepModel &m = deps[i].model;
                const auto it = m.find(i == 0 ? o.board + QLatin1Char('|') + o.code : o.code);
                const Field text = r.data(i ? Text1 : Text0);
                const Field number = r.data(i ? Number1 : Number0);
                if (it == m.end()) {
                    ASSERT_TRUE(text.isNull() && number.isNull()) << "order " << r.data(Id).toInteger() << " join " << i;
                } else {
                    ASSERT_EQ(text.isNull(), it->second.text.isNull()) << "order " << r.data(Id).toInteger();
                    ASSERT_EQ(text.toString(), it->second.text) << "order " << r.data(Id).toInteger();
                    ASSERT_EQ(number.toInteger(), it->second.number) << "order " << r.data(Id).toInteger();
                }
            }
        }
    }

    // The model's rows are the index's records, and each cell its field.
    static void expectModel(const TableModel &view, Table &table, const std::function<std::vector<Record>()> &rows)
    {
        TableLocker locker(&table);
        const std::vector<Record> records = rows();
        ASSERT_EQ(view.rowCount(), static_cast<int>(records.size())) << table.name().toStdString();
        ASSERT_EQ(view.columnCount(), table.columnCount()) << table.name().toStdString();
        for (int r = 0; r < view.rowCount(); ++r) {
            ASSERT_EQ(view.record(r), records[static_cast<size_t>(r)]) << "row " << r;
            for (int c = 0; c < view.columnCount(); ++c) {
                const Field field = records[static_cast<size_t>(r)].data(c);
                const QVariant shown = view.data(view.index(r, c));
                ASSERT_EQ(shown.isValid(), !field.isNull()) << "row " << r << " column " << c;
                if (!field.isNull()) {
                    ASSERT_EQ(shown.toString(), field.toSystemString()) << "row " << r << " column " << c;
                }
            }
        }
    }

    static std::vector<Record> recordsOf(const IndexList &index)
    {
        return std::vector<Record>(index.begin(), index.end());
    }

    Table orders{QStringLiteral("orders")};
    Dependent deps[2];
    std::unique_ptr<ByNumber> byNumber;
    std::unique_ptr<ByNumber> instrumentsByNumber;
    std::unique_ptr<TableJoin> join;
    std::map<int, Order> model;
    int nextId = 1;
};

TEST_F(JoinStress, WritersReloadsAndModelsOnTheirOwnThreads)
{
    const char *seconds = std::getenv("DATABASE_STRESS_SECONDS");
    const char *seedText = std::getenv("DATABASE_STRESS_SEED");
    const unsigned seed = seedText ? static_cast<unsigned>(std::strtoul(seedText, nullptr, 10)) : 20261123u;
    const auto end = std::chrono::steady_clock::now() + std::chrono::seconds(seconds ? std::atoi(seconds) : 3);
    std::mt19937 random(seed);

    TableModel ordersView(&orders);
    TableModel byNumberView(byNumber.get());
    TableModel instrumentsView(instrumentsByNumber.get());
    // A proxy sorted by a joined column, under Qt's model checker.
    QSortFilterProxyModel proxy;
    proxy.setSourceModel(&ordersView);
    proxy.setSortRole(TableModel::SortRole);
    proxy.sort(Text0);
    std::vector<std::unique_ptr<QAbstractItemModelTester>> testers;
    for (QAbstractItemModel *m : std::initializer_list<QAbstractItemModel *>{&ordersView, &byNumberView,
                                                                            &instrumentsView, &proxy})
        testers.push_back(
            std::make_unique<QAbstractItemModelTester>(m, QAbstractItemModelTester::FailureReportingMode::Fatal));
    const TableModel *views[] = {&ordersView, &byNumberView, &instrumentsView};

    int rounds = 0, reloads = 0;
    for (const int signal : {SIGSEGV, SIGBUS}) {
        // Only where nothing else reports crashes: a sanitizer's report says more.
        struct sigaction current = {};
        if (sigaction(signal, nullptr, &current) == 0 && current.sa_handler == SIG_DFL)
            std::signal(signal, noteCrash);
    }
    while (std::chrono::steady_clock::now() < end || rounds < 10) {
        const unsigned roundSeed = seed + 7919u * static_cast<unsigned>(rounds);
        SCOPED_TRACE(testing::Message() << "DATABASE_STRESS_SEED=" << seed << " round " << rounds);
        std::snprintf(crashNote, sizeof crashNote, "\njoin stress: crashed in DATABASE_STRESS_SEED=%u round %d\n", seed,
                      rounds);
        ++rounds;
        // This round a dependent table may be reloaded instead of written:
        // one writer per table at a time.
        const int reloaded = rounds > 1 && random() % 3 == 0 ? static_cast<int>(random() % 2) : -1;
        if (reloaded >= 0 && deps[reloaded].saved.empty())
            snapshot(deps[reloaded], random);
        std::vector<std::function<void()>> jobs;
        jobs.push_back([this, roundSeed] {
            std::mt19937 local(roundSeed);
            for (int i = 0; i < 40; ++i)
                writeOrders(local);
        });
        for (int i = 0; i < 2; ++i) {
            Dependent &dep = deps[i];
            if (i != reloaded) {
                jobs.push_back([&dep, roundSeed, i] {
                    std::mt19937 local(roundSeed + 1u + static_cast<unsigned>(i));
                    for (int k = 0; k < 30; ++k)
                        writeDependent(dep, local);
                });
            } else {
                const auto &file = dep.saved[random() % dep.saved.size()];
                jobs.push_back([&dep, file] {
                    for (int k = 0; k < 3; ++k) {
                        QDataStream stream(file.first);
                        TableIO(dep.table.get()).read(stream, true);
                    }
                    dep.model = file.second;
                });
                ++reloads;
            }
        }
        QEventLoop loop;
        int running = static_cast<int>(jobs.size());
        std::vector<std::unique_ptr<QThread>> threads;
        for (auto &job : jobs) {
            threads.emplace_back(QThread::create(job));
            QObject::connect(threads.back().get(), &QThread::finished, &loop, [&] {
                if (--running == 0)
                    loop.quit();
            });
            threads.back()->start();
        }
        loop.exec();
        for (auto &thread : threads)
            thread->wait();

        // Only the events the writers' batches posted bring the models up.
        QElapsedTimer waited;
        waited.start();
        auto pending = [&] {
            for (const TableModel *view : views) {
                if (view->hasPendingChanges())
                    return true;
            }
            return false;
        };
        while (pending() && waited.elapsed() < 10000)
            QCoreApplication::processEvents(QEventLoop::AllEvents, 20);
        ASSERT_FALSE(pending()) << "the models were not told of every batch";

        expectTables();
        if (HasFatalFailure())
            return;
        expectModel(ordersView, orders, [&] { return recordsOf(*orders.masterIndex()); });
        expectModel(byNumberView, orders, [&] { return recordsOf(*byNumber); });
        expectModel(instrumentsView, *deps[0].table, [&] { return recordsOf(*instrumentsByNumber); });
        for (int i = 1; i < byNumber->count(); ++i)
            ASSERT_LE(byNumber->compare(byNumber->at(i - 1), byNumber->at(i)), 0) << "a refill went unheard";
        // Its rows only: a proxy sorted on a column that changes in place
        // may drift out of order (see TableModel's notes on sorting).
        ASSERT_EQ(proxy.rowCount(), orders.rowCount());
        if (HasFatalFailure())
            return;
        for (Dependent &dep : deps) {
            if (random() % 4 == 0)
                snapshot(dep, random);
        }
    }
    std::printf("join stress: %d rounds, %d reloads, %d orders\n", rounds, reloads, orders.rowCount());
}

} // namespace
