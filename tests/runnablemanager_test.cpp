#include <database/runnablemanager.h>

#include <QtCore/QCoreApplication>
#include <QtCore/QEventLoop>
#include <QtCore/QSemaphore>
#include <QtCore/QThread>
#include <QtCore/QThreadPool>
#include <QtCore/QTimer>

#include <gtest/gtest.h>

#include <atomic>
#include <thread>

namespace {

// A job that says when it started, then either waits to be released or
// polls canRun() until it is stopped, and notes that it ended.
class Job : public Runnable
{
public:
    enum Mode { Short, UntilReleased, UntilStopped };
    explicit Job(Mode mode, std::atomic<int> *destroyed = nullptr) : m_mode(mode), m_destroyed(destroyed) {}
    ~Job() override
    {
        if (m_destroyed)
            ++*m_destroyed;
    }
    void run() override
    {
        started.release();
        if (m_mode == UntilReleased)
            release.acquire();
        while (m_mode == UntilStopped && canRun())
            QThread::yieldCurrentThread();
        ended = true;
    }

    QSemaphore started;
    QSemaphore release;
    std::atomic<bool> ended{false};

private:
    Mode m_mode;
    std::atomic<int> *m_destroyed;
};

class RunnableTest : public ::testing::Test
{
protected:
    RunnableTest()
    {
        pool.setMaxThreadCount(4);
        QObject::connect(&manager, &RunnableManager::finished, &manager, [this](HRunnable handle) {
            finished.append(handle);
            inManagerThread &= QThread::currentThread() == manager.thread();
        });
    }
    ~RunnableTest() override { pool.waitForDone(); }

    // Delivers queued signals until `count` have come (or 10 s went by).
    // The signal is queued just before a job leaves the running list, so
    // the pool is waited for too before the list is looked at.
    void awaitFinished(int count)
    {
        QEventLoop loop;
        QTimer timer;
        QObject::connect(&timer, &QTimer::timeout, &loop, [&] {
            if (finished.size() >= count)
                loop.quit();
        });
        timer.start(1);
        QTimer::singleShot(10000, &loop, &QEventLoop::quit);
        loop.exec();
        EXPECT_EQ(finished.size(), count);
        pool.waitForDone();
    }

    QThreadPool pool;
    RunnableManager manager;
    QList<HRunnable> finished;
    bool inManagerThread = true;
};

TEST_F(RunnableTest, AJobRunsUntilItLeavesTheListAndIsAnnouncedOnce)
{
    EXPECT_FALSE(manager.isRunning());
    auto *job = new Job(Job::UntilReleased);
    void *handle = manager.startRunnable(job, &pool, 0);
    EXPECT_TRUE(manager.isRunning());
    EXPECT_TRUE(manager.isRunning(handle));
    job->started.acquire();
    job->release.release();
    awaitFinished(1);
    EXPECT_EQ(finished, QList<HRunnable>({handle}));
    EXPECT_TRUE(inManagerThread);
    EXPECT_FALSE(manager.isRunning(handle));
    EXPECT_FALSE(manager.isRunning());
    // A stale or unknown handle is ignored, and no wait blocks on it.
    manager.stopRunnable(handle, true);
    manager.stopRunnable(&pool, true);
    manager.stopRunnable(nullptr, false);
}

TEST_F(RunnableTest, StoppingWithAndWithoutWaitingFromAnyThread)
{
    auto *polling = new Job(Job::UntilStopped);
    polling->setAutoDelete(false); // kept, to be read after its end
    void *handle = manager.startRunnable(polling, &pool, 0);
    polling->started.acquire();
    manager.stopRunnable(handle, true); // returns only once it ended
    EXPECT_TRUE(polling->ended);
    EXPECT_FALSE(manager.isRunning(handle));

    // Three cooperative jobs stopped from another thread, and one stopped
    // without waiting; the manager waits for all of them.
    std::atomic<int> destroyed{0};
    QList<Job *> jobs;
    QList<void *> handles;
    for (int i = 0; i < 4; ++i) {
        jobs.append(new Job(Job::UntilStopped, &destroyed));
        handles.append(manager.startRunnable(jobs.last(), &pool, i));
        jobs.last()->started.acquire();
    }
    manager.stopRunnable(handles.last(), false);
    std::thread stopper([&] { manager.stopRunnables(true); });
    stopper.join();
    EXPECT_FALSE(manager.isRunning());
    awaitFinished(5);
    pool.waitForDone();
    EXPECT_EQ(destroyed, 4); // auto-deleted jobs are gone, the other stays
    delete polling;
}

TEST_F(RunnableTest, ManyShortJobsEachFinishOnce)
{
    for (int i = 0; i < 300; ++i)
        manager.startRunnable(new Job(Job::Short), &pool, 0);
    awaitFinished(300);
    EXPECT_TRUE(inManagerThread);
    EXPECT_FALSE(manager.isRunning());
}

TEST(RunnableManager, DestructionStopsAndWaits)
{
    QThreadPool pool;
    auto *job = new Job(Job::UntilStopped);
    job->setAutoDelete(false);
    {
        RunnableManager manager;
        manager.startRunnable(job, &pool, 0);
        job->started.acquire();
    }
    EXPECT_TRUE(job->ended);
    pool.waitForDone();
    delete job;
    EXPECT_NE(QMetaType::type("HRunnable"), 0);
}

} // namespace
