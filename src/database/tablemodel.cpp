#include "tablemodel.h"
#include "tablemodel_p.h"

#include "exception.h"
#include "indexlist.h"
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
#include <climits>
#include <unordered_map>

const int TableModel::defaultLayoutThreshold = 100;

namespace {

const QEvent::Type UpdateEvent = static_cast<QEvent::Type>(QEvent::registerEventType());

// Past this many queued changes the next update rereads the whole index:
// the queue stops growing, whatever the writer does.
const size_t MaxQueuedChanges = size_t(1) << 16;

// A bit per hash of a row address: most rows of a pass over a million
// handles are not among the changed ones, and a bit test tells so without
// reaching the hash table.
class RowFilter
{
public:
    explicit RowFilter(size_t expected)
    {
        m_shift = 64 - 12;
        while ((size_t(1) << (64 - m_shift)) < expected * 16 && m_shift > 64 - 24)
            --m_shift;
        m_bits.assign((size_t(1) << (64 - m_shift)) / 64, 0);
    }
    void add(const unsigned char *row)
    {
        const quint64 h = hash(row);
        m_bits[h / 64] |= quint64(1) << (h % 64);
    }
    bool maybe(const unsigned char *row) const
    {
        const quint64 h = hash(row);
        return (m_bits[h / 64] >> (h % 64)) & 1;
    }

private:
    quint64 hash(const unsigned char *row) const
    {
        return (quint64(reinterpret_cast<quintptr>(row)) * 0x9E3779B97F4A7C15ull) >> m_shift;
    }

    std::vector<quint64> m_bits;
    int m_shift;
};

bool isNumeric(FieldType::Type type)
{
    return type == FieldType::Integer || type == FieldType::Integer64 || type == FieldType::Double
        || type == FieldType::Decimal;
}

// Runs of adjacent model columns, as (first, last) pairs.
using ColumnRuns = std::vector<std::pair<int, int>>;

} // namespace

// What the source-index watcher needs after the model is gone: the model,
// cleared under the table's lock by the model's destructor.
struct TableModelLink
{
    TableModelPrivate *model;
};

// ---------------------------------------------------------------------------
// The listener: runs under the table's lock, on the writer's thread.

bool TableModelListener::batchOpen() const
{
    return TableModel::tablePrivate(m_model->table)->batchOwner.loadAcquire() != nullptr;
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
            pending.coarse = true;
            std::vector<TableModelPending::Change>().swap(pending.changes);
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
    pending.coarse = true;
    std::vector<TableModelPending::Change>().swap(pending.changes);
    // Stale rows may be freed already: the reset due reads none of them.
    if (!pending.viewKept && !m->stale) {
        pending.viewKept = true;
        pending.kept.reserve(pending.kept.size() + m->rows.size() + m->incoming.size());
        for (const std::vector<unsigned char *> *shown : {&m->rows, &m->incoming}) {
            for (unsigned char *row : *shown)
                pending.kept.push_back(TableModel::recordOf(m->table, row));
        }
    }
    changed();
}

void TableModelListener::build()
{
    TableModelPending &pending = m_model->pending;
    pending.coarse = true;
    std::vector<TableModelPending::Change>().swap(pending.changes);
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
// The rows as the view sees them

void TableModelRows::reset(const std::vector<unsigned char *> &rows)
{
    m_pieces.clear();
    if (!rows.empty())
        m_pieces.push_back({rows.data(), 0, static_cast<int>(rows.size()), Old});
    recount();
}

void TableModelRows::recount()
{
    m_starts.resize(m_pieces.size());
    int start = 0;
    for (size_t k = 0; k < m_pieces.size(); ++k) {
        m_starts[k] = start;
        start += m_pieces[k].count;
    }
    m_count = start;
}

unsigned char *TableModelRows::at(int i) const
{
    const auto k = static_cast<size_t>(std::upper_bound(m_starts.begin(), m_starts.end(), i) - m_starts.begin() - 1);
    const Piece &piece = m_pieces[k];
    return piece.base[piece.index + i - m_starts[k]];
}

int TableModelRows::positionOf(Origin origin, int index) const
{
    for (size_t k = 0; k < m_pieces.size(); ++k) {
        const Piece &piece = m_pieces[k];
        if (piece.origin == origin && index >= piece.index && index < piece.index + piece.count)
            return m_starts[k] + index - piece.index;
    }
    return -1;
}

int TableModelRows::split(int i)
{
    if (i >= m_count)
        return static_cast<int>(m_pieces.size());
    const auto k = static_cast<size_t>(std::upper_bound(m_starts.begin(), m_starts.end(), i) - m_starts.begin() - 1);
    const int offset = i - m_starts[k];
    if (offset == 0)
        return static_cast<int>(k);
    Piece tail = m_pieces[k];
    tail.index += offset;
    tail.count -= offset;
    m_pieces[k].count = offset;
    m_pieces.insert(m_pieces.begin() + static_cast<long>(k) + 1, tail);
    recount();
    return static_cast<int>(k) + 1;
}

void TableModelRows::remove(int first, int count)
{
    const int a = split(first);
    const int b = split(first + count);
    m_pieces.erase(m_pieces.begin() + a, m_pieces.begin() + b);
    recount();
}

void TableModelRows::insert(int at, Origin origin, unsigned char *const *base, int index, int count)
{
    const int k = split(at);
    m_pieces.insert(m_pieces.begin() + k, Piece{base, index, count, origin});
    recount();
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
    QCoreApplication::postEvent(q, new QEvent(UpdateEvent));
}

bool TableModelPrivate::readSource(std::vector<unsigned char *> &out) const
{
    out.clear();
    if (!table)
        return false;
    const IndexList *from = useMaster ? static_cast<const IndexList *>(table->masterIndex()) : list;
    if (from) {
        out.resize(static_cast<size_t>(from->count()));
        unsigned char **to = out.data();
        from->list().forEachSegment([&to](const Record *first, int count) {
            for (int k = 0; k < count; ++k)
                *to++ = first[k].rowPtr();
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
            updating = true;
            const auto done = qScopeGuard([this] { updating = false; });
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
    {
        TableLocker locker(table);
        TablePrivate *t = TableModel::tablePrivate(table);
        if (t->batchOwner.loadAcquire() == QThread::currentThreadId()) {
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
        readSource(incoming);
    }
    pages.clear();
    {
        updating = true;
        const auto done = qScopeGuard([this] { updating = false; });
        if (reset) {
            updateReset();
        } else {
            // Columns a load added to the table come after the others.
            if (columnNames.isEmpty() && tableColumns > static_cast<int>(columns.size())) {
                q->beginInsertColumns(QModelIndex(), static_cast<int>(columns.size()), tableColumns - 1);
                for (int c = static_cast<int>(columns.size()); c < tableColumns; ++c)
                    columns.push_back(c);
                q->endInsertColumns();
            }
            if (forceLayout || taken.coarse || !updateFine(taken))
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
    std::vector<unsigned char *> &next = incoming;
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

namespace {

// One changed row of an update: where it was and is, and what changed.
struct Change
{
    unsigned char *row = nullptr;
    int firstColumn = INT_MAX; // the union of the changed table columns
    int lastColumn = -1;
    bool allColumns = false;
    bool data = false;
    bool stable = false; // shown in both, not moved
    bool placed = false; // inserted or moved by this update
    int oldPos = -1;
    int newPos = -1;
    int oldAnchor = -1; // rows unchanged before it, in the old and new rows
    int newAnchor = -1;
    int predecessorOld = -1; // old position of the unchanged row before it in the new rows
};

// Marks the longest run of `changes` (in old order) whose new positions
// increase: they stay where they are.
void markStable(std::vector<Change *> &changes)
{
    std::vector<int> tails; // index into changes of the run's last element, by length
    std::vector<int> before(changes.size(), -1);
    for (size_t i = 0; i < changes.size(); ++i) {
        const int position = changes[i]->newPos;
        const auto it = std::lower_bound(tails.begin(), tails.end(), position,
                                         [&](int k, int p) { return changes[static_cast<size_t>(k)]->newPos < p; });
        if (it != tails.begin())
            before[i] = *(it - 1);
        if (it == tails.end())
            tails.push_back(static_cast<int>(i));
        else
            *it = static_cast<int>(i);
    }
    for (int k = tails.empty() ? -1 : tails.back(); k != -1; k = before[static_cast<size_t>(k)])
        changes[static_cast<size_t>(k)]->stable = true;
}

} // namespace

bool TableModelPrivate::updateFine(TableModelPending &taken)
{
    std::vector<unsigned char *> &next = incoming;
    // The changed rows, once each.
    std::unordered_map<const unsigned char *, size_t> ids;
    ids.reserve(taken.changes.size() * 2);
    std::vector<Change> changes;
    RowFilter filter(taken.changes.size());
    for (const TableModelPending::Change &c : taken.changes) {
        const auto found = ids.emplace(c.row, changes.size());
        if (found.second) {
            changes.emplace_back();
            changes.back().row = c.row;
            filter.add(c.row);
        }
        Change &change = changes[found.first->second];
        change.data = true;
        if (c.kind != TableModelPending::Updated || c.firstColumn < 0 || c.lastColumn < c.firstColumn) {
            // A row that left and came back may have changed anywhere.
            change.allColumns = true;
        } else {
            change.firstColumn = std::min(change.firstColumn, c.firstColumn);
            change.lastColumn = std::max(change.lastColumn, c.lastColumn);
        }
    }
    auto find = [&](const unsigned char *row) -> Change * {
        if (!filter.maybe(row))
            return nullptr;
        const auto it = ids.find(row);
        return it == ids.end() ? nullptr : &changes[it->second];
    };

    // One pass over both row lists: the unchanged rows must come in the same
    // order in both (else the index changed behind the table's back, and
    // the update rereads everything); the changed ones get their places.
    const int oldCount = static_cast<int>(rows.size());
    const int newCount = static_cast<int>(next.size());
    int i = 0;
    int unchanged = 0;
    int lastUnchangedOld = -1;
    bool previousUnchanged = false;
    for (int j = 0; j < newCount; ++j) {
        // Most rows are unchanged and where they were.
        if (i < oldCount && rows[static_cast<size_t>(i)] == next[static_cast<size_t>(j)]
            && !filter.maybe(next[static_cast<size_t>(j)])) {
            lastUnchangedOld = i++;
            ++unchanged;
            previousUnchanged = true;
            continue;
        }
        if (Change *change = find(next[static_cast<size_t>(j)])) {
            if (change->newPos != -1)
                return false;
            change->newPos = j;
            change->newAnchor = unchanged;
            change->predecessorOld = previousUnchanged ? lastUnchangedOld : -1;
            previousUnchanged = false;
            continue;
        }
        for (; i < oldCount; ++i) {
            Change *change = find(rows[static_cast<size_t>(i)]);
            if (!change)
                break;
            if (change->oldPos != -1)
                return false;
            change->oldPos = i;
            change->oldAnchor = unchanged;
        }
        if (i >= oldCount || rows[static_cast<size_t>(i)] != next[static_cast<size_t>(j)])
            return false;
        lastUnchangedOld = i++;
        ++unchanged;
        previousUnchanged = true;
    }
    for (; i < oldCount; ++i) {
        Change *change = find(rows[static_cast<size_t>(i)]);
        if (!change || change->oldPos != -1)
            return false;
        change->oldPos = i;
        change->oldAnchor = unchanged;
    }

    // Rows shown in both that stayed between the same unchanged rows, and
    // in order among themselves, are not moved.
    std::vector<Change *> kept;
    std::vector<int> removed;
    std::vector<Change *> targets;
    for (Change &change : changes) {
        if (change.oldPos >= 0 && change.newPos >= 0)
            kept.push_back(&change);
        else if (change.oldPos >= 0)
            removed.push_back(change.oldPos);
    }
    std::sort(kept.begin(), kept.end(), [](const Change *a, const Change *b) { return a->oldPos < b->oldPos; });
    for (size_t a = 0; a < kept.size();) {
        size_t b = a;
        std::vector<Change *> candidates;
        for (; b < kept.size() && kept[b]->oldAnchor == kept[a]->oldAnchor; ++b) {
            if (kept[b]->newAnchor == kept[b]->oldAnchor)
                candidates.push_back(kept[b]);
        }
        markStable(candidates);
        a = b;
    }
    for (Change &change : changes) {
        if (change.newPos >= 0 && !change.stable)
            targets.push_back(&change);
    }
    std::sort(removed.begin(), removed.end(), std::greater<int>());
    std::sort(targets.begin(), targets.end(), [](const Change *a, const Change *b) { return a->newPos < b->newPos; });

    // Signals: runs of removed rows, then runs of inserted or moved ones.
    int signalCount = 0;
    for (size_t k = 0; k < removed.size(); ++k) {
        if (k == 0 || removed[k] != removed[k - 1] - 1)
            ++signalCount;
    }
    for (size_t k = 0; k < targets.size(); ++k) {
        const Change *t = targets[k];
        const Change *p = k ? targets[k - 1] : nullptr;
        const bool joins = p && t->newPos == p->newPos + 1 && (t->oldPos < 0) == (p->oldPos < 0)
            && (t->oldPos < 0 || t->oldPos == p->oldPos + 1);
        if (!joins)
            ++signalCount;
    }
    if (signalCount > threshold)
        return false;

    for (size_t k = 0; k < removed.size();) {
        size_t e = k + 1;
        while (e < removed.size() && removed[e] == removed[e - 1] - 1)
            ++e;
        const int first = removed[e - 1];
        const int last = removed[k];
        q->beginRemoveRows(QModelIndex(), first, last);
        view.remove(first, last - first + 1);
        q->endRemoveRows();
        k = e;
    }

    // Each row goes right after its predecessor in the new rows, in the
    // new order: that predecessor is in place already, and nothing is put
    // between the two later.
    auto predecessorPosition = [&](const Change *t) {
        if (t->newPos == 0)
            return -1;
        const Change *p = find(next[static_cast<size_t>(t->newPos - 1)]);
        if (!p)
            return view.positionOf(TableModelRows::Old, t->predecessorOld);
        if (p->placed)
            return view.positionOf(TableModelRows::New, t->newPos - 1);
        return view.positionOf(TableModelRows::Old, p->oldPos);
    };
    for (size_t k = 0; k < targets.size();) {
        Change *t = targets[k];
        const int to = predecessorPosition(t) + 1;
        int count = 1;
        if (t->oldPos < 0) {
            while (k + static_cast<size_t>(count) < targets.size()) {
                const Change *n = targets[k + static_cast<size_t>(count)];
                if (n->oldPos >= 0 || n->newPos != t->newPos + count)
                    break;
                ++count;
            }
            q->beginInsertRows(QModelIndex(), to, to + count - 1);
            view.insert(to, TableModelRows::New, next.data(), t->newPos, count);
            q->endInsertRows();
        } else {
            const int from = view.positionOf(TableModelRows::Old, t->oldPos);
            while (k + static_cast<size_t>(count) < targets.size()) {
                const Change *n = targets[k + static_cast<size_t>(count)];
                if (n->oldPos < 0 || n->newPos != t->newPos + count
                    || view.positionOf(TableModelRows::Old, n->oldPos) != from + count)
                    break;
                ++count;
            }
            if (to == from || to == from + count) {
                // In place already: only the bookkeeping moves.
                view.remove(from, count);
                view.insert(from, TableModelRows::New, next.data(), t->newPos, count);
            } else {
                const bool valid = q->beginMoveRows(QModelIndex(), from, from + count - 1, QModelIndex(), to);
                Q_ASSERT(valid);
                Q_UNUSED(valid);
                view.remove(from, count);
                view.insert(to > from ? to - count : to, TableModelRows::New, next.data(), t->newPos, count);
                q->endMoveRows();
            }
        }
        for (int m = 0; m < count; ++m)
            targets[k + static_cast<size_t>(m)]->placed = true;
        k += static_cast<size_t>(count);
    }
    Q_ASSERT(view.count() == newCount);

    // dataChanged: the changed columns of each row shown before and after,
    // adjacent rows with the same columns together.
    std::sort(kept.begin(), kept.end(), [](const Change *a, const Change *b) { return a->newPos < b->newPos; });
    struct Block
    {
        int first;
        int last;
        ColumnRuns runs;
    };
    std::vector<Block> blocks;
    int dataSignals = 0;
    for (const Change *change : kept) {
        if (!change->data)
            continue;
        ColumnRuns runs;
        for (int c = 0; c < static_cast<int>(columns.size()); ++c) {
            const int column = columns[static_cast<size_t>(c)];
            if (!change->allColumns && (column < change->firstColumn || column > change->lastColumn))
                continue;
            if (!runs.empty() && runs.back().second == c - 1)
                runs.back().second = c;
            else
                runs.emplace_back(c, c);
        }
        if (runs.empty())
            continue;
        if (!blocks.empty() && blocks.back().last == change->newPos - 1 && blocks.back().runs == runs) {
            blocks.back().last = change->newPos;
            continue;
        }
        dataSignals += static_cast<int>(runs.size());
        blocks.push_back({change->newPos, change->newPos, std::move(runs)});
    }
    if (dataSignals > threshold) {
        int left = INT_MAX;
        int right = -1;
        for (const Block &block : blocks) {
            left = std::min(left, block.runs.front().first);
            right = std::max(right, block.runs.back().second);
        }
        blocks = {{blocks.front().first, blocks.back().last, {{left, right}}}};
    }

    commit();
    for (const Block &block : blocks) {
        for (const auto &run : block.runs)
            Q_EMIT q->dataChanged(q->index(block.first, run.first), q->index(block.last, run.second));
    }
    return true;
}

// ---------------------------------------------------------------------------
// TableModel

TableModel::TableModel(Table *table, const QStringList &columns, QObject *parent)
    : QAbstractTableModel(parent), d(new TableModelPrivate(this))
{
    d->threshold = defaultLayoutThreshold;
    d->attach(table, nullptr, nullptr, columns);
}

TableModel::TableModel(IndexList *index, const QStringList &columns, QObject *parent)
    : QAbstractTableModel(parent), d(new TableModelPrivate(this))
{
    d->threshold = defaultLayoutThreshold;
    if (index)
        d->attach(index->table(), index, nullptr, columns);
}

TableModel::TableModel(IndexVector *index, const QStringList &columns, QObject *parent)
    : QAbstractTableModel(parent), d(new TableModelPrivate(this))
{
    d->threshold = defaultLayoutThreshold;
    if (index)
        d->attach(index->table(), nullptr, index, columns);
}

TableModel::~TableModel()
{
    if (d->table) {
        TableLocker locker(d->table);
        if (d->link)
            d->link->model = nullptr;
        if (d->registered)
            d->table->removeIndex(&d->listener);
        d->pending = TableModelPending();
    }
}

Table *TableModel::table() const
{
    return d->table;
}

int TableModel::tableColumn(int column) const
{
    return column >= 0 && column < static_cast<int>(d->columns.size()) ? d->columns[static_cast<size_t>(column)] : -1;
}

Record TableModel::record(int row) const
{
    if (!d->table || row < 0 || row >= d->view.count())
        return Record();
    TableLocker locker(d->table);
    if (d->stale)
        return Record();
    return Record(d->table, d->view.at(row));
}

int TableModel::layoutThreshold() const
{
    return d->threshold;
}

void TableModel::setLayoutThreshold(int count)
{
    // Row signals cost a proxy a pass over its rows each, and this model a
    // walk over the pieces of the view: past a thousand, one layout change
    // is cheaper for everybody.
    d->threshold = std::min(std::max(0, count), 1000);
}

int TableModel::updateInterval() const
{
    return d->interval;
}

void TableModel::setUpdateInterval(int milliseconds)
{
    d->interval = std::max(0, milliseconds);
}

bool TableModel::hasPendingChanges() const
{
    if (!d->table)
        return d->resetDue;
    TableLocker locker(d->table);
    return d->resetDue || !d->pending.isEmpty();
}

int TableModel::rowCount(const QModelIndex &parent) const
{
    return parent.isValid() ? 0 : d->view.count();
}

int TableModel::columnCount(const QModelIndex &parent) const
{
    return parent.isValid() ? 0 : static_cast<int>(d->columns.size());
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

QVariant TableModel::data(const QModelIndex &index, int role) const
{
    if (role == Qt::EditRole)
        role = ValueRole;
    if (role != Qt::DisplayRole && role != ValueRole && role != SortRole && role != Qt::TextAlignmentRole)
        return QVariant();
    const int row = index.row();
    const int column = index.column();
    const int columnCount = static_cast<int>(d->columns.size());
    if (!index.isValid() || row >= d->view.count() || column >= columnCount || !d->table)
        return QVariant();
    if (role == Qt::TextAlignmentRole)
        return isNumeric(d->table->columnType(d->columns[static_cast<size_t>(column)]))
            ? QVariant(int(Qt::AlignRight | Qt::AlignVCenter))
            : QVariant();
    Table *table = d->table;
    if (d->updating) {
        // Between two signals of an update: the rows are in flux.
        TableLocker locker(table);
        return d->stale ? QVariant() : d->cell(d->view.at(row), column, role);
    }
    // A view asks cell by cell; the lock is taken once per page of rows, so
    // that a writer's batches delay a repaint once, not once per cell.
    const int page = row / TableModelPrivate::PageRows;
    auto &pages = d->pages;
    auto it = std::find_if(pages.begin(), pages.end(),
                           [&](const TableModelPrivate::Page &p) { return p.page == page && p.role == role; });
    if (it == pages.end()) {
        TableLocker locker(table);
        if (d->stale)
            return QVariant();
        if (pages.size() >= TableModelPrivate::MaxPages)
            pages.pop_back();
        TableModelPrivate::Page fresh{page, role, {}};
        const int first = page * TableModelPrivate::PageRows;
        const int last = std::min(d->view.count(), first + TableModelPrivate::PageRows);
        fresh.cells.reserve(static_cast<size_t>((last - first) * columnCount));
        for (int r = first; r < last; ++r) {
            unsigned char *data = d->view.at(r);
            for (int c = 0; c < columnCount; ++c)
                fresh.cells.push_back(d->cell(data, c, role));
        }
        pages.insert(pages.begin(), std::move(fresh));
        it = pages.begin();
    }
    return it->cells[static_cast<size_t>((row - page * TableModelPrivate::PageRows) * columnCount + column)];
}

QVariant TableModel::headerData(int section, Qt::Orientation orientation, int role) const
{
    if (orientation == Qt::Horizontal) {
        const int column = tableColumn(section);
        if (column < 0 || !d->table)
            return QVariant();
        if (role == Qt::DisplayRole)
            return d->table->columnTitle(column);
        if (role == Qt::ToolTipRole) {
            const QString description = d->table->columnDescription(column);
            return description.isEmpty() ? QVariant() : QVariant(description);
        }
        if (role == ValueRole)
            return d->table->columnName(column);
        return QVariant();
    }
    return QAbstractTableModel::headerData(section, orientation, role);
}

Qt::ItemFlags TableModel::flags(const QModelIndex &index) const
{
    if (!index.isValid())
        return Qt::NoItemFlags;
    return Qt::ItemIsSelectable | Qt::ItemIsEnabled | Qt::ItemNeverHasChildren;
}

QHash<int, QByteArray> TableModel::roleNames() const
{
    QHash<int, QByteArray> names = QAbstractTableModel::roleNames();
    names.insert(ValueRole, "value");
    names.insert(SortRole, "sort");
    return names;
}

void TableModel::update()
{
    Q_ASSERT_X(QThread::currentThread() == thread(), "TableModel::update", "called from another thread");
    d->update(false);
}

void TableModel::refresh()
{
    Q_ASSERT_X(QThread::currentThread() == thread(), "TableModel::refresh", "called from another thread");
    d->update(true);
}

bool TableModel::event(QEvent *event)
{
    if (event->type() != UpdateEvent)
        return QAbstractTableModel::event(event);
    const qint64 elapsed = d->sinceUpdate.isValid() ? d->sinceUpdate.elapsed() : LLONG_MAX;
    if (d->interval > 0 && elapsed < d->interval) {
        if (!d->timer.isActive())
            d->timer.start(static_cast<int>(d->interval - elapsed), this);
    } else {
        d->update(false);
    }
    return true;
}

void TableModel::timerEvent(QTimerEvent *event)
{
    if (event->timerId() == d->timer.timerId()) {
        d->update(false);
        return;
    }
    QAbstractTableModel::timerEvent(event);
}
