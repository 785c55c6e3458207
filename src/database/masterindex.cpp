#include "masterindex.h"

#include "masterindex_fast.h"

#include "table.h"

#include <typeinfo>

MasterIndex::MasterIndex(Table *table)
    : IndexSort(table, false)
{
}

QStringList MasterIndex::columnNames() const
{
    QStringList names;
    for (const int column : m_columns)
        names.append(m_table->columnName(column));
    return names;
}

Record MasterIndex::findRecord(const QString &text)
{
    return findRecord(fromText(text));
}

Record MasterIndex::findRecord(const Record &key) const
{
    // Only the class itself: a subclass may order or filter otherwise than
    // its key bytes say, and keeps its own search().
    Record found;
    if (typeid(*this) == typeid(MasterIndex_Fast) && static_cast<const MasterIndex_Fast *>(this)->lookup(key, found))
        return found;
    const int position = search(key, -1);
    return position != -1 ? at(position) : Record();
}

QString MasterIndex::getClassName() const
{
    return QStringLiteral("MasterIndex");
}

MasterPtrIndex::MasterPtrIndex(Table *table)
    : MasterIndex(table)
{
}

int MasterPtrIndex::compare(const Record &a, const Record &b) const
{
    const std::less<const unsigned char *> less;
    if (less(a.rowPtr(), b.rowPtr()))
        return -1;
    return less(b.rowPtr(), a.rowPtr()) ? 1 : 0;
}

QString MasterPtrIndex::toText(const Record &)
{
    return QString();
}

Record MasterPtrIndex::fromText(const QString &)
{
    return Record(m_table);
}

MasterIndexOrdered::MasterIndexOrdered(Table *table)
    : MasterIndex(table)
{
}

int MasterIndexOrdered::compare(const Record &, const Record &) const
{
    return 0;
}

QString MasterIndexOrdered::toText(const Record &)
{
    return QString();
}

Record MasterIndexOrdered::fromText(const QString &)
{
    return Record(m_table);
}

MasterIndexProxy::MasterIndexProxy(Table *table)
    : MasterIndex(table)
    , m_target(table->masterIndex())
{
    if (m_target)
        m_columns = m_target->columns();
}

int MasterIndexProxy::compare(const Record &a, const Record &b) const
{
    return m_target->compare(a, b);
}

QString MasterIndexProxy::toText(const Record &record)
{
    return m_target->toText(record);
}

Record MasterIndexProxy::fromText(const QString &text)
{
    return m_target->fromText(text);
}

QString MasterIndexProxy::getClassName() const
{
    return QStringLiteral("MasterIndexProxy");
}

namespace {

int keyColumn(Table *table, const QString &name)
{
    const int column = table->columnIndex(name);
    if (column == -1)
        throw QStringLiteral("Column '%1' not found to create index.").arg(name);
    return column;
}

} // namespace

MasterIndexColumn::MasterIndexColumn(Table *table, const QString &column)
    : MasterIndex(table)
{
    m_columns.append(keyColumn(table, column));
}

MasterIndexColumn::MasterIndexColumn(Table *table, const QStringList &columns)
    : MasterIndex(table)
{
    for (const QString &name : columns)
        m_columns.append(keyColumn(table, name));
}

MasterIndexColumn::MasterIndexColumn(Table *table, const QList<int> &columns)
    : MasterIndex(table)
{
    m_columns = columns;
}

int MasterIndexColumn::compare(const Record &a, const Record &b) const
{
    for (const int column : m_columns) {
        const int c = a.data(column).compare(b.data(column));
        if (c != 0)
            return c;
    }
    return 0;
}

QString MasterIndexColumn::toText(const Record &record)
{
    QStringList parts;
    for (const int column : qAsConst(m_columns)) {
        const QString text = record.data(column).toString();
        if (text.isEmpty())
            return QString();
        parts.append(text);
    }
    return parts.join(QLatin1Char(','));
}

Record MasterIndexColumn::fromText(const QString &text)
{
    const QStringList parts = text.split(QLatin1Char(','));
    if (parts.size() != m_columns.size()) {
        throw QStringLiteral("Master index can't restore from text. Incorrect columns numbers: %1 != %2")
            .arg(parts.size())
            .arg(m_columns.size());
    }
    const Record record(m_table);
    for (int i = 0; i < parts.size(); ++i) {
        Field field = record.data(m_columns[i]);
        field = parts[i];
    }
    return record;
}

MasterIndex *MasterIndexColumn::create(Table *table, QStringList columns)
{
    return new MasterIndexColumn(table, columns);
}

void MasterIndexColumn::createMasterIndex(Table *table, QStringList columns)
{
    table->setMasterIndex(new MasterIndexColumn(table, columns));
}

MasterIndex *MasterIndexColumn::createIndex(const QString &name, Table *table, QStringList columns)
{
    MasterIndex *index = new MasterIndexColumn(table, columns);
    table->addIndex(index);
    table->setIndexName(name, index);
    return index;
}
