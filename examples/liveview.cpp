// A blotter that stays current: a QTableView over a table's price-sorted
// index while a worker thread appends, reprices and cancels trades.
//
//   liveview [--rows N] [--rate UPDATES_PER_S] [--check SECONDS]
//
// With --check the window closes after that many seconds; the worker stops,
// the model shows what is left, and the program exits 1 unless the view's
// rows and cells are exactly the index's. Under QT_QPA_PLATFORM=offscreen it
// needs no display.

#include <database/decimal.h>
#include <database/indexsort.h>
#include <database/masterindex.h>
#include <database/table.h>
#include <database/tablemodel.h>

#include <QtCore/QCommandLineParser>
#include <QtCore/QRandomGenerator>
#include <QtCore/QThread>
#include <QtCore/QTimer>
#include <QtWidgets/QApplication>
#include <QtWidgets/QHeaderView>
#include <QtWidgets/QLabel>
#include <QtWidgets/QMainWindow>
#include <QtWidgets/QStatusBar>
#include <QtWidgets/QTableView>

#include <atomic>
#include <chrono>
#include <cstdio>
#include <memory>
#include <thread>

namespace {

enum Column { Number, Instrument, Price, Quantity };

// Price, then trade number: every row has one place.
class ByPrice : public IndexSort
{
public:
    explicit ByPrice(Table *table) : IndexSort(table, true) {}
    int compare(const Record &a, const Record &b) const override
    {
        const int byPrice = a.data(Price).toDecimal().compare(b.data(Price).toDecimal());
        if (byPrice != 0)
            return byPrice;
        const long long x = a.data(Number).toInteger64();
        const long long y = b.data(Number).toInteger64();
        return x < y ? -1 : (x > y ? 1 : 0);
    }
    bool filter(const Record &) const override { return true; }
    QString getClassName() const override { return QStringLiteral("ByPrice"); }
};

const char *const instruments[] = {"SBER", "GAZP", "LKOH", "GMKN", "NVTK", "ROSN", "YNDX", "MGNT"};

Record newTrade(Table &table, long long number, QRandomGenerator &random)
{
    Record trade(&table);
    trade.data(Number) = number;
    trade.data(Instrument) = QString::fromLatin1(instruments[random.bounded(8)]);
    trade.data(Price) = decimal(10000 + random.bounded(5000), 2);
    trade.data(Quantity) = random.bounded(1, 1000);
    return trade;
}

// The writer: batches of appends, repricings and cancellations, paced to
// `rate` changes a second.
void write(Table &table, int rate, const std::atomic<bool> &stop)
{
    QRandomGenerator random(42);
    long long number = table.rowCount();
    const int batch = std::max(1, rate / 50);
    auto next = std::chrono::steady_clock::now();
    while (!stop.load()) {
        {
            TableUpdater updater(&table);
            QList<Record> added, repriced, cancelled;
            for (int k = 0; k < batch; ++k) {
                const int rows = table.rowCount();
                const int what = rows < 100 ? 0 : random.bounded(10);
                if (what < 2) {
                    added.append(newTrade(table, ++number, random));
                    continue;
                }
                const Record trade = table.masterIndex()->at(random.bounded(rows));
                if (repriced.contains(trade) || cancelled.contains(trade))
                    continue;
                if (what < 9) {
                    trade.data(Price) = decimal(10000 + random.bounded(5000), 2);
                    repriced.append(trade);
                } else {
                    cancelled.append(trade);
                }
            }
            table.process(cancelled, repriced, Price, Price, QList<Record>());
            table.appendList(added);
        }
        next += std::chrono::milliseconds(20);
        std::this_thread::sleep_until(next);
    }
}

// Whether the view shows exactly the index: the same records, in order,
// with the same texts.
bool viewMatches(const QTableView &view, const TableModel &model, Table &table, const IndexList &index)
{
    TableLocker locker(&table);
    const QAbstractItemModel *shown = view.model();
    if (shown->rowCount() != index.count()) {
        std::fprintf(stderr, "liveview: the view has %d rows, the index %d\n", shown->rowCount(), index.count());
        return false;
    }
    for (int r = 0; r < index.count(); ++r) {
        if (model.record(r) != index.at(r)) {
            std::fprintf(stderr, "liveview: row %d is not the index's\n", r);
            return false;
        }
        for (int c = 0; c < shown->columnCount(); ++c) {
            if (shown->index(r, c).data().toString() != index.at(r).data(model.tableColumn(c)).toSystemString()) {
                std::fprintf(stderr, "liveview: cell %d,%d differs\n", r, c);
                return false;
            }
        }
    }
    return true;
}

} // namespace

int main(int argc, char **argv)
{
    QApplication app(argc, argv);
    QCommandLineParser parser;
    parser.setApplicationDescription(QStringLiteral("A table view kept current while another thread writes."));
    parser.addHelpOption();
    const QCommandLineOption rowsOption(QStringLiteral("rows"), QStringLiteral("Trades to start with."),
                                        QStringLiteral("N"), QStringLiteral("100000"));
    const QCommandLineOption rateOption(QStringLiteral("rate"), QStringLiteral("Changes per second."),
                                        QStringLiteral("N"), QStringLiteral("20000"));
    const QCommandLineOption checkOption(QStringLiteral("check"),
                                         QStringLiteral("Run this many seconds, then verify the view and exit."),
                                         QStringLiteral("SECONDS"));
    parser.addOptions({rowsOption, rateOption, checkOption});
    parser.process(app);
    bool ok = false;
    const int rows = parser.value(rowsOption).toInt(&ok);
    const int rate = ok ? parser.value(rateOption).toInt(&ok) : 0;
    const int check = parser.isSet(checkOption) && ok ? parser.value(checkOption).toInt(&ok) : 0;
    if (!ok || rows < 0 || rate <= 0 || check < 0) {
        std::fprintf(stderr, "liveview: --rows, --rate and --check take whole numbers (--rate above 0)\n");
        return 2;
    }

    Table table(QStringLiteral("trades"), QStringLiteral("Trades"));
    table.addColumn(QStringLiteral("number"), FieldType::Integer64, 0, false, QStringLiteral("No."));
    table.addColumn(QStringLiteral("instrument"), FieldType::String, 8, false, QStringLiteral("Instrument"));
    table.addColumn(QStringLiteral("price"), FieldType::Decimal, 2, false, QStringLiteral("Price"));
    table.addColumn(QStringLiteral("quantity"), FieldType::Integer, 0, false, QStringLiteral("Quantity"));
    {
        QRandomGenerator random(7);
        QVector<Record> trades;
        trades.reserve(rows);
        for (int i = 1; i <= rows; ++i)
            trades.append(newTrade(table, i, random));
        table.appendRecords(trades);
    }
    ByPrice byPrice(&table);
    byPrice.rebuild();

    TableModel model(&byPrice);
    QMainWindow window;
    auto *view = new QTableView(&window);
    view->setModel(&model);
    view->verticalHeader()->setDefaultSectionSize(20);
    view->horizontalHeader()->setStretchLastSection(true);
    window.setCentralWidget(view);
    auto *status = new QLabel(&window);
    window.statusBar()->addWidget(status);
    int updates = 0;
    QObject::connect(&model, &TableModel::updated, [&] {
        status->setText(QStringLiteral("%1 trades, %2 updates shown").arg(model.rowCount()).arg(++updates));
    });
    window.resize(640, 480);
    window.setWindowTitle(QStringLiteral("Live trades"));
    window.show();

    std::atomic<bool> stop{false};
    std::unique_ptr<QThread> worker(QThread::create([&] { write(table, rate, stop); }));
    worker->start();
    if (check > 0)
        QTimer::singleShot(check * 1000, &app, &QApplication::quit);
    const int code = app.exec();
    stop = true;
    worker->wait();
    if (check == 0)
        return code;

    model.update();
    if (!viewMatches(*view, model, table, byPrice))
        return 1;
    std::printf("liveview: %d updates shown, the view's %d rows equal the index's\n", updates, model.rowCount());
    std::fflush(stdout);
    return updates > 0 ? 0 : 1;
}
