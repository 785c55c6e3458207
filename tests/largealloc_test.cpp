// Large blocks come mapped on their own: aligned to huge pages, zeroed,
// freed by size. A vector on them must hold its elements through growth
// across the threshold, and a block's whole rounded span must be usable.

#include <database/largealloc_p.h>

#include <gtest/gtest.h>

#include <sys/mman.h>
#include <unistd.h>

#include <algorithm>
#include <chrono>
#include <cstdint>
#include <cstring>
#include <new>
#include <thread>
#include <vector>

TEST(LargeAlloc, BlocksBelowAndAboveTheThresholdAreUsableToTheirLastByte)
{
    for (const std::size_t bytes :
         {std::size_t(1), largealloc::Threshold - 1, largealloc::Threshold, largealloc::Threshold + 1,
          3 * largealloc::Threshold + 12345}) {
        auto *block = static_cast<unsigned char *>(largealloc::allocate(bytes));
        ASSERT_NE(block, nullptr);
        if (bytes >= largealloc::Threshold) {
            EXPECT_EQ(reinterpret_cast<std::uintptr_t>(block) % (std::size_t(2) << 20), 0u) << bytes;
            // Mapped memory comes zeroed.
            EXPECT_EQ(block[0], 0);
            EXPECT_EQ(block[bytes - 1], 0);
        }
        std::memset(block, 0xA5, bytes);
        EXPECT_EQ(block[bytes - 1], 0xA5);
        largealloc::deallocate(block, bytes);
    }
    largealloc::deallocate(nullptr, largealloc::Threshold);
    EXPECT_THROW(largealloc::allocate(std::size_t(-1) - 10), std::bad_alloc);
    EXPECT_THROW(largealloc::Allocator<double>().allocate(std::size_t(-1) / 4), std::bad_alloc);
}

TEST(LargeAlloc, AVectorKeepsItsElementsWhileItGrowsPastTheThreshold)
{
    largealloc::Vector<std::uint64_t> values;
    const std::size_t n = 3 * largealloc::Threshold / sizeof(std::uint64_t) + 7;
    for (std::size_t k = 0; k < n; ++k)
        values.push_back(k * 2654435761u);
    for (std::size_t k = 0; k < n; k += 997)
        ASSERT_EQ(values[k], k * 2654435761u);
    EXPECT_EQ(values.back(), (n - 1) * 2654435761u);
    values.resize(10);
    values.shrink_to_fit();
    EXPECT_EQ(values[9], std::uint64_t(9) * 2654435761u);
    largealloc::Vector<std::uint64_t> copy(values);
    EXPECT_EQ(copy, values);
}

// The buffer sized without zeroing: what it holds is kept through growth,
// and values given to resize or a copy are the ones stored.
TEST(LargeAlloc, AnUninitialisedVectorKeepsWhatWasWritten)
{
    largealloc::UninitVector<int> values;
    values.resize(1000);
    for (int k = 0; k < 1000; ++k)
        values[static_cast<size_t>(k)] = k;
    values.resize(static_cast<size_t>(largealloc::Threshold), 7);
    EXPECT_EQ(values[999], 999);
    EXPECT_EQ(values[1000], 7);
    EXPECT_EQ(values.back(), 7);
    const largealloc::UninitVector<int> copy(values.begin(), values.begin() + 3);
    EXPECT_EQ(copy, (largealloc::UninitVector<int>{0, 1, 2}));
}

// Faulting blocks in ahead, on another thread, while this one writes them:
// nothing written before or meanwhile is lost, and the pages do come in
// (a block faulted in by nobody would leave them out).
TEST(LargeAlloc, FaultingInAheadKeepsWhatIsWrittenAndBringsThePagesIn)
{
    const std::size_t bytes = 5 * largealloc::Threshold + 4096 + 100;
    auto *block = static_cast<unsigned char *>(largealloc::allocate(bytes));
    auto *other = static_cast<unsigned char *>(largealloc::allocate(bytes));
    std::memset(block, 0x11, 1000);
    {
        // A start inside a page and a small block, which is left alone.
        unsigned char small[64] = {};
        const largealloc::Prefault prefault({{block + 10, bytes - 10}, {small, sizeof small}, {other, bytes}});
        for (std::size_t k = 1000; k < bytes; k += 4096)
            block[k] = static_cast<unsigned char>(k / 4096);
        const long page = sysconf(_SC_PAGESIZE);
        const std::size_t pages = (bytes + static_cast<std::size_t>(page) - 1) / static_cast<std::size_t>(page);
        std::vector<unsigned char> resident(pages);
        bool all = false;
        for (int wait = 0; wait < 1000 && !all; ++wait) {
            ASSERT_EQ(mincore(other, bytes, resident.data()), 0);
            all = std::all_of(resident.begin(), resident.end(), [](unsigned char r) { return r & 1; });
            if (!all)
                std::this_thread::sleep_for(std::chrono::milliseconds(10));
        }
        EXPECT_TRUE(all) << "the second block was not faulted in";
    }
    for (std::size_t k = 0; k < 1000; ++k)
        ASSERT_EQ(block[k], 0x11);
    for (std::size_t k = 1000; k < bytes; k += 4096)
        ASSERT_EQ(block[k], static_cast<unsigned char>(k / 4096)) << k;
    EXPECT_EQ(block[bytes - 1], 0);
    EXPECT_EQ(other[bytes - 1], 0);
    largealloc::deallocate(block, bytes);
    largealloc::deallocate(other, bytes);
    // Nothing to do: no thread.
    const largealloc::Prefault none({{nullptr, bytes}});
}
