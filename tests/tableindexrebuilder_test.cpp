#include <database/indexdepend.h>
#include <database/masterindex.h>
#include <database/tableindexrebuilder.h>
#include <database/tablejoin.h>

#include "tablefixture.h"
#include "testutil.h"

#include <gtest/gtest.h>

namespace {

// An index that answers a chosen class name and logs its clear and build.
class NamedIndex : public Index
{
public:
    NamedIndex(QStringList *log, const QString &name) : m_log(log), m_name(name) {}
    void clear(bool full) override { m_log->append(QStringLiteral("clear%1 %2").arg(full).arg(m_name)); }
    void clear() override { m_log->append(QStringLiteral("clear %1").arg(m_name)); }
    void build(bool full) override { m_log->append(QStringLiteral("build%1 %2").arg(full).arg(m_name)); }
    void build() override { m_log->append(QStringLiteral("build %1").arg(m_name)); }
    void add(const Record &) override { m_log->append(QStringLiteral("add %1").arg(m_name)); }
    void remove(const Record &, int) override {}
    bool filter(const Record &) const override { return true; }
    bool contains(const Record &) const override { return false; }
    QString getClassName() const override { return m_name; }

private:
    QStringList *m_log;
    QString m_name;
};

Table *intTable(const QString &name)
{
    auto *table = new Table(name);
    addKeyIdColumns(*table);
    return table;
}

TEST(TableIndexRebuilder, DetachesEmptiesAndRebuildsInGroupOrder)
{
    QStringList log;
    // Declared before the table, which empties them when it goes.
    NamedIndex join(&log, QStringLiteral("TableJoinDep")), depend(&log, QStringLiteral("IndexDependOn")),
        late(&log, QStringLiteral("MyIndexDepend")), mainJoin(&log, QStringLiteral("TableJoinMain"));
    Table table(QStringLiteral("t"));
    addKeyIdColumns(table);
    IntKeyIndex sorted(&table);
    table.setIndexName(QStringLiteral("Main"), &sorted);
    for (Index *index : {static_cast<Index *>(&join), static_cast<Index *>(&depend), static_cast<Index *>(&late),
                         static_cast<Index *>(&mainJoin)})
        table.addIndex(index);
    const QList<Index *> before = table.indexes();
    appendRow(table, {2, 1});
    log.clear();
    {
        TableIndexRebuilder rebuilder(&table);
        EXPECT_TRUE(table.indexes().isEmpty());
        EXPECT_EQ(table.namedIndex(QStringLiteral("Main")), nullptr);
        EXPECT_EQ(sorted.count(), 0);
        appendRow(table, {1, 2}); // reaches the master index only
        EXPECT_EQ(log, QStringList({"clear1 MyIndexDepend", "clear1 TableJoinMain", "clear1 IndexDependOn",
                                    "clear1 TableJoinDep"}));
        log.clear();
    }
    EXPECT_EQ(log, QStringList({"build1 TableJoinDep", "build1 IndexDependOn", "build1 MyIndexDepend",
                                "build1 TableJoinMain"}));
    EXPECT_EQ(table.indexes(), before);
    EXPECT_EQ(table.namedIndex(QStringLiteral("Main")), &sorted);
    EXPECT_EQ(sorted.ids(), std::vector<int>({2, 1}));
    EXPECT_EQ(table.rowCount(), 2);
}

TEST(IndexDependBase, ForwardsOverASnapshotAndSuspendsJoinTablesOnce)
{
    QStringList log;
    IndexDependBase depend;
    NamedIndex plain(&log, QStringLiteral("plain"));
    depend.addDependentIndex(&plain);
    depend.addDependentIndex(&plain);
    depend.add(Record());
    EXPECT_EQ(log, QStringList({"add plain", "add plain"}));
    depend.removeDependentIndex(&plain);
    log.clear();
    depend.build(false);
    depend.clear(false);
    depend.build(true); // nothing pending
    EXPECT_EQ(log, QStringList({"build plain", "clear plain"}));

    // Three join indexes of joins onto two main tables give two rebuilders;
    // an index that only carries a join class name has no table.
    QScopedPointer<Table> a(intTable("a")), b(intTable("b")), dependent(intTable("d"));
    a->setMasterIndex(new MasterIndexColumn(a.data(), QStringLiteral("key")));
    b->setMasterIndex(new MasterIndexColumn(b.data(), QStringLiteral("key")));
    dependent->setMasterIndex(new MasterIndexColumn(dependent.data(), QStringLiteral("key")));
    IntKeyIndex onA(a.data()), onB(b.data());
    {
        TableJoin joinA(a->masterIndex()), joinB(b->masterIndex());
        joinA.addDependent(dependent->masterIndex(), QStringList());
        NamedIndex fake(&log, QStringLiteral("TableJoinDep"));
        Index *joinDep = dependent->indexes().last();
        EXPECT_EQ(TableJoin::table(joinDep), a.data());
        EXPECT_EQ(TableJoin::table(&fake), nullptr);
        for (Index *index : {joinA.mainIndex(), joinDep, joinB.mainIndex(), static_cast<Index *>(&fake)})
            depend.addDependentIndex(index);
        log.clear();
        depend.clear(true);
        EXPECT_EQ(log, QStringList({"clear plain", "clear TableJoinDep"})); // plain is still there once
        EXPECT_TRUE(a->indexes().isEmpty());
        EXPECT_TRUE(b->indexes().isEmpty());
        makeRow(*a, {5, 5}).append();
        depend.build(true);
        EXPECT_EQ(a->indexes(), QList<Index *>({joinA.mainIndex(), &onA}));
        EXPECT_EQ(b->indexes(), QList<Index *>({joinB.mainIndex(), &onB}));
        EXPECT_EQ(onA.ids(), std::vector<int>({5}));
        depend.build(true); // the rebuilders are gone: nothing happens again
        EXPECT_EQ(onA.count(), 1);
    }
}

} // namespace
