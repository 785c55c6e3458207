// A live model under load: a million-row table shown through a TableModel
// on a sorted index while a worker thread applies price updates in batches.
// Reports the model thread's busy fraction (its CPU time over wall time)
// and the latency from a batch's end to the end of the signals showing it.
//
//   model_load [--rows N] [--rate UPDATES_PER_S] [--batch N] [--seconds S]
//              [--interval MS] [--out FILE]
//
// Two indexes are measured: one ordered by trade number (updates change
// cells in place) and one ordered by price (every update moves its row).

#include <database/decimal.h>
#include <database/indexsort.h>
#include <database/masterindex.h>
#include <database/table.h>
#include <database/tablemodel.h>

#include <QtCore/QCommandLineParser>
#include <QtCore/QCoreApplication>
#include <QtCore/QFile>
#include <QtCore/QMutex>
#include <QtCore/QRandomGenerator>
#include <QtCore/QTextStream>
#include <QtCore/QThread>
#include <QtCore/QTimer>

#include <algorithm>
#include <atomic>
#include <chrono>
#include <cstdio>
#include <ctime>
#include <deque>
#include <memory>
#include <thread>
#include <vector>

namespace {

using Clock = std::chrono::steady_clock;

double threadCpuSeconds()
{
    timespec t{};
    clock_gettime(CLOCK_THREAD_CPUTIME_ID, &t);
    return double(t.tv_sec) + double(t.tv_nsec) * 1e-9;
}

class ByColumn : public IndexSort
{
public:
    ByColumn(Table *table, int column) : IndexSort(table, true), m_column(column) {}
    int compare(const Record &a, const Record &b) const override
    {
        const qint64 x = FieldType::getInt64(a.data(m_column).data());
        const qint64 y = FieldType::getInt64(b.data(m_column).data());
        if (x != y)
            return x < y ? -1 : 1;
        const qint64 p = FieldType::getInt64(a.data(0).data());
        const qint64 q = FieldType::getInt64(b.data(0).data());
        return p < q ? -1 : (p > q ? 1 : 0);
    }
    bool filter(const Record &) const override { return true; }
    QString getClassName() const override { return QStringLiteral("ByColumn"); }

private:
    int m_column;
};

struct Result
{
    QString index;
    int updates = 0;
    double busy = 0;
    double meanMs = 0;
    double p99Ms = 0;
    double maxMs = 0;
};

Result run(const QString &name, int column, int rows, int rate, int batch, double seconds, int interval)
{
    Table table(QStringLiteral("trades"));
    table.addColumn(QStringLiteral("number"), FieldType::Integer64);
    table.addColumn(QStringLiteral("price"), FieldType::Decimal, 2);
    table.addColumn(QStringLiteral("quantity"), FieldType::Integer);
    QRandomGenerator random(1);
    {
        QVector<Record> records;
        records.reserve(rows);
        for (int i = 0; i < rows; ++i) {
            Record r(&table);
            r.data(0) = static_cast<long long>(i);
            r.data(1) = decimal(100000 + random.bounded(20000), 2);
            r.data(2) = random.bounded(1, 100);
            records.append(r);
        }
        table.appendRecords(records);
    }
    std::vector<Record> all(table.masterIndex()->begin(), table.masterIndex()->end());
    ByColumn index(&table, column);
    TableModel model(&index);
    model.setUpdateInterval(interval);

    QMutex mutex;
    std::deque<Clock::time_point> ends; // batches not shown yet
    std::vector<double> latencies;
    bool started = false;
    Clock::time_point firstSignal;
    auto signalled = [&] {
        if (!started) {
            started = true;
            firstSignal = Clock::now();
        }
    };
    QObject::connect(&model, &QAbstractItemModel::dataChanged, signalled);
    QObject::connect(&model, &QAbstractItemModel::layoutAboutToBeChanged, signalled);
    QObject::connect(&model, &QAbstractItemModel::rowsAboutToBeMoved, signalled);
    QObject::connect(&model, &TableModel::updated, [&] {
        const Clock::time_point now = Clock::now();
        QMutexLocker locker(&mutex);
        // Batches that ended before the update began are the ones it shows.
        while (!ends.empty() && ends.front() <= firstSignal) {
            latencies.push_back(std::chrono::duration<double, std::milli>(now - ends.front()).count());
            ends.pop_front();
        }
        started = false;
    });

    std::atomic<bool> stop{false};
    std::unique_ptr<QThread> worker(QThread::create([&] {
        QRandomGenerator rnd(2);
        const auto period = std::chrono::duration<double>(double(batch) / rate);
        Clock::time_point next = Clock::now();
        while (!stop.load()) {
            {
                // One Table::process per batch: the sorted index places the
                // moved rows in one pass.
                TableUpdater updater(&table);
                QList<Record> changed;
                changed.reserve(batch);
                for (int k = 0; k < batch; ++k) {
                    const Record &r = all[rnd.bounded(static_cast<quint32>(all.size()))];
                    r.data(1) = decimal(100000 + rnd.bounded(20000), 2);
                    changed.append(r);
                }
                table.process(QList<Record>(), changed, 1, 1, QList<Record>());
            }
            {
                QMutexLocker locker(&mutex);
                ends.push_back(Clock::now());
            }
            next += std::chrono::duration_cast<Clock::duration>(period);
            std::this_thread::sleep_until(next);
        }
    }));

    const double cpu0 = threadCpuSeconds();
    const Clock::time_point wall0 = Clock::now();
    worker->start();
    QTimer::singleShot(static_cast<int>(seconds * 1000), [&] { stop = true; });
    QObject::connect(worker.get(), &QThread::finished, QCoreApplication::instance(), &QCoreApplication::quit);
    QCoreApplication::exec();
    worker->wait();
    const double cpu = threadCpuSeconds() - cpu0;
    const double wall = std::chrono::duration<double>(Clock::now() - wall0).count();

    Result result;
    result.index = name;
    result.busy = cpu / wall;
    std::sort(latencies.begin(), latencies.end());
    result.updates = static_cast<int>(latencies.size());
    if (!latencies.empty()) {
        double sum = 0;
        for (double l : latencies)
            sum += l;
        result.meanMs = sum / latencies.size();
        result.p99Ms = latencies[std::min(latencies.size() - 1, latencies.size() * 99 / 100)];
        result.maxMs = latencies.back();
    }
    return result;
}

} // namespace

int main(int argc, char **argv)
{
    QCoreApplication app(argc, argv);
    QCommandLineParser parser;
    parser.setApplicationDescription(QStringLiteral("A live model on a million rows under a writer thread."));
    parser.addHelpOption();
    const QCommandLineOption rowsOption(QStringLiteral("rows"), QStringLiteral("Rows in the table."),
                                        QStringLiteral("N"), QStringLiteral("1000000"));
    const QCommandLineOption rateOption(QStringLiteral("rate"), QStringLiteral("Price updates per second."),
                                        QStringLiteral("N"), QStringLiteral("100000"));
    const QCommandLineOption batchOption(QStringLiteral("batch"), QStringLiteral("Updates per batch."),
                                         QStringLiteral("N"), QStringLiteral("1000"));
    const QCommandLineOption secondsOption(QStringLiteral("seconds"), QStringLiteral("Seconds per index."),
                                           QStringLiteral("S"), QStringLiteral("5"));
    const QCommandLineOption intervalOption(QStringLiteral("interval"),
                                            QStringLiteral("The model's update interval in ms."),
                                            QStringLiteral("MS"), QStringLiteral("0"));
    const QCommandLineOption outOption(QStringLiteral("out"), QStringLiteral("Also write the results here (TSV)."),
                                       QStringLiteral("FILE"));
    parser.addOptions({rowsOption, rateOption, batchOption, secondsOption, intervalOption, outOption});
    parser.process(app);
    const int rows = parser.value(rowsOption).toInt();
    const int rate = parser.value(rateOption).toInt();
    const int batch = parser.value(batchOption).toInt();
    const double seconds = parser.value(secondsOption).toDouble();
    const int interval = parser.value(intervalOption).toInt();
    if (rows <= 0 || rate <= 0 || batch <= 0 || seconds <= 0 || interval < 0) {
        std::fprintf(stderr, "model_load: --rows, --rate, --batch and --seconds must be positive\n");
        return 2;
    }

    const std::vector<Result> results = {
        run(QStringLiteral("by number"), 0, rows, rate, batch, seconds, interval),
        run(QStringLiteral("by price"), 1, rows, rate, batch, seconds, interval),
    };
    QString table = QStringLiteral("index\tupdates\tbusy\tlatency_mean_ms\tlatency_p99_ms\tlatency_max_ms\n");
    for (const Result &r : results) {
        table += QStringLiteral("%1\t%2\t%3\t%4\t%5\t%6\n")
                     .arg(r.index)
                     .arg(r.updates)
                     .arg(r.busy, 0, 'f', 3)
                     .arg(r.meanMs, 0, 'f', 1)
                     .arg(r.p99Ms, 0, 'f', 1)
                     .arg(r.maxMs, 0, 'f', 1);
    }
    std::printf("live model: %d rows, %d price updates/s in batches of %d, update interval %d ms\n%s"
                "goal: busy under 0.100 of one core, latency under 50 ms\n",
                rows, rate, batch, interval, qPrintable(table));
    if (parser.isSet(outOption)) {
        QFile file(parser.value(outOption));
        if (file.open(QIODevice::WriteOnly | QIODevice::Text))
            QTextStream(&file) << table;
    }
    return 0;
}
