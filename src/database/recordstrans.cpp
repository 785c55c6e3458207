#include "recordstrans.h"

#include "indexlimit.h"
#include "masterindex.h"

#include <QtCore/QDebug>

#include <exception>

RecordsTrans::RecordsTrans(Table *table)
    : m_master(table->masterIndex())
    , m_firstColumn(table->columnCount())
    , m_lastColumn(-1)
{
}

RecordsTrans::~RecordsTrans() noexcept(false)
{
    if (std::uncaught_exceptions() == 0) {
        execute();
        return;
    }
    try {
        execute();
    } catch (...) {
        qWarning("RecordsTrans: a transaction failed while another exception was unwinding");
    }
}

QList<Record> RecordsTrans::listOf(int action) const
{
    QList<Record> result;
    for (auto it = m_states.cbegin(); it != m_states.cend(); ++it) {
        if (it.value() == action)
            result.append(it.key());
    }
    return result;
}

QList<Record> RecordsTrans::insertList() const
{
    return listOf(Insert);
}

QList<Record> RecordsTrans::updateList() const
{
    return listOf(Update);
}

QList<Record> RecordsTrans::removeList() const
{
    return listOf(Remove);
}

void RecordsTrans::execute()
{
    QList<Record> removed = removeList();
    const QList<Record> updated = updateList();
    const QList<Record> inserted = insertList();
    m_states.clear();

    Table *table = m_master->table();
    if (auto *limit = dynamic_cast<IndexLimit *>(table->namedIndex(QStringLiteral("IndexLimit")))) {
        const int surplus = limit->count() - limit->limit() + inserted.count() - removed.count();
        if (surplus >= 1)
            removed += limit->toRemove(surplus, removed + updated);
    }
    // The column range is passed as it was taken, on purpose.
    table->process(removed, updated, m_firstColumn, m_lastColumn, inserted);
}

namespace {

// The first pending record whose key is not less than `key`.
int lowerBound(const MasterIndex *master, const QList<Record> &pending, const Record &key)
{
    int lo = 0;
    int hi = pending.size();
    while (lo < hi) {
        const int mid = lo + (hi - lo) / 2;
        if (master->compare(pending[mid], key) < 0)
            lo = mid + 1;
        else
            hi = mid;
    }
    return lo;
}

} // namespace

RecordUpdater::RecordUpdater(const Record &key, RecordsTrans &trans)
    : m_trans(&trans)
    , m_position(-1)
{
    MasterIndex *master = key.table()->masterIndex();
    m_position = master->search(key, -1);
    if (m_position != -1) {
        m_record = master->at(m_position);
        trans.m_states[m_record] = RecordsTrans::Update;
        return;
    }
    const int at = lowerBound(trans.m_master, trans.m_pending, key);
    if (at < trans.m_pending.size() && trans.m_master->compare(key, trans.m_pending[at]) >= 0) {
        m_record = trans.m_pending[at];
        return;
    }
    m_record = key;
    trans.m_states[m_record] = RecordsTrans::Insert;
    trans.m_pending.insert(at, key);
}

void RecordUpdater::remove()
{
    auto state = m_trans->m_states.find(m_record);
    if (state == m_trans->m_states.end() || state.value() != RecordsTrans::Insert) {
        m_trans->m_states[m_record] = RecordsTrans::Remove;
        return;
    }
    // A pending insert of this transaction is cancelled instead. Other
    // updaters may have moved it in the pending list: find it by row.
    const int from = lowerBound(m_trans->m_master, m_trans->m_pending, m_record);
    int at = m_trans->m_pending.indexOf(m_record, from);
    if (at == -1)
        at = m_trans->m_pending.indexOf(m_record);
    if (at != -1)
        m_trans->m_pending.removeAt(at);
    m_trans->m_states.erase(state);
}
