// The sorted index on a million rows: appends, key updates, searches, batches
// and the parallel re-sort.

#include <database/indexsort.h>
#include <database/masterindex.h>
#include <database/table.h>

#include <benchmark/benchmark.h>

#include <memory>
#include <random>
#include <vector>

namespace {

constexpr int Rows = 1000000;

void setKey(const Record &record, long long key)
{
    Field field = record.data(0);
    FieldType::setInt64(field.data(), key);
    field.clearNull();
}

long long keyOf(const Record &record)
{
    return FieldType::getInt64(record.data(0).data());
}

class KeyIndex : public IndexSort
{
public:
    explicit KeyIndex(Table *table) : IndexSort(table, true) {}
    int compare(const Record &a, const Record &b) const override
    {
        const long long x = keyOf(a), y = keyOf(b);
        return x < y ? -1 : (x > y ? 1 : 0);
    }
    QString getClassName() const override { return QStringLiteral("KeyIndex"); }
};

// An empty table with a key column and a sorted index over it.
struct EmptyTable
{
    EmptyTable() : table(std::make_unique<Table>(QStringLiteral("append")))
    {
        table->addColumn(QStringLiteral("key"), FieldType::Integer64, 0, false);
        index = std::make_unique<KeyIndex>(table.get());
    }
    ~EmptyTable()
    {
        index.reset();
        table.reset();
    }

    std::unique_ptr<Table> table;
    std::unique_ptr<KeyIndex> index;
};

// A table of `rows` rows with random keys and a sorted index over them.
struct Fixture
{
    explicit Fixture(int rows) : random(42)
    {
        table.addColumn(QStringLiteral("key"), FieldType::Integer64, 0, false);
        table.addColumn(QStringLiteral("payload"), FieldType::Double);
        QList<Record> batch;
        batch.reserve(rows);
        for (int i = 0; i < rows; ++i) {
            Record record(&table);
            setKey(record, static_cast<long long>(random() % (4ULL * rows)));
            batch.append(record);
        }
        TableUpdater updater(&table);
        table.appendList(batch);
    }

    Table table{QStringLiteral("bench")};
    KeyIndex index{&table};
    std::mt19937_64 random;
};

} // namespace

static void BM_AppendRowsWithSortedIndex(benchmark::State &state)
{
    for (auto _ : state) {
        state.PauseTiming();
        auto empty = std::make_unique<EmptyTable>();
        std::mt19937_64 random(1);
        state.ResumeTiming();
        {
            TableUpdater updater(empty->table.get());
            for (int i = 0; i < Rows; ++i) {
                Record record(empty->table.get());
                setKey(record, static_cast<long long>(random() % (4ULL * Rows)));
                record.append();
            }
        }
        benchmark::DoNotOptimize(empty->index->count());
        state.PauseTiming();
        empty.reset();
        state.ResumeTiming();
    }
    state.SetItemsProcessed(state.iterations() * Rows);
}
BENCHMARK(BM_AppendRowsWithSortedIndex)->Unit(benchmark::kMillisecond)->Iterations(2);

// The same rows as one batch: sorted once and inserted in blocks.
static void BM_AppendListWithSortedIndex(benchmark::State &state)
{
    for (auto _ : state) {
        state.PauseTiming();
        auto empty = std::make_unique<EmptyTable>();
        std::mt19937_64 random(1);
        QList<Record> rows;
        rows.reserve(Rows);
        for (int i = 0; i < Rows; ++i) {
            Record record(empty->table.get());
            setKey(record, static_cast<long long>(random() % (4ULL * Rows)));
            rows.append(record);
        }
        state.ResumeTiming();
        {
            TableUpdater updater(empty->table.get());
            empty->table->appendList(rows);
        }
        benchmark::DoNotOptimize(empty->index->count());
        state.PauseTiming();
        rows.clear();
        empty.reset();
        state.ResumeTiming();
    }
    state.SetItemsProcessed(state.iterations() * Rows);
}
BENCHMARK(BM_AppendListWithSortedIndex)->Unit(benchmark::kMillisecond)->Iterations(2);

// The way to change a sort key: positions saved before the change let every
// index find the record at once.
static void BM_UpdateSortKeyWithKeeper(benchmark::State &state)
{
    Fixture f(Rows);
    for (auto _ : state) {
        const Record record = f.table.masterIndex()->at(static_cast<int>(f.random() % Rows));
        const Table::UpdateKeeper keeper = f.table.buildKeeper(record);
        setKey(record, static_cast<long long>(f.random() % (4ULL * Rows)));
        f.table.updated(record, keeper, 0, 0);
    }
}
BENCHMARK(BM_UpdateSortKeyWithKeeper)->Unit(benchmark::kMicrosecond);

// Without positions a record whose key changed is found by a linear scan,
// in the sorted index and in the arrival-order master alike.
static void BM_UpdateSortKeyUnhinted(benchmark::State &state)
{
    Fixture f(Rows);
    for (auto _ : state) {
        const Record record = f.table.masterIndex()->at(static_cast<int>(f.random() % Rows));
        setKey(record, static_cast<long long>(f.random() % (4ULL * Rows)));
        record.updated();
    }
}
BENCHMARK(BM_UpdateSortKeyUnhinted)->Unit(benchmark::kMicrosecond);

static void BM_SearchByKey(benchmark::State &state)
{
    Fixture f(Rows);
    const Record probe(&f.table);
    for (auto _ : state) {
        setKey(probe, static_cast<long long>(f.random() % (4ULL * Rows)));
        benchmark::DoNotOptimize(f.index.search(probe, -1));
    }
}
BENCHMARK(BM_SearchByKey);

static void BM_ProcessBatch(benchmark::State &state)
{
    const int changes = static_cast<int>(state.range(0));
    Fixture f(Rows);
    for (auto _ : state) {
        state.PauseTiming();
        // A third each of removals, key updates and insertions.
        QList<Record> removed, updated, inserted;
        std::vector<int> picked;
        for (int i = 0; i < 2 * changes / 3; ++i)
            picked.push_back(static_cast<int>(f.random() % static_cast<unsigned>(f.table.rowCount())));
        std::sort(picked.begin(), picked.end());
        picked.erase(std::unique(picked.begin(), picked.end()), picked.end());
        for (size_t i = 0; i < picked.size(); ++i) {
            const Record record = f.table.masterIndex()->at(picked[i]);
            if (i % 2 == 0) {
                removed.append(record);
            } else {
                setKey(record, static_cast<long long>(f.random() % (4ULL * Rows)));
                updated.append(record);
            }
        }
        for (int i = 0; i < changes / 3; ++i) {
            Record record(&f.table);
            setKey(record, static_cast<long long>(f.random() % (4ULL * Rows)));
            inserted.append(record);
        }
        state.ResumeTiming();
        f.index.process(removed, updated, 0, 0, inserted);
        state.PauseTiming();
        // Keep the master index and the table in step for the next round.
        f.table.masterIndex()->process(removed, {}, 0, 0, inserted);
        state.ResumeTiming();
    }
    state.SetItemsProcessed(state.iterations() * changes);
}
BENCHMARK(BM_ProcessBatch)->Arg(10000)->Unit(benchmark::kMillisecond);

static void BM_Resort(benchmark::State &state)
{
    Fixture f(static_cast<int>(state.range(0)));
    for (auto _ : state) {
        state.PauseTiming();
        for (const Record &record : f.index)
            setKey(record, static_cast<long long>(f.random() % (4ULL * Rows)));
        state.ResumeTiming();
        f.index.resort();
    }
    state.SetItemsProcessed(state.iterations() * state.range(0));
}
BENCHMARK(BM_Resort)->Arg(100000)->Arg(Rows)->Unit(benchmark::kMillisecond)->Iterations(2);
