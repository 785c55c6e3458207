#include "recordstrans.h"

#include "indexlimit.h"
#include "masterindex.h"
#include "partitionlist.h"

#include <QtCore/QDebug>

#include <algorithm>

#include <exception>

// The action of each record, by row address: open addressing with linear
// probing and backward-shift erasure, so that a transaction of k records
// holds k slots in one block instead of k tree nodes.
class RecordsTrans::States
{
public:
    struct Slot
    {
        Record record;
        int action = 0; // 0: empty
    };

    bool isEmpty() const { return m_size == 0; }
    void clear()
    {
        std::vector<Slot>().swap(m_slots);
        m_size = 0;
    }
    int action(const Record &record) const
    {
        if (m_slots.empty())
            return 0;
        const Slot &slot = m_slots[find(record.rowPtr())];
        return slot.action;
    }
    void set(const Record &record, int action)
    {
        if (2 * (m_size + 1) > m_slots.size())
            grow();
        Slot &slot = m_slots[find(record.rowPtr())];
        if (slot.action == 0) {
            slot.record = record;
            ++m_size;
        }
        slot.action = action;
    }
    void erase(const Record &record)
    {
        if (m_slots.empty())
            return;
        const size_t mask = m_slots.size() - 1;
        size_t hole = find(record.rowPtr());
        if (m_slots[hole].action == 0)
            return;
        m_slots[hole] = Slot();
        --m_size;
        // Pull back the entries of the run after the hole that may not sit
        // past it.
        for (size_t next = (hole + 1) & mask; m_slots[next].action != 0; next = (next + 1) & mask) {
            const size_t home = homeOf(m_slots[next].record.rowPtr());
            if (((next - home) & mask) >= ((next - hole) & mask)) {
                m_slots[hole] = std::move(m_slots[next]);
                m_slots[next] = Slot();
                hole = next;
            }
        }
    }
    // The records of one action, in row-address order.
    QList<Record> list(int action) const
    {
        std::vector<const Record *> records;
        for (const Slot &slot : m_slots) {
            if (slot.action == action)
                records.push_back(&slot.record);
        }
        std::sort(records.begin(), records.end(), [](const Record *a, const Record *b) { return *a < *b; });
        QList<Record> result;
        result.reserve(static_cast<int>(records.size()));
        for (const Record *record : records)
            result.append(*record);
        return result;
    }

private:
    size_t homeOf(const unsigned char *row) const
    {
        quint64 x = reinterpret_cast<quintptr>(row);
        x ^= x >> 33;
        x *= 0xff51afd7ed558ccdULL;
        x ^= x >> 33;
        return static_cast<size_t>(x) & (m_slots.size() - 1);
    }
    // The slot holding `row`, or the empty slot where it would go.
    size_t find(const unsigned char *row) const
    {
        const size_t mask = m_slots.size() - 1;
        size_t slot = homeOf(row);
        while (m_slots[slot].action != 0 && m_slots[slot].record.rowPtr() != row)
            slot = (slot + 1) & mask;
        return slot;
    }
    void grow()
    {
        std::vector<Slot> old(std::max<size_t>(16, 2 * m_slots.size()));
        old.swap(m_slots);
        for (Slot &slot : old) {
            if (slot.action != 0)
                m_slots[find(slot.record.rowPtr())] = std::move(slot);
        }
    }

    std::vector<Slot> m_slots; // a power of two, at most half full
    size_t m_size = 0;
};

// Pending inserts in master-index order. Small partitions keep an insertion
// in the middle of many thousands of keys to a short move.
class RecordsTrans::Pending : public PartitionList<Record>
{
public:
    Pending() : PartitionList<Record>(512) {}
};

RecordsTrans::RecordsTrans(Table *table)
    : m_states(new States)
    , m_pending(new Pending)
    , m_master(table->masterIndex())
    , m_firstColumn(table->columnCount())
    , m_lastColumn(-1)
{
}

RecordsTrans::RecordsTrans(const RecordsTrans &other)
    : m_states(new States(*other.m_states))
    , m_pending(new Pending)
    , m_master(other.m_master)
    , m_firstColumn(other.m_firstColumn)
    , m_lastColumn(other.m_lastColumn)
{
    for (const Record &record : *other.m_pending)
        m_pending->append(record);
}

RecordsTrans &RecordsTrans::operator=(const RecordsTrans &other)
{
    if (this != &other) {
        // The replaced actions are dropped, not applied.
        auto states = std::make_unique<States>(*other.m_states);
        auto pending = std::make_unique<Pending>();
        for (const Record &record : *other.m_pending)
            pending->append(record);
        m_states = std::move(states);
        m_pending = std::move(pending);
        m_master = other.m_master;
        m_firstColumn = other.m_firstColumn;
        m_lastColumn = other.m_lastColumn;
    }
    return *this;
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

bool RecordsTrans::isEmpty() const
{
    return m_states->isEmpty();
}

void RecordsTrans::clear()
{
    m_states->clear();
}

QList<Record> RecordsTrans::listOf(int action) const
{
    return m_states->list(action);
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
    m_states->clear();

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
int lowerBound(const MasterIndex *master, const PartitionList<Record> &pending, const Record &key)
{
    int lo = 0;
    int hi = pending.size();
    PartitionList<Record>::Reader reader(pending);
    while (lo < hi) {
        const int mid = lo + (hi - lo) / 2;
        if (master->compare(reader.at(mid), key) < 0)
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
    m_record = key.table()->masterIndex()->findRecord(key);
    if (!m_record.isNull()) {
        m_position = 0;
        trans.m_states->set(m_record, RecordsTrans::Update);
        return;
    }
    RecordsTrans::Pending &pending = *trans.m_pending;
    const int at = lowerBound(trans.m_master, pending, key);
    if (at < pending.size() && trans.m_master->compare(key, pending.at(at)) >= 0) {
        m_record = pending.at(at);
        return;
    }
    m_record = key;
    trans.m_states->set(m_record, RecordsTrans::Insert);
    pending.insert(at, key);
}

void RecordUpdater::remove()
{
    if (m_trans->m_states->action(m_record) != RecordsTrans::Insert) {
        m_trans->m_states->set(m_record, RecordsTrans::Remove);
        return;
    }
    // A pending insert of this transaction is cancelled instead. Other
    // updaters may have moved it in the pending list: find it by row, in the
    // run of its key first.
    RecordsTrans::Pending &pending = *m_trans->m_pending;
    int at = -1;
    int position = lowerBound(m_trans->m_master, pending, m_record);
    for (auto it = pending.iteratorAt(position); it != pending.end(); ++it, ++position) {
        if (*it == m_record) {
            at = position;
            break;
        }
        if (m_trans->m_master->compare(*it, m_record) != 0)
            break;
    }
    if (at == -1)
        at = pending.indexOf(m_record);
    if (at != -1)
        pending.removeAt(at);
    m_trans->m_states->erase(m_record);
}
