// Large blocks come mapped on their own: aligned to huge pages, zeroed,
// freed by size. A vector on them must hold its elements through growth
// across the threshold, and a block's whole rounded span must be usable.

#include <database/largealloc_p.h>

#include <gtest/gtest.h>

#include <cstdint>
#include <cstring>
#include <new>

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
