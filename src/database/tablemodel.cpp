#include "tablemodel.h"
#include "tablemodel_p.h"
#include "tsan_p.h"

#include "indexlist.h"
#include "indexvector.h"
#include "table_p.h"

#include <QtCore/QEvent>
#include <QtCore/QThread>
#include <QtCore/QTimerEvent>

#include <algorithm>
#include <climits>

const int TableModel::defaultLayoutThreshold = 100;

namespace {

bool isNumeric(FieldType::Type type)
{
    return type == FieldType::Integer || type == FieldType::Integer64 || type == FieldType::Double
        || type == FieldType::Decimal;
}

} // namespace

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
        // Between two signals of an update the rows move: cells are kept by
        // row, so that a slot reads the same value before and after a
        // signal, whatever a writer does meanwhile.
        const TableModelPrivate::CellKey key{d->view.at(row), column, role};
        const auto known = d->readWhileUpdating.find(key);
        if (known != d->readWhileUpdating.end())
            return known->second;
        TableLocker locker(table);
        const QVariant value = d->stale ? QVariant() : d->cell(key.row, column, role);
        d->readWhileUpdating.emplace(key, value);
        return value;
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
    tsanAcquire(event);
    if (event->type() != TableModelPrivate::UpdateEvent)
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
