#include "largealloc_p.h"

#include <sys/mman.h>

#include <algorithm>
#include <cstdint>
#include <cstdlib>
#include <system_error>

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

Prefault::Prefault(std::initializer_list<Block> blocks)
{
    // Small blocks fault in faster than a thread starts.
    for (const Block &block : blocks) {
        if (block.start && block.bytes >= Threshold)
            m_blocks.push_back(block);
    }
    if (m_blocks.empty())
        return;
    try {
        m_thread = std::thread([this] {
            constexpr std::uintptr_t Page = 4096;
            for (const Block &block : m_blocks) {
                const auto start = reinterpret_cast<std::uintptr_t>(block.start);
                std::uintptr_t at = (start + Page - 1) / Page * Page;
                const std::uintptr_t end = (start + block.bytes) / Page * Page;
                while (at < end && !m_stop.load(std::memory_order_relaxed)) {
                    const std::uintptr_t next = std::min(end, (at + HugePage) / HugePage * HugePage);
                    // Kernels before 5.14 do not know the advice: nothing
                    // is lost but the head start.
                    if (madvise(reinterpret_cast<void *>(at), next - at, MADV_POPULATE_WRITE) != 0)
                        return;
                    at = next;
                }
            }
        });
    } catch (const std::system_error &) {
        // No thread: the blocks fault in as they are used.
    }
}

Prefault::~Prefault()
{
    m_stop.store(true, std::memory_order_relaxed);
    if (m_thread.joinable())
        m_thread.join();
}

} // namespace largealloc
