#include "watchindex.h"

WatchIndex::WatchIndex(Table *table)
    : m_table(table)
{
    m_table->addIndex(this);
}

WatchIndex::WatchIndex(const WatchIndex &other) = default;

WatchIndex &WatchIndex::operator=(const WatchIndex &other) = default;

WatchIndex::~WatchIndex()
{
    if (m_table) // the table may be gone first
        m_table->removeIndex(this);
}

void WatchIndex::clear()
{
    m_inserted.clear();
    m_removed.clear();
    m_removedCount.clear();
    m_updated.clear();
}

void WatchIndex::build()
{
    clear();
}

void WatchIndex::add(const Record &record)
{
    // A row removed in this period comes back as an update; the entry taken
    // out of removed() is its first one.
    const auto count = m_removedCount.find(record.rowPtr());
    if (count == m_removedCount.end()) {
        m_inserted.append(record);
        return;
    }
    if (--*count == 0)
        m_removedCount.erase(count);
    m_removed.removeOne(record);
    m_updated.append(record);
}

void WatchIndex::remove(const Record &record, int)
{
    m_removed.append(record);
    ++m_removedCount[record.rowPtr()];
}

bool WatchIndex::filter(const Record &) const
{
    return true;
}

bool WatchIndex::contains(const Record &record) const
{
    return m_inserted.lastIndexOf(record) != -1 || m_updated.lastIndexOf(record) != -1;
}

void WatchIndex::update(const Record &record, int, int, int)
{
    m_updated.append(record);
}

QString WatchIndex::getClassName() const
{
    return QStringLiteral("WatchIndex");
}
