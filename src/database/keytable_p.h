#ifndef DATABASE_KEYTABLE_P_H
#define DATABASE_KEYTABLE_P_H

//
//  W A R N I N G
//  -------------
//
// This file is not part of the database API. It exists for the convenience
// of the library's own sources and may change from version to version
// without notice.
//

#include "database_export.h"

#include <QtCore/QtGlobal>

#include <cstddef>

// A hash table from a key of at most eight bytes (packed into a quint64) to
// the row that holds it: the master index's answer to "which row has this
// key" in a cache miss or two, where a binary search over a million rows
// reaches twenty rows. Open addressing with linear probing, at most half
// full, removal by shifting the run back (no tombstones), so a long life of
// inserts and removals does not slow it down. Every slot keeps the whole
// key, so a probe reads no row and an answer is exact.
class DATABASE_EXPORT KeyTable
{
public:
    KeyTable() = default;
    ~KeyTable();
    KeyTable(const KeyTable &) = delete;
    KeyTable &operator=(const KeyTable &) = delete;

    int count() const { return m_count; }
    // Bytes held by the slots, and where they start.
    std::size_t bytes() const { return m_capacity * sizeof(Slot); }
    const void *slotBlock() const { return m_slots; }

    // The row of `key`, or null.
    unsigned char *find(quint64 key) const
    {
        if (m_count == 0)
            return nullptr;
        for (std::size_t i = home(key);; i = (i + 1) & m_mask) {
            const Slot &slot = m_slots[i];
            if (!slot.row || slot.key == key)
                return slot.row;
        }
    }
    // Whether `key` is held by `row`.
    bool holds(quint64 key, const unsigned char *row) const { return row && find(key) == row; }
    // Starts the slot of `key` on its way, for a lookup soon after.
    // Always inlined: g++ takes a function that only prefetches for one
    // without effects and drops the calls to it.
    Q_ALWAYS_INLINE void prefetch(quint64 key) const
    {
        if (m_slots)
            __builtin_prefetch(m_slots + home(key));
    }

    // Adds key -> row; false (and nothing added) when the key is there already.
    bool insert(quint64 key, unsigned char *row);
    // Removes key -> row; false (and nothing removed) when the key is absent
    // or held by another row.
    bool erase(quint64 key, const unsigned char *row);
    // Room for `count` keys without growing.
    void reserve(int count);
    // Empty, the slots released.
    void clear();

    // The hash of a key: a 64-bit finaliser, whose low bits pick the slot.
    static quint64 hash(quint64 key)
    {
        key ^= key >> 33;
        key *= 0xff51afd7ed558ccdULL;
        key ^= key >> 33;
        key *= 0xc4ceb9fe1a85ec53ULL;
        key ^= key >> 33;
        return key;
    }

private:
    struct Slot
    {
        quint64 key;
        unsigned char *row; // null: empty
    };

    std::size_t home(quint64 key) const { return static_cast<std::size_t>(hash(key)) & m_mask; }
    void rehash(std::size_t capacity);

    Slot *m_slots = nullptr;
    std::size_t m_capacity = 0;
    std::size_t m_mask = 0;
    int m_count = 0;
};

#endif // DATABASE_KEYTABLE_P_H
