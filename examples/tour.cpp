// The README's snippets, each in the function of its section, exactly as
// the README shows them (a test checks that every line there is here, in
// order). CI builds and runs this program, so the snippets cannot rot.

#include <database/database.h>

#include <QtCore/QCoreApplication>
#include <QtCore/QDir>
#include <QtCore/QSortFilterProxyModel>
#include <QtCore/QThreadPool>

#include <atomic>
#include <cmath>
#include <cstdio>
#include <thread>

namespace {

int failures = 0;

void expect(bool ok, const char *what)
{
    if (!ok) {
        std::fprintf(stderr, "tour: %s\n", what);
        ++failures;
    }
}

void valueTypes()
{
// decimal: exact fixed-point in one 64-bit word (56-bit mantissa, 7-bit scale).
decimal price = decimal::fromString("101.25");     // mantissa 10125, scale 2
decimal tick(5, 3);                                // 0.005
decimal next = price + tick;                       // 101.255: the larger scale wins
next.setScale(2);                                  // 101.26: half away from zero
bool same = decimal(15, 1) == decimal(150, 2);     // true: == compares numbers
bool word = decimal(15, 1).isEqual(decimal(150, 2)); // false: isEqual compares encodings
try {
    decimal::fromString("1,5");                    // locale forms are not canonical
} catch (const QString &message) {                 // text parsers throw a QString
}
decimal d = decimal::fromAnyString("1,5");         // 1.50000 where the system locale has a comma

// datetime: a wall-clock reading stored as if it were UTC, zone-free.
datetime open(2024, 3, 5, 10, 0, 0, 0);
open.toString();                                   // "2024.03.05 10:00:00.000" in every zone
datetime later = open.addSecs(90 * 60);
qint64 minutes = open.secsTo(later) / 60;          // 90
datetime().toString().isNull();                    // true: the stamp 0 is "empty"

// Row slots: unaligned little-endian, typed by the column, never checked.
unsigned char slot[8];
FieldType::setDecimal(slot, 4, price);             // stored at the column's scale 4
decimal back = FieldType::getDecimal(slot, 4);     // 101.2500

// CRC-64 (ECMA-182, all-ones init and final XOR).
quint64 crc = qChecksum64("123456789", 9);         // 0x62EC59E3F1A4F00A

    (void)d;
    expect(next.toString() == QLatin1String("101.26"), "decimal rounding");
    expect(same && !word, "decimal equality");
    expect(open.toString() == QLatin1String("2024.03.05 10:00:00.000") && minutes == 90, "datetime");
    expect(back.toString() == QLatin1String("101.2500"), "decimal slot");
    expect(crc == 0x62EC59E3F1A4F00AULL, "checksum");
}

void tablesAndIndexes()
{
Table quotes("quotes");
quotes.addColumn("ticker", FieldType::String, 12, false);
quotes.addColumn("last", FieldType::Integer64);

// Indexes register themselves; the table never owns them.
class ByLast : public IndexSort {
public:
    explicit ByLast(Table *t) : IndexSort(t, true) {}
    int compare(const Record &a, const Record &b) const override {
        const long long x = a.data(1).toInteger64(), y = b.data(1).toInteger64();
        return x < y ? -1 : x > y;
    }
    QString getClassName() const override { return "ByLast"; }
} byLast(&quotes);

{
    TableUpdater batch(&quotes);            // one batch: locked, indexes told once
    Record row(&quotes);                    // a new row, every field null
    FieldType::setString(row.data(0).data(), 12, "ABC");
    row.data(0).clearNull();
    row.append();                           // master index first, then byLast

    const Table::UpdateKeeper keeper = quotes.buildKeeper(row);
    FieldType::setInt64(row.data(1).data(), 101);
    row.data(1).clearNull();
    quotes.updated(row, keeper);            // byLast moves the row to its place
}
for (const Record &r : byLast) { /* rows in order of "last" */ }

    expect(byLast.count() == 1 && byLast.at(0).data(1).toInteger64() == 101, "sorted index");
}

void savingAndLoading(Table &positions);

void keyedTable()
{
Table positions("positions");
positions.addColumn("account", FieldType::Integer, 0, false);
positions.addColumn("ticker", FieldType::String, 12, false);
positions.addColumn("qty", FieldType::Integer64);
positions.addColumn("price", FieldType::Decimal, 4);
// A primary key over the first two columns. They are adjacent and not null,
// so the fast variant compares their raw bytes; otherwise create() warns and
// falls back to MasterIndexColumn.
MasterIndex_Fast::createMasterIndex(&positions, {"account", "ticker"});

{
    TableUpdater batch(&positions);          // indexes see one batch
    RecordsTrans trans(&positions);
    Record key(&positions);                  // a new row with the key filled in
    key.data("account") = 7;
    key.data("ticker") = QString("ABC");
    RecordUpdater row(key, trans);           // the row with that key, or this new one
    row.data("qty") = 100LL;
    row.data("price") = QString("101.2500");
}                                            // the transaction applies itself here

Record found(&positions, "7,ABC");           // look up by the key's text form
qint64 qty = found.data("qty").toInteger64();

    expect(qty == 100, "transaction");
    savingAndLoading(positions);
}

void watchAndLimit()
{
// A watch index collects the changes of a period; a limit index names the
// rows to drop to stay within a size.
class Oldest : public IndexLimit {
public:
    explicit Oldest(Table *t) : IndexLimit(1000, t) {}   // keep 1,000 rows
    int compare(const Record &a, const Record &b) const override {
        return a.data(0).compare(b.data(0));            // the oldest go first
    }
};
Table ticks("ticks");
ticks.addColumn("time", FieldType::DateTime);
WatchIndex changes(&ticks);
Oldest oldest(&ticks);
{
    TableUpdater batch(&ticks);
    Record tick(&ticks);
    tick.data(0) = datetime(2024, 3, 5, 10, 0, 0, 0);
    tick.append();                                      // both indexes hear of it
}
int fresh = changes.inserted().size();                  // 1
changes.clear();                                        // a new period starts
QList<Record> surplus = oldest.toRemove(oldest.count() - oldest.limit(), {}); // none yet

    expect(fresh == 1 && changes.inserted().isEmpty() && surplus.isEmpty(), "watch and limit indexes");
}

void joins()
{
    Table orders("orders"), instruments("instruments");
    for (const char *column : {"board", "code"}) {
        orders.addColumn(column, FieldType::String, 12);
        instruments.addColumn(column, FieldType::String, 12);
    }
    orders.addColumn("id", FieldType::Integer);
    orders.addColumn("name", FieldType::String, 20);
    orders.addColumn("lot", FieldType::Integer);
    instruments.addColumn("name", FieldType::String, 20);
    instruments.addColumn("lot", FieldType::Integer);
    orders.setMasterIndex(new MasterIndexColumn(&orders, QStringLiteral("id")));
    instruments.setMasterIndex(new MasterIndexColumn(&instruments, QStringList{"board", "code"}));

// orders: id, board, code, qty, name, lot; instruments keyed by (board, code)
TableJoin join(orders.masterIndex());
join.addDependent(instruments.masterIndex(), QStringList{"name", "lot"});
// Each order's name and lot now come from the instrument with its board and
// code, or are null when there is none. A batch of instrument changes
// refills the orders it reaches when the batch ends, in one batch of orders.

    {
        TableUpdater batch(&instruments);
        Record instrument(&instruments);
        instrument.data("board") = QString("TQBR");
        instrument.data("code") = QString("ABC");
        instrument.data("lot") = 10;
        instrument.append();
    }
    TableUpdater batch(&orders);
    Record order(&orders);
    order.data("id") = 1;
    order.data("board") = QString("TQBR");
    order.data("code") = QString("ABC");
    order.append();
    expect(order.data("lot").toInteger() == 10, "join");
}

void views()
{
    Table trades("trades");
    trades.addColumn("number", FieldType::Integer64);
    trades.addColumn("price", FieldType::Decimal, 2);
    class ByPrice : public IndexSort {
    public:
        explicit ByPrice(Table *t) : IndexSort(t, true) {}
        int compare(const Record &a, const Record &b) const override {
            return a.data(1).toDecimal().compare(b.data(1).toDecimal());
        }
        QString getClassName() const override { return "ByPrice"; }
    } byPrice(&trades);

// A blotter: the trades by price, the columns chosen by name (all by default).
TableModel model(&byPrice, {"number", "price"});
QSortFilterProxyModel filter;                   // views and proxies take it as any model
filter.setSourceModel(&model);
filter.setSortRole(TableModel::SortRole);       // decimals sort as numbers
// view->setModel(&filter);                     // a QTableView, in the GUI thread

std::thread writer([&] {                        // the writer: another thread, in batches
    TableUpdater batch(&trades);
    Record trade(&trades);
    trade.data("number") = 1LL;
    trade.data("price") = QString("101.25");
    trade.append();
});
writer.join();
QCoreApplication::processEvents();              // the model's update: one rowsInserted
int shown = model.rowCount();                   // 1

    expect(shown == 1 && filter.rowCount() == 1, "live model");
    expect(model.data(model.index(0, 1)).toString() == QLatin1String("101.25"), "live model cell");
}

void liveQueries()
{
    Table trades("trades");
    trades.addColumn("id", FieldType::Integer64, 0, false);
    trades.addColumn("board", FieldType::String, 4);
    trades.addColumn("code", FieldType::String, 12);
    trades.addColumn("price", FieldType::Decimal, 2);
    trades.addColumn("qty", FieldType::Decimal, 0);
    trades.addColumn("time", FieldType::DateTime);
    auto add = [&trades](long long id, const char *board, const char *code, const char *price, const char *qty) {
        TableUpdater batch(&trades);
        Record trade(&trades);
        trade.data("id") = id;
        trade.data("board") = QString(board);
        trade.data("code") = QString(code);
        trade.data("price") = QString(price);
        trade.data("qty") = QString(qty);
        trade.append();
    };
    add(1, "TQBR", "ABC", "10.00", "100");
    add(2, "TQBR", "ABC", "11.00", "300");
    add(3, "SMAL", "XYZ", "5.00", "2000");

// Positions: trades grouped by instrument, with a total row first.
LiveQueryModel positions(&trades, LiveQuery()
    .where(QueryFilter::column("board", QueryFilter::Equal, "TQBR"))
    .groupBy({"code"})
    .aggregate(QueryAggregate::sum("qty"))                    // a decimal column sums to a decimal
    .aggregate(QueryAggregate::weightedAverage("price", "qty", "VWAP"))
    .aggregate(QueryAggregate::last("price"))
    .aggregate(QueryAggregate::count())
    .withTotal());

// A blotter: newest first, three columns, big trades or one board.
LiveQueryModel blotter(&trades, LiveQuery()
    .select({"time", "code", "price"})
    .where(QueryFilter::column("qty", QueryFilter::GreaterEqual, 1000)
           || QueryFilter::column("board", QueryFilter::Equal, "SMAL"))
    .orderBy("time", Qt::DescendingOrder));

    expect(positions.rowCount() == 2 && blotter.rowCount() == 1, "live queries");
    // VWAP of ABC: (10 x 100 + 11 x 300) / 400 = 10.75, exact.
    expect(positions.data(positions.index(1, 2), LiveQueryModel::ValueRole).value<decimal>() == decimal(1075, 2),
           "live query VWAP");
    add(4, "TQBR", "ABC", "12.00", "400");
    QCoreApplication::processEvents();
    expect(positions.data(positions.index(1, 1)).toString() == QLatin1String("800"), "live query update");
}

void savingAndLoading(Table &positions)
{
    QDir().mkpath("data");
registerJsonSettingsFormat();                 // once, at start-up: the host's job
TableIO(&positions).write(QDir("data"));      // data/positions, or data/positions.gz
Table later("positions");                     // ... with the columns of today
TableIO(&later).read(QDir("data"), true);     // true: add stored columns it lacks

    expect(later.rowCount() == 1 && later.columnCount() == 4, "saving and loading");
}

// The work of the job in the snippet below.
std::atomic<int> stepsLeft{1000000};
bool more()
{
    return stepsLeft > 0;
}
void step()
{
    --stepsLeft;
}

void runtimeServices()
{
    QDir().mkpath("logs");

LogFile log("logs/app.log");                 // app.log -> app.1.log ... app.5.log
log << LogFile::timestamp() << " started\n";

class Export : public Runnable {             // a cancellable job
    void run() override { while (canRun() && more()) step(); }
};
RunnableManager jobs;                        // lives in the GUI thread
QObject::connect(&jobs, &RunnableManager::finished, [](HRunnable h) { /* in this thread */ });
HRunnable h = jobs.startRunnable(new Export, QThreadPool::globalInstance(), 0);
jobs.stopRunnable(h, true);                  // ask it to stop and wait

VolatInputParams option{};                   // strike, futures price, sqrt(T), smile
option.strike = 105; option.underlyingPrice = 100; option.sqrtTime = std::sqrt(0.25);
QPair<double, double> callPut = theorPriceCallPut(option, 0.30);  // sigma as a fraction
double implied = volatByTheorPrice(option, false, callPut.first, 0, VolatMinDefault,
                                   VolatMaxDefault, 1e-8, 1e-6);   // 30.0, in percent

    expect(std::fabs(implied - 30.0) < 1e-4, "implied volatility");
}

} // namespace

int main(int argc, char *argv[])
{
    QCoreApplication app(argc, argv);
    valueTypes();
    tablesAndIndexes();
    keyedTable();
    watchAndLimit();
    joins();
    views();
    liveQueries();
    runtimeServices();
    std::printf(failures ? "tour: %d failures\n" : "tour: every snippet ran\n", failures);
    return failures ? 1 : 0;
}
