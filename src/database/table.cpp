#include "table.h"

#include "exception.h"
#include "index.h"
#include "lockorder_p.h"
#include "masterindex.h"
#include "table_p.h"
#include "tablejoin.h"
#include "tablemodel_p.h"

#include <QtCore/QDebug>

#include <cstdlib>
#include <cstring>

const int Table::base = 4;
const unsigned long long Table::maxRowSize = 64ull << 20;
const int Table::maxStringLength = 32 << 20;
const Record Record::null;

// Rows come from the C heap: its blocks are aligned well past the 8 bytes a
// row needs, and a plain block saves the pointer an aligned allocation keeps
// in front of each row. allocRow, freeRow and the reallocation in addColumn
// are the only places that allocate or free rows.
void RowRef::freeRow(unsigned char *row)
{
    std::free(row);
}

// ---------------------------------------------------------------------------
// Column lookups

void TablePrivate::cacheColumn(const QString &columnName)
{
    const int number = columns.size();
    columnHash.insert(columnName, number);
    columnMap.insert(columnName, number);
    foldedNames.insert(columnName.toCaseFolded(), number);
}

int TablePrivate::columnIndex(const QString &columnName) const
{
    if (columnHash.size() > 20)
        return columnHash.value(columnName, -1);
    return columnMap.value(columnName, -1);
}

// ---------------------------------------------------------------------------
// Records

Record::Record(const Table *table)
    : m_table(table)
    , m_row(table->allocRow())
{
    RowRef::ref(m_row);
}

Record::Record(const Table *table, const QString &key)
    : m_table(nullptr)
    , m_row(nullptr)
{
    MasterIndex *master = table->masterIndex();
    if (key.isEmpty() || !master)
        return;
    *this = master->findRecord(master->fromText(key));
}

namespace {

int knownColumn(const Table *table, const QString &name)
{
    const int column = table->columnIndex(name);
    if (column < 0)
        throw Exception(QStringLiteral("Column '%1' not found in table '%2'.").arg(name, table->name()));
    return column;
}

} // namespace

Field Record::data(const QString &name) const
{
    return data(knownColumn(m_table, name));
}

bool Record::inTable() const
{
    return !isNull() && m_table->masterIndex()->contains(*this);
}

QString Record::toString() const
{
    if (isNull())
        return QString();
    return m_table->masterIndex()->toText(*this);
}

void Record::updated() const
{
    const_cast<Table *>(m_table)->updated(*this, 0, m_table->columnCount() - 1, -1);
}

void Record::updated(int column) const
{
    const_cast<Table *>(m_table)->updated(*this, column, column, -1);
}

void Record::updated(int firstColumn, int lastColumn) const
{
    const_cast<Table *>(m_table)->updated(*this, firstColumn, lastColumn, -1);
}

void Record::append() const
{
    const_cast<Table *>(m_table)->appendRow(m_row);
}

void Record::remove() const
{
    const_cast<Table *>(m_table)->remove(*this, -1);
}

// ---------------------------------------------------------------------------
// Table: schema

Table::Table(const QString &name, const QString &title, QObject *parent)
    : QObject(parent)
    , d_ptr(new TablePrivate(this, name, title))
{
    d_ptr->masterIndex = new MasterIndexOrdered(this);
}

Table::~Table()
{
    Q_D(Table);
    LockOrder::forget(this);
    d->destroying = true;
    d->rowsGoing = true;
    const QList<Index *> indexes = d->indexes;
    for (Index *index : indexes)
        index->clear();
    delete d->masterIndex;
    d->masterIndex = nullptr;
    qDeleteAll(d->columns);
    d->columns.clear();
    m_columnDefs = nullptr;
}

QString Table::name() const
{
    return d_func()->name;
}

QString Table::title() const
{
    Q_D(const Table);
    return d->title.isEmpty() ? d->name : d->title;
}

void Table::setTitle(const QString &title)
{
    d_func()->title = title;
}

int Table::columnCount() const
{
    return d_func()->columns.size();
}

void Table::addColumn(const QString &name, const FieldDef &def, bool nullable, const QString &title, bool secondFlag,
                      const QString &description)
{
    addColumn(name, def.type, def.length, nullable, title, secondFlag, description);
}

void Table::addColumn(const QString &name, FieldType::Type type, int length, bool nullable, const QString &title,
                      bool secondFlag, const QString &description)
{
    TableColumnDef def(this);
    def.name = name;
    def.type = type;
    def.length = length;
    def.nullable = nullable;
    def.title = title;
    def.secondFlag = secondFlag;
    def.description = description;
    addColumn(def);
}

void Table::addColumn(const TableColumnDef &def)
{
    Q_D(Table);
    if (def.name.isEmpty())
        throw Exception(QStringLiteral("Column name can't be empty."));

    // The duplicate test ignores case although lookups do not. At most one
    // existing name folds alike: a second one would have been refused.
    const auto same = d->foldedNames.constFind(def.name.toCaseFolded());
    if (same != d->foldedNames.constEnd()) {
        const TableColumnDef *existing = d->columns.at(same.value());
        if (FieldType::typeLessThan(def.type, def.length, existing->type, existing->length))
            return;
        throw Exception(QStringLiteral("Column '%1' already exists for table '%2'.").arg(def.name, d->name));
    }
    // A length a row cannot hold (from a damaged file, say) never reaches
    // the layout, where it would size every row and buffer.
    if (def.type == FieldType::String && (def.length < 0 || def.length > maxStringLength))
        throw Exception(QStringLiteral("Column '%1' of table '%2' can't hold a string of length %3.")
                            .arg(def.name, d->name)
                            .arg(def.length));

    QScopedPointer<TableColumnDef> column(new TableColumnDef(this));
    column->type = def.type;
    column->length = def.length;
    column->name = def.name;
    column->description = def.description;
    column->title = def.title;
    column->secondFlag = def.secondFlag;
    column->offset = d->rowLength;
    column->size = FieldType::typeLength(def.type, def.length); // throws before anything changed
    column->nullable = def.nullable;

    const int oldColumnCount = d->columns.size();
    const unsigned long long oldRowLength = d->rowLength;
    const unsigned long long oldRowSize = d->rowSize;
    const unsigned long long newRowSize = 4 + (oldRowLength + column->size)
        + static_cast<unsigned long long>((oldColumnCount + 8) / 8);
    if (newRowSize > maxRowSize)
        throw Exception(QStringLiteral("Column '%1' would make the rows of table '%2' longer than %3 bytes.")
                            .arg(def.name, d->name)
                            .arg(maxRowSize));

    // Every row is reallocated: take the rows out of all indexes first.
    QList<unsigned char *> rows;
    rows.reserve(rowCount());
    for (auto it = d->masterIndex->begin(); it != d->masterIndex->end(); ++it) {
        RowRef::ref(it->rowPtr());
        rows.append(it->rowPtr());
    }
    d->masterIndex->clear();
    const QList<Index *> indexes = d->indexes;
    // Even without rows: rows a model still shows (held since a clear) are
    // laid out for the old columns.
    d->rowsGoing = true;
    for (Index *index : indexes)
        index->clear();
    d->rowsGoing = false;

    // The old null bits move by the slot width; as this operation always did,
    // only the bytes of the first oldColumnCount - 1 bits move, and it is bit
    // oldColumnCount - 1 that a nullable column clears.
    const size_t movedNullBytes = static_cast<size_t>((oldColumnCount - 1 + 7) / 8);
    for (unsigned char *&row : rows) {
        if (RowRef::deref(row))
            qWarning().nospace() << "Table::addColumn : Ref count in realloc is " << references(row);
        row = static_cast<unsigned char *>(std::realloc(row, newRowSize));
        Q_CHECK_PTR(row);
        // Whatever the reallocation leaves in the new bytes is read as null
        // bits below: make it zeros rather than garbage.
        std::memset(row + oldRowSize, 0, static_cast<size_t>(newRowSize - oldRowSize));
        unsigned char *data = row + base;
        std::memmove(data + oldRowLength + column->size, data + oldRowLength, movedNullBytes);
        std::memset(data + oldRowLength, 0, static_cast<size_t>(column->size));
        if (column->nullable && oldColumnCount >= 1)
            setNullPtr(data + oldRowLength + column->size, oldColumnCount - 1, true);
        __atomic_store_n(reinterpret_cast<quint32 *>(row), 1u, __ATOMIC_SEQ_CST);
    }

    d->cacheColumn(def.name);
    d->columns.append(column.take());
    m_columnDefs = &d->columns.at(0); // pointers are stored in place, contiguously
    d->rowLength += d->columns.last()->size;
    d->rowSize = newRowSize;
    if (d->layoutDeferred == 0)
        updateNullLayout();

    for (unsigned char *row : qAsConst(rows)) {
        d->masterIndex->add(Record(this, row));
        if (!RowRef::deref(row))
            freeRow(row);
    }
    for (Index *index : indexes)
        index->build();
}

int Table::columnIndex(const QString &name) const
{
    return d_func()->columnIndex(name);
}

bool Table::columnExists(const QString &name) const
{
    return columnIndex(name) != -1;
}

const TableColumnDef &Table::columnDef(int column) const
{
    return *d_func()->columns.at(column);
}

const TableColumnDef &Table::columnDef(const QString &name) const
{
    return columnDef(knownColumn(this, name));
}

QString Table::columnName(int column) const
{
    return columnDef(column).name;
}

FieldType::Type Table::columnType(int column) const
{
    return columnDef(column).type;
}

QString Table::columnTypeName(int column) const
{
    const TableColumnDef &def = columnDef(column);
    return FieldType::typeNameWithLength(def.type, def.length);
}

QString Table::columnDescription(int column) const
{
    return columnDef(column).description;
}

QString Table::columnTitle(int column) const
{
    const TableColumnDef &def = columnDef(column);
    return def.title.isEmpty() ? def.name : def.title;
}

void Table::setColumnTitle(int column, const QString &title)
{
    d_func()->columns[column]->title = title;
}

QList<ColumnDef> Table::columns() const
{
    QList<ColumnDef> result;
    for (const TableColumnDef *def : d_func()->columns)
        result.append(*def);
    return result;
}

QList<TableColumnDef *> Table::fieldDefs() const
{
    return d_func()->columns;
}

unsigned long long Table::rowLength() const
{
    return d_func()->rowLength;
}

unsigned long long Table::rowSize() const
{
    return d_func()->rowSize;
}

// ---------------------------------------------------------------------------
// Table: rows

unsigned char *Table::allocRow() const
{
    const size_t size = static_cast<size_t>(d_func()->rowSize);
    unsigned char *row = static_cast<unsigned char *>(std::calloc(1, size));
    Q_CHECK_PTR(row);
    return row;
}

void Table::freeRow(unsigned char *row)
{
    RowRef::freeRow(row);
}

unsigned int Table::references(const unsigned char *row)
{
    return __atomic_load_n(reinterpret_cast<const quint32 *>(row), __ATOMIC_SEQ_CST);
}

void Table::hasRow(unsigned char *)
{
}

bool Table::isNullPtr(unsigned char *nullArea, int column)
{
    return (nullArea[column / 8] & (1u << (column % 8))) == 0;
}

void Table::setNullPtr(unsigned char *nullArea, int column, bool isNull)
{
    const unsigned char mask = static_cast<unsigned char>(1u << (column % 8));
    if (isNull)
        nullArea[column / 8] &= static_cast<unsigned char>(~mask);
    else
        nullArea[column / 8] |= mask;
}

// ---------------------------------------------------------------------------
// Table: indexes

void Table::addIndex(Index *index)
{
    d_func()->indexes.append(index);
    Q_EMIT indexAdded(index);
}

void Table::removeIndex(Index *index)
{
    Q_D(Table);
    d->indexes.removeOne(index);
    const QString name = indexName(index);
    if (!name.isEmpty())
        d->indexNames.remove(name);
    Q_EMIT indexRemoved(index);
}

void Table::addDependentIndex(Index *index)
{
    d_func()->dependentIndexes.append(index);
    Q_EMIT dependentIndexAdded(index);
}

void Table::removeDependentIndex(Index *index)
{
    d_func()->dependentIndexes.removeOne(index);
    Q_EMIT dependentIndexRemoved(index);
}

QList<Index *> Table::indexes() const
{
    return d_func()->indexes;
}

QList<Index *> Table::dependentIndexes() const
{
    return d_func()->dependentIndexes;
}

void Table::setIndexes(const QList<Index *> &indexes)
{
    d_func()->indexes = indexes;
}

void Table::setIndexName(const QString &name, Index *index)
{
    d_func()->indexNames.insert(name, index);
}

Index *Table::namedIndex(const QString &name) const
{
    return d_func()->indexNames.value(name, nullptr);
}

QString Table::indexName(Index *index) const
{
    return d_func()->indexNames.key(index);
}

MasterIndex *Table::masterIndex() const
{
    return d_func()->masterIndex;
}

void Table::setMasterIndex(MasterIndex *index)
{
    Q_D(Table);
    if (d->masterIndex && d->masterIndex != index) {
        // Deleting the master index may free the rows: a model over it
        // holds those it shows until it has read the new one.
        for (Index *listener : qAsConst(d->indexes)) {
            if (auto *model = dynamic_cast<TableModelListener *>(listener))
                model->holdRows();
        }
        delete d->masterIndex;
    }
    d->masterIndex = index;
}

int Table::rowCount() const
{
    return d_func()->masterIndex->count();
}

// ---------------------------------------------------------------------------
// Table: changes

void Table::appendRow(unsigned char *row)
{
    Q_D(Table);
    const Record record(this, row);
    d->masterIndex->add(record);
    const QList<Index *> indexes = d->indexes;
    for (Index *index : indexes) {
        if (index->filter(record))
            index->add(record);
    }
}

void Table::appendList(const QList<Record> &records)
{
    Q_D(Table);
    const QList<Record> none;
    d->masterIndex->process(none, none, -1, -1, records);
    const QList<Index *> indexes = d->indexes;
    for (Index *index : indexes)
        index->process(none, none, -1, -1, records);
}

void Table::appendRecords(const QVector<Record> &records)
{
    appendList(QList<Record>(records.begin(), records.end()));
}

void Table::remove(const Record &record, int position)
{
    Q_D(Table);
    // The master index goes last: its reference keeps the row alive until
    // every other index has let go.
    const QList<Index *> indexes = d->indexes;
    for (Index *index : indexes)
        index->remove(record, -1);
    d->masterIndex->remove(record, position);
}

void Table::widenByJoins(int &firstColumn, int &lastColumn) const
{
    for (const TableJoin *join : d_func()->joins)
        join->widen(firstColumn, lastColumn);
}

void Table::updated(const Record &record, int firstColumn, int lastColumn, int position)
{
    Q_D(Table);
    d->masterIndex->update(record, firstColumn, lastColumn, position);
    widenByJoins(firstColumn, lastColumn);
    const QList<Index *> indexes = d->indexes;
    for (Index *index : indexes)
        index->update(record, firstColumn, lastColumn, -1);
}

void Table::updated(const Record &record, int position)
{
    updated(record, 0, columnCount() - 1, position);
}

Table::UpdateKeeper Table::buildKeeper(const Record &record) const
{
    UpdateKeeper keeper;
    const QList<Index *> indexes = d_func()->indexes;
    keeper.reserve(indexes.size());
    for (Index *index : indexes)
        keeper.append(index->indexOf(record));
    return keeper;
}

void Table::updated(const Record &record, const UpdateKeeper &keeper, int firstColumn, int lastColumn)
{
    widenByJoins(firstColumn, lastColumn);
    const QList<Index *> indexes = d_func()->indexes;
    for (int i = 0; i < indexes.size(); ++i)
        indexes[i]->update(record, firstColumn, lastColumn, keeper.value(i, -1));
}

void Table::updated(const Record &record, const UpdateKeeper &keeper)
{
    updated(record, keeper, 0, columnCount() - 1);
}

void Table::process(const QList<Record> &removed, const QList<Record> &updated, int firstColumn, int lastColumn,
                    const QList<Record> &inserted)
{
    Q_D(Table);
    d->masterIndex->process(removed, updated, firstColumn, lastColumn, inserted);
    if (!updated.isEmpty())
        widenByJoins(firstColumn, lastColumn);
    const QList<Index *> indexes = d->indexes;
    for (Index *index : indexes)
        index->process(removed, updated, firstColumn, lastColumn, inserted);
}

void Table::clear()
{
    Q_D(Table);
    const QList<Index *> indexes = d->indexes;
    for (Index *index : indexes)
        index->clear();
    d->masterIndex->clear();
}

void Table::build()
{
    const QList<Index *> indexes = d_func()->indexes;
    for (Index *index : indexes)
        index->build();
}

void Table::updateNullLayout()
{
    Q_D(Table);
    for (int k = 0; k < d->columns.size(); ++k)
        d->columns[k]->update(d->rowLength, k);
}

void Table::deferNullLayout(bool defer)
{
    Q_D(Table);
    if (defer) {
        ++d->layoutDeferred;
    } else if (--d->layoutDeferred == 0) {
        updateNullLayout();
    }
}
