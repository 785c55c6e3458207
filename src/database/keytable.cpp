#include "keytable_p.h"

#include "largealloc_p.h"

KeyTable::~KeyTable()
{
    clear();
}

void KeyTable::clear()
{
    if (m_slots)
        largealloc::deallocate(m_slots, bytes());
    m_slots = nullptr;
    m_capacity = 0;
    m_mask = 0;
    m_count = 0;
}

void KeyTable::reserve(int count)
{
    std::size_t capacity = m_capacity ? m_capacity : 16;
    while (capacity < 2 * static_cast<std::size_t>(count))
        capacity *= 2;
    if (capacity != m_capacity)
        rehash(capacity);
}

void KeyTable::rehash(std::size_t capacity)
{
    const std::size_t size = capacity * sizeof(Slot);
    auto *slots = static_cast<Slot *>(largealloc::allocateZeroed(size));
    Slot *old = m_slots;
    const std::size_t oldCapacity = m_capacity;
    m_slots = slots;
    m_capacity = capacity;
    m_mask = capacity - 1;
    for (std::size_t i = 0; i < oldCapacity; ++i) {
        if (!old[i].row)
            continue;
        std::size_t at = home(old[i].key);
        while (m_slots[at].row)
            at = (at + 1) & m_mask;
        m_slots[at] = old[i];
    }
    if (old)
        largealloc::deallocate(old, oldCapacity * sizeof(Slot));
}

bool KeyTable::insert(quint64 key, unsigned char *row)
{
    Q_ASSERT(row);
    if (2 * (static_cast<std::size_t>(m_count) + 1) > m_capacity)
        reserve(m_count + 1);
    std::size_t i = home(key);
    for (; m_slots[i].row; i = (i + 1) & m_mask) {
        if (m_slots[i].key == key)
            return false;
    }
    m_slots[i] = {key, row};
    ++m_count;
    return true;
}

bool KeyTable::erase(quint64 key, const unsigned char *row)
{
    if (m_count == 0)
        return false;
    std::size_t i = home(key);
    for (;; i = (i + 1) & m_mask) {
        if (!m_slots[i].row)
            return false;
        if (m_slots[i].key == key)
            break;
    }
    if (m_slots[i].row != row)
        return false;
    // Each later slot of the run moves back into the hole unless its home
    // lies (cyclically) after the hole and at or before the slot itself.
    std::size_t hole = i;
    for (std::size_t j = (i + 1) & m_mask; m_slots[j].row; j = (j + 1) & m_mask) {
        const std::size_t h = home(m_slots[j].key);
        const bool staysPut = hole <= j ? (hole < h && h <= j) : (hole < h || h <= j);
        if (!staysPut) {
            m_slots[hole] = m_slots[j];
            hole = j;
        }
    }
    m_slots[hole].row = nullptr;
    --m_count;
    return true;
}
