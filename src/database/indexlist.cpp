#include "indexlist.h"

#include "core.h"
#include "masterindex.h"
#include "tablemodelplan_p.h" // RowFilter

#include <QtCore/QHash>

#include <algorithm>
#include <typeinfo>
#include <vector>

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

void IndexList::process(const QList<Record> &removed, const QList<Record> &updated, int firstColumn,
                        int lastColumn, const QList<Record> &inserted)
{
    // A subclass may have its own remove(), update() or add(), which the
    // default hears one record at a time; and a few changes cost less that
    // way than one pass over a long list.
    constexpr int BatchFrom = 16;
    if (typeid(*this) != typeid(IndexList) || removed.size() + updated.size() < BatchFrom) {
        Index::process(removed, updated, firstColumn, lastColumn, inserted);
        return;
    }

    // What the default gives, in one pass: each removal takes out a row's
    // first entry, and each update its first entry and appends the row
    // again, so that entries appended by earlier updates of a row give way
    // to later ones once its entries in the list are used up.
    struct Changes
    {
        int removals = 0;
        int updates = 0;
        int present = 0; // the row's entries in the list
        int deleted = 0; // of those, taken out
    };
    QHash<const unsigned char *, Changes> changes;
    changes.reserve(removed.size() + updated.size());
    // Most elements of the pass are not among the changed rows: a bit test
    // says so before the hash.
    RowFilter filter(static_cast<size_t>(removed.size() + updated.size()));
    for (const Record &record : removed) {
        ++changes[record.rowPtr()].removals;
        filter.add(record.rowPtr());
    }
    for (const Record &record : updated) {
        ++changes[record.rowPtr()].updates;
        filter.add(record.rowPtr());
    }

    QVector<QPair<int, int>> ranges;
    int position = 0;
    m_list.forEachSegment([&](const Record *first, int count) {
        for (int e = 0; e < count; ++e, ++position) {
            if (!filter.maybe(first[e].rowPtr()))
                continue;
            const auto change = changes.find(first[e].rowPtr());
            if (change == changes.end())
                continue;
            ++change->present;
            if (change->deleted < change->removals + change->updates) {
                ++change->deleted;
                if (!ranges.isEmpty() && ranges.last().second == position)
                    ranges.last().second = position + 1;
                else
                    ranges.append(qMakePair(position, position + 1));
            }
        }
    });
    m_list.removeRanges(ranges);

    // A row's updates leave as many entries as the list had left for them to
    // take out, at least one: those its last updates appended.
    for (Changes &change : changes) {
        if (change.updates > 0)
            change.updates = std::max(1, std::min(std::max(0, change.present - change.removals), change.updates));
    }
    std::vector<bool> appended(static_cast<size_t>(updated.size()), false);
    for (int u = updated.size() - 1; u >= 0; --u) {
        int &left = changes[updated[u].rowPtr()].updates;
        if (left > 0) {
            --left;
            appended[static_cast<size_t>(u)] = true;
        }
    }
    for (int u = 0; u < updated.size(); ++u) {
        if (appended[static_cast<size_t>(u)])
            m_list.append(updated[u]);
    }
    for (const Record &record : inserted)
        m_list.append(record);
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
