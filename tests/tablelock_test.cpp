// The batch and lock protocol alone, driven without a table: what each level
// of nesting tells the listener, when the work left for the unlock runs, and
// how a second thread is kept out.

#include <database/tablelock_p.h>

#include <gtest/gtest.h>

#include <atomic>
#include <chrono>
#include <mutex>
#include <string>
#include <thread>
#include <vector>

namespace {

// Writes down what it hears, with whether the lock was held meanwhile. The
// opening and closing notes come outside the lock, from any thread.
class Journal : public TableLock::Listener
{
public:
    TableLock *lock = nullptr;
    std::vector<std::string> heard;
    std::mutex mutex;

    void batchOpening() override { note("opening"); }
    void batchOpened() override { note("opened"); }
    void batchClosing() override { note("closing"); }
    void batchClosed() override { note("closed"); }

private:
    void note(const char *what)
    {
        const std::lock_guard<std::mutex> guard(mutex);
        heard.push_back(std::string(what) + (lock->heldByCurrentThread() ? "+" : "-"));
    }
};

struct Protocol : ::testing::Test
{
    Journal journal;
    TableLock lock{nullptr, &journal};
    void SetUp() override { journal.lock = &lock; }
    using Heard = std::vector<std::string>;
};

TEST_F(Protocol, OnlyTheOutermostLevelOpensAndClosesABatch)
{
    lock.beginUpdate();
    EXPECT_TRUE(lock.batchOpen());
    EXPECT_TRUE(lock.batchOpenHere());
    lock.beginUpdate();
    lock.endUpdate();
    EXPECT_EQ(journal.heard, (Heard{"opening-", "opened+"}));
    EXPECT_TRUE(lock.heldByCurrentThread());
    lock.endUpdate();
    EXPECT_EQ(journal.heard, (Heard{"opening-", "opened+", "closing+", "closed-"}));
    EXPECT_FALSE(lock.heldByCurrentThread());
    EXPECT_FALSE(lock.batchOpen());
}

TEST_F(Protocol, InsideAnExclusiveBatchOtherLevelsOnlyLock)
{
    const bool opened = lock.beginExclusiveUpdate();
    EXPECT_TRUE(opened);
    EXPECT_FALSE(lock.beginExclusiveUpdate()); // this thread's batch: a lock level only
    lock.beginUpdate();
    lock.endUpdate();
    lock.endExclusiveUpdate(false);
    EXPECT_EQ(journal.heard, (Heard{"opening-", "opened+"}));
    EXPECT_TRUE(lock.heldByCurrentThread());
    lock.endExclusiveUpdate(opened);
    EXPECT_EQ(journal.heard, (Heard{"opening-", "opened+", "closing+", "closed-"}));
    EXPECT_FALSE(lock.heldByCurrentThread());

    // A plain batch opened first: the exclusive one inside it only locks.
    journal.heard.clear();
    lock.beginUpdate();
    EXPECT_FALSE(lock.beginExclusiveUpdate());
    lock.endExclusiveUpdate(false);
    lock.endUpdate();
    EXPECT_EQ(journal.heard, (Heard{"opening-", "opened+", "closing+", "closed-"}));
}

TEST_F(Protocol, UnlockWorkRunsOnceAfterTheLastLevelIsLetGo)
{
    struct Hook
    {
        TableLock *lock;
        std::vector<bool> runs; // whether the lock was held at each run
        static void run(void *cookie)
        {
            auto *hook = static_cast<Hook *>(cookie);
            hook->runs.push_back(hook->lock->heldByCurrentThread());
        }
    } first{&lock, {}}, second{&lock, {}}, dropped{&lock, {}};

    lock.beginUpdate();
    lock.acquire();
    lock.runAfterUnlock(&Hook::run, &first);
    lock.runAfterUnlock(&Hook::run, &first); // waiting already
    lock.runAfterUnlock(&Hook::run, &dropped);
    lock.release();
    EXPECT_TRUE(first.runs.empty()) << "ran while a level was still held";
    lock.runAfterUnlock(&Hook::run, &second);
    lock.dropUnlockHooks(&dropped);
    lock.endUpdate();
    EXPECT_EQ(first.runs, std::vector<bool>{false});
    EXPECT_EQ(second.runs, std::vector<bool>{false});
    EXPECT_TRUE(dropped.runs.empty());

    // Taken: the next unlock has nothing to run.
    lock.acquire();
    lock.release();
    EXPECT_EQ(first.runs.size(), 1u);
}

TEST_F(Protocol, AnotherThreadWaitsForTheWholeBatch)
{
    std::atomic<int> stage{0};
    lock.beginUpdate();
    std::thread other([&] {
        EXPECT_TRUE(lock.batchOpen());
        EXPECT_FALSE(lock.batchOpenHere());
        EXPECT_FALSE(lock.heldByCurrentThread());
        stage = 1;
        lock.acquire(); // a reader: waits for the batch to close
        EXPECT_EQ(stage.load(), 2);
        EXPECT_TRUE(lock.heldByCurrentThread());
        lock.release();
    });
    while (stage.load() != 1)
        std::this_thread::yield();
    lock.beginUpdate(); // nested levels do not let the reader in
    lock.endUpdate();
    stage = 2;
    lock.endUpdate();
    other.join();

    // An exclusive batch holds another thread's beginUpdate off.
    stage = 0;
    const bool opened = lock.beginExclusiveUpdate();
    std::thread writer([&] {
        lock.beginUpdate();
        EXPECT_EQ(stage.load(), 1);
        lock.endUpdate();
    });
    std::this_thread::sleep_for(std::chrono::milliseconds(20));
    stage = 1;
    lock.endExclusiveUpdate(opened);
    writer.join();
    EXPECT_EQ(journal.heard.size(), 12u);
}

#ifndef QT_NO_DEBUG
TEST(ProtocolDeathTest, ASecondThreadCountingItselfIntoABatchIsStopped)
{
    GTEST_FLAG_SET(death_test_style, "threadsafe");
    EXPECT_DEATH(
        {
            Journal journal;
            TableLock lock(nullptr, &journal);
            journal.lock = &lock;
            lock.beginUpdate();
            std::thread([&] { lock.beginUpdate(); }).join();
        },
        "is open on another thread");
}
#endif

} // namespace
