// Key comparison of the two column master indexes: field by field through
// Field::compare, and one block comparison of the raw key bytes.

#include <database/masterindex.h>
#include <database/masterindex_fast.h>
#include <database/recordstrans.h>
#include <database/table.h>

#include <benchmark/benchmark.h>

#include <memory>
#include <random>
#include <vector>

namespace {

constexpr int Rows = 4096;

// Key: an Integer account and a 12-character ticker, adjacent and not null.
struct Keys
{
    Keys()
    {
        table.addColumn(QStringLiteral("account"), FieldType::Integer, 0, false);
        table.addColumn(QStringLiteral("ticker"), FieldType::String, 12, false);
        table.addColumn(QStringLiteral("qty"), FieldType::Integer64);
        std::mt19937 random(3);
        for (int i = 0; i < Rows; ++i) {
            Record record(&table);
            Field account = record.data(0), ticker = record.data(1);
            account = static_cast<int>(random() % 16);
            ticker = QStringLiteral("T%1").arg(random() % 500);
            rows.push_back(record);
        }
    }

    Table table{QStringLiteral("keys")};
    std::vector<Record> rows;
};

template <typename Index>
void compareKeys(benchmark::State &state)
{
    Keys keys;
    const Index index(&keys.table, QStringList({QStringLiteral("account"), QStringLiteral("ticker")}));
    size_t i = 0;
    for (auto _ : state) {
        benchmark::DoNotOptimize(index.compare(keys.rows[i % Rows], keys.rows[(i + 1) % Rows]));
        ++i;
    }
}

} // namespace

static void BM_CompareColumnKey(benchmark::State &state)
{
    compareKeys<MasterIndexColumn>(state);
}
BENCHMARK(BM_CompareColumnKey);

static void BM_CompareFastKey(benchmark::State &state)
{
    compareKeys<MasterIndex_Fast>(state);
}
BENCHMARK(BM_CompareFastKey);

// A transaction of 1,000 upserts into a keyed table of 100,000 rows.
static void BM_TransactionUpserts(benchmark::State &state)
{
    Table table(QStringLiteral("positions"));
    table.addColumn(QStringLiteral("key"), FieldType::Integer, 0, false);
    table.addColumn(QStringLiteral("qty"), FieldType::Integer64);
    MasterIndex_Fast::createMasterIndex(&table, {QStringLiteral("key")});
    std::mt19937 random(5);
    auto upserts = [&](int count) {
        TableUpdater updater(&table);
        RecordsTrans trans(&table);
        for (int i = 0; i < count; ++i) {
            Record key(&table);
            Field k = key.data(0);
            k = static_cast<int>(random() % 200000);
            RecordUpdater updater(key, trans);
            Field qty = updater.data(1);
            qty = static_cast<long long>(i);
        }
    };
    upserts(100000);
    for (auto _ : state)
        upserts(1000);
    state.SetItemsProcessed(state.iterations() * 1000);
}
BENCHMARK(BM_TransactionUpserts)->Unit(benchmark::kMillisecond);
