// The workloads on the library's public API, as a client would write them.

#include "workload_database.h"

#include <database/checksum.h>
#include <database/indexlimit.h>
#include <database/indexsort.h>
#include <database/livequery.h>
#include <database/masterindex_fast.h>
#include <database/optionpricing.h>
#include <database/recordstrans.h>
#include <database/table.h>
#include <database/tableio.h>
#include <database/watchindex.h>
#include <database/settings.h>

#include <QtCore/QCoreApplication>
#include <QtCore/QDataStream>
#include <QtCore/QDir>
#include <QtCore/QFile>
#include <QtCore/QFileInfo>

#include <algorithm>
#include <chrono>
#include <cmath>
#include <cinttypes>
#include <cstdio>
#include <memory>

namespace workload {

namespace {

using Clock = std::chrono::steady_clock;

double since(Clock::time_point start)
{
    return std::chrono::duration<double>(Clock::now() - start).count();
}

enum Column { Key, Price, Qty, Symbol, Ts };

class PriceIndex : public IndexSort
{
public:
    explicit PriceIndex(Table *table) : IndexSort(table, true) {}
    int compare(const Record &a, const Record &b) const override
    {
        // Read through const fields: the slots are not 8-byte aligned.
        const Field fa = a.data(Price), fb = b.data(Price);
        const double x = fa.asDouble(), y = fb.asDouble();
        return x < y ? -1 : (x > y ? 1 : 0);
    }
    QString getClassName() const override { return QStringLiteral("PriceIndex"); }
};

// The trades table: key (the master key), price, qty, symbol, ts; a sorted
// index on price.
struct Store
{
    Store()
    {
        table.addColumn(QStringLiteral("key"), FieldType::Integer64, 0, false);
        table.addColumn(QStringLiteral("price"), FieldType::Double);
        table.addColumn(QStringLiteral("qty"), FieldType::Integer);
        table.addColumn(QStringLiteral("symbol"), FieldType::String, SymbolLength);
        table.addColumn(QStringLiteral("ts"), FieldType::DateTime);
        MasterIndex_Fast::createMasterIndex(&table, {QStringLiteral("key")});
        price = std::make_unique<PriceIndex>(&table);
    }
    ~Store() { price.reset(); }

    Table table{QStringLiteral("trades")};
    std::unique_ptr<PriceIndex> price;
};

void setKey(const Record &record, std::int64_t key)
{
    Field field = record.data(Key);
    FieldType::setInt64(field.data(), key);
    field.clearNull();
}

void setPrice(const Record &record, double price)
{
    Field field = record.data(Price);
    FieldType::setDouble(field.data(), price);
    field.clearNull();
}

void fillRow(const Record &record, const Row &row)
{
    setKey(record, row.key);
    setPrice(record, row.price);
    Field qty = record.data(Qty);
    FieldType::setInt(qty.data(), row.qty);
    qty.clearNull();
    Field symbol = record.data(Symbol);
    unsigned short units[SymbolLength];
    for (int c = 0; c < SymbolLength; ++c)
        units[c] = static_cast<unsigned char>(row.symbol[c]);
    FieldType::setString(symbol.data(), SymbolLength, units, SymbolLength);
    symbol.clearNull();
    Field ts = record.data(Ts);
    FieldType::setDatetime(ts.data(), datetime(row.ts));
    ts.clearNull();
}

Record makeRow(const Table *table, const Row &row)
{
    const Record record(table);
    fillRow(record, row);
    return record;
}

void fillBatch(Store &store, const std::vector<Row> &rows)
{
    QVector<Record> records;
    records.reserve(static_cast<int>(rows.size()));
    for (const Row &row : rows)
        records.append(makeRow(&store.table, row));
    TableUpdater updater(&store.table);
    store.table.appendRecords(records);
}

// A store holding the n first rows, built before timing starts; with
// `updated`, as W2 leaves them.
std::unique_ptr<Store> filledStore(int n, bool updated = false)
{
    auto store = std::make_unique<Store>();
    fillBatch(*store, updated ? updatedRows(n) : drawRows(n));
    return store;
}

Record find(Store &store, const Record &probe, std::int64_t key)
{
    setKey(probe, key);
    return store.table.masterIndex()->findRecord(probe);
}

Digest digest(Store &store)
{
    Digest d;
    for (const Record &record : *store.table.masterIndex())
        d.add(FieldType::getInt64(record.data(Key).data()), FieldType::getDouble(record.data(Price).data()));
    return d;
}

Result w1(int n, bool batch)
{
    const std::vector<Row> rows = drawRows(n);
    const double before = residentBytes();
    Store store;
    const auto start = Clock::now();
    if (batch) {
        fillBatch(store, rows);
    } else {
        for (const Row &row : rows) {
            const Record record = makeRow(&store.table, row);
            TableUpdater updater(&store.table);
            record.append();
        }
    }
    Result result{since(start), static_cast<double>(n), std::to_string(store.table.rowCount())};
    result.bytesPerRow = (residentBytes() - before) / n;
    return result;
}

Result w2(int n, bool batch)
{
    auto store = filledStore(n);
    const std::vector<Update> changes = updates(n);
    const Record probe(&store->table);
    const auto start = Clock::now();
    if (batch) {
        TableUpdater updater(&store->table);
        RecordsTrans trans(&store->table);
        for (const Update &u : changes) {
            setKey(probe, u.key);
            RecordUpdater row(probe, trans);
            setPrice(row, u.price);
        }
    } else {
        for (const Update &u : changes) {
            TableUpdater updater(&store->table);
            const Record record = find(*store, probe, u.key);
            const Table::UpdateKeeper keeper = store->table.buildKeeper(record);
            setPrice(record, u.price);
            store->table.updated(record, keeper, Price, Price);
        }
    }
    const double seconds = since(start);
    return {seconds, static_cast<double>(n), digest(*store).text()};
}

Result w3(int n, bool batch)
{
    auto store = filledStore(n, true);
    const std::vector<std::int64_t> keys = lookups(n);
    const Record probe(&store->table);
    double sum = 0;
    const auto start = Clock::now();
    if (batch) {
        // Many keys per call, through a reused set of probe records.
        constexpr int Chunk = 4096;
        QVector<Record> probes;
        for (int i = 0; i < Chunk; ++i)
            probes.append(Record(&store->table));
        MasterIndex *master = store->table.masterIndex();
        TableLocker locker(&store->table);
        for (size_t first = 0; first < keys.size(); first += Chunk) {
            const int size = static_cast<int>(std::min<size_t>(Chunk, keys.size() - first));
            if (size < Chunk)
                probes.resize(size);
            for (int i = 0; i < size; ++i)
                setKey(probes[i], keys[first + static_cast<size_t>(i)]);
            for (const int position : master->searchMany(probes))
                sum += FieldType::getDouble(master->at(position).data(Price).data());
        }
    } else {
        TableLocker locker(&store->table);
        for (const std::int64_t key : keys)
            sum += FieldType::getDouble(find(*store, probe, key).data(Price).data());
    }
    const double seconds = since(start);
    char check[64];
    std::snprintf(check, sizeof check, "%.2f", sum);
    return {seconds, static_cast<double>(n), check};
}

Result w4(int n, bool batch)
{
    auto store = filledStore(n, true);
    std::vector<Row> inserted;
    const std::vector<std::vector<Change>> all = batches(n, inserted);
    const Record probe(&store->table);
    Table &table = store->table;
    const auto start = Clock::now();
    size_t next = 0;
    for (const std::vector<Change> &changes : all) {
        if (batch) {
            TableUpdater updater(&table);
            RecordsTrans trans(&table);
            for (const Change &change : changes) {
                switch (change.kind) {
                case Change::Update: {
                    setKey(probe, change.key);
                    RecordUpdater row(probe, trans);
                    setPrice(row, change.price);
                    break;
                }
                case Change::Insert: {
                    const Record record = makeRow(&table, inserted[next++]);
                    RecordUpdater row(record, trans);
                    break;
                }
                case Change::Remove: {
                    setKey(probe, change.key);
                    RecordUpdater(probe, trans).remove();
                    break;
                }
                }
            }
        } else {
            for (const Change &change : changes) {
                switch (change.kind) {
                case Change::Update: {
                    TableUpdater updater(&table);
                    const Record record = find(*store, probe, change.key);
                    const Table::UpdateKeeper keeper = table.buildKeeper(record);
                    setPrice(record, change.price);
                    table.updated(record, keeper, Price, Price);
                    break;
                }
                case Change::Insert: {
                    const Record record = makeRow(&table, inserted[next++]);
                    TableUpdater updater(&table);
                    record.append();
                    break;
                }
                case Change::Remove: {
                    TableUpdater updater(&table);
                    const Record record = find(*store, probe, change.key);
                    record.remove();
                    break;
                }
                }
            }
        }
    }
    const double seconds = since(start);
    return {seconds, static_cast<double>(BatchCount) * (BatchUpdates + BatchInserts + BatchRemovals),
            digest(*store).text()};
}

Result w5(int n, bool scrambled)
{
    auto store = filledStore(n);
    if (scrambled) {
        // New prices written into the rows without telling the index.
        const std::vector<Update> changes = updates(n);
        size_t i = 0;
        for (const Record &record : *store->price)
            FieldType::setDouble(record.data(Price).data(), changes[i++].price);
    }
    const auto start = Clock::now();
    store->price->resort();
    const double seconds = since(start);
    // The first and last prices, and the digest in index order.
    std::uint64_t order = 0;
    for (const Record &record : *store->price)
        order = order * 1000003 + static_cast<std::uint64_t>(FieldType::getInt64(record.data(Key).data()));
    char check[64];
    std::snprintf(check, sizeof check, "%016" PRIx64, order);
    return {seconds, static_cast<double>(n), check};
}

// Through the data folder, as the application saves and loads its tables:
// the setting "compressed" picks the gzip file.
Result w6(int n, bool gzip, bool save)
{
    // The settings file lives beside the program, as for a portable install.
    int argc = 1;
    char name[] = "workloads";
    char *argv[] = {name, nullptr};
    QCoreApplication app(argc, argv);
    registerJsonSettingsFormat();
    Settings(QStringLiteral("Database")).setValue(QStringLiteral("compressed"), gzip);

    auto store = filledStore(n);
    const QDir folder(QString::fromStdString(scratchFolder()));
    const QString path = folder.filePath(gzip ? QStringLiteral("trades.gz") : QStringLiteral("trades"));
    Result result;
    {
        const auto start = Clock::now();
        TableIO io(&store->table);
        io.write(folder);
        if (save)
            result.seconds = since(start);
        if (!io.errorString().isEmpty())
            throw std::runtime_error(io.errorString().toStdString());
    }
    const qint64 bytes = QFileInfo(path).size();
    if (!save) {
        store.reset();
        settleHeap();
        Store loaded;
        const auto start = Clock::now();
        TableIO(&loaded.table).read(folder, false);
        result.seconds = since(start);
        Digest d;
        for (const Record &record : *loaded.price)
            d.add(FieldType::getInt64(record.data(Key).data()), FieldType::getDouble(record.data(Price).data()));
        result.check = d.text();
    } else {
        result.check = std::to_string(bytes);
    }
    QDir(folder).removeRecursively();
    result.items = static_cast<double>(n);
    return result;
}

} // namespace

std::vector<std::uint64_t> checksumInput()
{
    SplitMix64 random(Bytes);
    std::vector<std::uint64_t> words((256u << 20) / 8);
    for (std::uint64_t &w : words)
        w = random.next();
    return words;
}

Result checksumRun(const std::function<std::uint64_t(const char *, std::size_t)> &crc)
{
    const std::vector<std::uint64_t> words = checksumInput();
    const char *bytes = reinterpret_cast<const char *>(words.data());
    const std::size_t size = words.size() * 8;
    const auto start = Clock::now();
    const std::uint64_t value = crc(bytes, size);
    const double seconds = since(start);
    char check[32];
    std::snprintf(check, sizeof check, "%016" PRIx64, value);
    return {seconds, static_cast<double>(size), check};
}

VolatInputParams optionOf(const Quote &q)
{
    VolatInputParams p{};
    p.strike = q.K;
    p.underlyingPrice = q.F;
    p.sqrtTime = std::sqrt(q.T);
    return p;
}

double callPrice(const Quote &q)
{
    return theorPriceCallPut(optionOf(q), q.sigma).first;
}

// The oldest trades go first when the table is over its limit.
class Oldest : public IndexLimit
{
public:
    Oldest(int limit, Table *table) : IndexLimit(limit, table) {}
    int compare(const Record &a, const Record &b) const override { return a.data(Ts).compare(b.data(Ts)); }
};

// W10: a table at its limit of n rows takes n / 10 new ones in one
// transaction, which drops the n / 10 oldest in the same batch; with
// `watch`, a watch index collects the batch too.
Result w10(int n, bool watch)
{
    const std::vector<Row> rows = drawRows(n + n / 10);
    auto store = std::make_unique<Store>();
    Oldest oldest(n, &store->table);
    fillBatch(*store, std::vector<Row>(rows.begin(), rows.begin() + n));
    std::unique_ptr<WatchIndex> watched = watch ? std::make_unique<WatchIndex>(&store->table) : nullptr;
    const auto start = Clock::now();
    {
        TableUpdater updater(&store->table);
        RecordsTrans trans(&store->table);
        for (auto row = rows.begin() + n; row != rows.end(); ++row) {
            // A key that no row has becomes the new row itself.
            const Record key(&store->table);
            setKey(key, row->key);
            RecordUpdater record(key, trans);
            fillRow(record, *row);
        }
    }
    const double seconds = since(start);
    std::string check = std::to_string(store->table.rowCount()) + " rows, oldest "
        + std::to_string(oldest.count() ? FieldType::getInt64(oldest.at(0).data(Key).data()) : 0);
    if (watched)
        check += ", watched " + std::to_string(watched->inserted().size()) + "+"
            + std::to_string(watched->removed().size());
    watched.reset();
    return {seconds, static_cast<double>(n / 10), check};
}

// W9: live queries over the W1 table (its price index dropped) as W2
// changes it, 100 batches of 1,000 price updates, each followed by a read
// through the model: the first 100 rows of a view sorted by price, or every
// group of a view by symbol (sum of qty, last price, average price, count,
// with a total). `load`: building the view instead. The check carries the
// per-batch median, p99 and slowest.
Result w9(int n, bool grouped, bool load)
{
    int argc = 1;
    char name[] = "workloads";
    char *argv[] = {name, nullptr};
    QCoreApplication app(argc, argv);
    auto store = filledStore(n);
    // The views bring their own order: the table keeps only its key, as the
    // peer's table does.
    store->price.reset();
    const LiveQuery query = grouped ? LiveQuery()
                                          .groupBy({QStringLiteral("symbol")})
                                          .aggregate(QueryAggregate::sum(QStringLiteral("qty")))
                                          .aggregate(QueryAggregate::last(QStringLiteral("price")))
                                          .aggregate(QueryAggregate::average(QStringLiteral("price")))
                                          .aggregate(QueryAggregate::count())
                                          .withTotal()
                                    : LiveQuery().orderBy(QStringLiteral("price"));
    auto start = Clock::now();
    LiveQueryModel model(&store->table, query);
    if (load) {
        const double seconds = since(start);
        return {seconds, static_cast<double>(n), std::to_string(model.rowCount()) + " rows"};
    }
    // 100 batches of 1,000; fewer on a small table (a smoke run).
    const int perBatch = std::min(1000, n);
    const int batches = std::min(100, n / perBatch);
    // The first 100,000 of W2's stream over the whole table.
    const std::vector<Update> changes = updates(n);
    const Record probe(&store->table);
    std::vector<double> times;
    double total = 0, readSum = 0;
    auto read = [&] {
        const int rows = grouped ? model.rowCount() : std::min(100, model.rowCount());
        for (int r = 0; r < rows; ++r) {
            for (int c = 0; c < model.columnCount(); ++c) {
                const QVariant v = model.data(model.index(r, c));
                if (c == 1)
                    readSum += v.toString().size();
            }
        }
    };
    for (int b = 0; b < batches; ++b) {
        start = Clock::now();
        {
            TableUpdater updater(&store->table);
            RecordsTrans trans(&store->table);
            for (int k = b * perBatch; k < (b + 1) * perBatch; ++k) {
                setKey(probe, changes[k].key);
                RecordUpdater row(probe, trans);
                setPrice(row, changes[k].price);
            }
        }
        model.update();
        read();
        times.push_back(since(start));
        total += times.back();
    }
    std::sort(times.begin(), times.end());
    // p99 by nearest rank (the 99th of 100 batches); the slowest apart.
    const size_t p99 = (times.size() * 99 + 99) / 100 - 1;
    char check[128];
    std::snprintf(check, sizeof check, "%d rows, batch median %.2f ms, p99 %.2f ms, max %.2f ms", model.rowCount(),
                  times[times.size() / 2] * 1e3, times[p99] * 1e3, times.back() * 1e3);
    return {total, static_cast<double>(batches * perBatch), check};
}

std::vector<Entry> databaseEntries()
{
    return {
        {"W1", "database batch", "rows", [](int n) { return w1(n, true); }},
        {"W1", "database row", "rows", [](int n) { return w1(n, false); }},
        {"W2", "database batch", "updates", [](int n) { return w2(n, true); }},
        {"W2", "database row", "updates", [](int n) { return w2(n, false); }},
        {"W3", "database batch", "lookups", [](int n) { return w3(n, true); }},
        {"W3", "database row", "lookups", [](int n) { return w3(n, false); }},
        {"W4", "database batch", "changes", [](int n) { return w4(n, true); }},
        {"W4", "database row", "changes", [](int n) { return w4(n, false); }},
        {"W5", "database", "rows", [](int n) { return w5(n, false); }},
        {"W5-random", "database", "rows", [](int n) { return w5(n, true); }},
        {"W6-save", "database", "rows", [](int n) { return w6(n, false, true); }},
        {"W6-load", "database", "rows", [](int n) { return w6(n, false, false); }},
        {"W6-save", "database gz", "rows", [](int n) { return w6(n, true, true); }},
        {"W6-load", "database gz", "rows", [](int n) { return w6(n, true, false); }},
        {"W9-load", "database flat", "rows", [](int n) { return w9(n, false, true); }},
        {"W9-load", "database group", "rows", [](int n) { return w9(n, true, true); }},
        {"W9-flat", "database", "updates", [](int n) { return w9(n, false, false); }},
        {"W9-group", "database", "updates", [](int n) { return w9(n, true, false); }},
        {"W10", "database limit", "rows", [](int n) { return w10(n, false); }},
        {"W10", "database limit+watch", "rows", [](int n) { return w10(n, true); }},
        {"W7", "database", "bytes",
         [](int) {
             return checksumRun([](const char *data, std::size_t size) { return qChecksum64Update(0, data, size); });
         }},
        {"W8-price", "database", "prices", [](int n) { return pricingRun(n, callPrice); }},
        {"W8-implied", "database", "volatilities",
         [](int n) {
             return impliedRun(n / ImpliedShare, callPrice, [](const Quote &q, double price) {
                 return volatByTheorPrice(optionOf(q), false, price, 0, VolatMinDefault, VolatMaxDefault, 1e-8, 1e-6)
                     / 100;
             });
         }},
    };
}

} // namespace workload
