// What a join costs: refreshing the orders of one instrument when it
// changes (one search, no scan of the orders), and appending an order to a
// joined table against appending it to a plain one.

#include <database/masterindex.h>
#include <database/tablejoin.h>

#include <benchmark/benchmark.h>

#include <memory>
#include <random>

namespace {

constexpr int Instruments = 1000;
constexpr int Orders = 200000;

struct Tables
{
    explicit Tables(bool joined)
    {
        instruments.addColumn(QStringLiteral("code"), FieldType::String, 12);
        instruments.addColumn(QStringLiteral("lot"), FieldType::Integer);
        instruments.setMasterIndex(new MasterIndexColumn(&instruments, QStringLiteral("code")));
        orders.addColumn(QStringLiteral("id"), FieldType::Integer);
        orders.addColumn(QStringLiteral("code"), FieldType::String, 12);
        orders.addColumn(QStringLiteral("lot"), FieldType::Integer);
        orders.setMasterIndex(new MasterIndexColumn(&orders, QStringLiteral("id")));
        {
            TableUpdater updater(&instruments);
            for (int i = 0; i < Instruments; ++i) {
                Record record(&instruments);
                record.data(0) = code(i);
                record.data(1) = i;
                record.append();
            }
        }
        if (joined) {
            join.reset(new TableJoin(orders.masterIndex()));
            join->addDependent(instruments.masterIndex(), QStringList({QStringLiteral("lot")}));
        }
        for (int i = 0; i < Orders; ++i)
            addOrder();
    }
    ~Tables() { join.reset(); }

    static QString code(int i) { return QStringLiteral("I%1").arg(i); }
    void addOrder()
    {
        TableUpdater updater(&orders);
        Record record(&orders);
        record.data(0) = nextId++;
        record.data(1) = code(static_cast<int>(random() % Instruments));
        record.append();
    }

    std::mt19937 random{5};
    int nextId = 0;
    Table instruments{QStringLiteral("instruments")};
    Table orders{QStringLiteral("orders")};
    std::unique_ptr<TableJoin> join;
};

} // namespace

static void BM_JoinRefreshOneInstrument(benchmark::State &state)
{
    Tables tables(true);
    int i = 0;
    for (auto _ : state) {
        TableUpdater updater(&tables.instruments);
        const Record record = tables.instruments.masterIndex()->at(i++ % Instruments);
        record.data(1) = i;
        record.updated(1);
    }
    state.counters["orders/instrument"] = double(Orders) / Instruments;
}
BENCHMARK(BM_JoinRefreshOneInstrument)->Unit(benchmark::kMicrosecond);

static void BM_AppendOrder(benchmark::State &state)
{
    Tables tables(state.range(0) != 0);
    for (auto _ : state)
        tables.addOrder();
}
BENCHMARK(BM_AppendOrder)->Arg(0)->Arg(1)->ArgName("joined");
