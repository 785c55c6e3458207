#ifndef DATABASE_LARGEALLOC_P_H
#define DATABASE_LARGEALLOC_P_H

//
//  W A R N I N G
//  -------------
//
// This file is not part of the database API. It exists for the convenience
// of the library's own sources and may change from version to version
// without notice.
//

#include "database_export.h"

#include <atomic>
#include <cstddef>
#include <cstring>
#include <initializer_list>
#include <new>
#include <thread>
#include <type_traits>
#include <utility>
#include <vector>

// Arrays of many megabytes (a view's slots over a million rows, its row
// table) are touched page by page as they fill, and a fault per 4 KiB page
// costs more than the work done in it. Such arrays are mapped on their own,
// aligned to and advised for huge pages; smaller ones come from the heap.
namespace largealloc {

// Blocks of at least this many bytes are mapped; their size is rounded up
// to a whole number of huge pages.
constexpr std::size_t Threshold = std::size_t(2) << 20;

// Zeroed when mapped; throws std::bad_alloc when the memory is not there.
DATABASE_EXPORT void *allocate(std::size_t bytes);
// `bytes` as given to allocate().
DATABASE_EXPORT void deallocate(void *block, std::size_t bytes) noexcept;
// allocate(), zeroed whatever its size: a mapped block comes zeroed, a
// heap one is cleared. For tables whose empty slot is all zero bits.
inline void *allocateZeroed(std::size_t bytes)
{
    void *block = allocate(bytes);
    if (bytes < Threshold)
        std::memset(block, 0, bytes);
    return block;
}

// Faults blocks in on another thread while this one works: in a virtual
// machine a first touch costs more than zeroing the page, and a build that
// fills a hundred megabytes otherwise spends a third of its time there.
// The blocks are done in the order given, a huge page at a time, so a
// block filled from its start is met ready. The destructor stops and waits:
// keep the blocks alive (and unmoved) until then.
class DATABASE_EXPORT Prefault
{
public:
    struct Block
    {
        const void *start;
        std::size_t bytes;
    };
    explicit Prefault(std::initializer_list<Block> blocks);
    ~Prefault();
    Prefault(const Prefault &) = delete;
    Prefault &operator=(const Prefault &) = delete;

private:
    std::vector<Block> m_blocks;
    std::atomic<bool> m_stop{false};
    std::thread m_thread;
};

template <typename T>
struct Allocator
{
    using value_type = T;

    Allocator() = default;
    template <typename U>
    Allocator(const Allocator<U> &) noexcept
    {
    }

    T *allocate(std::size_t n)
    {
        if (n > std::size_t(-1) / sizeof(T))
            throw std::bad_alloc();
        return static_cast<T *>(largealloc::allocate(n * sizeof(T)));
    }
    void deallocate(T *p, std::size_t n) noexcept { largealloc::deallocate(p, n * sizeof(T)); }

    template <typename U>
    bool operator==(const Allocator<U> &) const noexcept
    {
        return true;
    }
    template <typename U>
    bool operator!=(const Allocator<U> &) const noexcept
    {
        return false;
    }
};

template <typename T>
using Vector = std::vector<T, Allocator<T>>;

// The same, but resize() leaves new elements default-initialised: a
// pointer or a number is whatever the memory held. For a buffer that is
// written in full right after it is sized, so that sizing it does not cost
// a pass of its own.
template <typename T>
struct UninitAllocator : Allocator<T>
{
    template <typename U>
    struct rebind
    {
        using other = UninitAllocator<U>;
    };

    UninitAllocator() = default;
    template <typename U>
    UninitAllocator(const UninitAllocator<U> &) noexcept
    {
    }

    template <typename U>
    void construct(U *p) noexcept(std::is_nothrow_default_constructible<U>::value)
    {
        ::new (static_cast<void *>(p)) U;
    }
    template <typename U, typename... Args>
    void construct(U *p, Args &&...args)
    {
        ::new (static_cast<void *>(p)) U(std::forward<Args>(args)...);
    }
};

template <typename T>
using UninitVector = std::vector<T, UninitAllocator<T>>;

} // namespace largealloc

#endif // DATABASE_LARGEALLOC_P_H
