#include "recordstrans.h"

#include "indexlimit.h"
#include "largealloc_p.h"
#include "masterindex.h"
#include "partitionlist.h"

#include <QtCore/QDebug>

#include <algorithm>
#include <cstring>

#include <exception>

// The action of each record, by row address: open addressing with linear
// probing and backward-shift erasure, so that a transaction of k records
// holds k slots in one block instead of k tree nodes. A slot is 16 bytes:
// the row, and its table with the action in the low bits (a table is
// 8-byte aligned). The block is mapped a huge page at a time once large: a
// transaction of a million rows probes 32 MB at random.
class RecordsTrans::States
{
public:
    States() = default;
    States(const States &other) : m_size(other.m_size)
    {
        if (other.m_capacity == 0)
            return;
        allocate(other.m_capacity);
        std::memcpy(static_cast<void *>(m_slots), other.m_slots, m_capacity * sizeof(Slot));
        for (size_t i = 0; i < m_capacity; ++i) {
            if (m_slots[i].row)
                RowRef::ref(m_slots[i].row);
        }
    }
    States &operator=(const States &) = delete;
    ~States() { clear(); }

    bool isEmpty() const { return m_size == 0; }
    void clear()
    {
        // The rows lie anywhere in the heap: each is fetched a few slots
        // before its reference is let go of.
        constexpr size_t Ahead = 16;
        for (size_t i = 0; i < m_capacity; ++i) {
            if (i + Ahead < m_capacity && m_slots[i + Ahead].row)
                __builtin_prefetch(m_slots[i + Ahead].row);
            release(m_slots[i].row);
        }
        if (m_slots)
            largealloc::deallocate(m_slots, m_capacity * sizeof(Slot));
        m_slots = nullptr;
        m_capacity = 0;
        m_size = 0;
    }
    int action(const Record &record) const
    {
        if (m_capacity == 0)
            return 0;
        return actionOf(m_slots[find(record.rowPtr())]);
    }
    void set(const Record &record, int action)
    {
        Q_ASSERT(action > 0 && action <= int(ActionBits) && record.rowPtr());
        Q_ASSERT((reinterpret_cast<quintptr>(record.table()) & ActionBits) == 0);
        if (2 * (m_size + 1) > m_capacity)
            grow();
        Slot &slot = m_slots[find(record.rowPtr())];
        if (!slot.row) {
            slot.row = record.rowPtr();
            RowRef::ref(slot.row);
            ++m_size;
        }
        slot.tableAndAction = reinterpret_cast<quintptr>(record.table()) | static_cast<quintptr>(action);
    }
    void erase(const Record &record)
    {
        if (m_capacity == 0)
            return;
        const size_t mask = m_capacity - 1;
        size_t hole = find(record.rowPtr());
        if (!m_slots[hole].row)
            return;
        release(m_slots[hole].row);
        m_slots[hole] = Slot();
        --m_size;
        // Pull back the entries of the run after the hole that may not sit
        // past it.
        for (size_t next = (hole + 1) & mask; m_slots[next].row; next = (next + 1) & mask) {
            const size_t home = homeOf(m_slots[next].row);
            if (((next - home) & mask) >= ((next - hole) & mask)) {
                m_slots[hole] = m_slots[next];
                m_slots[next] = Slot();
                hole = next;
            }
        }
    }
    // The records of one action, in row-address order.
    QList<Record> list(int action) const
    {
        std::vector<const Slot *> records;
        for (size_t i = 0; i < m_capacity; ++i) {
            if (m_slots[i].row && actionOf(m_slots[i]) == action)
                records.push_back(&m_slots[i]);
        }
        std::sort(records.begin(), records.end(), [](const Slot *a, const Slot *b) {
            return std::less<const unsigned char *>()(a->row, b->row);
        });
        QList<Record> result;
        result.reserve(static_cast<int>(records.size()));
        // Each handle takes a reference on its row: the rows are fetched a
        // few records ahead.
        constexpr size_t Ahead = 16;
        for (size_t r = 0; r < records.size(); ++r) {
            if (r + Ahead < records.size())
                __builtin_prefetch(records[r + Ahead]->row);
            result.append(Record(tableOf(*records[r]), records[r]->row));
        }
        return result;
    }

private:
    struct Slot
    {
        unsigned char *row = nullptr; // null: empty; holds a reference
        quintptr tableAndAction = 0;
    };
    static constexpr quintptr ActionBits = 7;

    static int actionOf(const Slot &slot) { return static_cast<int>(slot.tableAndAction & ActionBits); }
    static const Table *tableOf(const Slot &slot)
    {
        return reinterpret_cast<const Table *>(slot.tableAndAction & ~ActionBits);
    }
    static void release(unsigned char *row)
    {
        if (row && !RowRef::deref(row))
            RowRef::freeRow(row);
    }
    size_t homeOf(const unsigned char *row) const
    {
        quint64 x = reinterpret_cast<quintptr>(row);
        x ^= x >> 33;
        x *= 0xff51afd7ed558ccdULL;
        x ^= x >> 33;
        return static_cast<size_t>(x) & (m_capacity - 1);
    }
    // The slot holding `row`, or the empty slot where it would go.
    size_t find(const unsigned char *row) const
    {
        const size_t mask = m_capacity - 1;
        size_t slot = homeOf(row);
        while (m_slots[slot].row && m_slots[slot].row != row)
            slot = (slot + 1) & mask;
        return slot;
    }
    void allocate(size_t capacity)
    {
        const size_t bytes = capacity * sizeof(Slot);
        m_slots = static_cast<Slot *>(largealloc::allocateZeroed(bytes));
        m_capacity = capacity;
    }
    void grow()
    {
        Slot *old = m_slots;
        const size_t oldCapacity = m_capacity;
        allocate(std::max<size_t>(16, 2 * oldCapacity));
        for (size_t i = 0; i < oldCapacity; ++i) {
            if (old[i].row)
                m_slots[find(old[i].row)] = old[i];
        }
        if (old)
            largealloc::deallocate(old, oldCapacity * sizeof(Slot));
    }

    Slot *m_slots = nullptr; // m_capacity slots, a power of two, at most half full
    size_t m_capacity = 0;
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
