#ifndef DATABASE_TABLEMODEL_P_H
#define DATABASE_TABLEMODEL_P_H

//
//  W A R N I N G
//  -------------
//
// This file is not part of the database API. It exists for the convenience
// of the library's own sources and may change from version to version
// without notice.
//

#include "index.h"
#include "tablemodel.h"
#include "tablemodelplan_p.h"

#include <QtCore/QEvent>
#include <QtCore/QBasicTimer>
#include <QtCore/QElapsedTimer>
#include <QtCore/QScopeGuard>
#include <QtCore/QVariant>

#include <functional>
#include <memory>
#include <unordered_map>
#include <vector>

class IndexList;
class IndexVector;

// What the table told the model since its last update. Guarded by the
// table's lock: written by the writer's thread, taken by the model's.
struct TableModelPending
{
    enum Kind : quint8 { Added, Removed, Updated };
    struct Change
    {
        unsigned char *row;
        int firstColumn;
        int lastColumn;
        Kind kind;
    };

    std::vector<Change> changes;
    // Rows that left the table, held until the update that drops them from
    // the view: the view may still read them.
    std::vector<Record> kept;
    // Reread the whole index: too many changes, or a clear or rebuild.
    bool coarse = false;
    // The view's own rows were put in `kept` (once is enough).
    bool viewKept = false;

    bool isEmpty() const { return changes.empty() && kept.empty() && !coarse; }
    // From now on the update rereads the whole index: the queue lets go of
    // its memory.
    void giveUpDetails()
    {
        coarse = true;
        std::vector<Change>().swap(changes);
    }
};

// The index through which the model hears its table. It never holds rows in
// order; it only queues what changed.
class TableModelListener : public Index
{
public:
    explicit TableModelListener(TableModelPrivate *model) : m_model(model) {}

    using Index::build;
    using Index::clear;
    void clear() override;
    void build() override;
    void add(const Record &record) override;
    void process(const QList<Record> &removed, const QList<Record> &updated, int firstColumn, int lastColumn,
                 const QList<Record> &inserted) override;
    void remove(const Record &record, int position) override;
    bool filter(const Record &) const override { return true; }
    bool contains(const Record &) const override { return false; }
    void update(const Record &record, int firstColumn, int lastColumn, int position) override;
    void beginUpdate() override;
    void endUpdate() override;
    QString getClassName() const override;
    // The rows the model shows (or is about to) may be freed now: hold them
    // until it has reread its index.
    void holdRows();

private:
    void note(const Record &record, int firstColumn, int lastColumn, TableModelPending::Kind kind);
    void changed();
    bool batchOpen() const;

    TableModelPrivate *m_model;
};

// What the source-index watcher needs after the model is gone: the model,
// cleared under the table's lock by the model's destructor.
struct TableModelLink
{
    TableModelPrivate *model;
};

class TableModelPrivate
{
public:
    explicit TableModelPrivate(TableModel *q) : q(q), listener(this) {}

    // Posted by the listener, for the model to update on its own thread.
    static const QEvent::Type UpdateEvent;

    void attach(Table *table, IndexList *list, IndexVector *vector, const QStringList &columns);
    void resolveColumns();
    void detach();
    void post();
    // The index's rows now; false when there is nothing to read.
    bool readSource(tablemodelplan::Rows &rows) const;
    void update(bool forceLayout);
    // Marks the model as signalling until the guard goes; the cells read
    // meanwhile are kept by row until then.
    auto signalling()
    {
        updating = true;
        return qScopeGuard([this] {
            updating = false;
            readWhileUpdating.clear();
        });
    }
    // The steps of an update that changed rows in place in a sorted index,
    // found by a search for each row instead of a pass over the index; false
    // when the update may have moved, added or removed rows. Under the lock.
    bool planInPlace(const TableModelPending &taken, std::vector<tablemodelplan::Step> &steps) const;
    // Takes `rows` to the index's rows through the index's last edit (see
    // PartitionList::lastEdit) into `incoming`, and finds where each
    // changed row was and is, instead of reading the whole index and
    // matching the lists; false when the edit does not account for
    // everything since the last read. Under the lock.
    bool followEdit(const TableModelPending &taken, std::vector<int> &was, std::vector<int> &is);
    // The steps from `rows` to `incoming`, signalled; `was` and `is` the
    // changed rows' places when followEdit found them (else empty).
    bool updateFine(TableModelPending &pending, const std::vector<int> &was, const std::vector<int> &is);
    void updateLayout();
    void updateReset();
    // The incoming rows become the model's rows, under the table's lock.
    void commit();

    TableModel *q;
    TableModelListener listener;
    Table *table = nullptr; // null once detached
    IndexList *list = nullptr;
    IndexVector *vector = nullptr;
    bool useMaster = false;
    bool registered = false;
    // The source list's changes() when it was last read: what an edit of it
    // must start from to be followed.
    mutable quint64 seenChanges = 0;
    mutable bool seenValid = false;
    // Lets the watcher of the index's removal outlive the model.
    std::shared_ptr<TableModelLink> link;
    QStringList columnNames; // empty: every column
    std::vector<int> columns;

    // Shared with the listener, under the table's lock.
    TableModelPending pending;
    bool posted = false;
    bool stale = false;    // the rows were reallocated: read nothing
    bool resetDue = false; // detached or reallocated: the next update resets
    bool sourceOff = false; // the index left the table (deleted, or off for a rebuild)
    bool threadWarned = false;
    // The rows an update read from the index, shown once it has signalled
    // them. It signals without the lock, so that views' slots never run
    // under it; a clear meanwhile holds these rows as well as `rows`.
    // Written under the lock only.
    tablemodelplan::Rows incoming;

    // Cells read since the last update, a page of rows and one role at a
    // time, most recent first.
    static const int PageRows = 64;
    static const size_t MaxPages = 16;
    struct Page
    {
        int page;
        int role;
        std::vector<QVariant> cells;
    };
    QVariant cell(unsigned char *row, int column, int role) const;

    // Cells read while an update signals, by row: dropped when it ends.
    struct CellKey
    {
        unsigned char *row;
        int column;
        int role;
        bool operator==(const CellKey &o) const { return row == o.row && column == o.column && role == o.role; }
    };
    struct CellKeyHash
    {
        size_t operator()(const CellKey &k) const
        {
            return std::hash<const void *>()(k.row) ^ (size_t(k.column) * 0x9E3779B97F4A7C15ull) ^ size_t(k.role);
        }
    };
    mutable std::unordered_map<CellKey, QVariant, CellKeyHash> readWhileUpdating;

    // The model's thread only; `rows` is also read by the listener, and so
    // is swapped under the lock.
    mutable std::vector<Page> pages;
    tablemodelplan::Rows rows;
    TableModelRows view;
    int threshold;
    int interval = 0;
    bool updating = false;
    QElapsedTimer sinceUpdate;
    QBasicTimer timer;
};

#endif // DATABASE_TABLEMODEL_P_H
