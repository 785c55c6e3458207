#include "indexlist.h"

#include "core.h"
#include "masterindex.h"

IndexList::IndexList(Table *table, bool registered)
    : m_table(table)
    , m_tableAlive(table)
    , m_list(10000)
    , m_registered(registered)
{
    if (m_registered)
        m_table->addIndex(this);
}

IndexList::IndexList(const QString &tableName)
    : m_table(ApplicationCore::table(tableName))
    , m_tableAlive(m_table)
    , m_list(10000)
    , m_registered(true)
{
    if (m_table)
        m_table->addIndex(this);
}

IndexList::~IndexList()
{
    // An index may outlive its table (declared before it, say): there is
    // nothing left to unregister from then. One that its creator put on the
    // table's list (MasterIndexColumn::createIndex) leaves it too, rather
    // than stay there dangling.
    if (m_tableAlive && (m_registered || m_table->indexes().contains(this)))
        m_table->removeIndex(this);
}

void IndexList::clear()
{
    m_list.clear();
}

void IndexList::build()
{
    appendFromMaster(true);
}

void IndexList::appendFromMaster(bool throughAdd)
{
    if (!m_table)
        return;
    Q_ASSERT_X(m_tableAlive, "IndexList::build", "the index's table was deleted");
    MasterIndex *master = m_table->masterIndex();
    // The master index walking itself would never end.
    if (static_cast<Index *>(master) == this)
        return;
    TableLocker locker(m_table);
    for (const Record &record : *master) {
        if (!filter(record))
            continue;
        if (throughAdd)
            add(record);
        else
            m_list.append(record);
    }
}

void IndexList::add(const Record &record)
{
    m_list.append(record);
}

void IndexList::remove(const Record &record, int position)
{
    if (position != -1 && m_list.at(position).rowPtr() == record.rowPtr()) {
        m_list.removeAt(position);
        return;
    }
    const int found = indexOf(record);
    if (found != -1)
        m_list.removeAt(found);
}

bool IndexList::filter(const Record &) const
{
    return true;
}

bool IndexList::contains(const Record &record) const
{
    return indexOf(record) != -1;
}

int IndexList::indexOf(const Record &record) const
{
    return m_list.indexOf(record);
}

QString IndexList::getClassName() const
{
    return QStringLiteral("IndexList");
}

void IndexList::move(int first, int last, int to)
{
    if (first == to || to == last)
        return;
    QList<Record> block;
    for (int i = first; i <= last && first >= 0 && first < m_list.count(); ++i) {
        block.append(m_list.at(first));
        m_list.removeAt(first);
    }
    // A target past the end appends rather than dropping the block.
    to = qBound(0, to, m_list.count());
    for (int i = 0; i < block.size(); ++i)
        m_list.insert(to + i, block.at(i));
}
