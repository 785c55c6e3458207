#ifndef DATABASE_LIVEQUERY_P_H
#define DATABASE_LIVEQUERY_P_H

//
//  W A R N I N G
//  -------------
//
// This file is not part of the database API. It exists for the convenience
// of the library's own sources and may change from version to version
// without notice.
//

#include "datetime.h"
#include "decimal.h"
#include "index.h"
#include "indexsort.h"
#include "largealloc_p.h"
#include "livequery.h"

#include <QtCore/QAbstractTableModel>
#include <QtCore/QEvent>
#include <QtCore/QPointer>

#include <map>
#include <vector>

class TableModel;

namespace livequery {

// A column's value copied out of a row, ordered as queries order values:
// null first, then by value. Kinds follow the column type; a board list is
// kept as its text.
struct Value
{
    enum Kind : quint8 { Null, Int, Double, Decimal, DateTime, Text };

    Kind kind = Null;
    long long i = 0; // Int; Decimal's word; DateTime's stamp
    double d = 0;
    QString s;

    static Value of(const Field &field);
    int compare(const Value &other) const;
    bool operator==(const Value &other) const { return compare(other) == 0; }
    bool operator<(const Value &other) const { return compare(other) < 0; }
    size_t hash() const;
    QVariant toVariant() const;
    QString toDisplay() const;
    // A double for SortRole (a decimal's value), else toVariant().
    QVariant toSortValue() const;
};

using Key = std::vector<Value>;

struct KeyHash
{
    size_t operator()(const Key &key) const
    {
        size_t h = 0x9E3779B97F4A7C15ull;
        for (const Value &v : key)
            h = (h ^ v.hash()) * 0x100000001B3ull;
        return h;
    }
};

// A filter resolved against a table: column numbers and typed values.
class Filter
{
public:
    Filter() = default;
    Filter(const Table *table, const QueryFilter &filter);
    bool accepts(const Record &record) const;

private:
    struct Node
    {
        enum Kind { Compare, Predicate, And, Or, Not } kind;
        int column = -1;
        QueryFilter::Operator op = QueryFilter::Equal;
        Value value;
        std::function<bool(const Record &)> predicate;
        std::vector<Node> children;
    };
    static Node resolve(const Table *table, const QueryFilterNode &node);
    static bool test(const Node &node, const Record &record);

    std::vector<Node> m_root; // empty: accept all
};

// Resolves a column name, throwing the library's message.
int columnOf(const Table *table, const QString &name);

// The flat query's index: the accepted rows in the order of the sort keys,
// ties by the master index.
class SortIndex : public IndexSort
{
public:
    SortIndex(Table *table, const LiveQuery &query);

    using IndexSort::build;
    void build() override;
    int compare(const Record &a, const Record &b) const override;
    bool filter(const Record &record) const override;
    QString getClassName() const override;

private:
    struct SortColumn
    {
        int column;
        int sign;
    };
    bool sortByKeys();
    std::vector<SortColumn> m_sort;
    Filter m_filter;
};

class GroupModel;

// Row address to a number, by open addressing with linear probing: a
// million rows cost one flat array, not a million allocations. An entry is
// the number and a tag of the row's hash, 8 bytes: the row itself is found
// through the number (`rowOf(value)` answers it), which a caller reads next
// anyway, so a candidate whose tag matches is checked there.
class DATABASE_EXPORT RowMap
{
public:
    template <typename RowOf>
    int find(const unsigned char *row, RowOf rowOf) const
    {
        if (m_size == 0)
            return -1;
        const quint32 tag = tagOf(row);
        for (size_t at = tag & m_mask; m_entries[at].value >= 0; at = (at + 1) & m_mask) {
            if (m_entries[at].tag == tag && rowOf(m_entries[at].value) == row)
                return m_entries[at].value;
        }
        return -1;
    }
    // `row` must not be there.
    template <typename RowOf>
    void insert(const unsigned char *row, int value, RowOf rowOf)
    {
        const bool added = insertNew(row, value, rowOf);
        Q_ASSERT(added);
        Q_UNUSED(added);
    }
    // Inserts `row` unless it is there already: one probe for both.
    // `value` >= 0; rowOf is asked only of the values already in.
    template <typename RowOf>
    bool insertNew(const unsigned char *row, int value, RowOf rowOf)
    {
        // At most half full: probes stay short.
        if (2 * (m_size + 1) > m_entries.size())
            rehash(std::max<size_t>(16, 2 * m_entries.size()));
        const quint32 tag = tagOf(row);
        size_t at = tag & m_mask;
        for (; m_entries[at].value >= 0; at = (at + 1) & m_mask) {
            if (m_entries[at].tag == tag && rowOf(m_entries[at].value) == row)
                return false;
        }
        m_entries[at] = Entry{tag, value};
        ++m_size;
        return true;
    }
    // Starts the fetch of `row`'s home before its insertNew().
    // Always inlined: g++ takes a function that only prefetches for one
    // without effects and drops the calls to it.
    Q_ALWAYS_INLINE void prefetch(const unsigned char *row) const
    {
        // An empty table has mask 0: this is its data() then.
        __builtin_prefetch(m_entries.data() + (tagOf(row) & m_mask));
    }
    // Takes `row` out, answering its value (or -1 if it was not there),
    // while `rowOf` still answers `row` for that value.
    template <typename RowOf>
    int erase(const unsigned char *row, RowOf rowOf)
    {
        if (m_size == 0)
            return -1;
        const quint32 tag = tagOf(row);
        for (size_t at = tag & m_mask; m_entries[at].value >= 0; at = (at + 1) & m_mask) {
            const int value = m_entries[at].value;
            if (m_entries[at].tag == tag && rowOf(value) == row) {
                eraseAt(at);
                return value;
            }
        }
        return -1;
    }
    void reserve(size_t count);
    void clear();
    size_t size() const { return m_size; }

private:
    struct Entry
    {
        quint32 tag = 0;
        qint32 value = -1; // -1: empty
    };
    // The high half of a multiplicative hash: its low bits are the home.
    static quint32 tagOf(const unsigned char *row)
    {
        return static_cast<quint32>((quint64(reinterpret_cast<quintptr>(row)) * 0x9E3779B97F4A7C15ull) >> 32);
    }
    void eraseAt(size_t at);
    void rehash(size_t capacity);

    largealloc::Vector<Entry> m_entries;
    size_t m_mask = 0;
    size_t m_size = 0;
};

// Group numbers by their keys' hashes, by open addressing as RowMap: a
// lookup per row of a million-row build costs a probe or two of a table
// that stays in the cache. Keys of one hash share it, each entry its own.
class DATABASE_EXPORT GroupTable
{
public:
    // The group of `hash` that `matches`, or -1.
    template<typename Matches>
    int find(size_t hash, Matches matches) const
    {
        if (m_size == 0)
            return -1;
        for (size_t at = home(hash); m_entries[at].id >= 0; at = (at + 1) & m_mask) {
            if (m_entries[at].hash == hash && matches(m_entries[at].id))
                return m_entries[at].id;
        }
        return -1;
    }
    void insert(size_t hash, int id);
    void erase(size_t hash, int id);
    void clear();
    size_t size() const { return m_size; }

private:
    struct Entry
    {
        size_t hash = 0;
        int id = -1;
    };
    // Mixed again: a key hash may differ in its high bits only.
    size_t home(size_t hash) const { return static_cast<size_t>((quint64(hash) * 0x9E3779B97F4A7C15ull) >> 32) & m_mask; }
    std::vector<Entry> m_entries;
    size_t m_mask = 0;
    size_t m_size = 0;
};

// The grouped query's state, kept by the table as an index. Everything here
// runs under the table's lock.
class GroupIndex : public Index
{
public:
    struct Acc
    {
        long long n = 0;           // values taken
        __int128 exact = 0;        // integer or decimal mantissa sum; weighted: product sum
        __int128 exactWeight = 0;  // weighted: weight sum
        double sum = 0;            // double sums
        double weight = 0;
        std::map<Value, int> values; // min and max: the multiset
    };
    struct Group
    {
        Key key;
        size_t hash = 0;
        long long count = 0;
        std::vector<Acc> accs;
        // The rows in the order they entered (slots): first and last.
        int head = -1;
        int tail = -1;
        bool dirty = false;
    };
    // What a row gave, to take it back when the row changes: its numbers
    // and date-times as words (m_words, m_wordsPerSlot from slot *
    // m_wordsPerSlot on), their null bits in the slot (or, past 32 words,
    // after the words), its texts as values (m_texts likewise).
    struct Slot
    {
        unsigned char *row = nullptr;
        int group = -1;
        int prev = -1;
        int next = -1;
        // The same for every accepted row: the total's first and last.
        int totalPrev = -1;
        int totalNext = -1;
        quint32 nulls = 0; // in what would be the struct's padding
    };

    GroupIndex(Table *table, const LiveQuery &query, GroupModel *model);

    using Index::build;
    using Index::clear;
    void clear() override;
    void build() override;
    void add(const Record &record) override;
    void process(const QList<Record> &removed, const QList<Record> &updated, int firstColumn, int lastColumn,
                 const QList<Record> &inserted) override;
    void remove(const Record &record, int position) override;
    bool filter(const Record &record) const override { return m_filter.accepts(record); }
    bool contains(const Record &record) const override;
    void update(const Record &record, int firstColumn, int lastColumn, int position) override;
    void beginUpdate() override;
    void endUpdate() override;
    QString getClassName() const override;

    // The model's side, under the lock. A snapshot row: the key's values and
    // each aggregate's, as value and display text.
    struct Row
    {
        Key key;
        std::vector<QVariant> values;
        std::vector<QString> texts;
        std::vector<QVariant> sortValues;
    };
    // Groups changed since the last take: the live ones as rows, the keys
    // of those that emptied. `reset`: the whole state was rebuilt.
    void take(std::vector<Row> &changed, std::vector<Key> &gone, Row *total, bool *reset);
    void snapshotAll(std::vector<Row> &rows, Row *total);
    bool hasChanges() const { return m_reset || !m_dirty.empty() || m_totalDirty; }
    Table *table() const { return m_table; }
    const std::vector<int> &groupColumns() const { return m_groupColumns; }

private:
    struct Agg
    {
        QueryAggregate::Kind kind;
        int column;
        int weightColumn;
        FieldType::Type type;
        int scale;
        int word; // its value's place among a row's stored words (its weight's next), or -1
        int text; // or its place among a row's stored texts, or -1
    };
    // What a slot's row gave `agg`: kept when it joins or changes, read
    // back to take it away.
    void keep(int slot, const Agg &agg, const Value &value, const Value &weight);
    Value kept(int slot, const Agg &agg, bool weight = false) const;
    void storeWord(int slot, int word, const Value &value);
    void addRow(const Record &record);
    void removeRow(unsigned char *row);
    // The row table's way to the row of a slot.
    auto rowOfSlot() const
    {
        return [this](int slot) -> const unsigned char * { return m_slots[static_cast<size_t>(slot)].row; };
    }
    // Into and out of a group (not the total's order).
    void join(int slot, int group, const Record &record);
    void leave(int slot);
    void contribute(Acc &acc, const Agg &agg, const Value &value, const Value &weight, int sign);
    int groupOf(const Record &record);
    bool keyMatches(const Record &record, const Key &key) const;
    size_t keyHash(const Record &record) const;
    void markDirty(int group);
    void changed();
    Row rowOf(const Group &group) const;
    QVariant result(const Group &group, size_t a, const Agg &agg, const Acc &acc, QString *text,
                    QVariant *sortValue) const;

    Table *m_table;
    GroupModel *m_model;
    Filter m_filter;
    std::vector<int> m_groupColumns;
    std::vector<Agg> m_aggs;
    bool m_withTotal;

    std::vector<Group> m_groups;
    std::vector<int> m_free;
    GroupTable m_byHash; // live groups by key hash
    RowMap m_rows;                                  // row to slot
    largealloc::Vector<Slot> m_slots;
    std::vector<int> m_freeSlots;
    largealloc::Vector<quint64> m_words;   // the slots' stored numbers and null bits
    std::vector<Value::Kind> m_wordKinds; // each word's kind
    size_t m_wordsPerSlot = 0;            // the values' words, then their null bits past 32 words
    bool m_nullsInSlot = true;            // at most 32 words: their null bits are the slot's
    largealloc::Vector<Value> m_texts; // the slots' stored texts
    size_t m_textsPerSlot = 0;
    Group m_total;

    std::vector<int> m_dirty;
    bool m_totalDirty = false;
    bool m_reset = true;
    int m_batch = 0;
};

// The grouped query's item model (the source of LiveQueryModel).
class GroupModel : public QAbstractTableModel
{
public:
    static const QEvent::Type UpdateEvent;

    GroupModel(Table *table, const LiveQuery &query, QObject *parent);
    ~GroupModel() override;

    int rowCount(const QModelIndex &parent = QModelIndex()) const override;
    int columnCount(const QModelIndex &parent = QModelIndex()) const override;
    QVariant data(const QModelIndex &index, int role = Qt::DisplayRole) const override;
    QVariant headerData(int section, Qt::Orientation orientation, int role = Qt::DisplayRole) const override;

    void update();
    bool hasPendingChanges() const;
    // From the index, under the table's lock.
    void post();

    std::function<void()> onUpdated;

protected:
    bool event(QEvent *event) override;

private:
    int rowOfKey(const livequery::Key &key, bool *found) const;

    QPointer<Table> m_table;
    std::unique_ptr<GroupIndex> m_index;
    QStringList m_headers;
    bool m_withTotal;
    int m_keyColumns;
    std::vector<GroupIndex::Row> m_rows; // total first, when there is one
    bool m_posted = false;                // under the table's lock
};

} // namespace livequery

#endif // DATABASE_LIVEQUERY_P_H
