// A live model's update pipeline: the listener that hears the index under
// the table's lock on the writer's thread, and the model's side that turns
// what it heard into Qt's signals on the model's thread.

#include "tablemodel.h"
#include "parallel_p.h"
#include "tablemodel_p.h"
#include "tsan_p.h"

#include "exception.h"
#include "indexlist.h"
#include "indexsort.h"
#include "indexvector.h"
#include "masterindex.h"
#include "table_p.h"

#include <QtCore/QCoreApplication>
#include <QtCore/QDebug>
#include <QtCore/QEvent>
#include <QtCore/QHash>
#include <QtCore/QScopeGuard>
#include <QtCore/QThread>
#include <QtCore/QTimerEvent>

#include <algorithm>
#include <cstring>

const QEvent::Type TableModelPrivate::UpdateEvent = static_cast<QEvent::Type>(QEvent::registerEventType());

namespace {

// Past this many queued changes the next update rereads the whole index:
// the queue stops growing, whatever the writer does.
const size_t MaxQueuedChanges = size_t(1) << 16;

} // namespace

// ---------------------------------------------------------------------------
// The listener: runs under the table's lock, on the writer's thread.

bool TableModelListener::batchOpen() const
{
    return TableModel::tablePrivate(m_model->table)->lock.batchOpen();
}

void TableModelListener::note(const Record &record, int firstColumn, int lastColumn, TableModelPending::Kind kind)
{
    TableModelPending &pending = m_model->pending;
    if (kind == TableModelPending::Removed)
        pending.kept.push_back(record);
    if (!pending.coarse) {
        if (pending.changes.size() < MaxQueuedChanges) {
            pending.changes.push_back({record.rowPtr(), firstColumn, lastColumn, kind});
        } else {
            pending.giveUpDetails();
        }
    }
    changed();
}

void TableModelListener::changed()
{
    // Within a batch the batch's end posts: the model's thread would only
    // wait for the lock meanwhile.
    if (!batchOpen())
        m_model->post();
}

void TableModelListener::clear()
{
    TableModelPrivate *m = m_model;
    TablePrivate *table = TableModel::tablePrivate(m->table);
    if (table->destroying) {
        if (QThread::currentThread() != m->q->thread() && !m->threadWarned) {
            m->threadWarned = true;
            qWarning().noquote() << QStringLiteral("TableModel: table '%1' destroyed on a thread other than its model's")
                                        .arg(table->name);
        }
        m->pending = TableModelPending();
        m->stale = true;
        m->resetDue = true;
        m->table = nullptr;
        m->list = nullptr;
        m->vector = nullptr;
        m->useMaster = false;
        m->registered = false;
        m->post();
        return;
    }
    if (table->rowsGoing && (!m->rows.empty() || !m->incoming.empty())) {
        // The rows are about to move in memory, or the rows shown are laid
        // out for columns that are changing: no reference keeps them.
        m->pending = TableModelPending();
        m->stale = true;
        m->resetDue = true;
        m->post();
        return;
    }
    holdRows();
}

void TableModelListener::holdRows()
{
    TableModelPrivate *m = m_model;
    TableModelPending &pending = m->pending;
    pending.giveUpDetails();
    // Stale rows may be freed already: the reset due reads none of them.
    if (!pending.viewKept && !m->stale) {
        pending.viewKept = true;
        pending.kept.reserve(pending.kept.size() + m->rows.size() + m->incoming.size());
        for (const tablemodelplan::Rows *shown : {&m->rows, &m->incoming}) {
            for (unsigned char *row : *shown)
                pending.kept.push_back(TableModel::recordOf(m->table, row));
        }
    }
    changed();
}

void TableModelListener::build()
{
    TableModelPending &pending = m_model->pending;
    pending.giveUpDetails();
    changed();
}

void TableModelListener::add(const Record &record)
{
    note(record, -1, -1, TableModelPending::Added);
}

void TableModelListener::process(const QList<Record> &removed, const QList<Record> &updated, int firstColumn,
                                 int lastColumn, const QList<Record> &inserted)
{
    for (const Record &record : removed)
        note(record, -1, -1, TableModelPending::Removed);
    for (const Record &record : updated)
        note(record, firstColumn, lastColumn, TableModelPending::Updated);
    for (const Record &record : inserted)
        note(record, -1, -1, TableModelPending::Added);
}

void TableModelListener::remove(const Record &record, int)
{
    note(record, -1, -1, TableModelPending::Removed);
}

void TableModelListener::update(const Record &record, int firstColumn, int lastColumn, int)
{
    note(record, firstColumn, lastColumn, TableModelPending::Updated);
}

void TableModelListener::beginUpdate()
{
}

void TableModelListener::endUpdate()
{
    if (!m_model->pending.isEmpty())
        m_model->post();
}

QString TableModelListener::getClassName() const
{
    return QStringLiteral("TableModelListener");
}

// ---------------------------------------------------------------------------
// The model's side

void TableModelPrivate::attach(Table *t, IndexList *l, IndexVector *v, const QStringList &names)
{
    columnNames = names;
    if (!t)
        return;
    TableLocker locker(t);
    table = t;
    list = l;
    vector = v;
    useMaster = (!l && !v) || (l && l == static_cast<IndexList *>(t->masterIndex()));
    if (useMaster)
        list = nullptr;
    try {
        resolveColumns();
    } catch (...) {
        table = nullptr;
        throw;
    }
    readSource(rows);
    view.reset(rows);
    t->addIndex(&listener);
    registered = true;
    link = std::make_shared<TableModelLink>(TableModelLink{this});
    if (!useMaster) {
        const Index *watched = list ? static_cast<Index *>(list) : static_cast<Index *>(vector);
        const std::shared_ptr<TableModelLink> watch = link;
        // An index leaves the table when it is deleted, and for a while when
        // a TableIndexRebuilder takes every index off. Both run on the thread
        // that does it, under the table's lock (the rebuilder inside the
        // writer's batch, the deletion waiting here for an update reading
        // the index to finish); an update that finds the index off while
        // no rebuilder is at work takes it for deleted.
        auto follow = [watch, watched, t](bool off) {
            return [watch, watched, t, off](Index *index) {
                if (index != watched)
                    return;
                TableLocker locker(t);
                if (TableModelPrivate *m = watch->model) {
                    m->sourceOff = off;
                    m->post();
                }
            };
        };
        QObject::connect(t, &Table::indexRemoved, q, follow(true), Qt::DirectConnection);
        QObject::connect(t, &Table::indexAdded, q, follow(false), Qt::DirectConnection);
    }
}

void TableModelPrivate::resolveColumns()
{
    columns.clear();
    if (!table)
        return;
    if (columnNames.isEmpty()) {
        for (int c = 0; c < table->columnCount(); ++c)
            columns.push_back(c);
        return;
    }
    for (const QString &name : qAsConst(columnNames)) {
        const int c = table->columnIndex(name);
        if (c < 0)
            throw Exception(QStringLiteral("Column '%1' not found in table '%2'.").arg(name, table->name()));
        columns.push_back(c);
    }
}

void TableModelPrivate::post()
{
    if (posted)
        return;
    posted = true;
    // Handed over through Qt's event queue, whose lock the thread checker
    // does not see: stated to it here and in TableModel::event().
    auto *event = new QEvent(TableModelPrivate::UpdateEvent);
    tsanRelease(event);
    QCoreApplication::postEvent(q, event);
}

bool TableModelPrivate::readSource(tablemodelplan::Rows &out) const
{
    out.clear();
    seenValid = false;
    if (!table)
        return false;
    const IndexList *from = useMaster ? static_cast<const IndexList *>(table->masterIndex()) : list;
    if (from) {
        seenChanges = from->list().changes();
        seenValid = true;
        // Sized without zeroing, then written in place: a million handles
        // cost one pass, not a pass and a check per handle.
        // Cut among threads over a large index.
        out.resize(static_cast<size_t>(from->count()));
        unsigned char **to = out.data();
        parallel::forEachSegment(from->list(), [to](const Record *records, int n, int start) {
            for (int k = 0; k < n; ++k)
                to[start + k] = records[k].rowPtr();
        });
        return true;
    }
    if (vector) {
        out.reserve(static_cast<size_t>(vector->count()));
        for (int i = 0; i < vector->count(); ++i)
            out.push_back(vector->get(i).rowPtr());
        return true;
    }
    return false;
}

void TableModelPrivate::update(bool forceLayout)
{
    if (updating)
        return;
    timer.stop();
    if (!table) {
        // The table is gone.
        if (resetDue) {
            pages.clear();
            const auto done = signalling();
            incoming.clear();
            updateReset();
            Q_EMIT q->updated();
        }
        posted = false;
        return;
    }
    // What the update needs is taken under the lock; the signals go out
    // after it is let go of.
    TableModelPending taken;
    bool reset = false;
    int tableColumns = 0;
    std::vector<tablemodelplan::Step> inPlace;
    bool movedNone = false;
    std::vector<int> was;
    std::vector<int> is;
#ifdef DATABASE_CHECKS
    tablemodelplan::Rows shown; // what an update in place must leave
#endif
    {
        TableLocker locker(table);
        TablePrivate *t = TableModel::tablePrivate(table);
        if (t->lock.batchOpenHere()) {
            // This thread's own batch is open (events processed inside it):
            // its end posts again.
            posted = false;
            return;
        }
        posted = false;
        if (sourceOff) {
            // Off for a rebuild: its return posts. Else it was deleted, and
            // from now on the model shows nothing.
            if (t->rebuilders.load() > 0)
                return;
            sourceOff = false;
            list = nullptr;
            vector = nullptr;
            resetDue = true;
        }
        std::swap(taken, pending);
        tableColumns = table->columnCount();
        const bool grown = columnNames.isEmpty() && tableColumns > static_cast<int>(columns.size());
        if (!resetDue && !forceLayout && taken.isEmpty() && !grown)
            return;
        reset = resetDue;
        resetDue = false;
        movedNone = !reset && !forceLayout && !grown && planInPlace(taken, inPlace);
        if (movedNone) {
            // What is shown is what the index holds.
            if (const IndexList *from = useMaster ? table->masterIndex() : list)
                seenChanges = from->list().changes();
#ifdef DATABASE_CHECKS
            readSource(shown);
#endif
        } else if (reset || forceLayout || grown || !followEdit(taken, was, is)) {
            was.clear();
            is.clear();
            readSource(incoming);
        }
    }
    pages.clear();
    {
        const auto done = signalling();
        if (reset) {
            updateReset();
        } else if (movedNone) {
#ifdef DATABASE_CHECKS
            tablemodelplan::verifyShown(view, shown);
#endif
            for (const tablemodelplan::Step &step : inPlace)
                Q_EMIT q->dataChanged(q->index(step.first, step.firstColumn),
                                      q->index(step.first + step.count - 1, step.lastColumn));
        } else {
            // Columns a load added to the table come after the others.
            if (columnNames.isEmpty() && tableColumns > static_cast<int>(columns.size())) {
                q->beginInsertColumns(QModelIndex(), static_cast<int>(columns.size()), tableColumns - 1);
                for (int c = static_cast<int>(columns.size()); c < tableColumns; ++c)
                    columns.push_back(c);
                q->endInsertColumns();
            }
            if (forceLayout || taken.coarse || !updateFine(taken, was, is))
                updateLayout();
        }
    }
    sinceUpdate.start();
    Q_EMIT q->updated();
    // `taken` lets go of the rows that left, now that the view does not
    // show them.
}

void TableModelPrivate::commit()
{
    // A slot on this thread may have destroyed the table meanwhile.
    std::unique_ptr<TableLocker> locker;
    if (table)
        locker = std::make_unique<TableLocker>(table);
    rows.swap(incoming);
    // Kept buffer: a fresh one of a million handles would cost its page
    // faults at every update. Its rows may be gone: nothing holds them.
    incoming.clear();
    view.reset(rows);
    // Rows reallocated after they were read stay unreadable until the
    // reset that the writer asked for meanwhile.
    if (!resetDue)
        stale = false;
}

void TableModelPrivate::updateReset()
{
    q->beginResetModel();
    commit();
    resolveColumns();
    q->endResetModel();
}

void TableModelPrivate::updateLayout()
{
    tablemodelplan::Rows &next = incoming;
    Q_EMIT q->layoutAboutToBeChanged();
    const QModelIndexList from = q->persistentIndexList();
    QModelIndexList to;
    if (!from.isEmpty()) {
        // Each persistent index follows its record to the new rows.
        QHash<const unsigned char *, int> places;
        RowFilter filter(static_cast<size_t>(from.size()));
        for (const QModelIndex &index : from) {
            const unsigned char *row = view.at(index.row());
            places.insert(row, -1);
            filter.add(row);
        }
        for (size_t j = 0; j < next.size(); ++j) {
            if (!filter.maybe(next[j]))
                continue;
            const auto it = places.find(next[j]);
            if (it != places.end() && it.value() == -1)
                it.value() = static_cast<int>(j);
        }
        to.reserve(from.size());
        for (const QModelIndex &index : from) {
            const int place = places.value(view.at(index.row()), -1);
            to.append(place >= 0 ? q->createIndex(place, index.column()) : QModelIndex());
        }
    }
    commit();
    if (!from.isEmpty())
        q->changePersistentIndexList(from, to);
    Q_EMIT q->layoutChanged();
}

bool TableModelPrivate::planInPlace(const TableModelPending &taken, std::vector<tablemodelplan::Step> &steps) const
{
    // Only a sorted index finds a row's place without a pass over it.
    const IndexSort *sorted = dynamic_cast<const IndexSort *>(useMaster ? table->masterIndex() : list);
    if (!sorted || taken.coarse || !taken.kept.empty() || taken.changes.empty()
        || sorted->count() != static_cast<int>(rows.size()))
        return false;
    // A few searches always cost less than a pass; past that, from a 64th
    // of the rows on, the pass costs less.
    if (taken.changes.size() > 8 && taken.changes.size() * 64 > rows.size())
        return false;
    std::vector<tablemodelplan::ChangedRow> changed;
    std::vector<int> positions;
    changed.reserve(taken.changes.size());
    positions.reserve(taken.changes.size());
    for (const TableModelPending::Change &c : taken.changes) {
        if (c.kind != TableModelPending::Updated)
            return false;
        // The row is where the view shows it: no row moved, since rows that
        // did not change keep their order.
        const int at = sorted->indexOf(TableModel::recordOf(table, c.row));
        if (at < 0 || at >= static_cast<int>(rows.size()) || rows[static_cast<size_t>(at)] != c.row)
            return false;
        changed.push_back({c.row, c.firstColumn, c.lastColumn});
        positions.push_back(at);
    }
    tablemodelplan::planInPlace(changed, positions, columns, threshold, steps);
    return true;
}

bool TableModelPrivate::followEdit(const TableModelPending &taken, std::vector<int> &was, std::vector<int> &is)
{
    const IndexList *from = useMaster ? table->masterIndex() : list;
    if (!from || !seenValid || stale || taken.coarse || taken.changes.empty())
        return false;
    const PartitionList<Record>::Edit *edit = from->list().lastEdit(seenChanges);
    if (!edit)
        return false;
    const std::vector<int> &removed = edit->removed;
    const std::vector<int> &inserted = edit->inserted;
    // applyEdit() checks the positions against the rows; the counts must
    // agree before the inserted rows are read from the list.
    const size_t oldCount = rows.size();
    if (removed.size() > oldCount || oldCount - removed.size() + inserted.size() != static_cast<size_t>(from->count()))
        return false;

    std::vector<unsigned char *> insertedRows;
    insertedRows.reserve(inserted.size());
    {
        PartitionList<Record>::Reader reader(from->list());
        for (const int a : inserted)
            insertedRows.push_back(reader.at(a).rowPtr());
    }
    if (!tablemodelplan::applyEdit(rows, removed, inserted, insertedRows, incoming))
        return false;

    // Where the rows that the edit touched were and are, by row (a row
    // removed and inserted again has both); each must be one that the table
    // reported.
    struct Place
    {
        const unsigned char *row;
        int was;
        int is;
        bool operator<(const Place &o) const { return std::less<const unsigned char *>()(row, o.row); }
    };
    std::vector<Place> places;
    places.reserve(removed.size() + inserted.size() + edit->touched.size());
    for (const int d : removed)
        places.push_back({rows[static_cast<size_t>(d)], d, -1});
    for (const int a : inserted)
        places.push_back({incoming[static_cast<size_t>(a)], -1, a});
    for (const int t : edit->touched) {
        if (t < 0 || static_cast<size_t>(t) >= oldCount)
            return false;
        // Its place among the rows that stay, then among the new ones.
        const int kept = t - static_cast<int>(std::lower_bound(removed.begin(), removed.end(), t) - removed.begin());
        places.push_back({rows[static_cast<size_t>(t)], t, kept + static_cast<int>(skippedBefore(inserted, kept))});
    }
    std::sort(places.begin(), places.end());
    size_t merged = 0;
    for (size_t i = 0; i < places.size(); ++i) {
        if (merged > 0 && places[merged - 1].row == places[i].row) {
            Place &p = places[merged - 1];
            p.was = std::max(p.was, places[i].was);
            p.is = std::max(p.is, places[i].is);
        } else {
            places[merged++] = places[i];
        }
    }
    places.resize(merged);
    std::vector<char> reported(places.size(), 0);
    was.clear();
    is.clear();
    for (const TableModelPending::Change &c : taken.changes) {
        const auto found = std::lower_bound(places.begin(), places.end(), Place{c.row, -1, -1});
        if (found != places.end() && found->row == c.row) {
            reported[static_cast<size_t>(found - places.begin())] = 1;
            was.push_back(found->was);
            is.push_back(found->is);
            continue;
        }
        // Left alone by the edit: an updated row the index still accepts
        // may stand anywhere, unchanged in place; any other is in neither.
        if (c.kind == TableModelPending::Updated && from->filter(TableModel::recordOf(table, c.row)))
            return false;
        was.push_back(-1);
        is.push_back(-1);
    }
    if (std::find(reported.begin(), reported.end(), 0) != reported.end())
        return false;
    seenChanges = from->list().changes();
#ifdef DATABASE_CHECKS
    tablemodelplan::Rows read;
    readSource(read);
    tablemodelplan::verifyFollowed(incoming, read);
#endif
    return true;
}

bool TableModelPrivate::updateFine(TableModelPending &taken, const std::vector<int> &was, const std::vector<int> &is)
{
    std::vector<tablemodelplan::ChangedRow> changed;
    changed.reserve(taken.changes.size());
    for (const TableModelPending::Change &c : taken.changes) {
        const bool everywhere = c.kind != TableModelPending::Updated;
        changed.push_back({c.row, everywhere ? -1 : c.firstColumn, c.lastColumn});
    }
    std::vector<tablemodelplan::Step> steps;
    const bool planned = was.empty() ? tablemodelplan::plan(rows, incoming, changed, columns, threshold, steps)
                                     : tablemodelplan::planFollowing(rows, incoming, changed, was, is, columns,
                                                                     threshold, steps);
    if (!planned)
        return false;

    using Step = tablemodelplan::Step;
    const QModelIndex top;
    auto step = steps.begin();
    for (; step != steps.end() && step->kind != Step::Data; ++step) {
        const Step &s = *step;
        switch (s.kind) {
        case Step::Remove:
            q->beginRemoveRows(top, s.first, s.first + s.count - 1);
            view.remove(s.first, s.count);
            q->endRemoveRows();
            break;
        case Step::Insert:
            q->beginInsertRows(top, s.first, s.first + s.count - 1);
            view.insert(s.first, TableModelRows::New, incoming.data(), s.newIndex, s.count);
            q->endInsertRows();
            break;
        case Step::Rebase:
            view.remove(s.first, s.count);
            view.insert(s.first, TableModelRows::New, incoming.data(), s.newIndex, s.count);
            break;
        case Step::Move: {
            const bool valid = q->beginMoveRows(top, s.first, s.first + s.count - 1, top, s.to);
            Q_ASSERT(valid);
            Q_UNUSED(valid);
            view.remove(s.first, s.count);
            view.insert(s.to > s.first ? s.to - s.count : s.to, TableModelRows::New, incoming.data(), s.newIndex,
                        s.count);
            q->endMoveRows();
            break;
        }
        case Step::Data:
            break;
        }
    }
#ifdef DATABASE_CHECKS
    tablemodelplan::verifyShown(view, incoming);
#endif
    commit();
    // The data steps come last, in positions of the new rows.
    for (; step != steps.end(); ++step)
        Q_EMIT q->dataChanged(q->index(step->first, step->firstColumn),
                              q->index(step->first + step->count - 1, step->lastColumn));
    return true;
}

QVariant TableModelPrivate::cell(unsigned char *row, int column, int role) const
{
    const TableColumnDef &def = table->columnDef(columns[static_cast<size_t>(column)]);
    const Field field(const_cast<TableColumnDef *>(&def), row + Table::base);
    if (field.isNull())
        return QVariant();
    switch (role) {
    case Qt::DisplayRole:
        try {
            return field.toSystemString();
        } catch (const QString &) {
            return QVariant();
        }
    case TableModel::SortRole:
        if (def.type == FieldType::Decimal)
            return field.toDouble();
        return field.toVariant();
    default:
        return field.toVariant();
    }
}
