#include "tablefixture.h"
#include "testutil.h"

#include <database/exception.h>
#include <database/indexlist.h>
#include <database/masterindex.h>
#include <database/masterindex_fast.h>
#include <database/qtiocompressor.h>
#include <database/settings.h>
#include <database/tableformat_p.h>
#include <database/tableio.h>

#include <QtCore/QBuffer>
#include <QtCore/QCoreApplication>
#include <QtCore/QDataStream>
#include <QtCore/QFile>
#include <QtCore/QRandomGenerator>
#include <QtCore/QTemporaryDir>

#include <gtest/gtest.h>

#include <algorithm>
#include <memory>
#include <numeric>
#include <random>

#include "zlibutil.h"

namespace {

QByteArray save(Table &table, bool withRows = true)
{
    QByteArray bytes;
    QDataStream stream(&bytes, QIODevice::WriteOnly);
    TableIO(&table).write(stream, withRows);
    return bytes;
}

void load(Table &table, QByteArray bytes, bool addMissing = false,
          const TableIO::Convertors &convertors = TableIO::Convertors())
{
    QDataStream stream(&bytes, QIODevice::ReadOnly);
    TableIO(&table).read(stream, addMissing, convertors);
}

QByteArray hex(const char *text)
{
    return QByteArray::fromHex(text);
}

// A column of every type, filled on two rows (the second mostly null).
void makeEveryType(Table &table)
{
    table.addColumn(QStringLiteral("i"), FieldType::Integer, 0, true, QStringLiteral("Eye"), false,
                    QStringLiteral("an integer"));
    table.addColumn(QStringLiteral("l"), FieldType::Integer64);
    table.addColumn(QStringLiteral("d"), FieldType::Double);
    table.addColumn(QStringLiteral("m"), FieldType::Decimal, 3);
    table.addColumn(QStringLiteral("s"), FieldType::String, 7);
    table.addColumn(QStringLiteral("t"), FieldType::DateTime);
    table.addColumn(QStringLiteral("b"), FieldType::BoardList);
}

void fillEveryType(Table &table)
{
    const Record full(&table);
    full.data(0) = -5;
    full.data(1) = 1LL << 40;
    full.data(2) = 2.5;
    full.data(3) = QStringLiteral("1.125");
    full.data(4) = QStringLiteral("тест");
    full.data(5) = datetime(2024, 3, 5, 10, 11, 12, 13);
    full.data(6) = QVariant(QStringLiteral("1:2,3 4:5"));
    full.append();
    const Record sparse(&table);
    sparse.data(4) = QStringLiteral("x");
    sparse.append();
}

QStringList texts(const Table &table)
{
    QStringList result;
    for (const Record &record : *table.masterIndex()) {
        QStringList fields;
        for (int c = 0; c < table.columnCount(); ++c) {
            const Field field = record.data(c);
            fields.append(field.isNull()                            ? QStringLiteral("null")
                              : field.type() == FieldType::BoardList ? field.toSystemString()
                                                                     : field.toString());
        }
        result.append(fields.join(QLatin1Char('|')));
    }
    return result;
}

// Counts its conversions and notes its deletion.
class Doubling : public FieldDefConvertor
{
public:
    explicit Doubling(bool *deleted) : m_deleted(deleted) {}
    ~Doubling() override { *m_deleted = true; }
    void convert(Field &destination, const Field &source) override { destination = source.toInteger() * 2; }

private:
    bool *m_deleted;
};

} // namespace

TEST(TableIO, AnEmptyTableIsFourteenBytes)
{
    Table table(QStringLiteral("empty"));
    EXPECT_EQ(save(table), hex("0000" "00000000" "00000000" "00000000"));
}

TEST(TableIO, TheLayoutOfASmallTable)
{
    Table table(QStringLiteral("small"));
    table.addColumn(QStringLiteral("n"), FieldType::Integer, 0, false);
    table.addColumn(QStringLiteral("s"), FieldType::String, 10, true, QStringLiteral("S"));
    const Record a(&table), b(&table);
    a.data(0) = 1;
    a.data(1) = QStringLiteral("ab");
    b.data(0) = 0x01020304;
    a.append();
    b.append();

    const QByteArray expected =
        hex("0002"
            // n: name, null title, null description, length, type, offset, size, nullable, second flag
            "00000002" "006E" "FFFFFFFF" "FFFFFFFF" "00000000" "01" "00000000" "00000004" "00" "01"
            // s
            "00000002" "0073" "00000002" "0053" "FFFFFFFF" "0000000A" "05" "00000004" "00000014" "01" "01"
            // 2 rows, row length 24, record length 25
            "00000002" "00000018" "00000019")
        // a: 1 little-endian, "ab" in UTF-16LE and zeros, both null bits set
        + hex("01000000" "61006200") + QByteArray(16, 0) + hex("03")
        // b: the integer only
        + hex("04030201") + QByteArray(20, 0) + hex("01");
    ASSERT_EQ(expected.size(), 2 + 29 + 31 + 12 + 50);
    EXPECT_EQ(save(table).toHex(), expected.toHex());
    EXPECT_EQ(save(table, false), expected.left(expected.size() - 50)); // the real row count, no records

    // The header reader takes it apart as laid out above; the checker finds
    // nothing wrong with it, and the header alone lacks its 50 bytes.
    QDataStream stream(expected);
    const tableformat::Header header = tableformat::readHeader(stream);
    ASSERT_TRUE(header.complete);
    ASSERT_EQ(header.columns.size(), 2);
    EXPECT_EQ(header.columns[1].name, QStringLiteral("s"));
    EXPECT_EQ(header.columns[1].offset, 4u);
    EXPECT_EQ(header.recordLength, 25);
    EXPECT_EQ(stream.device()->pos(), expected.size() - 50);
    EXPECT_EQ(tableformat::problem(header, 50), QString());
    EXPECT_EQ(tableformat::problem(header, 0), QStringLiteral("2 rows need 50 bytes of data, the file has 0"));
}

TEST(TableIO, AStreamAtItsEndChangesNothing)
{
    Table table(QStringLiteral("t"));
    table.addColumn(QStringLiteral("key"), FieldType::Integer);
    table.addColumn(QStringLiteral("id"), FieldType::Integer);
    makeRow(table, {1, 1}).append();
    load(table, QByteArray());
    QDataStream detached;
    TableIO(&table).read(detached);
    EXPECT_EQ(table.rowCount(), 1);
}

TEST(TableIO, ChangedSchemasAreConverted)
{
    Table stored(QStringLiteral("t"));
    stored.addColumn(QStringLiteral("a"), FieldType::Integer);
    stored.addColumn(QStringLiteral("gone"), FieldType::Integer);
    stored.addColumn(QStringLiteral("text"), FieldType::String, 8);
    stored.addColumn(QStringLiteral("flag"), FieldType::Integer, 0, true);
    const Record row(&stored);
    row.data(0) = 7;
    row.data(1) = 8;
    row.data(2) = QStringLiteral("abcdefgh");
    row.data(3) = 1;
    row.append();
    const QByteArray bytes = save(stored);

    Table live(QStringLiteral("t"));
    live.addColumn(QStringLiteral("new"), FieldType::Integer);
    live.addColumn(QStringLiteral("text"), FieldType::String, 3);
    live.addColumn(QStringLiteral("a"), FieldType::Double);
    live.addColumn(QStringLiteral("flag"), FieldType::Integer, 0, false);
    load(live, bytes);
    EXPECT_EQ(live.columnCount(), 4); // "gone" is skipped
    EXPECT_EQ(texts(live), QStringList(QStringLiteral("null|abc|7|1")));

    load(live, bytes, true);
    EXPECT_EQ(live.columnCount(), 5);
    EXPECT_EQ(live.columnName(4), QStringLiteral("gone"));
    EXPECT_EQ(live.masterIndex()->at(0).data(4).toInteger(), 8);
}

TEST(TableIO, ConvertorsRenameFeedAndDrop)
{
    Table stored(QStringLiteral("t"));
    stored.addColumn(QStringLiteral("old"), FieldType::Integer);
    stored.addColumn(QStringLiteral("other"), FieldType::Integer);
    const Record row(&stored);
    row.data(0) = 21;
    row.data(1) = 5;
    row.append();
    const QByteArray bytes = save(stored);

    Table live(QStringLiteral("t"));
    live.addColumn(QStringLiteral("renamed"), FieldType::Integer);
    live.addColumn(QStringLiteral("twice"), FieldType::Integer);
    live.addColumn(QStringLiteral("missing"), FieldType::Integer);
    bool firstDeleted = false, secondDeleted = false, skippedDeleted = false;
    auto *skipped = new Doubling(&skippedDeleted);
    TableIO::Convertors convertors;
    convertors.insert(QStringLiteral("renamed"), qMakePair(QStringLiteral("old"), new FieldDefConvertor));
    convertors.insert(QStringLiteral("twice"), qMakePair(QStringLiteral("old"), new Doubling(&firstDeleted)));
    convertors.insert(QStringLiteral("twice"), qMakePair(QStringLiteral("other"), new Doubling(&secondDeleted)));
    convertors.insert(QStringLiteral("missing"), qMakePair(QStringLiteral("nowhere"), skipped));
    convertors.insert(QString(), qMakePair(QStringLiteral("other"), static_cast<FieldDefConvertor *>(nullptr)));

    MessageCapture capture;
    load(live, bytes, true, convertors);
    EXPECT_EQ(capture.messages, QStringList(QStringLiteral("Column not found in translation.")));
    EXPECT_EQ(live.columnCount(), 4); // "old" added, "other" dropped
    EXPECT_EQ(live.columnName(3), QStringLiteral("old"));
    const Record loaded = live.masterIndex()->at(0);
    EXPECT_EQ(loaded.data(0).toInteger(), 21);
    // Both entries of "twice" run in the map's order; the later one stands.
    const int twice = loaded.data(1).toInteger();
    EXPECT_TRUE(twice == 42 || twice == 10);
    EXPECT_TRUE(loaded.data(2).isNull());
    EXPECT_TRUE(firstDeleted);
    EXPECT_TRUE(secondDeleted);
    EXPECT_FALSE(skippedDeleted); // skipped entries stay the caller's
    delete skipped;
}

TEST(TableIO, CopyConvertorsForUnchangedColumns)
{
    Table table(QStringLiteral("t"));
    table.addColumn(QStringLiteral("i"), FieldType::Integer);
    table.addColumn(QStringLiteral("l"), FieldType::Integer64);
    table.addColumn(QStringLiteral("s"), FieldType::String, 10);
    table.addColumn(QStringLiteral("n"), FieldType::Integer, 0, false);
    Table stored(QStringLiteral("saved"));
    stored.addColumn(QStringLiteral("i"), FieldType::Integer);
    stored.addColumn(QStringLiteral("l"), FieldType::Integer64);
    stored.addColumn(QStringLiteral("s"), FieldType::String, 10);
    stored.addColumn(QStringLiteral("n"), FieldType::Integer, 0, true);
    QList<FieldDefConvertor *> list;
    TableIO(&table).make_fromDefs(list, &stored, TableIO::Convertors());
    ASSERT_EQ(list.size(), 4);
    EXPECT_NE(dynamic_cast<TableIO::FieldDefConvertor_Copy4 *>(list[0]), nullptr);
    EXPECT_NE(dynamic_cast<TableIO::FieldDefConvertor_Copy8 *>(list[1]), nullptr);
    auto *copy = dynamic_cast<TableIO::FieldDefConvertor_Copy *>(list[2]);
    ASSERT_NE(copy, nullptr);
    EXPECT_EQ(copy->size, 20u);
    EXPECT_EQ(typeid(*list[3]), typeid(FieldDefConvertor)); // only nullable changed
    qDeleteAll(list);
}

TEST(TableIO, FoldersPlainAndCompressed)
{
    registerJsonSettingsFormat();
    QTemporaryDir folder;
    const QDir dir(folder.path());
    Table table(QStringLiteral("quotes"));
    makeEveryType(table);
    fillEveryType(table);
    TableIO io(&table);
    EXPECT_EQ(io.fileName(dir), dir.filePath(QStringLiteral("quotes")));
    const QString plainPath = dir.filePath(QStringLiteral("quotes"));
    const QString gzPath = plainPath + QStringLiteral(".gz");

    for (const bool compressed : {true, false, true}) {
        SCOPED_TRACE(compressed);
        {
            Settings settings(QStringLiteral("Database"));
            settings.setValue(QStringLiteral("compressed"), compressed);
        }
        io.write(dir);
        EXPECT_EQ(QFile::exists(gzPath), compressed);
        EXPECT_EQ(QFile::exists(plainPath), !compressed);
        Table loaded(QStringLiteral("quotes"));
        makeEveryType(loaded);
        TableIO(&loaded).read(dir, false);
        EXPECT_EQ(texts(loaded), texts(table));
    }

    // The compressed file is plain gzip.
    QFile gz(gzPath);
    ASSERT_TRUE(gz.open(QIODevice::ReadOnly));
    const QByteArray packed = gz.readAll();
    const QByteArray raw = inflateWithZlib(packed, 31);
    EXPECT_EQ(raw, save(table));

    // With both files present the plain one wins.
    QFile plain(plainPath);
    ASSERT_TRUE(plain.open(QIODevice::WriteOnly));
    Table other(QStringLiteral("quotes"));
    makeEveryType(other);
    QDataStream out(&plain);
    TableIO(&other).write(out);
    plain.close();
    TableIO(&table).read(dir, false);
    EXPECT_EQ(table.rowCount(), 0);

    Table absent(QStringLiteral("absent"));
    makeRow(absent, {}).append();
    TableIO(&absent).read(dir, false);
    EXPECT_EQ(absent.rowCount(), 1);

    // A save that cannot complete (here the gzip name is taken by a folder)
    // leaves the previous file as it was.
    QFile::remove(gzPath);
    const QByteArray before = save(other);
    ASSERT_TRUE(dir.mkdir(QStringLiteral("quotes.gz")));
    Settings(QStringLiteral("Database")).setValue(QStringLiteral("compressed"), true);
    io.write(dir);
    ASSERT_TRUE(plain.open(QIODevice::ReadOnly));
    EXPECT_EQ(plain.readAll(), before);
    EXPECT_EQ(QDir(dir).entryList(QDir::Files), QStringList({"quotes"})); // no temporary left
    Settings(QStringLiteral("Database")).remove(QStringLiteral("compressed"));
}

// A table of several megabytes goes through the folder as a small one does:
// deflated on every core into a file any gzip reader takes, inflated ahead
// of the rows on the way back. Damage in the middle of such a file loads the
// rows before it and reports what the serial device reports.
TEST(TableIO, BigCompressedFoldersOnEveryCore)
{
    registerJsonSettingsFormat();
    QTemporaryDir folder;
    const QDir dir(folder.path());
    Table table(QStringLiteral("ticks"));
    table.addColumn(QStringLiteral("n"), FieldType::Integer64);
    table.addColumn(QStringLiteral("price"), FieldType::Double);
    table.addColumn(QStringLiteral("note"), FieldType::String, 10);
    QRandomGenerator random(42);
    {
        TableUpdater updater(&table);
        for (int i = 0; i < 60000; ++i) {
            const Record row(&table);
            row.data(0) = static_cast<long long>(random.generate64() >> 20);
            row.data(1) = random.bounded(100000) / 100.0;
            if (i % 7)
                row.data(2) = QString::number(random.bounded(1000000), 36);
            row.append();
        }
    }
    Settings(QStringLiteral("Database")).setValue(QStringLiteral("compressed"), true);
    TableIO(&table).write(dir);
    Settings(QStringLiteral("Database")).remove(QStringLiteral("compressed"));
    const QString gzPath = dir.filePath(QStringLiteral("ticks.gz"));
    QFile gz(gzPath);
    ASSERT_TRUE(gz.open(QIODevice::ReadOnly));
    QByteArray packed = gz.readAll();
    gz.close();
    const QByteArray stream = save(table);
    ASSERT_GT(stream.size(), 2 << 20);   // more than one chunk
    ASSERT_GT(packed.size(), 256 * 1024); // and read ahead
    EXPECT_EQ(inflateWithZlib(packed, 31), stream);

    Table loaded(QStringLiteral("ticks"));
    loaded.addColumn(QStringLiteral("n"), FieldType::Integer64);
    loaded.addColumn(QStringLiteral("price"), FieldType::Double);
    loaded.addColumn(QStringLiteral("note"), FieldType::String, 10);
    IndexList list(&loaded, true);
    TableIO io(&loaded);
    io.read(dir, false);
    EXPECT_TRUE(io.errorString().isEmpty());
    EXPECT_EQ(save(loaded), stream);
    EXPECT_EQ(list.count(), 60000);

    // Damage at two thirds of the file.
    for (int i = 0; i < 64; ++i)
        packed[packed.size() * 2 / 3 + i] = static_cast<char>(packed[packed.size() * 2 / 3 + i] ^ 0x5A);
    ASSERT_TRUE(gz.open(QIODevice::WriteOnly));
    gz.write(packed);
    gz.close();
    MessageCapture quiet;
    io.read(dir, false);
    EXPECT_TRUE(io.errorString().startsWith(QStringLiteral("Internal zlib error when decompressing: ")))
        << io.errorString().toStdString();
    EXPECT_EQ(list.count(), loaded.rowCount());
    EXPECT_GT(loaded.rowCount(), 20000);
    EXPECT_LE(loaded.rowCount(), 60000);

    Table serial(QStringLiteral("ticks"));
    serial.addColumn(QStringLiteral("n"), FieldType::Integer64);
    serial.addColumn(QStringLiteral("price"), FieldType::Double);
    serial.addColumn(QStringLiteral("note"), FieldType::String, 10);
    QBuffer buffer(&packed);
    QtIOCompressor compressor(&buffer, 6, 65500);
    compressor.setStreamFormat(QtIOCompressor::GzipFormat);
    ASSERT_TRUE(compressor.open(QIODevice::ReadOnly));
    QDataStream in(&compressor);
    TableIO(&serial).read(in);
    EXPECT_EQ(compressor.errorString(), io.errorString());
    // The rows before the damage, give or take one read of the device.
    EXPECT_NEAR(serial.rowCount(), loaded.rowCount(), 256 * 1024 / 40);
}

// The loader hands rows to the indexes in batches of 10,240 and writes each
// batch over the last: a file of whole batches, and one a row past them,
// come back with every row once, in the file's order, in the indexes too.
TEST(TableIO, LoadsEndingOnABatchBoundaryKeepEveryRow)
{
    for (const int rows : {20480, 20481}) {
        Table table(QStringLiteral("t"));
        table.addColumn(QStringLiteral("n"), FieldType::Integer64);
        {
            TableUpdater updater(&table);
            for (int i = 0; i < rows; ++i) {
                const Record row(&table);
                row.data(0) = static_cast<long long>(rows - i);
                row.append();
            }
        }
        const QByteArray stream = save(table);
        Table loaded(QStringLiteral("t"));
        loaded.addColumn(QStringLiteral("n"), FieldType::Integer64);
        IndexList list(&loaded, true);
        load(loaded, stream);
        EXPECT_EQ(save(loaded), stream) << rows;
        ASSERT_EQ(list.count(), rows);
        // Read through the const accessor: a reference to the slot would be
        // a misaligned one, the slot standing after the row's count.
        const Field first = list.at(0).data(0);
        const Field last = list.at(rows - 1).data(0);
        EXPECT_EQ(first.asInteger64(), rows);
        EXPECT_EQ(last.asInteger64(), 1);
    }
}

TEST(TableIO, StoredFilesStillRead)
{
    const QDir data(QStringLiteral(DATABASE_TEST_DATA));
    for (const char *name : {"quotes", "quotes.gz"}) {
        SCOPED_TRACE(name);
        QFile file(data.filePath(QString::fromLatin1(name)));
        ASSERT_TRUE(file.open(QIODevice::ReadOnly));
        QtIOCompressor compressor(&file);
        compressor.setStreamFormat(QtIOCompressor::GzipFormat);
        QDataStream stream(&file);
        if (QByteArray(name).endsWith(".gz")) {
            ASSERT_TRUE(compressor.open(QIODevice::ReadOnly));
            stream.setDevice(&compressor);
        }
        Table table(QStringLiteral("quotes"));
        table.addColumn(QStringLiteral("ticker"), FieldType::String, 6, false);
        table.addColumn(QStringLiteral("volume"), FieldType::Double); // converted from Integer64
        TableIO(&table).read(stream, true);
        EXPECT_EQ(table.columnCount(), 4);
        EXPECT_EQ(table.columnTitle(2), QStringLiteral("last"));
        EXPECT_EQ(texts(table), QStringList({"ABC|1000|100.00|2024.03.05 10:00:00.000",
                                             "XYZ|2000|101.25|2024.03.05 10:01:00.000",
                                             "QRS|null|102.50|2024.03.05 10:02:00.000"}));
    }
}

TEST(TableIO, TheDataFolderOfAPortableInstallation)
{
    const QDir dir = Settings::dataDir(QStringLiteral("settings"));
    EXPECT_EQ(dir.path(), QDir(QCoreApplication::applicationDirPath()).filePath(QStringLiteral("user/settings")));
    EXPECT_TRUE(dir.exists());

    // The setting reaches the file on disk and a fresh reader finds it there.
    registerJsonSettingsFormat();
    {
        Settings settings(QStringLiteral("Database"));
        settings.setValue(QStringLiteral("compressed"), true);
    }
    QFile file(dir.filePath(QStringLiteral("settings.json")));
    ASSERT_TRUE(file.open(QIODevice::ReadOnly));
    EXPECT_TRUE(file.readAll().contains("\"compressed\": true"));
    EXPECT_TRUE(Settings(QStringLiteral("Database")).value(QStringLiteral("compressed")).toBool());
    Settings(QStringLiteral("Database")).remove(QStringLiteral("compressed"));
}

// Damaged files: whatever the bytes, a load stays inside its buffers (the
// sanitizer run checks that), and ends with a documented outcome.
// Rows are read many at a time: a file of several chunks cut inside its last
// record ends as a record-at-a-time read ends, and the spare null bits of a
// record (set here by hand) are not carried into the table.
TEST(TableIODamage, LongFilesCutShortAndSpareNullBits)
{
    Table source(QStringLiteral("t"));
    source.addColumn(QStringLiteral("key"), FieldType::Integer);
    source.addColumn(QStringLiteral("id"), FieldType::Integer);
    const int rows = 70000; // three read chunks of nine-byte records
    for (int id = 0; id < rows; ++id)
        makeRow(source, {id, id}).append();
    QByteArray bytes = save(source);
    const int header = bytes.size() - rows * 9;
    bytes[header + 5 * 9 + 8] = char(0xFF); // row 5: both columns set, and six spare bits
    Table whole(QStringLiteral("t"));
    whole.addColumn(QStringLiteral("key"), FieldType::Integer);
    whole.addColumn(QStringLiteral("id"), FieldType::Integer);
    load(whole, bytes);
    ASSERT_EQ(whole.rowCount(), rows);
    EXPECT_EQ(static_cast<unsigned char>(save(whole)[header + 5 * 9 + 8]), 0x03);
    EXPECT_EQ(getInt(whole.masterIndex()->at(40000), 1), 40000);

    bytes.chop(9 + 4); // the last record and a bit of the one before it
    Table target(QStringLiteral("t"));
    target.addColumn(QStringLiteral("key"), FieldType::Integer);
    target.addColumn(QStringLiteral("id"), FieldType::Integer);
    load(target, bytes);
    ASSERT_EQ(target.rowCount(), rows);
    EXPECT_EQ(getInt(target.masterIndex()->at(rows - 2), 0), rows - 2);
    EXPECT_EQ(getInt(target.masterIndex()->at(rows - 1), 0), rows - 2);
}


TEST(TableIO, ThousandsOfColumnsLoadInLinearTime)
{
    // 32,767 columns took minutes when each addition rescanned the others.
    QByteArray bytes;
    QDataStream stream(&bytes, QIODevice::WriteOnly);
    stream << qint16(32767);
    for (int i = 0; i < 32767; ++i)
        stream << QStringLiteral("c%1").arg(i) << QString() << QString() << qint32(0) << qint8(FieldType::Integer)
               << qint32(0) << qint32(0) << true << true;
    stream << qint32(0) << qint32(0) << qint32(0);
    Table table(QStringLiteral("t"));
    load(table, bytes, true);
    ASSERT_EQ(table.columnCount(), 32767);
    EXPECT_EQ(table.columnDef(32766).nullByteOffset, 4ull * 32767 + 32766 / 8);
    EXPECT_EQ(table.columnDef(9).nullMask, 1 << 1);
}

// Every damaged file of tests/data/damaged (see generate.py there) loads to
// the outcome its manifest names, through a folder read as in use.
TEST(TableIO, DamagedFilesHaveTheirDocumentedOutcomes)
{
    const QDir damaged(QStringLiteral(DATABASE_TEST_DATA "/damaged"));
    QFile manifest(damaged.filePath(QStringLiteral("manifest.tsv")));
    ASSERT_TRUE(manifest.open(QIODevice::ReadOnly | QIODevice::Text));
    int files = 0;
    while (!manifest.atEnd()) {
        const QString line = QString::fromUtf8(manifest.readLine()).trimmed();
        if (line.isEmpty())
            continue;
        const QString name = line.section(QLatin1Char('\t'), 0, 0);
        const QString outcome = line.section(QLatin1Char('\t'), 1);
        const QString kind = outcome.section(QLatin1Char(' '), 0, 0);
        const QString detail = outcome.section(QLatin1Char(' '), 1);
        SCOPED_TRACE(name.toStdString());
        ++files;

        QTemporaryDir folder;
        const QString target = QDir(folder.path()).filePath(name.endsWith(QLatin1String(".gz"))
                                                                ? QStringLiteral("quotes.gz")
                                                                : QStringLiteral("quotes"));
        ASSERT_TRUE(QFile::copy(damaged.filePath(name), target));
        Table table(QStringLiteral("quotes"));
        table.addColumn(QStringLiteral("ticker"), FieldType::String, 6, false);
        IndexList list(&table, true);
        appendRow(table, {}); // replaced by the load, whatever it finds
        TableIO io(&table);
        MessageCapture quiet;
        QString thrown;
        try {
            io.read(QDir(folder.path()), true);
        } catch (const Exception &e) {
            thrown = e.message;
        }
        EXPECT_EQ(list.count(), table.rowCount()); // the indexes are back and whole
        if (!name.endsWith(QLatin1String(".gz")) && !name.startsWith(QLatin1String("flip-"))) {
            // A damaged layout is told apart from a sound one by the checker
            // tabletool verify uses (a flipped bit may land in a text or a
            // value, which no layout check sees).
            QFile file(damaged.filePath(name));
            ASSERT_TRUE(file.open(QIODevice::ReadOnly));
            QDataStream stream(&file);
            const tableformat::Header header = tableformat::readHeader(stream);
            EXPECT_FALSE(tableformat::problem(header, file.size() - file.pos()).isEmpty());
        }
        if (kind == QLatin1String("exception")) {
            EXPECT_EQ(thrown, detail);
            EXPECT_EQ(table.rowCount(), 0);
        } else if (kind == QLatin1String("rows")) {
            EXPECT_TRUE(thrown.isEmpty()) << thrown.toStdString();
            EXPECT_TRUE(io.errorString().isEmpty()) << io.errorString().toStdString();
            EXPECT_EQ(table.rowCount(), detail.toInt());
        } else if (kind == QLatin1String("rows-at-most")) {
            EXPECT_LE(table.rowCount(), detail.toInt());
        } else if (kind == QLatin1String("error")) {
            EXPECT_TRUE(io.errorString().contains(detail)) << io.errorString().toStdString();
        } else {
            EXPECT_EQ(kind, QStringLiteral("any"));
            EXPECT_LE(table.rowCount(), 3 + 65536);
        }
    }
    EXPECT_EQ(files, 36);

    // A file that cannot be opened (a folder by the table's name) changes
    // nothing.
    QTemporaryDir folder;
    ASSERT_TRUE(QDir(folder.path()).mkdir(QStringLiteral("quotes")));
    Table table(QStringLiteral("quotes"));
    table.addColumn(QStringLiteral("ticker"), FieldType::String, 6, false);
    appendRow(table, {});
    TableIO(&table).read(QDir(folder.path()), false);
    EXPECT_EQ(table.rowCount(), 1);
}

// ---------------------------------------------------------------------------
// Sorted indexes rebuilt after a load of many rows: their runs are sorted
// while the rows come and only merged at the build, which must give the
// order a sort of the master's records gives, equal keys in the master's
// order, whatever happened between the two.

namespace {

// Columns key (few values: many ties), id, group; `rows` rows in arrival
// order, ids shuffled.
Table *makeLoadSource(int rows)
{
    auto *table = new Table(QStringLiteral("t"));
    addKeyIdColumns(*table);
    table->addColumn(QStringLiteral("group"), FieldType::Integer);
    QRandomGenerator random(7);
    std::vector<int> ids(static_cast<size_t>(rows));
    std::iota(ids.begin(), ids.end(), 0);
    std::shuffle(ids.begin(), ids.end(), std::mt19937(11));
    TableUpdater updater(table);
    for (int i = 0; i < rows; ++i)
        appendRow(*table, {static_cast<int>(random.bounded(50)), ids[static_cast<size_t>(i)], (i * 7919) % 97});
    return table;
}

std::unique_ptr<Table> makeLoadTarget()
{
    auto table = std::make_unique<Table>(QStringLiteral("t"));
    addKeyIdColumns(*table);
    table->addColumn(QStringLiteral("group"), FieldType::Integer);
    return table;
}

// The ids of the master's records that `accept` takes, stably sorted by
// `column`: what a sorted index on it must hold.
std::vector<int> stableOrder(const Table &table, int column, const std::function<bool(const Record &)> &accept = {})
{
    std::vector<std::pair<int, int>> rows; // (key, id) in the master's order
    for (const Record &record : *table.masterIndex())
        if (!accept || accept(record))
            rows.emplace_back(getInt(record, column), getInt(record, 1));
    std::stable_sort(rows.begin(), rows.end(), [](const auto &a, const auto &b) { return a.first < b.first; });
    std::vector<int> ids;
    for (const auto &row : rows)
        ids.push_back(row.second);
    return ids;
}

// Rewrites every key when it is built, as a join fills its columns.
class KeyRewriter : public IndexList
{
public:
    KeyRewriter(Table *table, std::function<int(int)> rewrite) : IndexList(table, true), m_rewrite(std::move(rewrite))
    {
    }
    void build() override
    {
        IndexList::build();
        for (const Record &record : *table()->masterIndex())
            setInt(record, 0, m_rewrite(getInt(record, 0)));
    }

private:
    std::function<int(int)> m_rewrite;
};

} // namespace

TEST(TableIOSortedLoad, RunsOfWholeAndPartLengthMergeToTheStableOrder)
{
    // 17 runs of 4,096 (an odd count), and 18 with a short last one.
    for (const int rows : {69632, 70001}) {
        const std::unique_ptr<Table> source(makeLoadSource(rows));
        const QByteArray stream = save(*source);
        const auto loaded = makeLoadTarget();
        IntKeyIndex byKey(loaded.get(), 0);
        IntKeyIndex byGroup(loaded.get(), 2);
        load(*loaded, stream);
        ASSERT_EQ(loaded->rowCount(), rows);
        EXPECT_EQ(save(*loaded), stream);
        // Both indexes: the first takes references of its own, the last
        // the load's.
        EXPECT_EQ(byKey.ids(), stableOrder(*loaded, 0)) << rows;
        EXPECT_EQ(byGroup.ids(), stableOrder(*loaded, 2)) << rows;
        // Loaded again over itself: the old rows go, the new ones are held
        // once by each index.
        load(*loaded, stream);
        EXPECT_EQ(byKey.ids(), stableOrder(*loaded, 0)) << rows;
        EXPECT_EQ(byGroup.count(), rows);
    }
}

TEST(TableIOSortedLoad, RowsWrittenBeforeTheBuildAreSortedAfresh)
{
    const std::unique_ptr<Table> source(makeLoadSource(70001));
    const QByteArray stream = save(*source);
    // Keys turned around, and keys brought together: runs sorted by the
    // old keys are out of order by the new ones, or hold equal keys out of
    // the order they came in.
    const std::function<int(int)> rewrites[] = {[](int key) { return 49 - key; }, [](int key) { return key / 7; }};
    for (const auto &rewrite : rewrites) {
        const auto loaded = makeLoadTarget();
        KeyRewriter rewriter(loaded.get(), rewrite); // built first
        IntKeyIndex byKey(loaded.get(), 0);
        load(*loaded, stream);
        EXPECT_EQ(getInt(loaded->masterIndex()->at(0), 0), rewrite(getInt(source->masterIndex()->at(0), 0)));
        EXPECT_EQ(byKey.ids(), stableOrder(*loaded, 0));
    }
}

TEST(TableIOSortedLoad, AMasterInAnotherOrderOrAFilterSortAfresh)
{
    const std::unique_ptr<Table> source(makeLoadSource(70001));
    const QByteArray stream = save(*source);
    {
        // The master orders the rows by id: not the order they came in.
        const auto loaded = makeLoadTarget();
        MessageCapture quiet; // the fast master takes no nullable column: the plain one comes
        MasterIndex_Fast::createMasterIndex(loaded.get(), {QStringLiteral("id")});
        IntKeyIndex byKey(loaded.get(), 0);
        load(*loaded, stream);
        ASSERT_EQ(getInt(loaded->masterIndex()->at(0), 1), 0);
        EXPECT_EQ(byKey.ids(), stableOrder(*loaded, 0));
    }
    {
        const auto loaded = makeLoadTarget();
        const auto accept = [](const Record &record) { return getInt(record, 1) % 3 != 0; };
        IntKeyIndex some(loaded.get(), 0, accept);
        IntKeyIndex all(loaded.get(), 0);
        load(*loaded, stream);
        EXPECT_EQ(some.ids(), stableOrder(*loaded, 0, accept));
        EXPECT_EQ(all.ids(), stableOrder(*loaded, 0));
    }
}
