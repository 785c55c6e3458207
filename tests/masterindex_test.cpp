#include "tablefixture.h"
#include "testutil.h"

#include <database/masterindex.h>
#include <database/masterindex_fast.h>
#include <database/table.h>

#include <gtest/gtest.h>

namespace {

class MasterIndexTest : public ::testing::Test
{
protected:
    MasterIndexTest()
    {
        table.addColumn(QStringLiteral("key"), FieldType::Integer);
        table.addColumn(QStringLiteral("id"), FieldType::Integer);
    }

    std::vector<int> masterIds() const
    {
        std::vector<int> ids;
        for (const Record &record : *table.masterIndex())
            ids.push_back(getInt(record, 1));
        return ids;
    }

    Table table{QStringLiteral("master")};
};

} // namespace

TEST_F(MasterIndexTest, ANewTableKeepsArrivalOrder)
{
    EXPECT_EQ(table.masterIndex()->getClassName(), QStringLiteral("MasterIndex"));
    for (int id = 0; id < 20; ++id)
        makeRow(table, {20 - id, id}).append();
    std::vector<int> expected;
    for (int id = 0; id < 20; ++id)
        expected.push_back(id);
    EXPECT_EQ(masterIds(), expected);
    table.masterIndex()->rebuild(); // rebuilding a master from itself keeps nothing
    EXPECT_EQ(table.rowCount(), 0);

    for (int id = 0; id < 600; ++id)
        makeRow(table, {id % 7, id}).append();
    table.masterIndex()->resort();
    EXPECT_EQ(getInt(table.masterIndex()->at(599), 1), 599);
    EXPECT_EQ(table.masterIndex()->search(table.masterIndex()->at(0), 41), 42);
    EXPECT_TRUE(table.masterIndex()->columnNames().isEmpty());
    EXPECT_TRUE(table.masterIndex()->toText(table.masterIndex()->at(3)).isEmpty());
    EXPECT_EQ(getInt(table.masterIndex()->findRecord(QStringLiteral("any")), 1), 0);
}

TEST_F(MasterIndexTest, PointerMasterOrdersByRowAddress)
{
    table.setMasterIndex(new MasterPtrIndex(&table));
    std::vector<Record> rows;
    for (int id = 0; id < 50; ++id) {
        rows.push_back(makeRow(table, {0, id}));
        rows.back().append();
    }
    std::sort(rows.begin(), rows.end());
    int i = 0;
    for (const Record &record : *table.masterIndex())
        EXPECT_EQ(record, rows[i++]);
    EXPECT_TRUE(table.masterIndex()->toText(rows[0]).isEmpty());
    EXPECT_TRUE(table.masterIndex()->columnNames().isEmpty());
    EXPECT_TRUE(rows[7].inTable());
    // A fresh blank row is in no index: findRecord finds nothing for it.
    EXPECT_TRUE(table.masterIndex()->findRecord(QStringLiteral("x")).isNull());
}

TEST_F(MasterIndexTest, ProxyDelegatesToTheMasterOfItsBirth)
{
    auto *pointer = new MasterPtrIndex(&table);
    table.setMasterIndex(pointer);
    auto *proxy = new MasterIndexProxy(&table);
    EXPECT_EQ(proxy->getClassName(), QStringLiteral("MasterIndexProxy"));
    const Record a(&table), b(&table);
    EXPECT_EQ(proxy->compare(a, b), pointer->compare(a, b));
    EXPECT_NE(proxy->compare(a, b), 0);
    EXPECT_TRUE(proxy->toText(a).isEmpty());
    EXPECT_EQ(proxy->fromText(QString()).table(), &table);
    delete proxy;
}

namespace {

// Key columns: a (Integer), b (String 4), then c (Double) and d (Integer,
// nullable); all but d are not nullable.
class ColumnMasterTest : public ::testing::Test
{
protected:
    ColumnMasterTest()
    {
        table.addColumn(QStringLiteral("a"), FieldType::Integer, 0, false);
        table.addColumn(QStringLiteral("b"), FieldType::String, 4, false);
        table.addColumn(QStringLiteral("c"), FieldType::Double, 0, false);
        table.addColumn(QStringLiteral("d"), FieldType::Integer, 0, true);
    }

    Record add(int a, const QString &b)
    {
        const Record record(&table);
        Field fa = record.data(0), fb = record.data(1);
        fa = a;
        fb = b;
        record.append();
        return record;
    }

    std::vector<QString> keys() const
    {
        std::vector<QString> result;
        for (const Record &record : *table.masterIndex())
            result.push_back(record.toString());
        return result;
    }

    QString fastError(const QStringList &columns)
    {
        try {
            MasterIndex_Fast index(&table, columns);
        } catch (const QString &message) {
            return message;
        }
        return QStringLiteral("<no error>");
    }

    Table table{QStringLiteral("keyed")};
};

} // namespace

TEST_F(ColumnMasterTest, OrdersByKeyValuesAndFindsByText)
{
    MasterIndexColumn::createMasterIndex(&table, {QStringLiteral("a"), QStringLiteral("b")});
    EXPECT_EQ(table.masterIndex()->getClassName(), QStringLiteral("MasterIndex"));
    EXPECT_EQ(table.masterIndex()->columnNames(), QStringList({"a", "b"}));
    add(2, QStringLiteral("b"));
    add(2, QStringLiteral("a"));
    add(1, QStringLiteral("z"));
    EXPECT_EQ(keys(), std::vector<QString>({"1,z", "2,a", "2,b"}));
    EXPECT_EQ(table.masterIndex()->findRecord(QStringLiteral("2,b")).toString(), QStringLiteral("2,b"));
    EXPECT_TRUE(table.masterIndex()->findRecord(QStringLiteral("3,b")).isNull());
    EXPECT_EQ(Record(&table, QStringLiteral("2,a")).toString(), QStringLiteral("2,a"));
    EXPECT_TRUE(Record(&table, QStringLiteral("9,a")).isNull());

    const Record blank(&table);
    EXPECT_TRUE(table.masterIndex()->toText(blank).isNull());
    try {
        table.masterIndex()->fromText(QStringLiteral("1"));
        ADD_FAILURE() << "no error";
    } catch (const QString &message) {
        EXPECT_EQ(message, QStringLiteral("Master index can't restore from text. Incorrect columns numbers: 1 != 2"));
    }
    const Record probe = table.masterIndex()->fromText(QStringLiteral("5,"));
    EXPECT_EQ(probe.data(0).toInteger(), 5);
    EXPECT_TRUE(probe.data(1).isNull()); // an empty part makes the field null
    EXPECT_FALSE(probe.inTable());
}

TEST_F(ColumnMasterTest, FastIndexOrdersByRawBytes)
{
    table.setMasterIndex(MasterIndex_Fast::create(&table, {QStringLiteral("a")}));
    EXPECT_EQ(table.masterIndex()->getClassName(), QStringLiteral("MasterIndex_Fast"));
    add(1, QStringLiteral("x"));
    add(256, QStringLiteral("y"));
    add(2, QStringLiteral("z"));
    // Little-endian slots: 256 (00 01 ..) sorts before 1 (01 00 ..).
    EXPECT_EQ(keys(), std::vector<QString>({"256", "1", "2"}));
    EXPECT_EQ(table.masterIndex()->findRecord(QStringLiteral("2")).data(1).toString(), QStringLiteral("z"));

    Table wide(QStringLiteral("wide"));
    wide.addColumn(QStringLiteral("k"), FieldType::Integer64, 0, false);
    wide.addColumn(QStringLiteral("s"), FieldType::String, 3, false);
    MasterIndex_Fast::createMasterIndex(&wide, {QStringLiteral("k"), QStringLiteral("s")});
    for (const auto &key : std::vector<std::pair<long long, const char *>>{
             {7, "ab"}, {7, "b"}, {7, "aa"}, {1, "a"}, {256, "a"}}) {
        const Record r(&wide);
        Field k = r.data(0), text = r.data(1);
        k = key.first;
        text = QString::fromLatin1(key.second);
        r.append();
    }
    QStringList order;
    for (const Record &r : *wide.masterIndex())
        order.append(r.toString());
    // An 8-byte key keeps its little-endian bytes too: 256 before 1 before 7.
    EXPECT_EQ(order, QStringList({"256,a", "1,a", "7,aa", "7,ab", "7,b"}));
}

TEST_F(ColumnMasterTest, FastIndexRefusesUnsuitableColumns)
{
    table.addColumn(QStringLiteral("e"), FieldType::Integer, 0, false);
    table.addColumn(QStringLiteral("f"), FieldType::Integer, 0, false);
    EXPECT_EQ(fastError({"a", "e"}), QStringLiteral("Columns must be sequenced: 4(e) / 1"));
    EXPECT_EQ(fastError({"c"}), QStringLiteral("Type 'Double' unsuported for c"));
    EXPECT_EQ(fastError({"d"}), QStringLiteral("Columns can't be nullable d"));
    EXPECT_EQ(fastError({"zz"}), QStringLiteral("Column 'zz' not found to create index."));
    EXPECT_EQ(fastError({"e", "f"}), QStringLiteral("<no error>"));

    MessageCapture capture;
    MasterIndex *fallback = MasterIndex_Fast::create(&table, {QStringLiteral("a"), QStringLiteral("e")});
    EXPECT_EQ(fallback->getClassName(), QStringLiteral("MasterIndex"));
    EXPECT_EQ(capture.messages, QStringList(QStringLiteral("Невозможно использовать оптимальный MasterIndex для 'keyed':\n"
                                                           "Columns must be sequenced: 4(e) / 1")));
    delete fallback;
    EXPECT_THROW(MasterIndex_Fast::create(&table, {QStringLiteral("zz")}), QString);
}

TEST_F(ColumnMasterTest, NamedSecondaryIndexes)
{
    MasterIndex *byB = MasterIndexColumn::createIndex(QStringLiteral("byB"), &table, {QStringLiteral("b")});
    EXPECT_EQ(table.namedIndex(QStringLiteral("byB")), byB);
    EXPECT_TRUE(table.indexes().contains(byB));
    add(1, QStringLiteral("q"));
    EXPECT_EQ(byB->count(), 1);

    MasterIndex_Fast::createIndex(QStringLiteral("fastA"), &table, {QStringLiteral("a")});
    Index *fastA = table.namedIndex(QStringLiteral("fastA"));
    ASSERT_NE(fastA, nullptr);
    EXPECT_FALSE(table.indexes().contains(fastA)); // named, not added
    table.removeIndex(byB);
    delete byB;
    delete fastA;
}

// ---------------------------------------------------------------------------
// Lookups by key: the hash table of a fast master index

#include "../src/database/keytable_p.h"

#include <database/recordstrans.h>

#include <QtCore/QThread>

#include <map>
#include <random>

struct MasterIndexFastProbe
{
    static bool live(const MasterIndex *master)
    {
        const auto *fast = dynamic_cast<const MasterIndex_Fast *>(master);
        return fast && fast->keysLive();
    }
};

namespace {

unsigned char *fakeRow(quint64 n)
{
    return reinterpret_cast<unsigned char *>(static_cast<quintptr>(0x1000 + 16 * n));
}

} // namespace

// Random inserts and removals over a small key space, so that runs grow
// long, wrap around the end of the slots and are cut in the middle; checked
// after every step against a plain map.
TEST(KeyTable, FollowsAMapThroughInsertsAndRemovals)
{
    std::mt19937 random(7);
    for (const int keySpace : {12, 40, 300}) {
        KeyTable table;
        std::map<quint64, unsigned char *> model;
        for (int step = 0; step < 4000; ++step) {
            const quint64 key = random() % static_cast<unsigned>(keySpace);
            const auto it = model.find(key);
            if (random() % 3 != 0) {
                const bool added = table.insert(key, fakeRow(key + 1000 * static_cast<quint64>(step)));
                EXPECT_EQ(added, it == model.end()) << key;
                if (added)
                    model[key] = fakeRow(key + 1000 * static_cast<quint64>(step));
            } else if (it != model.end()) {
                EXPECT_FALSE(table.erase(key, fakeRow(99999999))); // another row under that key
                EXPECT_TRUE(table.erase(key, it->second));
                model.erase(it);
            } else {
                EXPECT_FALSE(table.erase(key, fakeRow(key)));
            }
            ASSERT_EQ(table.count(), static_cast<int>(model.size()));
            for (quint64 k = 0; k < static_cast<quint64>(keySpace); ++k) {
                const auto m = model.find(k);
                ASSERT_EQ(table.find(k), m == model.end() ? nullptr : m->second) << "step " << step << " key " << k;
                EXPECT_EQ(table.holds(k, fakeRow(99999999)), false);
            }
        }
        // At most half full, whatever it went through.
        EXPECT_LE(2 * static_cast<std::size_t>(table.count()) * 16, table.bytes());
    }
}

namespace {

// A fast master index over an Integer key, driven by random changes of
// every kind; each lookup is checked against a scan of the master index.
class FastLookupTest : public ::testing::Test
{
protected:
    FastLookupTest()
    {
        table.addColumn(QStringLiteral("key"), FieldType::Integer, 0, false);
        table.addColumn(QStringLiteral("id"), FieldType::Integer);
        MasterIndex_Fast::createMasterIndex(&table, {QStringLiteral("key")});
    }

    MasterIndex *master() const { return table.masterIndex(); }

    // The first row of the master index with `key`, by a scan.
    Record scan(int key) const
    {
        for (const Record &record : *master()) {
            if (getInt(record, 0) == key)
                return record;
        }
        return Record();
    }

    Record lookup(int key) const
    {
        const Record probe = makeRow(const_cast<Table &>(table), {key});
        return master()->findRecord(probe);
    }

    // Every key of the space, looked up under the lock.
    void checkAll(const char *step)
    {
        TableLocker locker(&table);
        for (int key = 0; key < KeySpace; ++key)
            ASSERT_EQ(lookup(key).rowPtr(), scan(key).rowPtr()) << step << ": key " << key;
    }

    static constexpr int KeySpace = 120;
    Table table{QStringLiteral("quotes")};
    int nextId = 0;
};

} // namespace

TEST_F(FastLookupTest, LookupsAgreeWithAScanThroughEveryKindOfChange)
{
    std::mt19937 random(11);
    auto freeKey = [&]() {
        for (;;) {
            const int key = static_cast<int>(random() % KeySpace);
            if (scan(key).isNull())
                return key;
        }
    };
    auto anyRow = [&]() { return master()->at(static_cast<int>(random() % static_cast<unsigned>(master()->count()))); };
    for (int key = 0; key < KeySpace; key += 2)
        makeRow(table, {key, nextId++}).append();
    checkAll("filled");
    EXPECT_TRUE(MasterIndexFastProbe::live(master()));

    int liveSteps = 0;
    std::vector<Record> duplicates;
    for (int step = 0; step < 600; ++step) {
        const int kind = static_cast<int>(random() % 8);
        const char *name = "";
        if (kind == 0 && master()->count() < KeySpace - 10) {
            name = "append";
            TableUpdater updater(&table);
            makeRow(table, {freeKey(), nextId++}).append();
        } else if (kind == 1 && master()->count() > 10) {
            name = "remove";
            TableUpdater updater(&table);
            anyRow().remove();
        } else if (kind == 2 || kind == 3) {
            name = "transaction";
            TableUpdater updater(&table);
            RecordsTrans trans(&table);
            for (int i = 0; i < 6; ++i) {
                const int key = static_cast<int>(random() % KeySpace);
                const Record probe = makeRow(table, {key, nextId++});
                RecordUpdater row(probe, trans);
                ASSERT_EQ(row.isFound(), !scan(key).isNull());
                if (random() % 4 == 0)
                    row.remove();
                else
                    setInt(row, 1, nextId++);
            }
        } else if (kind == 4) {
            name = "batch";
            QVector<Record> records;
            for (int i = 0; i < 3 && master()->count() + i < KeySpace - 10; ++i) {
                int key = freeKey();
                for (const Record &r : records)
                    key = getInt(r, 0) == key ? freeKey() : key;
                records.append(makeRow(table, {key, nextId++}));
            }
            TableUpdater updater(&table);
            table.appendRecords(records);
        } else if (kind == 5 && step % 5 == 0) {
            name = "key changed and reported";
            TableUpdater updater(&table);
            const Record row = anyRow();
            setInt(row, 0, freeKey());
            if (step % 2)
                row.updated(0);
            else
                table.process({}, {row}, 0, 0, {});
        } else if (kind == 6 && step % 7 == 0) {
            name = "duplicate key";
            TableUpdater updater(&table);
            duplicates.push_back(makeRow(table, {getInt(anyRow(), 0), nextId++}));
            duplicates.back().append();
        } else if (step % 13 == 0 && !duplicates.empty()) {
            name = "duplicates gone";
            TableUpdater updater(&table);
            for (const Record &row : duplicates)
                row.remove();
            duplicates.clear();
        } else if (kind == 7 && step % 50 == 0) {
            name = "cleared";
            TableUpdater updater(&table);
            table.clear();
            for (int key = 0; key < 50; ++key)
                makeRow(table, {key * 2 + 1, nextId++}).append();
        }
        checkAll(name);
        liveSteps += MasterIndexFastProbe::live(master()) ? 1 : 0;
        if (HasFatalFailure())
            return;
    }
    // Refusals (key changes, duplicates) are the exception: most of the run
    // was answered from the key table.
    EXPECT_GT(liveSteps, 300) << liveSteps;
    EXPECT_LT(liveSteps, 600);
}

TEST_F(FastLookupTest, TheKeyTableIsBuiltUnderTheLockOnlyAndDropsAKeyThatChangedUnreported)
{
    for (int key = 0; key < 40; ++key)
        makeRow(table, {key, key}).append();
    // Another thread's lookups without the lock search and build nothing.
    Record found;
    QThread *thread = QThread::create([&]() { found = lookup(7); });
    thread->start();
    thread->wait();
    delete thread;
    EXPECT_EQ(getInt(found, 1), 7);
    EXPECT_FALSE(MasterIndexFastProbe::live(master()));
    {
        TableLocker locker(&table);
        EXPECT_EQ(getInt(lookup(7), 1), 7);
    }
    EXPECT_TRUE(MasterIndexFastProbe::live(master()));

    // Value updates keep it; a lookup never answers a row whose key is not
    // the one asked for.
    const Record row = lookup(9);
    {
        TableUpdater updater(&table);
        RecordsTrans trans(&table);
        RecordUpdater(makeRow(table, {9}), trans).data(1) = 90;
    }
    EXPECT_TRUE(MasterIndexFastProbe::live(master()));
    setInt(row, 0, 1000); // unreported
    TableLocker locker(&table);
    EXPECT_TRUE(lookup(9).isNull());
    EXPECT_FALSE(MasterIndexFastProbe::live(master()));
}

#ifdef DATABASE_CHECKS
TEST_F(FastLookupTest, ABatchAfterAKeyChangedUnreportedStops)
{
    ::testing::FLAGS_gtest_death_test_style = "threadsafe";
    for (int key = 0; key < 10; ++key)
        makeRow(table, {key, key}).append();
    {
        TableLocker locker(&table);
        lookup(3);
    }
    EXPECT_DEATH(
        {
            setInt(lookup(4), 0, 77); // unreported
            TableUpdater updater(&table);
            makeRow(table, {50, 50}).append();
        },
        "MasterIndex_Fast of quotes: the key of row 4 changed unreported");
}
#endif

// A subclass may search otherwise than the bytes say: its own search()
// answers, as before there was a key table.
TEST_F(FastLookupTest, ASubclassKeepsItsOwnSearch)
{
    struct Counting : MasterIndex_Fast
    {
        using MasterIndex_Fast::MasterIndex_Fast;
        int search(const Record &key, int after) const override
        {
            ++searches;
            return MasterIndex_Fast::search(key, after);
        }
        mutable int searches = 0;
    };
    auto *counting = new Counting(&table, QStringList{QStringLiteral("key")});
    table.setMasterIndex(counting);
    for (int key = 0; key < 10; ++key)
        makeRow(table, {key, key}).append();
    TableUpdater updater(&table);
    RecordsTrans trans(&table);
    EXPECT_TRUE(RecordUpdater(makeRow(table, {4}), trans).isFound());
    EXPECT_FALSE(RecordUpdater(makeRow(table, {40}), trans).isFound());
    EXPECT_EQ(counting->searches, 2);
    EXPECT_FALSE(MasterIndexFastProbe::live(counting));
    trans.clear();
}
