#ifndef DATABASE_TABLEMODEL_H
#define DATABASE_TABLEMODEL_H

#include "database_export.h"
#include "table.h"

#include <QtCore/QAbstractTableModel>
#include <QtCore/QStringList>

#include <memory>

class IndexList;
class IndexVector;
class TableModelPrivate;

// TableModel: an item model over one list-like index of a table (its master
// index, an IndexList, IndexSort or IndexVector), for views and proxies.
// Rows are the index's records in the index's order; columns are the table
// columns chosen by name (all of them by default, in table order).
//
// Roles: Qt::DisplayRole is the field's display text in the system locale
// (Field::toSystemString), Qt::EditRole and ValueRole its value
// (Field::toVariant), SortRole a value that QSortFilterProxyModel orders
// numerically (a decimal as a double). A null field is an invalid QVariant in
// every role. Numeric columns align right. Horizontal headers are the column
// titles, with the description as tool tip.
//
// Keeping current. The model hears the table's changes through an index of
// its own, which only queues them: under the table's lock (so from any
// writer thread) it notes which rows were added, removed or updated, with
// the changed columns, and posts one event to the model's thread when the
// batch ends. There the model takes the table's lock, compares its rows
// with the index's and emits exactly what changed:
//   - rowsRemoved, then rowsInserted and rowsMoved, each run of adjacent
//     rows as one signal; rows only changed in place are not moved;
//   - dataChanged for the changed rows and only the changed columns, runs
//     of adjacent rows with the same columns as one signal;
//   - past layoutThreshold() row signals in one update, one layoutChanged
//     instead (persistent indexes follow their records; those of rows that
//     left become invalid); past layoutThreshold() dataChanged signals, one
//     dataChanged spanning them; a clear or rebuild of the index is one
//     layoutChanged;
//   - a reset when the row layout changed under rows the model shows (a
//     column added), the index was deleted (the model is then empty) or the
//     table was destroyed; columns added to a table the model shows no rows
//     of are inserted.
// The signals go out without the table's lock: the update takes what it
// needs under it, and cells are read under it, so views' and proxies' slots
// never run under a writer's lock and may lock other tables.
// Changes arriving while the model is busy or within updateInterval() of
// the last update are coalesced into the next one. An update after one
// batch of a sorted index follows the edit the batch made (the positions it
// removed and inserted): the model copies its own row addresses with the
// edit applied and plans from the changed rows' places. Any other update
// reads the whole index once and matches it with what is shown (a pass over
// the handles, about a millisecond per million rows), whatever the number
// of changes.
//
// Reads. The model keeps its own snapshot of the rows' addresses. The rows
// stay allocated while the model may show them: rows that leave the table
// are held by the model's queue until the update that removes them from the
// view. Cells are read under the table's lock (a TableLocker), so never
// from a row half written, a page of 64 rows at a time: the values are kept
// until the next update, and a writer's batch delays a repaint once rather
// than once per cell. While an update signals, a cell keeps the value first
// read from its row until the update ends, wherever the signals move the
// row: slots comparing a row before and after a signal see the same value. A batch about to open lets a waiting reader take the
// lock first, so a writer that opens batches back to back does not starve
// the view. After a column is added to a table with rows, cells not read
// before read as invalid until the reset.
//
// Rules: the model must be used from its own thread (the one it lives in),
// which runs an event loop or calls update() itself; it must be deleted
// before its table, or the table destroyed on the model's thread. The index
// may be deleted at any time, from any thread (a TableIndexRebuilder may
// also take it off the table for a while: the model waits for it to come
// back). The model learns of changes only through the table: an index
// reordered behind its back (IndexSort::resort(), IndexVector::resort())
// needs refresh(). A new master index: the model holds the rows it shows
// until it has read the new one.
//
// Sorting. The model's order is the index's, exact at every update: show
// a sorted index (an IndexSort) for a live sorted view. A
// QSortFilterProxyModel sorting on a column the table changes can misplace
// rows for good: it places each row of a dataChanged or rowsInserted by a
// binary search over the others, and when one update carries several
// changed rows, the rows not yet announced already read their new values
// (the model has no copy of the old ones). A proxy whose sort or filter
// column never changes in place, or one invalidated after each updated(),
// is exact.
//
// Editing: setData is not offered. A view's edit happens on the model's
// thread, while the table's changes must come from its one writer thread
// inside that thread's batches; an edit that opened a batch of its own
// would be a second writer. Hosts route edits to the writer instead.
class DATABASE_EXPORT TableModel : public QAbstractTableModel
{
    Q_OBJECT

public:
    enum Role {
        ValueRole = Qt::UserRole,
        SortRole,
    };

    // Row signals one update may emit before it becomes a layoutChanged.
    static const int defaultLayoutThreshold;

    // The table's rows in its master index's order. An unknown column name
    // throws Exception ("Column '%1' not found in table '%2'.").
    explicit TableModel(Table *table, const QStringList &columns = QStringList(), QObject *parent = nullptr);
    // The rows of `index`, which must belong to a table (an index without
    // one shows no rows).
    explicit TableModel(IndexList *index, const QStringList &columns = QStringList(), QObject *parent = nullptr);
    explicit TableModel(IndexVector *index, const QStringList &columns = QStringList(), QObject *parent = nullptr);
    // Stops listening, waiting for a batch in progress to end.
    ~TableModel() override;

    // Null once the table is gone.
    Table *table() const;
    // The table column shown in model column `column`; -1 out of range.
    int tableColumn(int column) const;
    // The record shown in `row`, or a null record.
    Record record(int row) const;

    int layoutThreshold() const;
    // Taken between 0 (every change is a layout change) and 1000.
    void setLayoutThreshold(int count);
    // The shortest time between two updates, in milliseconds (0 by default:
    // update as soon as the event loop gets to it).
    int updateInterval() const;
    void setUpdateInterval(int milliseconds);
    // Whether changes heard from the table are not shown yet.
    bool hasPendingChanges() const;

    int rowCount(const QModelIndex &parent = QModelIndex()) const override;
    int columnCount(const QModelIndex &parent = QModelIndex()) const override;
    QVariant data(const QModelIndex &index, int role = Qt::DisplayRole) const override;
    QVariant headerData(int section, Qt::Orientation orientation, int role = Qt::DisplayRole) const override;
    Qt::ItemFlags flags(const QModelIndex &index) const override;
    QHash<int, QByteArray> roleNames() const override;

public Q_SLOTS:
    // Shows the changes heard so far now, instead of at the queued update.
    void update();
    // Rereads the whole index (one layoutChanged).
    void refresh();

Q_SIGNALS:
    // After each update that had changes to show.
    void updated();

protected:
    bool event(QEvent *event) override;
    void timerEvent(QTimerEvent *event) override;

private:
    friend class TableModelPrivate;
    friend class TableModelListener;
    static Record recordOf(const Table *table, unsigned char *row) { return Record(table, row); }
    static TablePrivate *tablePrivate(Table *table) { return table->d_func(); }
    static Record recordOf(Table *table, unsigned char *row) { return Record(table, row); }

    std::unique_ptr<TableModelPrivate> d;
};

#endif // DATABASE_TABLEMODEL_H
