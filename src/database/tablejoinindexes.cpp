#include "tablejoin.h"
#include "tablejoin_p.h"

#include "lockorder_p.h"
#include "table_p.h"

#include <QtCore/QScopeGuard>

using namespace tablejoin_detail;

// The indexes through which a join hears its tables: TableJoinMain on the
// main table, TableJoinDep on each dependent one.

// --- TableJoinMain -------------------------------------------------------------

TableJoinMain::TableJoinMain(TableJoin *join)
    : m_join(join)
{
}

void TableJoinMain::clear()
{
    for (const auto &link : m_join->d->links) {
        link->mainByKey.clear();
        link->mainSlots.clear();
    }
}

void TableJoinMain::build()
{
    Table *main = m_join->d->main;
    if (!main)
        return;
    TableLocker locker(main);
    for (const Record &row : *main->masterIndex())
        add(row);
}

void TableJoinMain::add(const Record &record)
{
    m_join->d->touched(m_join->d->main);
    for (const auto &link : m_join->d->links)
        TableJoinPrivate::join(*link, record);
}

void TableJoinMain::process(const QList<Record> &removed, const QList<Record> &updated, int firstColumn,
                            int lastColumn, const QList<Record> &inserted)
{
    // The dependent tables once for the batch rather than once per row.
    std::vector<std::unique_ptr<TableLocker>> lockers;
    for (const auto &link : m_join->d->links) {
        if (link->table)
            lockers.push_back(std::make_unique<TableLocker>(link->table));
    }
    Index::process(removed, updated, firstColumn, lastColumn, inserted);
}

void TableJoinMain::remove(const Record &record, int)
{
    m_join->d->touched(m_join->d->main);
    for (const auto &link : m_join->d->links)
        TableJoinPrivate::unfile(*link, record.rowPtr());
}

bool TableJoinMain::filter(const Record &) const
{
    return true;
}

bool TableJoinMain::contains(const Record &record) const
{
    const auto &links = m_join->d->links;
    return !links.empty() && links.front()->mainSlots.contains(record.rowPtr());
}

void TableJoinMain::update(const Record &record, int firstColumn, int lastColumn, int)
{
    if (m_join->d->refreshing)
        return;
    m_join->d->touched(m_join->d->main);
    for (const auto &link : m_join->d->links) {
        bool keyChanged = !knownRange(firstColumn, lastColumn) || !link->mainSlots.contains(record.rowPtr());
        for (int i = 0; !keyChanged && i < link->mainKey.size(); ++i) {
            const int column = link->mainKey.at(i);
            keyChanged = column >= firstColumn && column <= lastColumn;
        }
        if (keyChanged)
            TableJoinPrivate::join(*link, record);
    }
}

QString TableJoinMain::getClassName() const
{
    return QStringLiteral("TableJoinMain");
}

// --- TableJoinDep --------------------------------------------------------------

TableJoinDep::TableJoinDep(TableJoin *join, TableJoinLink *link)
    : m_join(join)
    , m_link(link)
{
}

Table *TableJoinDep::dependentTable() const
{
    return m_link->table;
}

void TableJoinDep::clear()
{
    m_join->d->touched(m_link->table);
    m_link->depKeys.clear();
    m_link->pending.clear();
    m_link->refreshAll = false;
    m_link->nullAll = true;
    m_join->d->changed(*m_link);
}

void TableJoinDep::build()
{
    if (!m_join->d->main || !m_link->table)
        return;
    {
        TableLocker locker(m_link->table);
        for (const Record &row : *m_link->table->masterIndex())
            m_link->depKeys.insert(row.rowPtr(), keyHash(row, m_link->depKey));
        m_link->refreshAll = true;
    }
    m_join->d->changed(*m_link);
}

void TableJoinDep::add(const Record &record)
{
    m_join->d->touched(m_link->table);
    const quint64 key = keyHash(record, m_link->depKey);
    m_link->depKeys.insert(record.rowPtr(), key);
    m_link->pending.push_back(key);
    m_join->d->changed(*m_link);
}

void TableJoinDep::remove(const Record &record, int)
{
    m_join->d->touched(m_link->table);
    const auto known = m_link->depKeys.find(record.rowPtr());
    if (known != m_link->depKeys.end()) {
        m_link->pending.push_back(*known);
        m_link->depKeys.erase(known);
    } else {
        m_link->pending.push_back(keyHash(record, m_link->depKey));
    }
    // The master index hears of the removal after this index.
    m_join->d->changed(*m_link, record.rowPtr());
}

void TableJoinDep::process(const QList<Record> &removed, const QList<Record> &updated, int firstColumn,
                           int lastColumn, const QList<Record> &inserted)
{
    // One refill for the whole batch, also outside a batch of the table (a
    // transaction applied without a TableUpdater). The master index has
    // processed the batch already.
    {
        ++m_link->batchDepth;
        auto restore = qScopeGuard([&] { --m_link->batchDepth; });
        Index::process(removed, updated, firstColumn, lastColumn, inserted);
    }
    m_join->d->changed(*m_link);
}

bool TableJoinDep::filter(const Record &) const
{
    return true;
}

bool TableJoinDep::contains(const Record &record) const
{
    return m_link->depKeys.contains(record.rowPtr());
}

void TableJoinDep::update(const Record &record, int firstColumn, int lastColumn, int)
{
    // Columns that are neither key nor filled change nothing in the main rows.
    if (knownRange(firstColumn, lastColumn)) {
        bool relevant = false;
        for (const QVector<int> *columns : {&m_link->depKey, &m_link->depFill}) {
            for (int column : *columns)
                relevant |= column >= firstColumn && column <= lastColumn;
        }
        if (!relevant)
            return;
    }
    m_join->d->touched(m_link->table);
    const quint64 key = keyHash(record, m_link->depKey);
    const auto known = m_link->depKeys.find(record.rowPtr());
    if (known != m_link->depKeys.end() && *known != key)
        m_link->pending.push_back(*known);
    m_link->depKeys.insert(record.rowPtr(), key);
    m_link->pending.push_back(key);
    m_join->d->changed(*m_link);
}

void TableJoinDep::dependentBeginUpdate(Table *table)
{
    if (table != m_link->table || !m_join->d->main)
        return;
    // The main table's batch opens before the dependent table locks.
    m_link->opened.append(TableJoin::beginExclusive(m_join->d->main));
    ++m_link->batchDepth;
}

void TableJoinDep::dependentEndUpdate(Table *table)
{
    if (table != m_link->table || m_link->opened.isEmpty())
        return;
    auto close = qScopeGuard([&] {
        --m_link->batchDepth;
        const bool opened = m_link->opened.takeLast();
        if (m_join->d->main)
            TableJoin::endExclusive(m_join->d->main, opened);
    });
    m_join->d->flush(*m_link);
}

QString TableJoinDep::getClassName() const
{
    return QStringLiteral("TableJoinDep");
}

// --- Free functions ------------------------------------------------------------

QList<QPair<int, int>> TableJoinNamespace::connectIndexes(MasterIndex *main, MasterIndex *dependent)
{
    Table *mainTable = main->table();
    Table *dependentTable = dependent->table();
    QList<QPair<int, int>> pairs;
    for (int column : dependent->columns()) {
        const QString name = dependentTable->columnName(column);
        const int mainColumn = mainTable->columnIndex(name);
        if (mainColumn < 0)
            throw notFound(name, mainTable);
        pairs.append(qMakePair(mainColumn, column));
    }
    return pairs;
}

bool TableJoinNamespace::typeToMaster(const Field &value, Field key)
{
    key = value;
    return !key.isNull();
}
