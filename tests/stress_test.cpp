// Random operations on one table with every kind of index, checked after
// each batch against a plain model. Runs DATABASE_STRESS_SECONDS seconds
// (default 3; .ci/run gives it a minute), from DATABASE_STRESS_SEED.

#include "tablefixture.h"

#include <database/indexlimit.h>
#include <database/indexvector.h>
#include <database/masterindex_fast.h>
#include <database/qtiocompressor.h>
#include <database/recordstrans.h>
#include <database/tableio.h>
#include <database/watchindex.h>

#include <QtCore/QBuffer>
#include <QtCore/QDataStream>

#include <gtest/gtest.h>

#include <chrono>
#include <functional>
#include <map>
#include <random>
#include <set>

namespace {

enum Column { K, Qty, Sym };

struct Row
{
    int qty;
    QString sym;
};

long long keyOf(const Record &r) { return r.data(K).toInteger64(); }

template <class Base>
class ByQty : public Base
{
public:
    using Base::Base;
    int compare(const Record &a, const Record &b) const override
    {
        return getInt(a, Qty) < getInt(b, Qty) ? -1 : getInt(a, Qty) > getInt(b, Qty);
    }
};

// Drops the smallest keys first.
class Oldest : public IndexLimit
{
public:
    using IndexLimit::IndexLimit;
    int compare(const Record &a, const Record &b) const override
    {
        return keyOf(a) < keyOf(b) ? -1 : keyOf(a) > keyOf(b);
    }
};

class Stress : public ::testing::Test
{
protected:
    void SetUp() override
    {
        table.addColumn(QStringLiteral("k"), FieldType::Integer64, 0, false);
        table.addColumn(QStringLiteral("qty"), FieldType::Integer);
        table.addColumn(QStringLiteral("sym"), FieldType::String, 6);
        MasterIndex_Fast::createMasterIndex(&table, {QStringLiteral("k")});
        byKey = MasterIndexColumn::createIndex(QStringLiteral("byKey"), &table, {QStringLiteral("k")});
    }
    void TearDown() override { delete byKey; }

    Record fresh(long long key, int qty, const QString &sym)
    {
        Record r(&table);
        r.data(K) = key;
        r.data(Qty) = qty;
        r.data(Sym) = sym;
        return r;
    }
    Record find(long long key)
    {
        const int at = table.masterIndex()->search(fresh(key, 0, {}), -1);
        return at < 0 ? Record() : table.masterIndex()->at(at);
    }
    long long anyKey()
    {
        auto it = model.begin();
        std::advance(it, static_cast<long>(random() % model.size()));
        return it->first;
    }

    // The table and every index against the model.
    void check(int op)
    {
        SCOPED_TRACE(op);
        ASSERT_EQ(static_cast<size_t>(table.rowCount()), model.size());
        std::map<long long, Row> seen;
        for (const Record &r : *table.masterIndex())
            seen[keyOf(r)] = Row{getInt(r, Qty), r.data(Sym).toString()};
        ASSERT_EQ(seen.size(), model.size());
        for (const auto &entry : model) {
            const auto got = seen.find(entry.first);
            ASSERT_NE(got, seen.end()) << entry.first;
            ASSERT_EQ(got->second.qty, entry.second.qty) << entry.first;
            ASSERT_EQ(got->second.sym, entry.second.sym) << entry.first;
        }
        auto keys = [](const auto &index) {
            std::vector<long long> out;
            for (const Record &r : index)
                out.push_back(keyOf(r));
            return out;
        };
        std::vector<long long> ordered;
        for (const auto &entry : model)
            ordered.push_back(entry.first);
        ASSERT_EQ(keys(*byKey), ordered);
        ASSERT_EQ(keys(limit), ordered);
        ASSERT_EQ(sorted.count(), table.rowCount());
        ASSERT_EQ(vector.count(), table.rowCount());
        for (int i = 1; i < sorted.count(); ++i)
            ASSERT_LE(getInt(sorted.at(i - 1), Qty), getInt(sorted.at(i), Qty));
        for (int i = 1; i < vector.count(); ++i)
            ASSERT_LE(getInt(vector.get(i - 1), Qty), getInt(vector.get(i), Qty));
        // Each row is held by the master index, the four list indexes and
        // its entries in the watch lists: nothing more, nothing less.
        std::map<const unsigned char *, unsigned> watched;
        for (const auto *list : {&watch.inserted(), &watch.removed(), &watch.updated()})
            for (const Record &r : *list)
                ++watched[r.rowPtr()];
        for (const Record &r : *table.masterIndex())
            ASSERT_EQ(Table::references(r.rowPtr()), 5u + watched[r.rowPtr()]) << keyOf(r);
    }

    // Saved to memory and loaded back, plain or through gzip.
    void reload(bool compressed)
    {
        QByteArray bytes;
        const auto through = [&](QIODevice::OpenMode mode, const std::function<void(QDataStream &)> &use) {
            QBuffer buffer(&bytes);
            buffer.open(mode);
            QtIOCompressor gz(&buffer);
            gz.setStreamFormat(QtIOCompressor::GzipFormat);
            if (compressed)
                gz.open(mode);
            QDataStream stream(compressed ? static_cast<QIODevice *>(&gz) : &buffer);
            use(stream);
        };
        through(QIODevice::WriteOnly, [&](QDataStream &out) { TableIO(&table).write(out); });
        through(QIODevice::ReadOnly, [&](QDataStream &in) { TableIO(&table).read(in); });
    }

    std::mt19937 random;
    Table table{QStringLiteral("stress")};
    MasterIndex *byKey = nullptr;
    ByQty<IndexSort> sorted{&table, true};
    ByQty<IndexVector> vector{&table};
    WatchIndex watch{&table};
    Oldest limit{400, &table};
    std::map<long long, Row> model;
    long long nextKey = 1;
};

TEST_F(Stress, RandomBatchesKeepEveryIndexExact)
{
    const char *seconds = std::getenv("DATABASE_STRESS_SECONDS");
    const char *seed = std::getenv("DATABASE_STRESS_SEED");
    random.seed(seed ? std::strtoul(seed, nullptr, 10) : 20261123u);
    const auto end = std::chrono::steady_clock::now() + std::chrono::seconds(seconds ? std::atoi(seconds) : 3);
    auto sym = [&] { return QString(QChar(static_cast<ushort>('A' + random() % 26))) + QString::number(random() % 100); };
    int batches = 0;
    while (std::chrono::steady_clock::now() < end || batches < 40) {
        ++batches;
        watch.clear();
        const int op = static_cast<int>(random() % 8);
        const int n = 1 + static_cast<int>(random() % 40);
        if (model.size() < 50 && op != 0)
            continue;
        if (op == 0) { // appends, a row at a time
            TableUpdater updater(&table);
            for (int i = 0; i < n; ++i) {
                const Record r = fresh(nextKey, static_cast<int>(random() % 100), sym());
                model[nextKey++] = Row{getInt(r, Qty), r.data(Sym).toString()};
                r.append();
            }
        } else if (op == 1) { // non-key columns, with the positions kept
            TableUpdater updater(&table);
            for (int i = 0; i < n; ++i) {
                const long long key = anyKey();
                const Record r = find(key);
                const Table::UpdateKeeper keeper = table.buildKeeper(r);
                r.data(Qty) = model[key].qty = static_cast<int>(random() % 100);
                r.data(Sym) = model[key].sym = sym();
                table.updated(r, keeper);
            }
        } else if (op == 2) { // the key itself changes
            TableUpdater updater(&table);
            for (int i = 0; i < n; ++i) {
                const long long key = anyKey();
                const Record r = find(key);
                r.data(K) = nextKey;
                model[nextKey++] = model[key];
                model.erase(key);
                r.updated();
            }
        } else if (op == 3) { // removals
            TableUpdater updater(&table);
            for (int i = 0; i < n && model.size() > 1; ++i) {
                const long long key = anyKey();
                find(key).remove();
                model.erase(key);
            }
        } else if (op == 4) { // a transaction, which also trims to the limit
            const std::map<long long, Row> before = model;
            std::set<long long> kept; // updated or removed rows of the table
            int inserted = 0, removed = 0;
            {
                RecordsTrans trans(&table);
                for (int i = 0; i < n; ++i) {
                    const int kind = static_cast<int>(random() % 3);
                    const long long key = kind == 0 ? nextKey++ : anyKey();
                    RecordUpdater row(fresh(key, 0, {}), trans);
                    const bool old = before.count(key) != 0;
                    if (kind == 2) {
                        row.remove();
                        model.erase(key);
                        if (old) {
                            kept.insert(key);
                            ++removed;
                        } else {
                            --inserted; // a pending insert cancelled
                        }
                    } else {
                        row.data(Qty) = static_cast<int>(random() % 100);
                        row.data(Sym) = sym();
                        if (!model.count(key) && !old)
                            ++inserted;
                        model[key] = Row{getInt(row, Qty), row.data(Sym).toString()};
                        if (old)
                            kept.insert(key);
                    }
                }
            }
            // The limit index names the smallest keys of the table, past the
            // rows the transaction touched.
            int surplus = static_cast<int>(before.size()) - limit.limit() + inserted - removed;
            for (auto it = before.begin(); surplus > 0 && it != before.end(); ++it) {
                if (!kept.count(it->first)) {
                    model.erase(it->first);
                    --surplus;
                }
            }
        } else if (op == 5) { // one process() batch
            TableUpdater updater(&table);
            QList<Record> removed, updated, inserted;
            for (int i = 0; i < n; ++i) {
                const long long key = anyKey();
                const Record r = find(key);
                if (r.isNull() || removed.contains(r) || updated.contains(r))
                    continue; // added earlier in this batch, or taken already
                if (i % 2) {
                    removed.append(r);
                    model.erase(key);
                } else {
                    r.data(Qty) = model[key].qty = static_cast<int>(random() % 100);
                    updated.append(r);
                }
                const Record added = fresh(nextKey, static_cast<int>(random() % 100), sym());
                model[nextKey++] = Row{getInt(added, Qty), added.data(Sym).toString()};
                inserted.append(added);
            }
            table.process(removed, updated, Qty, Sym, inserted);
        } else if (op == 6) { // quantities rewritten unheard, then the sorts put right
            TableUpdater updater(&table);
            for (const Record &r : *table.masterIndex())
                r.data(Qty) = model[keyOf(r)].qty = static_cast<int>(random() % 100);
            sorted.resort();
            vector.resort();
        } else { // saved and loaded back
            reload(random() % 2);
            watch.clear();
        }
        // The vector index re-places each record of a batch against the
        // others' new keys in their old places, as specified: a batch of
        // several key changes needs a resort() there.
        if (op == 4 || op == 5)
            vector.resort();
        check(op);
        if (HasFatalFailure())
            return;
    }
    std::printf("stress: %d batches, %zu rows\n", batches, model.size());
}

} // namespace
