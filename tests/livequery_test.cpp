// Live queries against brute force: random batches from a writer thread,
// reloads included, and after each one every query's rows and aggregates
// compared with a recomputation from a plain model of the trades, read
// through a proxy that only knows the model's signals.

#include "testutil.h"

#include <database/decimal.h>
#include <database/exception.h>
#include <database/livequery.h>
#include <database/livequery_p.h>
#include <database/masterindex.h>
#include <database/recordstrans.h>
#include <database/tableio.h>
#include <database/tablejoin.h>

#include <QtCore/QCoreApplication>
#include <QtCore/QDataStream>
#include <QtCore/QRandomGenerator>
#include <QtCore/QSortFilterProxyModel>
#include <QtTest/QAbstractItemModelTester>

#include <gtest/gtest.h>

#include <algorithm>
#include <climits>
#include <cmath>
#include <limits>
#include <map>
#include <optional>
#include <random>
#include <thread>
#include <unordered_map>

namespace {

enum Column { Key, Symbol, Board, Price, Qty, Amount };

void makeTrades(Table &table)
{
    table.addColumn(QStringLiteral("key"), FieldType::Integer64, 0, false);
    table.addColumn(QStringLiteral("symbol"), FieldType::String, 6);
    table.addColumn(QStringLiteral("board"), FieldType::String, 4);
    table.addColumn(QStringLiteral("price"), FieldType::Double);
    table.addColumn(QStringLiteral("qty"), FieldType::Integer);
    table.addColumn(QStringLiteral("amount"), FieldType::Decimal, 2);
    table.setMasterIndex(new MasterIndexColumn(&table, QStringLiteral("key")));
}

// One trade as the test knows it; prices are quarters, so that double sums
// are exact whatever the order of the additions.
struct Trade
{
    std::optional<QString> symbol, board;
    std::optional<double> price;
    std::optional<int> qty;
    std::optional<long long> cents;
    // When the row last entered its group and the view of the symbol
    // query, and its group of the pair query.
    long long groupSeq = 0, viewSeq = 0, pairSeq = 0;
};

bool inGroupView(const Trade &t) { return t.board != QStringLiteral("C"); }
bool inPairView(const Trade &t) { return !t.qty || *t.qty % 2 != 0; }
bool inFlatView(const Trade &t) { return (t.price && *t.price >= 10) || t.board == QStringLiteral("A"); }

LiveQuery groupQuery()
{
    return LiveQuery()
        .where(QueryFilter::column("board", QueryFilter::NotEqual, "C"))
        .groupBy({"symbol"})
        .aggregate(QueryAggregate::count())
        .aggregate(QueryAggregate::sum("qty"))
        .aggregate(QueryAggregate::sum("amount"))
        .aggregate(QueryAggregate::average("price"))
        .aggregate(QueryAggregate::average("amount"))
        .aggregate(QueryAggregate::min("price"))
        .aggregate(QueryAggregate::max("amount"))
        .aggregate(QueryAggregate::first("price"))
        .aggregate(QueryAggregate::last("price"))
        .aggregate(QueryAggregate::weightedAverage("price", "qty", "VWAP"))
        .aggregate(QueryAggregate::weightedAverage("amount", "qty"))
        .aggregate(QueryAggregate::max("board"))
        .withTotal();
}

LiveQuery pairQuery()
{
    return LiveQuery()
        .where(QueryFilter::predicate([](const Record &r) {
            const Field qty = r.data(Qty);
            return qty.isNull() || qty.asInteger() % 2 != 0;
        }))
        .groupBy({"board", "symbol"})
        .aggregate(QueryAggregate::count())
        .aggregate(QueryAggregate::sum("price"))
        .aggregate(QueryAggregate::last("qty"));
}

LiveQuery flatQuery()
{
    return LiveQuery()
        .select({"key", "symbol", "price"})
        .where(QueryFilter::column("price", QueryFilter::GreaterEqual, 10.0)
               || QueryFilter::column("board", QueryFilter::Equal, "A"))
        .orderBy("price", Qt::DescendingOrder)
        .orderBy("symbol");
}

QVariant opt(const std::optional<QString> &v) { return v ? QVariant(*v) : QVariant(); }

// a < b as the queries order values: null first.
template <typename T> bool lessNullFirst(const std::optional<T> &a, const std::optional<T> &b)
{
    if (!a || !b)
        return !a && b;
    return *a < *b;
}

QVariant decimalOf(long long cents) { return decimal(cents, 2).toVariant(); }

long long roundedDivision(long long a, long long b)
{
    long long q = a / b;
    const long long r = a % b;
    if (2 * std::llabs(r) >= std::llabs(b))
        q += ((a < 0) != (b < 0)) ? -1 : 1;
    return q;
}

// Every cell a grouped row should show, from the trades of the group.
std::vector<QVariant> expectedAggregates(const std::vector<const Trade *> &members)
{
    long long count = 0, qtySum = 0, centsSum = 0, weightedCents = 0, weight = 0, weightC = 0;
    int qtyN = 0, centsN = 0, priceN = 0, wN = 0, wcN = 0;
    double priceSum = 0, weighted = 0;
    std::optional<double> minPrice;
    std::optional<long long> maxCents;
    std::optional<QString> maxBoard;
    const Trade *first = nullptr, *last = nullptr;
    for (const Trade *t : members) {
        ++count;
        if (t->qty) {
            qtySum += *t->qty;
            ++qtyN;
        }
        if (t->cents) {
            centsSum += *t->cents;
            ++centsN;
            if (!maxCents || *t->cents > *maxCents)
                maxCents = t->cents;
        }
        if (t->price) {
            priceSum += *t->price;
            ++priceN;
            if (!minPrice || *t->price < *minPrice)
                minPrice = t->price;
        }
        if (t->price && t->qty) {
            weighted += *t->price * *t->qty;
            weight += *t->qty;
            ++wN;
        }
        if (t->cents && t->qty) {
            weightedCents += *t->cents * *t->qty;
            weightC += *t->qty;
            ++wcN;
        }
        if (t->board && (!maxBoard || *t->board > *maxBoard))
            maxBoard = t->board;
        if (!first || t->groupSeq < first->groupSeq)
            first = t;
        if (!last || t->groupSeq > last->groupSeq)
            last = t;
    }
    auto price = [](const Trade *t) { return t && t->price ? QVariant(*t->price) : QVariant(); };
    return {
        QVariant(count),
        qtyN ? QVariant(qtySum) : QVariant(),
        centsN ? decimalOf(centsSum) : QVariant(),
        priceN ? QVariant(priceSum / priceN) : QVariant(),
        centsN ? decimalOf(roundedDivision(centsSum, centsN)) : QVariant(),
        minPrice ? QVariant(*minPrice) : QVariant(),
        maxCents ? decimalOf(*maxCents) : QVariant(),
        price(first),
        price(last),
        wN && weight ? QVariant(weighted / static_cast<double>(weight)) : QVariant(),
        wcN && weightC ? decimalOf(roundedDivision(weightedCents, weightC)) : QVariant(),
        opt(maxBoard),
    };
}

// Values compared as the model's users compare them: numbers by value, a
// decimal as a decimal.
bool sameValue(const QVariant &a, const QVariant &b)
{
    if (a.isValid() != b.isValid())
        return false;
    if (!a.isValid())
        return true;
    if (a.userType() == decimal::metatypeId() || b.userType() == decimal::metatypeId())
        return a.userType() == b.userType() && a.value<decimal>() == b.value<decimal>();
    if (a.type() == QVariant::String || b.type() == QVariant::String)
        return a.toString() == b.toString();
    return a.toDouble() == b.toDouble();
}

QString describe(const QVariant &v)
{
    if (v.userType() == decimal::metatypeId())
        return v.value<decimal>().toString();
    return v.isValid() ? v.toString() : QStringLiteral("null");
}

class Harness
{
public:
    Harness() : random(20261124)
    {
        makeTrades(table);
        for (int k = 0; k < 60; ++k)
            insert();
        renumber();
    }

    // The plain model's answer for the grouped queries: key -> cells.
    std::vector<std::vector<QVariant>> expectedGroups() const
    {
        std::map<std::optional<QString>, std::vector<const Trade *>,
                 bool (*)(const std::optional<QString> &, const std::optional<QString> &)>
            groups(&lessNullFirst<QString>);
        std::vector<const Trade *> all;
        for (const auto &entry : trades) {
            if (!inGroupView(entry.second))
                continue;
            groups[entry.second.symbol].push_back(&entry.second);
            all.push_back(&entry.second);
        }
        std::vector<std::vector<QVariant>> rows;
        // The total: first and last by the order of entering the view.
        std::vector<Trade> totalOrder;
        for (const Trade *t : all) {
            Trade copy = *t;
            copy.groupSeq = t->viewSeq;
            totalOrder.push_back(copy);
        }
        std::vector<const Trade *> totalMembers;
        for (const Trade &t : totalOrder)
            totalMembers.push_back(&t);
        std::vector<QVariant> total{QStringLiteral("Total")};
        for (const QVariant &v : expectedAggregates(totalMembers))
            total.push_back(v);
        rows.push_back(total);
        for (const auto &group : groups) {
            std::vector<QVariant> row{opt(group.first)};
            for (const QVariant &v : expectedAggregates(group.second))
                row.push_back(v);
            rows.push_back(row);
        }
        return rows;
    }

    std::vector<std::vector<QVariant>> expectedPairs() const
    {
        using PairKey = std::pair<std::optional<QString>, std::optional<QString>>;
        auto less = [](const PairKey &a, const PairKey &b) {
            if (lessNullFirst(a.first, b.first))
                return true;
            if (lessNullFirst(b.first, a.first))
                return false;
            return lessNullFirst(a.second, b.second);
        };
        std::map<PairKey, std::vector<const Trade *>, decltype(less)> groups(less);
        for (const auto &entry : trades) {
            if (inPairView(entry.second))
                groups[{entry.second.board, entry.second.symbol}].push_back(&entry.second);
        }
        std::vector<std::vector<QVariant>> rows;
        for (const auto &group : groups) {
            double sum = 0;
            int n = 0;
            const Trade *last = nullptr;
            for (const Trade *t : group.second) {
                if (t->price) {
                    sum += *t->price;
                    ++n;
                }
                if (!last || t->pairSeq > last->pairSeq)
                    last = t;
            }
            rows.push_back({opt(group.first.first), opt(group.first.second),
                            QVariant(static_cast<long long>(group.second.size())), n ? QVariant(sum) : QVariant(),
                            last->qty ? QVariant(*last->qty) : QVariant()});
        }
        return rows;
    }

    // Keys of the flat view, in order.
    std::vector<long long> expectedFlat() const
    {
        std::vector<std::pair<long long, const Trade *>> rows;
        for (const auto &entry : trades) {
            if (inFlatView(entry.second))
                rows.emplace_back(entry.first, &entry.second);
        }
        std::stable_sort(rows.begin(), rows.end(), [](const auto &a, const auto &b) {
            const Trade &x = *a.second, &y = *b.second;
            if (lessNullFirst(y.price, x.price))
                return true; // descending
            if (lessNullFirst(x.price, y.price))
                return false;
            if (lessNullFirst(x.symbol, y.symbol))
                return true;
            if (lessNullFirst(y.symbol, x.symbol))
                return false;
            return a.first < b.first;
        });
        std::vector<long long> keys;
        for (const auto &row : rows)
            keys.push_back(row.first);
        return keys;
    }

    // A batch of random changes, as one writer batch.
    void batch()
    {
        TableUpdater updater(&table);
        const int changes = 1 + static_cast<int>(random.bounded(12));
        for (int k = 0; k < changes; ++k) {
            const int op = trades.size() < 10 ? 0 : static_cast<int>(random.bounded(10));
            if (op < 3)
                insert();
            else if (op < 8)
                change();
            else
                remove();
        }
    }

    void reload()
    {
        QByteArray saved;
        {
            QDataStream out(&saved, QIODevice::WriteOnly);
            TableIO(&table).write(out);
        }
        QDataStream in(saved);
        TableIO(&table).read(in);
        renumber();
    }

    Table table{QStringLiteral("trades")};
    std::map<long long, Trade> trades;
    QRandomGenerator random;

private:
    template <typename T> std::optional<T> maybe(T value)
    {
        return random.bounded(6) == 0 ? std::nullopt : std::optional<T>(value);
    }
    Trade randomTrade()
    {
        static const char *const symbols[] = {"AAA", "BBB", "CCC", "DDD", "EEE", "FFF"};
        static const char *const boards[] = {"A", "B", "C"};
        Trade t;
        t.symbol = maybe(QString::fromLatin1(symbols[random.bounded(6)]));
        t.board = maybe(QString::fromLatin1(boards[random.bounded(3)]));
        t.price = maybe(static_cast<int>(random.bounded(80)) / 4.0);
        t.qty = maybe(static_cast<int>(random.bounded(21)) - 5);
        t.cents = maybe(static_cast<long long>(random.bounded(20001)) - 5000);
        return t;
    }
    static void write(const Record &r, const Trade &t)
    {
        auto set = [&r](int column, auto value) {
            if (value)
                r.data(column) = *value;
            else
                r.data(column).setNull();
        };
        set(Symbol, t.symbol);
        set(Board, t.board);
        set(Price, t.price);
        set(Qty, t.qty);
        if (t.cents)
            r.data(Amount) = decimal(*t.cents, 2);
        else
            r.data(Amount).setNull();
    }
    Record find(long long key)
    {
        Record probe(&table);
        probe.data(Key) = key;
        const int at = table.masterIndex()->search(probe, -1);
        return table.masterIndex()->at(at);
    }
    long long anyKey()
    {
        auto it = trades.begin();
        std::advance(it, random.bounded(static_cast<int>(trades.size())));
        return it->first;
    }
    void insert()
    {
        const long long key = nextKey++;
        Trade t = randomTrade();
        t.groupSeq = t.viewSeq = t.pairSeq = ++seq;
        Record r(&table);
        r.data(Key) = key;
        write(r, t);
        r.append();
        trades[key] = t;
    }
    void change()
    {
        const long long key = anyKey();
        Trade &t = trades[key];
        const Trade before = t;
        Trade drawn = randomTrade();
        // Some columns at a time, the grouping ones included.
        const int mask = 1 + static_cast<int>(random.bounded(31));
        if (mask & 1)
            t.symbol = drawn.symbol;
        if (mask & 2)
            t.board = drawn.board;
        if (mask & 4)
            t.price = drawn.price;
        if (mask & 8)
            t.qty = drawn.qty;
        if (mask & 16)
            t.cents = drawn.cents;
        const Record r = find(key);
        write(r, t);
        r.updated();
        // The plain model's entry orders: entering a view or a group puts
        // the row last.
        const bool was = inGroupView(before), is = inGroupView(t);
        if (is && !was)
            t.viewSeq = t.groupSeq = ++seq;
        else if (is && was && before.symbol != t.symbol)
            t.groupSeq = ++seq;
        const bool pairWas = inPairView(before), pairIs = inPairView(t);
        if (pairIs && (!pairWas || before.symbol != t.symbol || before.board != t.board))
            t.pairSeq = ++seq;
        if (random.bounded(8) == 0) {
            // A new primary key: the row keeps its places.
            const long long newKey = nextKey++;
            r.data(Key) = newKey;
            r.updated(Key);
            trades[newKey] = t;
            trades.erase(key);
        }
    }
    void remove()
    {
        const long long key = anyKey();
        find(key).remove();
        trades.erase(key);
    }
    // After a reload rows enter in key order.
    void renumber()
    {
        for (auto &entry : trades)
            entry.second.groupSeq = entry.second.viewSeq = entry.second.pairSeq = ++seq;
    }

    long long nextKey = 1;
    long long seq = 0;
};

std::vector<QVariant> rowOf(const QAbstractItemModel &model, int r)
{
    std::vector<QVariant> row;
    for (int c = 0; c < model.columnCount(); ++c)
        row.push_back(model.data(model.index(r, c), LiveQueryModel::ValueRole));
    return row;
}

std::vector<std::vector<QVariant>> shown(const QAbstractItemModel &model)
{
    std::vector<std::vector<QVariant>> rows;
    for (int r = 0; r < model.rowCount(); ++r)
        rows.push_back(rowOf(model, r));
    return rows;
}

// A copy of the cells that follows the model's signals only: a change that
// is not signalled leaves it behind.
class Mirror
{
public:
    explicit Mirror(const QAbstractItemModel &model) : m_model(model)
    {
        rows = shown(model);
        QObject::connect(&model, &QAbstractItemModel::rowsInserted, &m_guard, [this](const QModelIndex &, int f, int l) {
            for (int r = f; r <= l; ++r) {
                ASSERT_LE(static_cast<size_t>(r), rows.size());
                rows.insert(rows.begin() + r, rowOf(m_model, r));
            }
        });
        QObject::connect(&model, &QAbstractItemModel::rowsRemoved, &m_guard, [this](const QModelIndex &, int f, int l) {
            ASSERT_LT(static_cast<size_t>(l), rows.size());
            rows.erase(rows.begin() + f, rows.begin() + l + 1);
        });
        QObject::connect(&model, &QAbstractItemModel::rowsMoved,
                         [this](const QModelIndex &, int, int, const QModelIndex &, int) { rows = shown(m_model); });
        QObject::connect(&model, &QAbstractItemModel::dataChanged, &m_guard, [this](const QModelIndex &a, const QModelIndex &b) {
            for (int r = a.row(); r <= b.row(); ++r)
                rows.at(static_cast<size_t>(r)) = rowOf(m_model, r);
        });
        QObject::connect(&model, &QAbstractItemModel::layoutChanged, &m_guard, [this] { rows = shown(m_model); });
        QObject::connect(&model, &QAbstractItemModel::modelReset, &m_guard, [this] { rows = shown(m_model); });
    }
    std::vector<std::vector<QVariant>> rows;

private:
    const QAbstractItemModel &m_model;
    QObject m_guard; // disconnects on destruction
};

void expectRows(const std::vector<std::vector<QVariant>> &actual, const std::vector<std::vector<QVariant>> &expected,
                const char *what)
{
    ASSERT_EQ(actual.size(), expected.size()) << what;
    for (size_t r = 0; r < actual.size(); ++r) {
        ASSERT_EQ(actual[r].size(), expected[r].size()) << what;
        for (size_t c = 0; c < actual[r].size(); ++c) {
            ASSERT_TRUE(sameValue(actual[r][c], expected[r][c]))
                << what << " row " << r << " column " << c << ": " << describe(actual[r][c]).toStdString()
                << " instead of " << describe(expected[r][c]).toStdString();
        }
    }
}

TEST(LiveQuery, EveryQueryMatchesARecomputationAfterEveryBatch)
{
    Harness h;
    LiveQueryModel groups(&h.table, groupQuery());
    LiveQueryModel pairs(&h.table, pairQuery());
    LiveQueryModel flat(&h.table, flatQuery());
    QAbstractItemModelTester groupsTester(&groups, QAbstractItemModelTester::FailureReportingMode::Fatal);
    QAbstractItemModelTester flatTester(&flat, QAbstractItemModelTester::FailureReportingMode::Fatal);
    // The flat view through a proxy, the grouped ones through mirrors.
    QSortFilterProxyModel flatProxy;
    flatProxy.setSourceModel(&flat);
    Mirror groupsMirror(groups), pairsMirror(pairs);
    EXPECT_EQ(groups.headerData(10, Qt::Horizontal).toString(), QStringLiteral("VWAP"));
    EXPECT_EQ(groups.headerData(11, Qt::Horizontal).toString(), QStringLiteral("wavg(amount, qty)"));

    auto check = [&](int step) {
        SCOPED_TRACE(step);
        expectRows(groupsMirror.rows, h.expectedGroups(), "groups");
        expectRows(pairsMirror.rows, h.expectedPairs(), "pairs");
        std::vector<long long> keys;
        for (int r = 0; r < flatProxy.rowCount(); ++r)
            keys.push_back(flatProxy.data(flatProxy.index(r, 0), LiveQueryModel::ValueRole).toLongLong());
        EXPECT_EQ(keys, h.expectedFlat());
    };
    check(-1);
    for (int step = 0; step < 400; ++step) {
        // The writer is another thread: the models hear it there and are
        // told through their event queues.
        if (step % 50 == 49)
            std::thread([&] { h.reload(); }).join();
        else
            std::thread([&] { h.batch(); }).join();
        QCoreApplication::processEvents();
        EXPECT_FALSE(groups.hasPendingChanges());
        check(step);
        if (HasFatalFailure())
            return;
    }
}

TEST(LiveQuery, KeepsUpWithAWriterRunningFreely)
{
    Harness h;
    LiveQueryModel groups(&h.table, groupQuery());
    LiveQueryModel flat(&h.table, flatQuery());
    QAbstractItemModelTester groupsTester(&groups, QAbstractItemModelTester::FailureReportingMode::Fatal);
    QAbstractItemModelTester flatTester(&flat, QAbstractItemModelTester::FailureReportingMode::Fatal);
    std::atomic<bool> done{false};
    std::thread writer([&] {
        for (int k = 0; k < 300; ++k)
            h.batch();
        done = true;
    });
    while (!done)
        QCoreApplication::processEvents();
    writer.join();
    groups.update();
    flat.update();
    expectRows(shown(groups), h.expectedGroups(), "groups");
    EXPECT_EQ(flat.rowCount(), static_cast<int>(h.expectedFlat().size()));
}

TEST(LiveQuery, ChangingTheQueryWhileLiveRebuildsIt)
{
    Harness h;
    LiveQueryModel model(&h.table, flatQuery());
    int resets = 0;
    QObject::connect(&model, &QAbstractItemModel::modelReset, [&] { ++resets; });
    model.setQuery(groupQuery());
    EXPECT_EQ(resets, 1);
    expectRows(shown(model), h.expectedGroups(), "groups");
    // A query that does not resolve leaves the one that stands.
    EXPECT_THROW(model.setQuery(LiveQuery().groupBy({"nope"})), Exception);
    EXPECT_THROW(model.setQuery(LiveQuery().groupBy({"board"}).aggregate(QueryAggregate::sum("symbol"))), Exception);
    EXPECT_THROW(model.setQuery(LiveQuery().where(QueryFilter::column("nope", QueryFilter::Equal, 1))), Exception);
    EXPECT_EQ(model.query().groupColumns(), QStringList{"symbol"});
    expectRows(shown(model), h.expectedGroups(), "groups");
    model.setQuery(flatQuery());
    std::vector<long long> keys;
    for (int r = 0; r < model.rowCount(); ++r)
        keys.push_back(model.record(r).data(Key).toInteger64());
    EXPECT_EQ(keys, h.expectedFlat());
    EXPECT_EQ(model.columnCount(), 3);
}

TEST(LiveQuery, AnEmptiedGroupLeavesAndComesBackInItsPlace)
{
    Table table(QStringLiteral("t"));
    makeTrades(table);
    auto add = [&](long long key, const char *symbol, int qty) {
        TableUpdater updater(&table);
        Record r(&table);
        r.data(Key) = key;
        r.data(Symbol) = QString::fromLatin1(symbol);
        r.data(Qty) = qty;
        r.append();
        return r;
    };
    add(1, "B", 5);
    const Record c = add(2, "C", 7);
    LiveQueryModel model(&table, LiveQuery().groupBy({"symbol"}).aggregate(QueryAggregate::sum("qty")));
    QAbstractItemModelTester tester(&model, QAbstractItemModelTester::FailureReportingMode::Fatal);
    QStringList log;
    QObject::connect(&model, &QAbstractItemModel::rowsInserted,
                     [&](const QModelIndex &, int f, int) { log << QStringLiteral("+%1").arg(f); });
    QObject::connect(&model, &QAbstractItemModel::rowsRemoved,
                     [&](const QModelIndex &, int f, int) { log << QStringLiteral("-%1").arg(f); });
    QObject::connect(&model, &QAbstractItemModel::dataChanged,
                     [&](const QModelIndex &a, const QModelIndex &b) { log << QStringLiteral("d%1-%2").arg(a.row()).arg(b.row()); });
    const Record a = add(3, "A", 1);
    model.update();
    {
        TableUpdater updater(&table);
        c.remove();
        add(4, "B", 1);
    }
    model.update();
    {
        // Out and back within one update: a change, not a removal.
        TableUpdater updater(&table);
        a.remove();
        add(5, "A", 2);
    }
    model.update();
    EXPECT_EQ(log.join(' '), QStringLiteral("+0 -2 d1-1 d0-0"));
    EXPECT_EQ(model.data(model.index(0, 1)).toLongLong(), 2);
    EXPECT_EQ(model.data(model.index(1, 1)).toLongLong(), 6);
}

TEST(LiveQuery, FilterValuesKeepTheirOwnScale)
{
    Table table(QStringLiteral("t"));
    makeTrades(table);
    {
        TableUpdater updater(&table);
        long long key = 0;
        for (const char *amount : {"10.12", "10.13", "1000"}) {
            Record r(&table);
            r.data(Key) = ++key;
            r.data(Amount) = QString::fromLatin1(amount);
            r.append();
        }
    }
    auto rows = [&](const QueryFilter &filter) {
        return LiveQueryModel(&table, LiveQuery().where(filter)).rowCount();
    };
    EXPECT_EQ(rows(QueryFilter::column("amount", QueryFilter::GreaterEqual, 10.125)), 2);
    EXPECT_EQ(rows(QueryFilter::column("amount", QueryFilter::Equal, 1000)), 1);
    EXPECT_EQ(rows(QueryFilter::column("amount", QueryFilter::Less, decimal(1013, 2).toVariant())), 1);
    EXPECT_EQ(rows(!QueryFilter::column("amount", QueryFilter::Less, "10.13")), 2);
    EXPECT_THROW(rows(QueryFilter::column("amount", QueryFilter::Less, "ten")), Exception);
}

TEST(LiveQuery, GroupsByAColumnAJoinFills)
{
    // Fills grouped by the sector of their instrument, a column the join
    // fills from the instruments table.
    Table instruments(QStringLiteral("instruments"));
    instruments.addColumn(QStringLiteral("code"), FieldType::String, 6, false);
    instruments.addColumn(QStringLiteral("sector"), FieldType::String, 8);
    instruments.setMasterIndex(new MasterIndexColumn(&instruments, QStringLiteral("code")));
    Table fills(QStringLiteral("fills"));
    fills.addColumn(QStringLiteral("key"), FieldType::Integer64, 0, false);
    fills.addColumn(QStringLiteral("code"), FieldType::String, 6);
    fills.addColumn(QStringLiteral("qty"), FieldType::Integer);
    fills.addColumn(QStringLiteral("sector"), FieldType::String, 8);
    fills.setMasterIndex(new MasterIndexColumn(&fills, QStringLiteral("key")));
    TableJoin join(fills.masterIndex());
    join.addDependent(instruments.masterIndex(), {QStringLiteral("sector")});

    std::map<QString, QString> sectorOf; // the plain model
    std::map<long long, std::pair<QString, int>> fillsOf;
    auto setSector = [&](const QString &code, const QString &sector) {
        TableUpdater updater(&instruments);
        Record probe(&instruments);
        probe.data(0) = code;
        const int at = instruments.masterIndex()->search(probe, -1);
        if (sector.isEmpty()) {
            if (at >= 0)
                instruments.masterIndex()->at(at).remove();
            sectorOf.erase(code);
            return;
        }
        Record r = at >= 0 ? instruments.masterIndex()->at(at) : probe;
        r.data(1) = sector;
        if (at >= 0)
            r.updated(1);
        else
            r.append();
        sectorOf[code] = sector;
    };
    auto addFill = [&](long long key, const QString &code, int qty) {
        TableUpdater updater(&fills);
        Record r(&fills);
        r.data(0) = key;
        r.data(1) = code;
        r.data(2) = qty;
        r.append();
        fillsOf[key] = {code, qty};
    };
    setSector("AAA", "energy");
    setSector("BBB", "banks");
    LiveQueryModel model(&fills, LiveQuery().groupBy({"sector"}).aggregate(QueryAggregate::sum("qty")));
    QAbstractItemModelTester tester(&model, QAbstractItemModelTester::FailureReportingMode::Fatal);
    Mirror mirror(model);
    auto expected = [&] {
        std::map<std::optional<QString>, long long, bool (*)(const std::optional<QString> &, const std::optional<QString> &)>
            sums(&lessNullFirst<QString>);
        for (const auto &fill : fillsOf) {
            const auto sector = sectorOf.find(fill.second.first);
            sums[sector == sectorOf.end() ? std::nullopt : std::optional<QString>(sector->second)] += fill.second.second;
        }
        std::vector<std::vector<QVariant>> rows;
        for (const auto &sum : sums)
            rows.push_back({opt(sum.first), QVariant(sum.second)});
        return rows;
    };
    std::mt19937 random(7);
    const QString codes[] = {"AAA", "BBB", "CCC", "DDD"};
    const QString sectors[] = {"", "energy", "banks", "metals"};
    for (int step = 0; step < 200; ++step) {
        SCOPED_TRACE(step);
        if (random() % 3 == 0)
            setSector(codes[random() % 4], sectors[random() % 4]);
        else
            addFill(step, codes[random() % 4], static_cast<int>(random() % 100));
        QCoreApplication::processEvents();
        expectRows(mirror.rows, expected(), "sectors");
        if (HasFatalFailure())
            return;
    }
}

} // namespace

// The grouped view's row table: random inserts and erases over a pool small
// enough that runs wrap around the end of the table and every erase shifts
// entries back, checked against a standard map after each step. A row's
// value is its place in the pool, through which the table checks a
// candidate; rows of one home and one tag need that check.
TEST(LiveQueryRowMap, FindsWhatAStandardMapFindsThroughInsertsAndErases)
{
    std::vector<unsigned char> block(24);
    std::vector<const unsigned char *> pool;
    for (unsigned char &b : block)
        pool.push_back(&b);
    auto rowOf = [&pool](int value) { return pool[static_cast<size_t>(value)]; };
    livequery::RowMap map;
    std::unordered_map<const unsigned char *, int> expected;
    std::mt19937 random(7);
    for (int step = 0; step < 20000; ++step) {
        const int index = static_cast<int>(random() % pool.size());
        const unsigned char *row = pool[static_cast<size_t>(index)];
        if (step == 10000) {
            map.clear();
            expected.clear();
        } else if (expected.count(row)) {
            ASSERT_EQ(map.erase(row, rowOf), index);
            expected.erase(row);
        } else if (expected.size() < 15) {
            if (step % 2)
                map.insert(row, index, rowOf);
            else
                ASSERT_TRUE(map.insertNew(row, index, rowOf));
            ASSERT_FALSE(map.insertNew(row, index, rowOf));
            expected[row] = index;
        }
        ASSERT_EQ(map.size(), expected.size());
        for (const unsigned char *probe : pool) {
            const auto found = expected.find(probe);
            ASSERT_EQ(map.find(probe, rowOf), found == expected.end() ? -1 : found->second) << "step " << step;
        }
    }
    EXPECT_EQ(map.erase(pool[0], rowOf), expected.count(pool[0]) ? 0 : -1);

    // Two rows whose hashes share their high half, so the tag alone cannot
    // tell them apart: the second is the first plus the multiplier's
    // inverse, so that its product is one more. The table never reads
    // through a row address, only compares it.
    const quint64 multiplier = 0x9E3779B97F4A7C15ull;
    quint64 inverse = multiplier;
    for (int k = 0; k < 6; ++k)
        inverse *= 2 - multiplier * inverse;
    ASSERT_EQ(multiplier * inverse, 1u);
    const quintptr first = 0x100000;
    std::vector<const unsigned char *> twins{reinterpret_cast<const unsigned char *>(first),
                                             reinterpret_cast<const unsigned char *>(first + inverse)};
    ASSERT_EQ((quint64(first) * multiplier) >> 32, (quint64(first + inverse) * multiplier) >> 32);
    ASSERT_EQ(twins.size(), 2u);
    auto twinOf = [&twins](int value) { return twins[static_cast<size_t>(value)]; };
    livequery::RowMap pair;
    ASSERT_TRUE(pair.insertNew(twins[0], 0, twinOf));
    EXPECT_EQ(pair.find(twins[1], twinOf), -1);
    ASSERT_TRUE(pair.insertNew(twins[1], 1, twinOf));
    EXPECT_EQ(pair.find(twins[1], twinOf), 1);
    EXPECT_EQ(pair.erase(twins[0], twinOf), 0);
    EXPECT_EQ(pair.find(twins[0], twinOf), -1);
    EXPECT_EQ(pair.find(twins[1], twinOf), 1);
}

// Groups by hash: many keys on few hashes, and hashes that differ only in
// their high bits, through inserts and erases, against a standard multimap.
TEST(LiveQueryGroupTable, FindsEachGroupAmongThoseSharingItsHash)
{
    livequery::GroupTable table;
    std::multimap<size_t, int> expected;
    std::mt19937 random(11);
    auto hashOf = [](int id) { return static_cast<size_t>(id % 5) << 60; };
    int next = 0;
    for (int step = 0; step < 4000; ++step) {
        if (!expected.empty() && random() % 3 == 0) {
            auto it = expected.begin();
            std::advance(it, random() % expected.size());
            table.erase(it->first, it->second);
            expected.erase(it);
        } else if (expected.size() < 40) {
            const int id = next++;
            table.insert(hashOf(id), id);
            expected.emplace(hashOf(id), id);
        }
        ASSERT_EQ(table.size(), expected.size());
        for (int id = std::max(0, next - 60); id < next; ++id) {
            bool present = false;
            const auto range = expected.equal_range(hashOf(id));
            for (auto it = range.first; it != range.second; ++it)
                present = present || it->second == id;
            ASSERT_EQ(table.find(hashOf(id), [id](int candidate) { return candidate == id; }), present ? id : -1)
                << "step " << step << " id " << id;
        }
    }
    table.clear();
    EXPECT_EQ(table.find(hashOf(1), [](int) { return true; }), -1);
}

// A view sorted by one number column is built by copying the numbers out
// and sorting them apart from the rows: the order must be the one the
// comparison gives (nulls first, -0 with 0, NaN after every number, ties by
// key), in both directions, and stay so under a batch that moves rows
// through the comparison.
TEST(LiveQuery, ASortByOneNumberColumnBuildsInTheComparisonsOrder)
{
    Table table(QStringLiteral("t"));
    makeTrades(table);
    const double inf = std::numeric_limits<double>::infinity();
    const std::vector<std::optional<double>> prices = {std::nullopt, std::nan(""), -0.0, 0.0, -1.5, 2.25,
                                                       1e300, -inf, inf, -1e-300, 65536.5, -65536.5};
    const std::vector<std::optional<int>> quantities = {std::nullopt, INT_MIN, -1, 0, 7, INT_MAX, 256, -256};
    std::map<long long, std::pair<std::optional<double>, std::optional<int>>> rows; // by key: the master's order
    std::map<long long, Record> records;
    std::mt19937 random(11);
    std::vector<long long> keys(3000);
    for (size_t k = 0; k < keys.size(); ++k)
        keys[k] = static_cast<long long>(k) * 7919 - 1000000;
    std::shuffle(keys.begin(), keys.end(), random);
    auto write = [&](const Record &r, std::optional<double> price, std::optional<int> qty) {
        if (price)
            r.data(Price) = *price;
        else
            r.data(Price).setNull();
        if (qty)
            r.data(Qty) = *qty;
        else
            r.data(Qty).setNull();
    };
    {
        TableUpdater updater(&table);
        for (long long key : keys) {
            Record r(&table);
            r.data(Key) = key;
            const auto price = prices[random() % prices.size()];
            const auto qty = quantities[random() % quantities.size()];
            write(r, price, qty);
            r.append();
            rows[key] = {price, qty};
            records[key] = r;
        }
    }
    // The comparison's classes: null, number, NaN.
    auto priceClass = [](const std::optional<double> &p) { return !p ? 0 : (std::isnan(*p) ? 2 : 1); };
    auto expected = [&](bool byPrice, int sign) {
        std::vector<long long> order;
        for (const auto &row : rows)
            order.push_back(row.first);
        std::stable_sort(order.begin(), order.end(), [&](long long a, long long b) {
            const auto &x = rows[a];
            const auto &y = rows[b];
            int c;
            if (byPrice) {
                const int cx = priceClass(x.first), cy = priceClass(y.first);
                c = cx != cy ? (cx < cy ? -1 : 1)
                             : (cx == 1 && *x.first < *y.first ? -1 : (cx == 1 && *y.first < *x.first ? 1 : 0));
            } else {
                c = x.second == y.second ? 0 : (x.second < y.second ? -1 : 1); // nullopt first
            }
            return c * sign < 0;
        });
        return order;
    };
    auto shownKeys = [](const LiveQueryModel &model) {
        std::vector<long long> shownKeys;
        for (int r = 0; r < model.rowCount(); ++r)
            shownKeys.push_back(model.record(r).data(Key).toInteger64());
        return shownKeys;
    };
    for (const bool byPrice : {true, false}) {
        for (const Qt::SortOrder order : {Qt::AscendingOrder, Qt::DescendingOrder}) {
            const int sign = order == Qt::AscendingOrder ? 1 : -1;
            LiveQueryModel model(&table, LiveQuery().orderBy(byPrice ? "price" : "qty", order));
            EXPECT_EQ(shownKeys(model), expected(byPrice, sign)) << byPrice << " " << sign;
        }
    }
    // Built once, then kept through the comparison.
    LiveQueryModel model(&table, LiveQuery().orderBy("price", Qt::DescendingOrder));
    {
        TableUpdater updater(&table);
        RecordsTrans trans(&table);
        for (int k = 0; k < 300; ++k) {
            const long long key = keys[random() % keys.size()];
            const auto price = prices[random() % prices.size()];
            RecordUpdater row(records[key], trans);
            write(records[key], price, rows[key].second);
            rows[key].first = price;
        }
    }
    model.update();
    EXPECT_EQ(shownKeys(model), expected(true, -1));
}

// Past 32 stored values a slot's null bits move out of the slot, after its
// words: an average that took back a null as a zero would count it.
TEST(LiveQuery, ManyAveragesKeepTheirNullsApart)
{
    Table table(QStringLiteral("t"));
    makeTrades(table);
    auto set = [&](const Record &r, std::optional<int> qty) {
        if (qty)
            r.data(Qty) = *qty;
        else
            r.data(Qty).setNull();
    };
    std::vector<Record> rows;
    {
        TableUpdater updater(&table);
        long long key = 0;
        for (const std::optional<int> qty : {std::optional<int>(2), std::optional<int>(), std::optional<int>(4)}) {
            Record r(&table);
            r.data(Key) = ++key;
            r.data(Symbol) = QStringLiteral("A");
            set(r, qty);
            r.append();
            rows.push_back(r);
        }
    }
    for (const int averages : {3, 34}) {
        LiveQuery query = LiveQuery().groupBy({"symbol"});
        for (int a = 0; a < averages; ++a)
            query.aggregate(QueryAggregate::average("qty"));
        LiveQueryModel model(&table, query);
        auto averagesAre = [&](double expected) {
            model.update();
            ASSERT_EQ(model.rowCount(), 1);
            EXPECT_DOUBLE_EQ(model.data(model.index(0, 1)).toDouble(), expected) << averages;
            EXPECT_DOUBLE_EQ(model.data(model.index(0, averages)).toDouble(), expected) << averages;
        };
        averagesAre(3);
        auto change = [&](size_t row, std::optional<int> qty) {
            TableUpdater updater(&table);
            set(rows[row], qty);
            rows[row].updated();
        };
        change(1, 6);
        averagesAre(4);
        change(0, std::nullopt);
        averagesAre(5);
        change(0, 8);
        change(1, std::nullopt);
        averagesAre(6);
        change(1, 6);
        change(0, 2);
        averagesAre(4);
        change(1, std::nullopt);
    }
}
