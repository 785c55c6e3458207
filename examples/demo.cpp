// A trading day on generated data: instruments and about a million trades,
// kept current through transactions, a join, a sorted, a watch and a limit
// index; saved compressed in the background, reloaded into a schema that
// gained a column and checked; an option chain priced and its volatilities
// recovered. Prints a report with the time of each step.
//
//   demo [--trades N] [--data DIR]

#include <database/database.h>

#include <QtCore/QCommandLineParser>
#include <QtCore/QCoreApplication>
#include <QtCore/QDir>
#include <QtCore/QElapsedTimer>
#include <QtCore/QEventLoop>
#include <QtCore/QTextStream>
#include <QtCore/QThreadPool>
#include <QtCore/QTimer>

#include <atomic>
#include <climits>
#include <cmath>
#include <memory>

namespace {

QTextStream &out()
{
    static QTextStream stream(stdout);
    return stream;
}

// Deterministic data: SplitMix64.
struct Random
{
    quint64 state = 0x5EEDC0DE2024ULL;
    quint64 next()
    {
        quint64 z = (state += 0x9E3779B97F4A7C15ULL);
        z = (z ^ (z >> 30)) * 0xBF58476D1CE4E5B9ULL;
        z = (z ^ (z >> 27)) * 0x94D049BB133111EBULL;
        return z ^ (z >> 31);
    }
    int below(int n) { return static_cast<int>(next() % static_cast<quint64>(n)); }
};

enum Trade { Id, Board, Code, Price, Qty, Time, Name, Lot };
const int Boards = 2, Codes = 100;

// Instrument i: a board and a code.
QString boardOf(int i) { return i % Boards ? QStringLiteral("SPBF") : QStringLiteral("TQBR"); }
QString codeOf(int i) { return QStringLiteral("SEC%1").arg(i / Boards, 3, 10, QLatin1Char('0')); }

// One line of the report, with the time since the last one; also logged.
class Report
{
public:
    explicit Report(LogFile *log) : m_log(log) { m_timer.start(); }
    void step(const QString &what)
    {
        const QString line = QStringLiteral("%1  %2 s").arg(what, -74).arg(m_timer.restart() / 1000.0, 6, 'f', 2);
        out() << line << "\n";
        out().flush();
        *m_log << LogFile::timestamp() << ' ' << line << '\n';
    }

private:
    LogFile *m_log;
    QElapsedTimer m_timer;
};

class ByPrice : public IndexSort
{
public:
    explicit ByPrice(Table *table) : IndexSort(table, true) {}
    int compare(const Record &a, const Record &b) const override { return a.data(Price).compare(b.data(Price)); }
    QString getClassName() const override { return QStringLiteral("ByPrice"); }
};

// The oldest trades (lowest numbers) go first when the table is over its limit.
class LatestTrades : public IndexLimit
{
public:
    LatestTrades(int limit, Table *table) : IndexLimit(limit, table) {}
    int compare(const Record &a, const Record &b) const override { return a.data(Id).compare(b.data(Id)); }
};

void makeTrades(Table &trades)
{
    trades.addColumn(QStringLiteral("id"), FieldType::Integer64, 0, false);
    trades.addColumn(QStringLiteral("board"), FieldType::String, 4);
    trades.addColumn(QStringLiteral("code"), FieldType::String, 12);
    trades.addColumn(QStringLiteral("price"), FieldType::Decimal, 4);
    trades.addColumn(QStringLiteral("qty"), FieldType::Integer);
    trades.addColumn(QStringLiteral("time"), FieldType::DateTime);
    trades.addColumn(QStringLiteral("name"), FieldType::String, 24); // from the instrument
    trades.addColumn(QStringLiteral("lot"), FieldType::Integer);     // from the instrument
    trades.setMasterIndex(new MasterIndexColumn(&trades, QStringLiteral("id")));
}

void makeInstruments(Table &instruments)
{
    instruments.addColumn(QStringLiteral("board"), FieldType::String, 4, false);
    instruments.addColumn(QStringLiteral("code"), FieldType::String, 12, false);
    instruments.addColumn(QStringLiteral("name"), FieldType::String, 24);
    instruments.addColumn(QStringLiteral("lot"), FieldType::Integer);
    MasterIndex_Fast::createMasterIndex(&instruments, {QStringLiteral("board"), QStringLiteral("code")});
}

void addTrades(Table &trades, Random &random, qint64 first, int count)
{
    const datetime open(QDate(2024, 3, 5), QTime(10, 0));
    RecordsTrans trans(&trades);
    for (int i = 0; i < count; ++i) {
        const qint64 id = first + i;
        Record key(&trades);
        key.data(Id) = static_cast<long long>(id);
        RecordUpdater row(key, trans);
        const int instrument = random.below(Boards * Codes);
        row.data(Board) = boardOf(instrument);
        row.data(Code) = codeOf(instrument);
        row.data(Price) = decimal(100000 + random.below(100000), 4);
        row.data(Qty) = 1 + random.below(1000);
        row.data(Time) = open.addMSecs(id * 20);
    }
}

// CRC-64 over the text of the given columns of every row, in key order.
quint64 checksum(const Table &table, const QStringList &columns)
{
    quint64 crc = 0;
    QList<int> numbers;
    for (const QString &name : columns)
        numbers << table.columnIndex(name);
    for (const Record &record : *table.masterIndex()) {
        QString text;
        for (int column : qAsConst(numbers))
            text += record.data(column).toString() + QLatin1Char('|');
        const QByteArray bytes = text.toUtf8();
        crc = qChecksum64Update(crc, bytes.constData(), static_cast<size_t>(bytes.size()));
    }
    return crc;
}

// The save, as a background job: both tables, compressed.
class SaveJob : public Runnable
{
public:
    SaveJob(QList<Table *> tables, QDir dir, std::atomic<int> *saved) : m_tables(tables), m_dir(dir), m_saved(saved) {}
    void run() override
    {
        for (Table *table : qAsConst(m_tables)) {
            if (!canRun())
                return;
            TableIO(table).write(m_dir);
            ++*m_saved;
        }
    }

private:
    QList<Table *> m_tables;
    QDir m_dir;
    std::atomic<int> *m_saved;
};

// A small chain on one futures price: each strike priced on a smile, and the
// volatility recovered from the price.
void optionChain()
{
    
    VolatInputParams p{};
    p.underlyingPrice = 100;
    p.sqrtTime = std::sqrt(30.0 / 365);
    p.curveA = 25; // 25% at the money, rising to both sides, skewed down
    p.curveB = 10;
    p.curveC = 0.5;
    p.curveD = -5;
    p.curveE = 1;
    p.volatMin = VolatMinDefault;
    p.volatMax = VolatMaxDefault;
    out() << "strike   smile %     call      put   implied %   error\n";
    for (double strike = 80; strike <= 120; strike += 5) {
        p.strike = strike;
        VolatOutputParams prices{};
        calcVolatParams(prices, p, -1); // -1: the smile's volatility
        const double smile = volatByCurve(p);
        const bool put = strike < p.underlyingPrice; // the out-of-the-money side
        const double implied = volatByTheorPrice(p, put, put ? prices.pricePut : prices.priceCall, 0,
                                                 VolatMinDefault, VolatMaxDefault, 1e-10, 1e-8);
        out() << QString::asprintf("%6.1f %8.3f %8.4f %8.4f %11.5f %7.0e\n", strike, smile, prices.priceCall,
                                   prices.pricePut, implied, implied - smile);
    }
}


} // namespace

int main(int argc, char *argv[])
{
    QCoreApplication app(argc, argv);
    QCoreApplication::setApplicationName(QStringLiteral("demo"));
    QCommandLineParser parser;
    parser.setApplicationDescription(QStringLiteral("A trading day with the database library, on generated data."));
    parser.addHelpOption();
    parser.addOption({QStringLiteral("trades"), QStringLiteral("How many trades (default 1000000)."), QStringLiteral("N"),
                      QStringLiteral("1000000")});
    parser.addOption({QStringLiteral("data"), QStringLiteral("The data folder (default demo-data)."),
                      QStringLiteral("DIR"), QStringLiteral("demo-data")});
    parser.process(app);
    bool ok = false;
    const int count = parser.value(QStringLiteral("trades")).toInt(&ok);
    if (!ok || count < 1000) {
        QTextStream(stderr) << "demo: --trades takes a number of at least 1000\n";
        return 2;
    }
    QDir dir(parser.value(QStringLiteral("data")));
    dir.mkpath(QStringLiteral("logs"));
    registerJsonSettingsFormat(); // the host's job
    Settings(QStringLiteral("Database")).setValue(QStringLiteral("compressed"), true);

    LogFile log(dir.filePath(QStringLiteral("logs/demo.log")));
    Report report(&log);
    out() << "A trading day: " << count << " trades, data in " << QDir::toNativeSeparators(dir.absolutePath()) << "\n";
    Random random;

    Table instruments(QStringLiteral("instruments")), trades(QStringLiteral("trades"));
    makeInstruments(instruments);
    makeTrades(trades);
    {
        RecordsTrans trans(&instruments);
        for (int i = 0; i < Boards * Codes; ++i) {
            Record key(&instruments);
            key.data(0) = boardOf(i);
            key.data(1) = codeOf(i);
            RecordUpdater row(key, trans);
            row.data(2) = QStringLiteral("Security %1").arg(i / Boards);
            row.data(3) = (1 + i % 10) * 10;
        }
    }
    ByPrice byPrice(&trades);
    WatchIndex watch(&trades);
    LatestTrades latest(count, &trades);
    TableJoin join(trades.masterIndex());
    join.addDependent(instruments.masterIndex(), {QStringLiteral("name"), QStringLiteral("lot")});
    report.step(QStringLiteral("instruments: %1 rows, fast key on (board, code); join set up").arg(instruments.rowCount()));

    // The desk's positions, kept current through the day: one row per
    // instrument (grouped by the name the join fills in), with a total.
    LiveQueryModel positions(&trades, LiveQuery()
                                          .groupBy({QStringLiteral("name")})
                                          .aggregate(QueryAggregate::sum(QStringLiteral("qty"), QStringLiteral("qty")))
                                          .aggregate(QueryAggregate::weightedAverage(
                                              QStringLiteral("price"), QStringLiteral("qty"), QStringLiteral("VWAP")))
                                          .aggregate(QueryAggregate::last(QStringLiteral("price"), QStringLiteral("last")))
                                          .aggregate(QueryAggregate::count(QStringLiteral("trades")))
                                          .withTotal());
    int positionUpdates = 0;
    QObject::connect(&positions, &LiveQueryModel::updated, [&positionUpdates] { ++positionUpdates; });

    for (qint64 first = 1; first <= count; first += 100000)
        addTrades(trades, random, first, static_cast<int>(qMin<qint64>(100000, count - first + 1)));
    report.step(QStringLiteral("trades: %1 rows in transactions of 100,000").arg(trades.rowCount()));
    QCoreApplication::processEvents(); // the positions view catches up
    out() << "  positions: " << positions.rowCount() - 1 << " instruments, " << positionUpdates << " updates\n";
    for (int row = 0; row < 3 && row < positions.rowCount(); ++row) {
        out() << "   ";
        for (int column = 0; column < positions.columnCount(); ++column)
            out() << " " << positions.headerData(column, Qt::Horizontal).toString() << " "
                  << positions.data(positions.index(row, column)).toString();
        out() << "\n";
    }

    int updated = 0, fewest = INT_MAX, most = 0, others = 0;
    for (int batch = 0; batch < 20; ++batch) {
        watch.clear();
        RecordsTrans trans(&trades);
        for (int i = 0; i < 5000; ++i) {
            Record key(&trades);
            key.data(Id) = static_cast<long long>(1 + random.below(count));
            RecordUpdater row(key, trans);
            row.data(Price) = decimal(100000 + random.below(100000), 4);
        }
        trans.execute();
        // What the watch index saw of this batch: rows updated (a trade
        // drawn twice in one batch is one update), none added or removed.
        const int seen = watch.updated().size();
        fewest = qMin(fewest, seen);
        most = qMax(most, seen);
        updated += seen;
        others += watch.inserted().size() + watch.removed().size();
    }
    report.step(QStringLiteral("quotes: 20 batches of 5,000 price updates, %1 rows updated").arg(updated));
    out() << "  watch index per batch: " << fewest << " to " << most << " rows updated, " << others
          << " inserted or removed\n";

    {
        TableUpdater batch(&instruments);
        for (int i = 0; i < 20; ++i) {
            const Record instrument = instruments.masterIndex()->at(i);
            instrument.data(3) = 1000 + i;
            instrument.updated(3);
        }
    }
    int refilled = 0;
    for (const Record &trade : trades.masterIndex()->list())
        refilled += trade.data(Lot).toInteger() >= 1000;
    report.step(QStringLiteral("join: 20 instruments changed their lot, %1 trades refilled").arg(refilled));

    addTrades(trades, random, count + 1, count / 10);
    report.step(QStringLiteral("limit: %1 more trades, %2 kept, oldest now #%3")
                    .arg(count / 10)
                    .arg(trades.rowCount())
                    .arg(latest.at(0).data(Id).toString()));
    QCoreApplication::processEvents();
    out() << "  positions at the close: " << positions.rowCount() - 1 << " instruments, "
          << positions.data(positions.index(0, 4)).toString() << " trades, VWAP "
          << positions.data(positions.index(0, 2)).toString() << ", " << positionUpdates << " updates through the day\n";
    out() << "  cheapest trade: " << byPrice.at(0).data(Price).toString() << " on "
          << byPrice.at(0).data(Code).toString() << ", dearest: " << byPrice.at(byPrice.count() - 1).data(Price).toString()
          << "\n";

    const QStringList stored = {QStringLiteral("id"), QStringLiteral("board"), QStringLiteral("code"),
                                QStringLiteral("price"), QStringLiteral("qty"), QStringLiteral("time"),
                                QStringLiteral("name"), QStringLiteral("lot")};
    const quint64 before = checksum(trades, stored);
    {
        RunnableManager jobs;
        std::atomic<int> saved{0};
        QEventLoop loop;
        QObject::connect(&jobs, &RunnableManager::finished, &loop, &QEventLoop::quit);
        // The progress line, from this thread while the job works.
        int shown = -1;
        QTimer progress;
        QObject::connect(&progress, &QTimer::timeout, [&] {
            if (saved == shown)
                return;
            shown = saved;
            out() << "  saving in the background: " << shown << " of 2 tables\n";
            out().flush();
        });
        progress.start(20);
        jobs.startRunnable(new SaveJob({&instruments, &trades}, dir, &saved), QThreadPool::globalInstance(), 0);
        loop.exec();
        out() << "  saved " << saved << " of 2 tables\n";
    }
    report.step(QStringLiteral("save: both tables gzip-compressed, through the runnable manager"));

    Table reloaded(QStringLiteral("trades"));
    makeTrades(reloaded);
    reloaded.addColumn(QStringLiteral("fee"), FieldType::Decimal, 2); // the schema grew since the save
    TableIO io(&reloaded);
    io.read(dir, false);
    const quint64 after = checksum(reloaded, stored);
    report.step(QStringLiteral("reload: %1 rows into a schema with a new column, CRC-64 %2")
                    .arg(reloaded.rowCount())
                    .arg(before == after ? QStringLiteral("matches") : QStringLiteral("DIFFERS")));

    optionChain();
    report.step(QStringLiteral("options: a chain priced and its volatilities recovered"));
    return before == after && io.errorString().isEmpty() ? 0 : 1;
}
