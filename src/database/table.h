#ifndef DATABASE_TABLE_H
#define DATABASE_TABLE_H

#include "columndef.h"
#include "database_export.h"
#include "field.h"
#include "fieldtype.h"

#include <QtCore/QList>
#include <QtCore/QObject>
#include <QtCore/QScopedPointer>
#include <QtCore/QString>
#include <QtCore/QVector>
#include <QtCore/QtGlobal>

#include <functional>

class Index;
class MasterIndex;
class Table;
class TablePrivate;

// The reference count of a row: the first four bytes of its block, changed
// only atomically. Rows are allocated 8-byte aligned, so the count is aligned.
namespace RowRef {
inline bool ref(unsigned char *row)
{
    return __atomic_add_fetch(reinterpret_cast<quint32 *>(row), 1u, __ATOMIC_SEQ_CST) != 0;
}
inline bool deref(unsigned char *row)
{
    return __atomic_sub_fetch(reinterpret_cast<quint32 *>(row), 1u, __ATOMIC_SEQ_CST) != 0;
}
DATABASE_EXPORT void freeRow(unsigned char *row);
} // namespace RowRef

// Record: a counted handle on one row of one table. Every non-null Record
// holds one reference on its row; the row is freed when the last reference
// goes. Two records are the same record exactly when they share the row
// block: equality and order compare the row addresses and ignore the table.
//
// Copies are cheap (two pointers and one atomic increment) and may be made
// and dropped on any thread; moves cost no atomic operation at all, and a
// Record may be relocated bytewise (containers move them with memmove).
class DATABASE_EXPORT Record
{
public:
    static const Record null;

    Record() noexcept : m_table(nullptr), m_row(nullptr) {}
    // A new row of `table`, in no index until appended; every field is null.
    explicit Record(const Table *table);
    // The row whose master key has the text form `key`, or a null record.
    Record(const Table *table, const QString &key);

    Record(const Record &other) noexcept : m_table(other.m_table), m_row(other.m_row)
    {
        if (m_row)
            RowRef::ref(m_row);
    }
    Record(Record &&other) noexcept : m_table(other.m_table), m_row(other.m_row)
    {
        other.m_table = nullptr;
        other.m_row = nullptr;
    }
    ~Record() { release(); }

    Record &operator=(const Record &other) noexcept
    {
        if (m_table == other.m_table && m_row == other.m_row)
            return *this;
        release();
        m_table = other.m_table;
        m_row = other.m_row;
        if (m_row)
            RowRef::ref(m_row);
        return *this;
    }
    Record &operator=(Record &&other) noexcept
    {
        if (this != &other) {
            release();
            m_table = other.m_table;
            m_row = other.m_row;
            other.m_table = nullptr;
            other.m_row = nullptr;
        }
        return *this;
    }
    friend void swap(Record &a, Record &b) noexcept
    {
        std::swap(a.m_table, b.m_table);
        std::swap(a.m_row, b.m_row);
    }

    bool isNull() const { return !m_table || !m_row; }
    const Table *table() const { return m_table; }
    unsigned char *rowPtr() const { return m_row; }
    // The same as rowPtr(), under the name older callers use.
    unsigned char *pointer() const { return m_row; }

    bool operator==(const Record &other) const { return m_row == other.m_row; }
    bool operator!=(const Record &other) const { return m_row != other.m_row; }
    bool operator<(const Record &other) const { return std::less<const unsigned char *>()(m_row, other.m_row); }

    // The field of a column. The number is not checked; an unknown name
    // throws Exception ("Column '%1' not found in table '%2'.").
    Field data(int column) const;
    Field data(const QString &name) const;

    // Whether the table's master index holds this row.
    bool inTable() const;
    // The master index's text form of the record's key; empty when null.
    QString toString() const;

    // Table notifications for this record (see Table): all columns, one
    // column, or a range of columns changed; enter or leave the table.
    void updated() const;
    void updated(int column) const;
    void updated(int firstColumn, int lastColumn) const;
    void append() const;
    void remove() const;

protected:
    friend class Table;
    friend class TableModel;
    friend class MasterIndex_Fast;
    friend class RecordsTrans;
    // Adds a reference to `row`, which must not be null.
    Record(const Table *table, unsigned char *row) noexcept : m_table(table), m_row(row) { RowRef::ref(m_row); }

private:
    void release() noexcept
    {
        if (m_table && m_row && !RowRef::deref(m_row))
            RowRef::freeRow(m_row);
    }

    const Table *m_table;
    unsigned char *m_row;
};

Q_DECLARE_TYPEINFO(Record, Q_MOVABLE_TYPE);


// Table: a named set of typed columns that lays out rows, and the hub that
// keeps the table's indexes current.
//
// A table holds no rows itself. Its rows are the records of its master
// index (a MasterIndexOrdered until setMasterIndex installs another); the
// ordinary indexes each hold the rows they accept, and dependent indexes
// (of other tables, joins) hear when a batch starts and ends. The table owns
// its master index and column definitions, never its other indexes.
//
// Changes reach the indexes in a fixed order:
//   appendRow    master add, then each index whose filter accepts the row
//   appendList   master process, then each index's process
//   remove       each index remove(record, -1), then the master index last
//   updated      master update, then each index update(..., -1)
//   process      master first, then each index, same arguments
//   clear        each index, then the master index
//   build        each index (the master index is not rebuilt)
// Every loop runs over a copy of the index list, so an index may register or
// unregister itself while it is being notified.
//
// Thread safety: one recursive mutex per table. The contract is one writer
// thread per table at a time, readers under TableLocker:
//   - Writers bracket a batch with TableUpdater. Only the outermost level
//     locks, and a nested level only counts, whichever thread opens it: a
//     second thread that opens a TableUpdater while another's batch is open
//     is let in unlocked. Builds with assertions stop there with a message.
//   - Readers on other threads hold a TableLocker while they read. A batch
//     about to open lets readers already waiting for the lock in first (it
//     waits up to 2 ms for them), so back-to-back batches do not starve them.
//   - The change operations above take no lock themselves.
//   - Schema changes (addColumn) are made by the owning thread before rows
//     are shared.
class DATABASE_EXPORT Table : public QObject
{
    Q_OBJECT

public:
    // Offset of the data area in a row block: the reference count comes first.
    static const int base;
    // The longest row (64 MiB) and string column (32 Mi units) a table takes;
    // addColumn refuses what would exceed them.
    static const unsigned long long maxRowSize;
    static const int maxStringLength;

    // One position per ordinary index, in index order: where a record stood
    // before it changed (see buildKeeper).
    using UpdateKeeper = QList<int>;

    explicit Table(const QString &name, const QString &title = QString(), QObject *parent = nullptr);
    // Empties every ordinary index, deletes the master index (freeing the rows
    // no client still holds) and the column definitions. Ordinary and
    // dependent indexes are not deleted and must not be used afterwards.
    ~Table() override;

    QString name() const;
    // The title, or the name when the title is empty.
    QString title() const;
    void setTitle(const QString &title);

    // Schema. addColumn throws Exception for an empty name ("Column name can't
    // be empty."), an undefined type or zero-length string, and a name that
    // exists (compared case-insensitively) with a declaration that cannot
    // hold the new one ("Column '%1' already exists for table '%2'."); a
    // declaration the existing column can hold is a silent no-op. A String
    // length below 0 or above maxStringLength, or a column that would make
    // rows longer than maxRowSize, throws Exception naming the column. Adding a
    // column to a table with rows reallocates every row: Records and Fields
    // held outside the table's indexes are left dangling (with a warning).
    int columnCount() const;
    void addColumn(const TableColumnDef &def);
    void addColumn(const QString &name, const FieldDef &def, bool nullable = true, const QString &title = QString(),
                   bool secondFlag = true, const QString &description = QString());
    void addColumn(const QString &name, FieldType::Type type, int length = 0, bool nullable = true,
                   const QString &title = QString(), bool secondFlag = true, const QString &description = QString());

    // Lookups by name are case-sensitive; -1 when there is no such column.
    int columnIndex(const QString &name) const;
    bool columnExists(const QString &name) const;
    // REQUIRES: an existing column number (not checked); an unknown name
    // throws Exception as Record::data does.
    const TableColumnDef &columnDef(int column) const;
    const TableColumnDef &columnDef(const QString &name) const;
    QString columnName(int column) const;
    FieldType::Type columnType(int column) const;
    QString columnTypeName(int column) const;
    QString columnDescription(int column) const;
    QString columnTitle(int column) const;
    void setColumnTitle(int column, const QString &title);
    QList<ColumnDef> columns() const;
    // The table's own definitions, still owned by the table.
    QList<TableColumnDef *> fieldDefs() const;
    // Sum of the slot widths.
    unsigned long long rowLength() const;
    // Bytes of a whole row: count, slots and null bits.
    unsigned long long rowSize() const;

    // Rows. allocRow gives a zero-filled, 8-byte aligned block with count 0
    // and every field null; the first Record on it takes the first reference.
    unsigned char *allocRow() const;
    static void freeRow(unsigned char *row);
    // Both answer whether the count is non-zero after the change.
    static bool ref(unsigned char *row) { return RowRef::ref(row); }
    static bool deref(unsigned char *row) { return RowRef::deref(row); }
    static unsigned int references(const unsigned char *row);
    // Does nothing: kept because callers of the interface still call it.
    static void hasRow(unsigned char *row);
    // Bit `column` of a null-bit area (a row's is at its data area + rowLength):
    // true when clear, that is when the field is null.
    static bool isNullPtr(unsigned char *nullArea, int column);
    static void setNullPtr(unsigned char *nullArea, int column, bool isNull);

    // Indexes. The table never deletes ordinary or dependent indexes.
    void addIndex(Index *index);
    void removeIndex(Index *index);
    void addDependentIndex(Index *index);
    void removeDependentIndex(Index *index);
    QList<Index *> indexes() const;
    QList<Index *> dependentIndexes() const;
    void setIndexName(const QString &name, Index *index);
    Index *namedIndex(const QString &name) const;
    QString indexName(Index *index) const;
    MasterIndex *masterIndex() const;
    // Deletes the current master index unless it is `index`.
    void setMasterIndex(MasterIndex *index);
    int rowCount() const;

    // Changes (see the class comment for who hears what, in which order).
    void appendRow(unsigned char *row);
    void appendList(const QList<Record> &records);
    // The same for a vector of new rows: the bulk form, which spares the
    // heap node a QList allocates per record. Indexes hear it as from
    // appendList.
    void appendRecords(const QVector<Record> &records);
    void remove(const Record &record, int position = -1);
    void updated(const Record &record, int firstColumn, int lastColumn, int position);
    void updated(const Record &record, int position = -1);
    // Positions of `record` in every ordinary index, taken before changing it.
    UpdateKeeper buildKeeper(const Record &record) const;
    // After the change: each ordinary index gets its saved position. The
    // master index is not told: for changes outside the master key.
    void updated(const Record &record, const UpdateKeeper &keeper, int firstColumn, int lastColumn);
    void updated(const Record &record, const UpdateKeeper &keeper);
    void process(const QList<Record> &removed, const QList<Record> &updated, int firstColumn, int lastColumn,
                 const QList<Record> &inserted);
    void clear();
    void build();

Q_SIGNALS:
    void indexAdded(Index *index);
    void indexRemoved(Index *index);
    void dependentIndexAdded(Index *index);
    void dependentIndexRemoved(Index *index);

protected:
    friend class Record;
    friend class TableUpdater;
    friend class TableLocker;
    friend class TableIO;
    friend class TableJoin;
    friend class TableModel;
    friend class TableIndexRebuilder;
    friend class MasterIndex_Fast;

    // Only the outermost level acts: dependents hear dependentBeginUpdate,
    // the table locks, the master index and each index hear beginUpdate.
    // endUpdate tells the indexes (not the master index), unlocks, then
    // tells the dependents.
    void beginUpdate();
    void endUpdate();
    // A batch that always excludes other writers, for a writer that cannot
    // rely on batches being opened by one thread at a time (a join changing
    // its main table from the thread that changes a dependent table). The
    // outermost level acts as beginUpdate does but leaves the nesting count
    // alone, so another thread's beginUpdate locks and waits instead of
    // counting itself in. Inside a batch this thread already holds it only
    // locks; the answer tells endExclusiveUpdate which of the two it did.
    bool beginExclusiveUpdate();
    void endExclusiveUpdate(bool opened);
    void lock();
    void unlock();
    void setIndexes(const QList<Index *> &indexes);
    // Many columns added to a rowless table in a row: the null-bit layout of
    // every column is worked out once, when the outermost call ends, instead
    // of once per column.
    void deferNullLayout(bool defer);
    Field dataPtr(unsigned char *row, int column) const
    {
        return Field(m_columnDefs[column], row + base);
    }

private:
    // The range the ordinary indexes hear: a change of a join key refills
    // the joined columns before they hear of it.
    void widenByJoins(int &firstColumn, int &lastColumn) const;
    void updateNullLayout();

    Q_DECLARE_PRIVATE(Table)
    QScopedPointer<TablePrivate> d_ptr;
    // The column definitions' array, kept beside the private data so that
    // field access (every comparison of every index) stays inline.
    TableColumnDef *const *m_columnDefs = nullptr;
};

inline Field Record::data(int column) const
{
    return m_table->dataPtr(m_row, column);
}

// Opens a batch on construction and closes it on destruction. A copy does
// not open another batch but closes one when destroyed.
class DATABASE_EXPORT TableUpdater
{
public:
    explicit TableUpdater(Table *table) : m_table(table) { m_table->beginUpdate(); }
    ~TableUpdater() { m_table->endUpdate(); }
    TableUpdater(const TableUpdater &other) = default;
    TableUpdater &operator=(const TableUpdater &other) = default;

private:
    Table *m_table;
};

// Holds the table's lock for its lifetime (readers on other threads). A copy
// does not lock again but unlocks when destroyed.
class DATABASE_EXPORT TableLocker
{
public:
    explicit TableLocker(Table *table) : m_table(table) { m_table->lock(); }
    ~TableLocker() { m_table->unlock(); }
    TableLocker(const TableLocker &other) = default;
    TableLocker &operator=(const TableLocker &other) = default;

private:
    Table *m_table;
};

#endif // DATABASE_TABLE_H
