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
    m_updated.clear();
}

void WatchIndex::build()
{
    clear();
}

void WatchIndex::add(const Record &record)
{
    // The scan from the end only tells whether the row is there; the entry
    // taken out is its first one.
    for (int i = m_removed.size() - 1; i >= 0; --i) {
        if (m_removed.at(i) == record) {
            m_removed.removeOne(record);
            m_updated.append(record);
            return;
        }
    }
    m_inserted.append(record);
}

void WatchIndex::remove(const Record &record, int)
{
    m_removed.append(record);
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
