// Passes cut into pieces shared with the global pool: every position is
// done once whatever the cut, a busy pool leaves the work to the caller
// instead of making it wait, and an exception comes back after the rest.

#include <database/parallel_p.h>

#include <QtCore/QSemaphore>
#include <QtCore/QThreadPool>

#include <gtest/gtest.h>

#include <atomic>
#include <mutex>
#include <set>
#include <stdexcept>
#include <thread>
#include <vector>

namespace {

std::vector<int> hitsOf(long long count, int pieces)
{
    std::vector<std::atomic<int>> hits(static_cast<size_t>(count));
    parallel::forPieces(count, pieces, [&](long long first, long long last) {
        EXPECT_LT(first, last);
        for (long long i = first; i < last; ++i)
            hits[static_cast<size_t>(i)].fetch_add(1);
    });
    return std::vector<int>(hits.begin(), hits.end());
}

} // namespace

TEST(Parallel, EveryPositionIsDoneOnceWhateverTheCut)
{
    const std::pair<long long, int> cuts[] = {{0, 4},    {1, 4},  {5, 4},    {7, 1},         {1000, 3},
                                              {1000, 0}, {1000, -2}, {1000, 1000}, {300001, 7}};
    for (const auto &cut : cuts) {
        const std::vector<int> hits = hitsOf(cut.first, cut.second);
        ASSERT_EQ(hits, std::vector<int>(static_cast<size_t>(cut.first), 1)) << cut.first << " in " << cut.second;
    }
    EXPECT_EQ(parallel::piecesFor(0), 1);
    EXPECT_EQ(parallel::piecesFor(1000), 1);
    EXPECT_GE(parallel::piecesFor(10'000'000), 1);
}

// The cut is the one asked for, whoever runs the pieces: callers that keep
// something per piece rely on it.
TEST(Parallel, ThePiecesAreTheEvenCutAlsoWithoutHelpers)
{
    QThreadPool *pool = QThreadPool::globalInstance();
    const int threads = pool->maxThreadCount();
    for (const int poolSize : {threads, 1}) {
        pool->setMaxThreadCount(poolSize);
        std::mutex mutex;
        std::set<std::pair<long long, long long>> ranges;
        parallel::forPieces(10, 3, [&](long long first, long long last) {
            const std::lock_guard<std::mutex> lock(mutex);
            ranges.insert({first, last});
        });
        EXPECT_EQ(ranges, (std::set<std::pair<long long, long long>>{{0, 3}, {3, 6}, {6, 10}})) << poolSize;
    }
    pool->setMaxThreadCount(threads);
}

// Every pool thread waits, as a job waiting for a table lock that the
// caller holds would: the pieces all run on the caller, which returns.
TEST(Parallel, ABusyPoolLeavesEveryPieceToTheCaller)
{
    QThreadPool *pool = QThreadPool::globalInstance();
    const int threads = pool->maxThreadCount();
    // Static, so that the jobs read nothing the pool hands over (which the
    // thread sanitizer cannot follow).
    static QSemaphore started, release;
    for (int t = 0; t < threads; ++t) {
        pool->start([] {
            started.release();
            release.tryAcquire(1, 30000);
        });
    }
    ASSERT_TRUE(started.tryAcquire(threads, 30000));
    std::mutex mutex;
    std::set<std::thread::id> workers;
    std::vector<int> hits(64, 0);
    parallel::forPieces(64, 8, [&](long long first, long long last) {
        const std::lock_guard<std::mutex> lock(mutex);
        workers.insert(std::this_thread::get_id());
        for (long long i = first; i < last; ++i)
            ++hits[static_cast<size_t>(i)];
    });
    release.release(threads);
    pool->waitForDone();
    EXPECT_EQ(workers, std::set<std::thread::id>{std::this_thread::get_id()});
    EXPECT_EQ(hits, std::vector<int>(64, 1));
}

TEST(Parallel, AnExceptionReachesTheCallerOnceThePiecesAreDone)
{
    std::vector<std::atomic<int>> hits(1000);
    EXPECT_THROW(parallel::forPieces(1000, 10,
                                     [&](long long first, long long last) {
                                         for (long long i = first; i < last; ++i)
                                             hits[static_cast<size_t>(i)].fetch_add(1);
                                         if (first == 0)
                                             throw std::runtime_error("first piece");
                                     }),
                 std::runtime_error);
    for (const std::atomic<int> &hit : hits)
        ASSERT_EQ(hit.load(), 1);
}
