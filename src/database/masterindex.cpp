#include "masterindex.h"

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
    const Record key = fromText(text);
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
