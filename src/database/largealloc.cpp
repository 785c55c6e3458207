#include "largealloc_p.h"

#include <sys/mman.h>

#include <cstdint>
#include <cstdlib>

namespace largealloc {

namespace {

constexpr std::size_t HugePage = std::size_t(2) << 20;

std::size_t mappedSize(std::size_t bytes)
{
    return (bytes + HugePage - 1) / HugePage * HugePage;
}

} // namespace

void *allocate(std::size_t bytes)
{
    if (bytes < Threshold) {
        if (void *block = std::malloc(bytes ? bytes : 1))
            return block;
        throw std::bad_alloc();
    }
    if (bytes > std::size_t(-1) - 2 * HugePage)
        throw std::bad_alloc();
    const std::size_t size = mappedSize(bytes);
    // Mapped a huge page larger, then trimmed to an aligned block of `size`.
    const std::size_t span = size + HugePage;
    void *mapped = mmap(nullptr, span, PROT_READ | PROT_WRITE, MAP_PRIVATE | MAP_ANONYMOUS, -1, 0);
    if (mapped == MAP_FAILED)
        throw std::bad_alloc();
    const auto start = reinterpret_cast<std::uintptr_t>(mapped);
    const std::uintptr_t aligned = (start + HugePage - 1) / HugePage * HugePage;
    if (aligned > start)
        munmap(mapped, aligned - start);
    const std::uintptr_t end = start + span;
    if (end > aligned + size)
        munmap(reinterpret_cast<void *>(aligned + size), end - (aligned + size));
    void *block = reinterpret_cast<void *>(aligned);
    // Advice only: without transparent huge pages the block works as mapped.
    madvise(block, size, MADV_HUGEPAGE);
    return block;
}

void deallocate(void *block, std::size_t bytes) noexcept
{
    if (!block)
        return;
    if (bytes < Threshold)
        std::free(block);
    else
        munmap(block, mappedSize(bytes));
}

} // namespace largealloc
