#ifndef DATABASE_TABLEJOIN_H
#define DATABASE_TABLEJOIN_H

#include "database_export.h"
#include "index.h"

#include <QtCore/QList>
#include <QtCore/QPair>
#include <QtCore/QScopedPointer>
#include <QtCore/QStringList>

class MasterIndex;
class TableJoin;
class TableJoinPrivate;
class TablePrivate;
struct TableJoinLink;

// TableJoin keeps columns of a main table's rows filled from the rows of
// dependent tables that have the same key.
//
// What is joined. Each dependent table is joined through its master index:
// its key columns are matched by name with columns of the main table (the
// main row's join key), and chosen main columns are filled from the
// dependent columns of the dependent row whose master key equals it, or set
// null when no dependent row has that key. Keys match when the dependent
// master index compares them equal after the main fields are converted to
// the dependent column types. Filled columns can be neither join keys nor
// master key columns of the main table.
//
// Who listens where.
//   TableJoinMain  an ordinary index of the main table, kept first in its
//                  index list. It files every main row under its join key
//                  (a hash, so a dependent key finds all of its main rows
//                  without a scan) and fills a row when it is added or its
//                  join key changes, before the later indexes hear of the
//                  row: they see the filled values.
//   TableJoinDep   one per dependent table, an ordinary index and also a
//                  dependent index of that table. It notes the keys of the
//                  dependent rows that change; the main rows with those keys
//                  are refilled, and the main table's indexes are told
//                  through one Table::process() for the columns filled from
//                  that table, when the dependent table's batch ends (at
//                  once for a change outside a batch). Emptying it (a clear,
//                  a reload) sets the filled columns null until it is built
//                  again; building refills every main row.
// Each changed row costs one master-key search on the other table.
//
// Locks. The main table first, then a dependent table, always. A batch on a
// dependent table opens an exclusive batch on the main table (see
// Table::beginExclusiveUpdate) when it opens, before the dependent table
// locks, and closes it after the dependent table unlocks; a change of the
// main table reads the dependent tables under their locks while it holds
// the main one. A change of a dependent table under a bare TableLocker
// (outside a batch) refills when this thread lets go of that lock, or at
// once when it holds the main table too. So threads that change the main
// and a dependent table at the same time wait for each other instead of
// deadlocking. Debug and sanitizer builds stop a thread that locks a main
// table while it holds one of its dependent tables. A join of a table to
// itself, or one that would close a cycle of joins, is refused.
//
// Keys that match nothing: a main key with a null field, or with a value
// that the dependent key column cannot take, leaves the filled columns null.
// A change of a main row's join key reaches the main table's later indexes
// as a change of the filled columns as well.
//
// Rebuilding. TableJoinMain rebuilds with the main table's other indexes
// (its class name puts it among them) and fills without notifying them, so
// rebuild it together with them (Table::build(), TableIndexRebuilder, a
// reload); a TableIndexRebuilder builds it before all the others, since
// they may read what it fills. TableJoinDep forms the group that TableIndexRebuilder empties
// last and rebuilds first. TableJoin::table() answers the main table for
// both index classes, so IndexDependBase::clear(true) rebuilds the main
// table's indexes.
//
// Lifetime: the join owns its indexes and takes them off the tables when it
// is destroyed. Destroy it before its tables: a table destroyed first is
// let go of (its indexes stop being kept current), without a crash but
// without its joined values either. Set the tables' master indexes before
// joining them.
class DATABASE_EXPORT TableJoin
{
public:
    // A join onto the table of `mainIndex`, the main table's master index.
    explicit TableJoin(MasterIndex *mainIndex);
    ~TableJoin();
    TableJoin(const TableJoin &) = delete;
    TableJoin &operator=(const TableJoin &) = delete;

    Table *mainTable() const;
    // The index that listens on the main table.
    Index *mainIndex() const;
    QList<Table *> dependentTables() const;

    // Joins the table of `dependentIndex` (its master index): each of
    // `columns` is filled from the dependent column of the same name. The
    // main rows are filled at once. Failures are thrown as a bare QString:
    // "Column '%1' not found to join table '%2'." for a key or filled column
    // that either table lacks, "Table '%1' has no key columns to join." for
    // a master index without key columns, "Column '%1' of table '%2' is a
    // key and can't be filled by a join." for a filled key column; a key
    // whose types cannot convert throws Exception ("Can't convert ...").
    void addDependent(MasterIndex *dependentIndex, const QStringList &columns);
    // The same with (main column, dependent column) pairs of names.
    void addDependent(MasterIndex *dependentIndex, const QList<QPair<QString, QString>> &columns);

    // Hands the join to the application core's join registration.
    void registerWithCore();

    // Whether `index` is a join index by its class name: "TableJoinMain"
    // answers true and sets *isDependent false, "TableJoinDep" answers true
    // and sets it true; any other leaves the flag alone and answers false.
    static bool isJoinIndex(Index *index, bool *isDependent);
    // The main table of the join a join index belongs to; null for any
    // other index (also one that only carries a join class name).
    static Table *table(Index *index);

private:
    friend class Table;
    friend class TableJoinMain;
    friend class TableJoinDep;
    friend class TableJoinPrivate;
    static TablePrivate *tablePrivate(Table *table);
    // Widens a changed range of main columns by the columns the join fills
    // from a dependent table whose key is in it.
    void widen(int &firstColumn, int &lastColumn) const;
    static bool beginExclusive(Table *table);
    static void endExclusive(Table *table, bool opened);
    static void setIndexes(Table *table, const QList<Index *> &indexes);

    QScopedPointer<TableJoinPrivate> d;
};

// The main join index: files and fills main rows (see TableJoin).
class DATABASE_EXPORT TableJoinMain : public Index
{
public:
    using Index::build;
    using Index::clear;
    void clear() override;
    // Files and fills every row of the main table, under its lock, without
    // notifying the other indexes.
    void build() override;
    void add(const Record &record) override;
    void process(const QList<Record> &removed, const QList<Record> &updated, int firstColumn, int lastColumn,
                 const QList<Record> &inserted) override;
    void remove(const Record &record, int position) override;
    bool filter(const Record &record) const override;
    bool contains(const Record &record) const override;
    // Refiles and refills the row when a join key column is in the range.
    void update(const Record &record, int firstColumn, int lastColumn, int position) override;
    QString getClassName() const override;

    TableJoin *join() const { return m_join; }

private:
    friend class TableJoin;
    friend class TableJoinPrivate;
    explicit TableJoinMain(TableJoin *join);

    TableJoin *m_join;
};

// A dependent join index: notes the changed keys of one dependent table.
class DATABASE_EXPORT TableJoinDep : public Index
{
public:
    using Index::build;
    using Index::clear;
    // The filled columns go null (once the batch ends).
    void clear() override;
    // Every main row is refilled.
    void build() override;
    void add(const Record &record) override;
    void process(const QList<Record> &removed, const QList<Record> &updated, int firstColumn, int lastColumn,
                 const QList<Record> &inserted) override;
    void remove(const Record &record, int position) override;
    bool filter(const Record &record) const override;
    bool contains(const Record &record) const override;
    void update(const Record &record, int firstColumn, int lastColumn, int position) override;
    void dependentBeginUpdate(Table *table) override;
    void dependentEndUpdate(Table *table) override;
    QString getClassName() const override;

    TableJoin *join() const { return m_join; }
    Table *dependentTable() const;

private:
    friend class TableJoin;
    friend class TableJoinPrivate;
    TableJoinDep(TableJoin *join, TableJoinLink *link);

    TableJoin *m_join;
    TableJoinLink *m_link;
};

namespace TableJoinNamespace {

// The key columns of a join: for each key column of `dependent` (a master
// index with key columns), in key order, the pair (column of the main
// table of `main` with the same name, the dependent column). Throws a bare
// QString "Column '%1' not found to join table '%2'." when the main table
// lacks one.
DATABASE_EXPORT QList<QPair<int, int>> connectIndexes(MasterIndex *main, MasterIndex *dependent);

// Writes a main row's key field into the matching key field of a dependent
// table's row, converted to that column's type (a null stays null), so that
// the dependent master index can search for it. Answers whether the key
// field holds a value. Conversion failures throw as Field assignment does.
DATABASE_EXPORT bool typeToMaster(const Field &value, Field key);

} // namespace TableJoinNamespace

#endif // DATABASE_TABLEJOIN_H
