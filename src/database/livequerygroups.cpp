#include "livequery_p.h"

#include "exception.h"
#include "masterindex.h"
#include "tsan_p.h"

#include <QtCore/QCoreApplication>
#include <QtCore/QLocale>

#include <algorithm>
#include <cstring>

using namespace livequery;

namespace {

bool exactKind(const Value &v)
{
    return v.kind == Value::Int || v.kind == Value::Decimal;
}

// An exact number's mantissa: the integer, or the decimal's digits at its
// column's scale.
long long mantissa(const Value &v)
{
    return v.kind == Value::Decimal ? decimal::from56s7(v.i).value() : v.i;
}

double number(const Value &v)
{
    switch (v.kind) {
    case Value::Int:
        return static_cast<double>(v.i);
    case Value::Double:
        return v.d;
    case Value::Decimal:
        return decimal::from56s7(v.i).toDouble();
    default:
        return 0;
    }
}

// a / b rounded half away from zero; b != 0.
long long divideRounded(__int128 a, __int128 b)
{
    __int128 q = a / b;
    const __int128 r = a % b;
    const __int128 twice = (r < 0 ? -r : r) * 2;
    if (twice >= (b < 0 ? -b : b))
        q += ((a < 0) != (b < 0)) ? -1 : 1;
    return static_cast<long long>(q);
}

bool numeric(FieldType::Type type)
{
    return type == FieldType::Integer || type == FieldType::Integer64 || type == FieldType::Double
        || type == FieldType::Decimal;
}

// The kind of a column's values when they fit a word, else Null.
Value::Kind wordKind(FieldType::Type type)
{
    switch (type) {
    case FieldType::Integer:
    case FieldType::Integer64:
        return Value::Int;
    case FieldType::Double:
        return Value::Double;
    case FieldType::Decimal:
        return Value::Decimal;
    case FieldType::DateTime:
        return Value::DateTime;
    default:
        return Value::Null;
    }
}

QString numberText(double value)
{
    return QLocale::system().toString(value, 'g', 12);
}

Key keyOf(const Record &record, const std::vector<int> &columns)
{
    Key key;
    key.reserve(columns.size());
    for (int column : columns)
        key.push_back(Value::of(record.data(column)));
    return key;
}

int compareKeys(const Key &a, const Key &b)
{
    for (size_t k = 0; k < a.size() && k < b.size(); ++k) {
        const int c = a[k].compare(b[k]);
        if (c != 0)
            return c;
    }
    return a.size() < b.size() ? -1 : (a.size() > b.size() ? 1 : 0);
}

} // namespace

// ---------------------------------------------------------------------------
// Open addressing with linear probing, as both flat tables below keep it:
// `empty(e)` tells a free entry, `home(e)` where the probe for e starts.

namespace {

// Puts every entry of `from` into the empty table `to`.
template <typename Entries, typename Empty, typename Home>
void placeAll(Entries &to, size_t mask, const Entries &from, Empty empty, Home home)
{
    for (const auto &e : from) {
        if (empty(e))
            continue;
        size_t at = home(e);
        while (!empty(to[at]))
            at = (at + 1) & mask;
        to[at] = e;
    }
}

// Empties entry `at` by backward shift: the entries after it in its run
// move up where their probe would pass, so that no tombstone is left.
template <typename Entries, typename Empty, typename Home>
void shiftBack(Entries &entries, size_t mask, size_t at, Empty empty, Home home)
{
    size_t hole = at;
    for (size_t next = (hole + 1) & mask; !empty(entries[next]); next = (next + 1) & mask) {
        const size_t want = home(entries[next]);
        // `next` may fill the hole unless its home lies cyclically in (hole, next].
        const bool stays = hole <= next ? (want > hole && want <= next) : (want > hole || want <= next);
        if (!stays) {
            entries[hole] = entries[next];
            hole = next;
        }
    }
    entries[hole] = {};
}

} // namespace

// ---------------------------------------------------------------------------
// Rows to slots

void RowMap::eraseAt(size_t at)
{
    shiftBack(m_entries, m_mask, at, [](const Entry &e) { return e.value < 0; },
              [this](const Entry &e) { return e.tag & m_mask; });
    --m_size;
}

void RowMap::reserve(size_t count)
{
    size_t capacity = 16;
    while (capacity < 2 * count)
        capacity *= 2;
    if (capacity > m_entries.size())
        rehash(capacity);
}

void RowMap::clear()
{
    m_entries.clear();
    m_entries.shrink_to_fit();
    m_mask = 0;
    m_size = 0;
}

void RowMap::rehash(size_t capacity)
{
    // Homes come from the tags: no row is read.
    Q_ASSERT(capacity <= (size_t(1) << 32));
    largealloc::Vector<Entry> entries(capacity);
    std::swap(entries, m_entries);
    m_mask = capacity - 1;
    placeAll(m_entries, m_mask, entries, [](const Entry &e) { return e.value < 0; },
             [this](const Entry &e) { return e.tag & m_mask; });
}

// ---------------------------------------------------------------------------
// Groups by hash

void GroupTable::insert(size_t hash, int id)
{
    if (2 * (m_size + 1) > m_entries.size()) {
        std::vector<Entry> entries(std::max<size_t>(16, 2 * m_entries.size()));
        std::swap(entries, m_entries);
        m_mask = m_entries.size() - 1;
        placeAll(m_entries, m_mask, entries, [](const Entry &e) { return e.id < 0; },
                 [this](const Entry &e) { return home(e.hash); });
    }
    size_t at = home(hash);
    while (m_entries[at].id >= 0)
        at = (at + 1) & m_mask;
    m_entries[at] = Entry{hash, id};
    ++m_size;
}

void GroupTable::erase(size_t hash, int id)
{
    if (m_size == 0)
        return;
    size_t at = home(hash);
    while (m_entries[at].id != id) {
        if (m_entries[at].id < 0)
            return;
        at = (at + 1) & m_mask;
    }
    shiftBack(m_entries, m_mask, at, [](const Entry &e) { return e.id < 0; },
              [this](const Entry &e) { return home(e.hash); });
    --m_size;
}

void GroupTable::clear()
{
    m_entries.clear();
    m_mask = 0;
    m_size = 0;
}

// ---------------------------------------------------------------------------
// The state

GroupIndex::GroupIndex(Table *table, const LiveQuery &query, GroupModel *model)
    : m_table(table)
    , m_model(model)
    , m_filter(table, query.filter())
    , m_withTotal(query.hasTotal())
{
    for (const QString &name : query.groupColumns())
        m_groupColumns.push_back(columnOf(table, name));
    for (const QueryAggregate &a : query.aggregates()) {
        Agg agg{a.kind, -1, -1, FieldType::Invalid, 0, -1, -1};
        if (a.kind != QueryAggregate::Count) {
            agg.column = columnOf(table, a.column);
            agg.type = table->columnType(agg.column);
            agg.scale = table->columnDef(agg.column).length;
            const bool arithmetic = a.kind == QueryAggregate::Sum || a.kind == QueryAggregate::Average
                || a.kind == QueryAggregate::WeightedAverage;
            if (arithmetic && !numeric(agg.type))
                throw Exception(QStringLiteral("Column '%1' of table '%2' is not a number.").arg(a.column, table->name()));
        }
        if (a.kind == QueryAggregate::WeightedAverage) {
            agg.weightColumn = columnOf(table, a.weightColumn);
            if (!numeric(table->columnType(agg.weightColumn)))
                throw Exception(
                    QStringLiteral("Column '%1' of table '%2' is not a number.").arg(a.weightColumn, table->name()));
        }
        // First and last read their row when asked; the others take back
        // what the row gave, which the row no longer holds once it changed.
        if (agg.column >= 0 && a.kind != QueryAggregate::First && a.kind != QueryAggregate::Last) {
            // A number or a date-time fits a word (a weighted average's
            // weight is a number too); a million rows then keep 8 bytes a
            // value, not a whole Value.
            const Value::Kind kind = wordKind(agg.type);
            if (kind != Value::Null) {
                agg.word = static_cast<int>(m_wordKinds.size());
                m_wordKinds.push_back(kind);
                if (agg.weightColumn >= 0)
                    m_wordKinds.push_back(wordKind(table->columnType(agg.weightColumn)));
            } else {
                agg.text = static_cast<int>(m_textsPerSlot++);
            }
        }
        m_aggs.push_back(agg);
    }
    m_nullsInSlot = m_wordKinds.size() <= 32;
    const size_t nullWords = m_nullsInSlot ? 0 : (m_wordKinds.size() + 63) / 64;
    m_wordsPerSlot = m_wordKinds.size() + nullWords;
    m_total.accs.resize(m_aggs.size());
}

void GroupIndex::storeWord(int slot, int word, const Value &value)
{
    Q_ASSERT(value.kind == Value::Null || value.kind == m_wordKinds[static_cast<size_t>(word)]);
    quint64 *words = m_words.data() + static_cast<size_t>(slot) * m_wordsPerSlot;
    const bool null = value.kind == Value::Null;
    if (m_nullsInSlot) {
        quint32 &nulls = m_slots[static_cast<size_t>(slot)].nulls;
        const quint32 bit = quint32(1) << word;
        nulls = null ? (nulls | bit) : (nulls & ~bit);
    } else {
        quint64 &nulls = words[m_wordKinds.size() + static_cast<size_t>(word) / 64];
        const quint64 bit = quint64(1) << (word % 64);
        nulls = null ? (nulls | bit) : (nulls & ~bit);
    }
    if (null) {
        words[word] = 0;
        return;
    }
    if (value.kind == Value::Double)
        std::memcpy(&words[word], &value.d, sizeof(double));
    else
        words[word] = static_cast<quint64>(value.i);
}

void GroupIndex::keep(int slot, const Agg &agg, const Value &value, const Value &weight)
{
    if (agg.text >= 0) {
        m_texts[static_cast<size_t>(slot) * m_textsPerSlot + static_cast<size_t>(agg.text)] = value;
        return;
    }
    storeWord(slot, agg.word, value);
    if (agg.weightColumn >= 0)
        storeWord(slot, agg.word + 1, weight);
}

Value GroupIndex::kept(int slot, const Agg &agg, bool weight) const
{
    if (agg.text >= 0)
        return m_texts[static_cast<size_t>(slot) * m_textsPerSlot + static_cast<size_t>(agg.text)];
    const int word = agg.word + (weight ? 1 : 0);
    const quint64 *words = m_words.data() + static_cast<size_t>(slot) * m_wordsPerSlot;
    Value value;
    const bool null = m_nullsInSlot
        ? (m_slots[static_cast<size_t>(slot)].nulls >> word) & 1
        : (words[m_wordKinds.size() + static_cast<size_t>(word) / 64] >> (word % 64)) & 1;
    if (null)
        return value;
    value.kind = m_wordKinds[static_cast<size_t>(word)];
    if (value.kind == Value::Double)
        std::memcpy(&value.d, &words[word], sizeof(double));
    else
        value.i = static_cast<long long>(words[word]);
    return value;
}

void GroupIndex::contribute(Acc &acc, const Agg &agg, const Value &value, const Value &weight, int sign)
{
    switch (agg.kind) {
    case QueryAggregate::Count:
    case QueryAggregate::First:
    case QueryAggregate::Last:
        return;
    case QueryAggregate::Sum:
    case QueryAggregate::Average:
        if (value.kind == Value::Null)
            return;
        acc.n += sign;
        if (exactKind(value))
            acc.exact += sign * static_cast<__int128>(mantissa(value));
        else
            acc.sum += sign * value.d;
        break;
    case QueryAggregate::Min:
    case QueryAggregate::Max: {
        if (value.kind == Value::Null)
            return;
        acc.n += sign;
        auto it = acc.values.emplace(value, 0).first;
        it->second += sign;
        if (it->second == 0)
            acc.values.erase(it);
        break;
    }
    case QueryAggregate::WeightedAverage:
        if (value.kind == Value::Null || weight.kind == Value::Null)
            return;
        acc.n += sign;
        if (exactKind(value) && exactKind(weight)) {
            acc.exact += sign * static_cast<__int128>(mantissa(value)) * mantissa(weight);
            acc.exactWeight += sign * static_cast<__int128>(mantissa(weight));
        } else {
            acc.sum += sign * number(value) * number(weight);
            acc.weight += sign * number(weight);
        }
        break;
    }
    if (acc.n == 0) {
        // Empty again: no rounding left over from the values taken back.
        acc.sum = 0;
        acc.weight = 0;
    }
}

namespace {

// A text field's UTF-16 units where they stand, up to the first zero, as
// FieldType::getString reads them; false when the slot is not aligned for
// them (then the caller copies the value out).
bool unitsOf(const Field &field, const QChar **units, int *count)
{
    const unsigned char *data = field.data();
    if (reinterpret_cast<quintptr>(data) % alignof(QChar) != 0)
        return false;
    const int capacity = qBound(0, field.length(), 32767);
    int n = 0;
    const auto *slot = reinterpret_cast<const ushort *>(data);
    while (n < capacity && slot[n] != 0)
        ++n;
    *units = reinterpret_cast<const QChar *>(data);
    *count = n;
    return true;
}

} // namespace

// Hashed and compared in the row, as the key's values would be: a group
// found for a row costs no string copied out of it.
size_t GroupIndex::keyHash(const Record &record) const
{
    size_t h = 0x9E3779B97F4A7C15ull;
    for (int column : m_groupColumns) {
        const Field field = record.data(column);
        size_t v;
        const QChar *units = nullptr;
        int count = 0;
        if (field.type() == FieldType::String && !field.isNull() && unitsOf(field, &units, &count))
            v = qHash(QStringView(units, count));
        else
            v = Value::of(field).hash();
        h = (h ^ v) * 0x100000001B3ull;
    }
    return h;
}

bool GroupIndex::keyMatches(const Record &record, const Key &key) const
{
    for (size_t k = 0; k < m_groupColumns.size(); ++k) {
        const Field field = record.data(m_groupColumns[k]);
        const Value &value = key[k];
        const QChar *units = nullptr;
        int count = 0;
        if (field.type() == FieldType::String && !field.isNull() && unitsOf(field, &units, &count)) {
            if (value.kind != Value::Text || QStringView(units, count) != QStringView(value.s))
                return false;
        } else if (Value::of(field).compare(value) != 0) {
            return false;
        }
    }
    return true;
}

int GroupIndex::groupOf(const Record &record)
{
    const size_t hash = keyHash(record);
    const int found = m_byHash.find(
        hash, [&](int id) { return keyMatches(record, m_groups[static_cast<size_t>(id)].key); });
    if (found >= 0)
        return found;
    int id;
    if (!m_free.empty()) {
        id = m_free.back();
        m_free.pop_back();
    } else {
        id = static_cast<int>(m_groups.size());
        m_groups.emplace_back();
    }
    Group &group = m_groups[static_cast<size_t>(id)];
    group = Group();
    group.key = keyOf(record, m_groupColumns);
    group.hash = hash;
    group.accs.resize(m_aggs.size());
    m_byHash.insert(hash, id);
    return id;
}

void GroupIndex::markDirty(int id)
{
    Group &group = m_groups[static_cast<size_t>(id)];
    if (!group.dirty) {
        group.dirty = true;
        m_dirty.push_back(id);
    }
    m_totalDirty = m_withTotal;
}

void GroupIndex::join(int slot, int id, const Record &record)
{
    Slot &s = m_slots[static_cast<size_t>(slot)];
    s.group = id;
    Group &group = m_groups[static_cast<size_t>(id)];
    for (size_t a = 0; a < m_aggs.size(); ++a) {
        const Agg &agg = m_aggs[a];
        if (agg.word < 0 && agg.text < 0)
            continue;
        const Value value = Value::of(record.data(agg.column));
        const Value weight = agg.weightColumn >= 0 ? Value::of(record.data(agg.weightColumn)) : Value();
        keep(slot, agg, value, weight);
        contribute(group.accs[a], agg, value, weight, 1);
        contribute(m_total.accs[a], agg, value, weight, 1);
    }
    ++group.count;
    // Last in its group's entry order.
    s.prev = group.tail;
    s.next = -1;
    if (group.tail >= 0)
        m_slots[static_cast<size_t>(group.tail)].next = slot;
    else
        group.head = slot;
    group.tail = slot;
    markDirty(id);
}

void GroupIndex::leave(int slot)
{
    Slot &s = m_slots[static_cast<size_t>(slot)];
    Group &group = m_groups[static_cast<size_t>(s.group)];
    for (size_t a = 0; a < m_aggs.size(); ++a) {
        const Agg &agg = m_aggs[a];
        if (agg.word < 0 && agg.text < 0)
            continue;
        const Value value = kept(slot, agg);
        const Value weight = agg.weightColumn >= 0 ? kept(slot, agg, true) : Value();
        contribute(group.accs[a], agg, value, weight, -1);
        contribute(m_total.accs[a], agg, value, weight, -1);
    }
    // The texts go now; the words are written over when the slot is taken again.
    for (size_t k = 0; k < m_textsPerSlot; ++k)
        m_texts[static_cast<size_t>(slot) * m_textsPerSlot + k] = Value();
    --group.count;
    if (s.prev >= 0)
        m_slots[static_cast<size_t>(s.prev)].next = s.next;
    else
        group.head = s.next;
    if (s.next >= 0)
        m_slots[static_cast<size_t>(s.next)].prev = s.prev;
    else
        group.tail = s.prev;
    markDirty(s.group);
}

void GroupIndex::addRow(const Record &record)
{
    unsigned char *row = record.rowPtr();
    if (!row || !m_filter.accepts(record))
        return;
    const int slot = m_freeSlots.empty() ? static_cast<int>(m_slots.size()) : m_freeSlots.back();
    if (!m_rows.insertNew(row, slot, rowOfSlot()))
        return; // in the view already
    if (!m_freeSlots.empty()) {
        m_freeSlots.pop_back();
    } else {
        m_slots.emplace_back();
        m_words.resize(m_words.size() + m_wordsPerSlot);
        m_texts.resize(m_texts.size() + m_textsPerSlot);
    }
    const int id = groupOf(record);
    Slot &s = m_slots[static_cast<size_t>(slot)];
    s = Slot();
    s.row = row;
    join(slot, id, record);
    ++m_total.count;
    s.totalPrev = m_total.tail;
    s.totalNext = -1;
    if (m_total.tail >= 0)
        m_slots[static_cast<size_t>(m_total.tail)].totalNext = slot;
    else
        m_total.head = slot;
    m_total.tail = slot;
}

void GroupIndex::removeRow(unsigned char *row)
{
    // Out of the row table while its slot still names the row.
    const int slot = m_rows.erase(row, rowOfSlot());
    if (slot < 0)
        return;
    leave(slot);
    Slot &s = m_slots[static_cast<size_t>(slot)];
    --m_total.count;
    if (s.totalPrev >= 0)
        m_slots[static_cast<size_t>(s.totalPrev)].totalNext = s.totalNext;
    else
        m_total.head = s.totalNext;
    if (s.totalNext >= 0)
        m_slots[static_cast<size_t>(s.totalNext)].totalPrev = s.totalPrev;
    else
        m_total.tail = s.totalPrev;
    s = Slot();
    m_freeSlots.push_back(slot);
}

void GroupIndex::changed()
{
    if (m_batch == 0 && m_model)
        m_model->post();
}

void GroupIndex::clear()
{
    m_groups.clear();
    m_free.clear();
    m_byHash.clear();
    m_rows.clear();
    m_slots.clear();
    m_freeSlots.clear();
    m_words.clear();
    m_texts.clear();
    m_total = Group();
    m_total.accs.resize(m_aggs.size());
    m_dirty.clear();
    m_totalDirty = false;
    m_reset = true;
    changed();
}

void GroupIndex::build()
{
    if (MasterIndex *master = m_table->masterIndex()) {
        const auto count = static_cast<size_t>(master->count());
        m_slots.reserve(count);
        m_words.reserve(count * m_wordsPerSlot);
        m_texts.reserve(count * m_textsPerSlot);
        // The slots and words fill from their start, while this thread
        // lays out the row table.
        const largealloc::Prefault prefault({{m_slots.data(), m_slots.capacity() * sizeof(Slot)},
                                          {m_words.data(), m_words.capacity() * sizeof(quint64)},
                                          {m_texts.data(), m_texts.capacity() * sizeof(Value)}});
        m_rows.reserve(count);
        // The rows and their places in the row table are fetched a few
        // rows ahead: both lie anywhere in memory. A row takes a line or
        // two, or more: it need not start at a line.
        constexpr int Ahead = 32;
        const auto rowBytes = std::max<quintptr>(static_cast<quintptr>(m_table->rowSize()), 1);
        auto fetch = [&](const unsigned char *row) __attribute__((always_inline)) {
            const quintptr first = reinterpret_cast<quintptr>(row) & ~quintptr(63);
            const quintptr last = reinterpret_cast<quintptr>(row) + rowBytes - 1;
            for (quintptr line = first; line <= last; line += 64)
                __builtin_prefetch(reinterpret_cast<const void *>(line));
            m_rows.prefetch(row);
        };
        auto ahead = master->begin();
        for (int k = 0; k < Ahead && ahead != master->end(); ++k, ++ahead)
            fetch(ahead->rowPtr());
        for (const Record &record : *master) {
            if (ahead != master->end()) {
                fetch(ahead->rowPtr());
                ++ahead;
            }
            addRow(record);
        }
    }
    m_reset = true;
    changed();
}

void GroupIndex::add(const Record &record)
{
    addRow(record);
    changed();
}

void GroupIndex::remove(const Record &record, int)
{
    removeRow(record.rowPtr());
    changed();
}

void GroupIndex::update(const Record &record, int, int, int)
{
    unsigned char *row = record.rowPtr();
    const int slot = m_rows.find(row, rowOfSlot());
    if (slot < 0 || !m_filter.accepts(record)) {
        removeRow(row);
        addRow(record);
        changed();
        return;
    }
    // Still in the view: it keeps its place in the total's order, and in
    // its group's when the group stays.
    const int id = m_slots[static_cast<size_t>(slot)].group;
    if (keyMatches(record, m_groups[static_cast<size_t>(id)].key)) {
        Group &group = m_groups[static_cast<size_t>(id)];
        for (size_t a = 0; a < m_aggs.size(); ++a) {
            const Agg &agg = m_aggs[a];
            if (agg.word < 0 && agg.text < 0)
                continue;
            const Value value = Value::of(record.data(agg.column));
            const Value weight = agg.weightColumn >= 0 ? Value::of(record.data(agg.weightColumn)) : Value();
            const Value was = kept(slot, agg);
            const Value wasWeight = agg.weightColumn >= 0 ? kept(slot, agg, true) : Value();
            contribute(group.accs[a], agg, was, wasWeight, -1);
            contribute(m_total.accs[a], agg, was, wasWeight, -1);
            contribute(group.accs[a], agg, value, weight, 1);
            contribute(m_total.accs[a], agg, value, weight, 1);
            keep(slot, agg, value, weight);
        }
        markDirty(id);
    } else {
        leave(slot);
        join(slot, groupOf(record), record);
    }
    changed();
}

void GroupIndex::process(const QList<Record> &removed, const QList<Record> &updated, int firstColumn, int lastColumn,
                         const QList<Record> &inserted)
{
    ++m_batch; // one post for the whole batch
    for (const Record &record : removed)
        removeRow(record.rowPtr());
    for (const Record &record : updated)
        update(record, firstColumn, lastColumn, -1);
    for (const Record &record : inserted)
        addRow(record);
    --m_batch;
    changed();
}

bool GroupIndex::contains(const Record &record) const
{
    return m_rows.find(record.rowPtr(), rowOfSlot()) >= 0;
}

void GroupIndex::beginUpdate()
{
    ++m_batch;
}

void GroupIndex::endUpdate()
{
    // An index added while its creator's own batch was open hears the end
    // without the beginning.
    if (m_batch > 0)
        --m_batch;
    if (hasChanges())
        changed();
}

QString GroupIndex::getClassName() const
{
    return QStringLiteral("LiveQueryGroupIndex");
}

QVariant GroupIndex::result(const Group &group, size_t a, const Agg &agg, const Acc &acc, QString *text,
                            QVariant *sortValue) const
{
    Q_UNUSED(a)
    QVariant value;
    auto columnValue = [&](const Value &v) {
        *text = v.toDisplay();
        *sortValue = v.toSortValue();
        return v.toVariant();
    };
    auto doubleValue = [&](double x) {
        *text = numberText(x);
        *sortValue = x;
        return QVariant(x);
    };
    auto decimalValue = [&](long long m) {
        const decimal dec(m, static_cast<short>(agg.scale));
        *text = dec.toSystemString();
        *sortValue = dec.toDouble();
        return dec.toVariant();
    };
    text->clear();
    *sortValue = QVariant();
    switch (agg.kind) {
    case QueryAggregate::Count:
        *text = QLocale::system().toString(group.count);
        *sortValue = group.count;
        return QVariant(group.count);
    case QueryAggregate::Sum:
        if (acc.n == 0)
            return value;
        if (agg.type == FieldType::Decimal)
            return decimalValue(static_cast<long long>(acc.exact));
        if (agg.type == FieldType::Double)
            return doubleValue(acc.sum);
        *text = QLocale::system().toString(static_cast<qlonglong>(acc.exact));
        *sortValue = static_cast<qlonglong>(acc.exact);
        return QVariant(static_cast<qlonglong>(acc.exact));
    case QueryAggregate::Average:
        if (acc.n == 0)
            return value;
        if (agg.type == FieldType::Decimal)
            return decimalValue(divideRounded(acc.exact, acc.n));
        if (agg.type == FieldType::Double)
            return doubleValue(acc.sum / static_cast<double>(acc.n));
        return doubleValue(static_cast<double>(acc.exact) / static_cast<double>(acc.n));
    case QueryAggregate::WeightedAverage: {
        if (acc.n == 0)
            return value;
        const bool exact = agg.type != FieldType::Double
            && m_table->columnType(agg.weightColumn) != FieldType::Double;
        if (exact) {
            if (acc.exactWeight == 0)
                return value;
            if (agg.type == FieldType::Decimal)
                return decimalValue(divideRounded(acc.exact, acc.exactWeight));
            return doubleValue(static_cast<double>(acc.exact) / static_cast<double>(acc.exactWeight));
        }
        if (acc.weight == 0)
            return value;
        return doubleValue(acc.sum / acc.weight);
    }
    case QueryAggregate::Min:
        return acc.values.empty() ? value : columnValue(acc.values.begin()->first);
    case QueryAggregate::Max:
        return acc.values.empty() ? value : columnValue(acc.values.rbegin()->first);
    case QueryAggregate::First:
    case QueryAggregate::Last: {
        const int slot = agg.kind == QueryAggregate::First ? group.head : group.tail;
        if (slot < 0)
            return value;
        unsigned char *row = m_slots[static_cast<size_t>(slot)].row;
        // The row is the table's and in it (a row leaves its group before
        // it leaves the table).
        auto *def = const_cast<TableColumnDef *>(&m_table->columnDef(agg.column));
        return columnValue(Value::of(Field(def, row + Table::base)));
    }
    }
    return value;
}

GroupIndex::Row GroupIndex::rowOf(const Group &group) const
{
    Row row;
    row.key = group.key;
    const size_t width = m_groupColumns.size() + m_aggs.size();
    row.values.resize(width);
    row.texts.resize(width);
    row.sortValues.resize(width);
    for (size_t k = 0; k < group.key.size(); ++k) {
        row.values[k] = group.key[k].toVariant();
        row.texts[k] = group.key[k].toDisplay();
        row.sortValues[k] = group.key[k].toSortValue();
    }
    for (size_t a = 0; a < m_aggs.size(); ++a) {
        const size_t at = m_groupColumns.size() + a;
        row.values[at] = result(group, a, m_aggs[a], group.accs[a], &row.texts[at], &row.sortValues[at]);
    }
    return row;
}

void GroupIndex::take(std::vector<Row> &changed, std::vector<Key> &gone, Row *total, bool *reset)
{
    *reset = m_reset;
    m_reset = false;
    for (int id : m_dirty) {
        Group &group = m_groups[static_cast<size_t>(id)];
        group.dirty = false;
        if (*reset)
            continue;
        if (group.count == 0)
            gone.push_back(group.key);
        else
            changed.push_back(rowOf(group));
    }
    // Emptied groups leave for good now that the model has heard of them.
    for (int id : m_dirty) {
        Group &group = m_groups[static_cast<size_t>(id)];
        if (group.count == 0 && !group.key.empty()) {
            m_byHash.erase(group.hash, id);
            group = Group();
            m_free.push_back(id);
        }
    }
    m_dirty.clear();
    if (m_withTotal && (m_totalDirty || *reset))
        *total = rowOf(m_total);
    m_totalDirty = false;
}

void GroupIndex::snapshotAll(std::vector<Row> &rows, Row *total)
{
    rows.clear();
    rows.reserve(m_byHash.size());
    for (const Group &group : m_groups) {
        if (group.count > 0)
            rows.push_back(rowOf(group));
    }
    std::sort(rows.begin(), rows.end(), [](const Row &a, const Row &b) { return compareKeys(a.key, b.key) < 0; });
    if (m_withTotal)
        *total = rowOf(m_total);
}

// ---------------------------------------------------------------------------
// The model

const QEvent::Type GroupModel::UpdateEvent = static_cast<QEvent::Type>(QEvent::registerEventType());

GroupModel::GroupModel(Table *table, const LiveQuery &query, QObject *parent)
    : QAbstractTableModel(parent)
    , m_table(table)
    , m_withTotal(query.hasTotal())
    , m_keyColumns(query.groupColumns().size())
{
    TableLocker locker(table);
    m_index = std::make_unique<GroupIndex>(table, query, this);
    for (int column : m_index->groupColumns()) {
        const QString title = table->columnTitle(column);
        m_headers << (title.isEmpty() ? table->columnName(column) : title);
    }
    for (const QueryAggregate &a : query.aggregates())
        m_headers << a.header();
    m_index->build();
    table->addIndex(m_index.get());
    GroupIndex::Row total;
    bool reset = false;
    std::vector<GroupIndex::Row> ignored;
    std::vector<Key> gone;
    m_index->take(ignored, gone, &total, &reset);
    m_index->snapshotAll(m_rows, &total);
    if (m_withTotal)
        m_rows.insert(m_rows.begin(), std::move(total));
    m_posted = false;
}

GroupModel::~GroupModel()
{
    if (m_table) {
        TableLocker locker(m_table);
        m_table->removeIndex(m_index.get());
    }
}

void GroupModel::post()
{
    if (m_posted)
        return;
    m_posted = true;
    // Handed over through Qt's event queue, whose lock the thread checker
    // does not see: stated to it here and in event().
    auto *update = new QEvent(UpdateEvent);
    tsanRelease(update);
    QCoreApplication::postEvent(this, update);
}

bool GroupModel::hasPendingChanges() const
{
    if (!m_table)
        return false;
    TableLocker locker(m_table);
    return m_index->hasChanges();
}

bool GroupModel::event(QEvent *event)
{
    tsanAcquire(event);
    if (event->type() == UpdateEvent) {
        update();
        return true;
    }
    return QAbstractTableModel::event(event);
}

int GroupModel::rowOfKey(const Key &key, bool *found) const
{
    const int from = m_withTotal ? 1 : 0;
    const auto begin = m_rows.begin() + from;
    const auto at = std::lower_bound(begin, m_rows.end(), key, [](const GroupIndex::Row &row, const Key &k) {
        return compareKeys(row.key, k) < 0;
    });
    *found = at != m_rows.end() && compareKeys(at->key, key) == 0;
    return static_cast<int>(at - m_rows.begin());
}

void GroupModel::update()
{
    std::vector<GroupIndex::Row> changed;
    std::vector<Key> gone;
    GroupIndex::Row total;
    bool reset = false;
    if (!m_table) {
        if (!m_rows.empty()) {
            beginResetModel();
            m_rows.clear();
            endResetModel();
        }
        return;
    }
    {
        TableLocker locker(m_table);
        m_posted = false;
        if (!m_index->hasChanges())
            return;
        m_index->take(changed, gone, &total, &reset);
        if (reset)
            m_index->snapshotAll(changed, &total);
    }
    if (reset) {
        beginResetModel();
        m_rows = std::move(changed);
        if (m_withTotal)
            m_rows.insert(m_rows.begin(), std::move(total));
        endResetModel();
        if (onUpdated)
            onUpdated();
        return;
    }
    for (const Key &key : gone) {
        bool found;
        const int row = rowOfKey(key, &found);
        if (!found)
            continue;
        beginRemoveRows(QModelIndex(), row, row);
        m_rows.erase(m_rows.begin() + row);
        endRemoveRows();
    }
    std::sort(changed.begin(), changed.end(),
              [](const GroupIndex::Row &a, const GroupIndex::Row &b) { return compareKeys(a.key, b.key) < 0; });
    // New groups go in first, at their places; then the changed ones are
    // changed and announced a run of adjacent rows at a time.
    std::vector<GroupIndex::Row *> inPlace;
    for (GroupIndex::Row &incoming : changed) {
        bool found;
        const int row = rowOfKey(incoming.key, &found);
        if (found) {
            inPlace.push_back(&incoming);
            continue;
        }
        beginInsertRows(QModelIndex(), row, row);
        m_rows.insert(m_rows.begin() + row, std::move(incoming));
        endInsertRows();
    }
    const int lastColumn = columnCount() - 1;
    if (m_withTotal && !total.values.empty()) {
        m_rows.front() = std::move(total);
        Q_EMIT dataChanged(index(0, 0), index(0, lastColumn));
    }
    size_t k = 0;
    while (k < inPlace.size()) {
        bool found;
        const int first = rowOfKey(inPlace[k]->key, &found);
        int last = first;
        m_rows[static_cast<size_t>(first)] = std::move(*inPlace[k]);
        ++k;
        while (k < inPlace.size() && last + 1 < static_cast<int>(m_rows.size())
               && compareKeys(m_rows[static_cast<size_t>(last + 1)].key, inPlace[k]->key) == 0) {
            ++last;
            m_rows[static_cast<size_t>(last)] = std::move(*inPlace[k]);
            ++k;
        }
        Q_EMIT dataChanged(index(first, 0), index(last, lastColumn));
    }
    if (onUpdated)
        onUpdated();
}

int GroupModel::rowCount(const QModelIndex &parent) const
{
    return parent.isValid() ? 0 : static_cast<int>(m_rows.size());
}

int GroupModel::columnCount(const QModelIndex &parent) const
{
    return parent.isValid() ? 0 : m_headers.size();
}

QVariant GroupModel::data(const QModelIndex &index, int role) const
{
    if (!checkIndex(index, CheckIndexOption::IndexIsValid | CheckIndexOption::ParentIsInvalid))
        return QVariant();
    const GroupIndex::Row &row = m_rows[static_cast<size_t>(index.row())];
    const size_t column = static_cast<size_t>(index.column());
    const bool totalRow = m_withTotal && index.row() == 0;
    if (totalRow && column < static_cast<size_t>(m_keyColumns)) {
        if (column == 0 && (role == Qt::DisplayRole || role == Qt::EditRole || role >= Qt::UserRole))
            return QStringLiteral("Total");
        return QVariant();
    }
    if (column >= row.values.size())
        return QVariant();
    switch (role) {
    case Qt::DisplayRole:
        return row.values[column].isValid() ? QVariant(row.texts[column]) : QVariant();
    case Qt::EditRole:
    case Qt::UserRole: // ValueRole
        return row.values[column];
    case Qt::UserRole + 1: // SortRole
        return row.sortValues[column];
    case Qt::TextAlignmentRole: {
        const int type = row.values[column].userType();
        const bool number = type == QMetaType::Int || type == QMetaType::LongLong || type == QMetaType::Double
            || type == decimal::metatypeId();
        return number ? QVariant(Qt::AlignRight | Qt::AlignVCenter) : QVariant();
    }
    default:
        return QVariant();
    }
}

QVariant GroupModel::headerData(int section, Qt::Orientation orientation, int role) const
{
    if (orientation == Qt::Horizontal && role == Qt::DisplayRole && section >= 0 && section < m_headers.size())
        return m_headers.at(section);
    return QAbstractTableModel::headerData(section, orientation, role);
}
