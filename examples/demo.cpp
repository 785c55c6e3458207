// A tour of the library for a new client module: exact decimals, wall-clock
// date-times, a keyed table kept current through transactions with a sorted
// index over it, the 64-bit checksum, and a small option chain priced and
// its implied volatilities recovered.

#include <database/database.h>

#include <QtCore/QCoreApplication>
#include <QtCore/QDir>
#include <QtCore/QFileInfo>
#include <QtCore/QTemporaryDir>
#include <QtCore/QTextStream>

#include <cmath>

namespace {

QTextStream &out()
{
    static QTextStream stream(stdout);
    return stream;
}

void decimals()
{
    out() << "== Decimals ==\n";
    const decimal price = decimal::fromString(QStringLiteral("101.25"));
    const decimal tick = decimal::fromString(QStringLiteral("0.005"));
    out() << "price " << price.toString() << " + tick " << tick.toString() << " = " << (price + tick).toString()
          << "\n";
    out() << "price x 3 = " << (price * 3).toString() << "\n";

    decimal rounded = price + tick;
    rounded.setScale(2);
    out() << "rounded to 2 digits: " << rounded.toString() << " (half away from zero)\n";

    const decimal a(15, 1), b(150, 2);
    out() << a.toString() << " == " << b.toString() << ": " << (a == b ? "yes" : "no")
          << ", same encoding: " << (a.isEqual(b) ? "yes" : "no") << "\n";

    try {
        decimal::fromString(QStringLiteral("1,5"));
    } catch (const QString &message) {
        out() << "fromString(\"1,5\") refused: " << message << "\n";
    }
    bool ok = false;
    const decimal any = decimal::fromAnyString(QStringLiteral("2.75"), &ok);
    out() << "fromAnyString(\"2.75\") = " << any.toString() << " ok=" << ok << "\n";
    out() << "in the system locale: " << price.toSystemString() << "\n\n";
}

void datetimes()
{
    out() << "== Date-times ==\n";
    const datetime open(2024, 3, 5, 10, 0, 0, 0);
    out() << "session opens " << open.toString() << "\n";
    out() << "plus 90 minutes: " << open.addSecs(90 * 60).toString() << "\n";
    out() << "next month: " << open.addMonths(1).toString(QStringLiteral("yyyy-MM-dd")) << "\n";
    const datetime close(QStringLiteral("2024-03-05 18:45:00"));
    out() << "session closes " << close.toString(datetime::sqlFormat(false)) << ", "
          << open.secsTo(close) / 60 << " minutes later\n";
    out() << "the stamp is the wall clock read as UTC: " << open.data() << " ms\n";
    out() << "empty date-time prints as null: " << (datetime().toString().isNull() ? "yes" : "no") << "\n\n";
}

// Orders positions by quantity, largest first.
class ByQuantity : public IndexSort
{
public:
    explicit ByQuantity(Table *table) : IndexSort(table, true) { build(); }
    int compare(const Record &a, const Record &b) const override
    {
        return b.data(2).compare(a.data(2));
    }
    QString getClassName() const override { return QStringLiteral("ByQuantity"); }
};

void upsert(Table &positions, RecordsTrans &trans, int account, const char *ticker, long long qty,
            const char *price)
{
    Record key(&positions);
    key.data("account") = account;
    key.data("ticker") = QString::fromLatin1(ticker);
    RecordUpdater row(key, trans);
    row.data("qty") = qty;
    row.data("price") = QString::fromLatin1(price);
}

void tables()
{
    out() << "== A keyed table ==\n";
    Table positions(QStringLiteral("positions"));
    positions.addColumn(QStringLiteral("account"), FieldType::Integer, 0, false);
    positions.addColumn(QStringLiteral("ticker"), FieldType::String, 12, false);
    positions.addColumn(QStringLiteral("qty"), FieldType::Integer64);
    positions.addColumn(QStringLiteral("price"), FieldType::Decimal, 4);
    MasterIndex_Fast::createMasterIndex(&positions, {QStringLiteral("account"), QStringLiteral("ticker")});
    ByQuantity byQuantity(&positions);

    {
        TableUpdater batch(&positions);
        RecordsTrans trans(&positions);
        upsert(positions, trans, 7, "ABC", 100, "101.25");
        upsert(positions, trans, 7, "XYZ", 40, "12.5");
        upsert(positions, trans, 9, "ABC", 250, "101.3");
    }
    out() << positions.rowCount() << " rows after the first transaction\n";

    {
        TableUpdater batch(&positions);
        RecordsTrans trans(&positions);
        upsert(positions, trans, 7, "XYZ", 400, "12.75"); // an existing key: updated
        Record gone(&positions);
        gone.data("account") = 9;
        gone.data("ticker") = QStringLiteral("ABC");
        RecordUpdater(gone, trans).remove();
    }
    out() << "by quantity, largest first:\n";
    for (const Record &row : byQuantity) {
        out() << "  " << row.toString() << "  qty " << row.data("qty").toString() << "  price "
              << row.data("price").toString() << "\n";
    }
    const Record found(&positions, QStringLiteral("7,ABC"));
    out() << "lookup by key \"7,ABC\": qty " << found.data("qty").toInteger64() << "\n";

    // Save to a data folder, compressed, and load into a table of a newer
    // layout: one more column, which the old rows leave null.
    QTemporaryDir folder;
    {
        Settings settings(QStringLiteral("Database"));
        settings.setValue(QStringLiteral("compressed"), true);
    }
    TableIO(&positions).write(QDir(folder.path()));
    Settings(QStringLiteral("Database")).remove(QStringLiteral("compressed"));
    out() << "saved to " << QDir(folder.path()).entryList(QDir::Files).join(QStringLiteral(", ")) << " ("
          << QFileInfo(QDir(folder.path()), QStringLiteral("positions.gz")).size() << " bytes)\n";
    Table reloaded(QStringLiteral("positions"));
    reloaded.addColumn(QStringLiteral("account"), FieldType::Integer, 0, false);
    reloaded.addColumn(QStringLiteral("ticker"), FieldType::String, 12, false);
    reloaded.addColumn(QStringLiteral("currency"), FieldType::String, 3);
    reloaded.addColumn(QStringLiteral("qty"), FieldType::Integer64);
    reloaded.addColumn(QStringLiteral("price"), FieldType::Decimal, 4);
    TableIO(&reloaded).read(QDir(folder.path()), false);
    out() << "reloaded " << reloaded.rowCount() << " rows into the newer layout:\n";
    for (const Record &row : *reloaded.masterIndex()) {
        out() << "  " << row.data("account").toString() << " " << row.data("ticker").toString() << "  currency "
              << (row.data("currency").isNull() ? QStringLiteral("null") : row.data("currency").toString())
              << "  price " << row.data("price").toString() << "\n";
    }
    try {
        found.data("qty").toDecimal();
    } catch (const Exception &e) {
        out() << "reading qty as a decimal: " << e.message << "\n";
    }
    out() << "\n";
}

void checksums()
{
    out() << "== Checksum ==\n";
    const QByteArray digits("123456789");
    out() << "CRC-64 of \"" << digits << "\" = 0x" << QString::number(qChecksum64(digits.constData(), digits.size()), 16)
          << "\n";
}

// A small chain on one futures price: each strike priced on a smile, and the
// volatility recovered from the price.
void optionChain()
{
    out() << "== Option chain ==\n";
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
    registerJsonSettingsFormat(); // the host's job: the settings file is JSON
    decimals();
    datetimes();
    tables();
    checksums();
    optionChain();
    return 0;
}
