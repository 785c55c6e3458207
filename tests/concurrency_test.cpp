// Threads meeting in the library, as the application has them: the thread
// sanitizer build (make tsan) runs these. Synchronised with atomics, mutexes
// and condition variables, never by sleeping.

#include "tablefixture.h"

#include <database/masterindex.h>
#include <database/recordstrans.h>
#include <database/runnablemanager.h>
#include <database/tableio.h>

#include <QtCore/QBuffer>
#include <QtCore/QDataStream>
#include <QtCore/QThreadPool>

#include <gtest/gtest.h>

#include <atomic>
#include <condition_variable>
#include <chrono>
#include <mutex>
#include <random>
#include <thread>

namespace {

// Opens once every party has arrived.
class Gate
{
public:
    explicit Gate(int parties) : m_waiting(parties) {}
    void arriveAndWait()
    {
        std::unique_lock<std::mutex> lock(m_mutex);
        if (--m_waiting == 0)
            m_open.notify_all();
        else
            m_open.wait(lock, [this] { return m_waiting == 0; });
    }

private:
    std::mutex m_mutex;
    std::condition_variable m_open;
    int m_waiting;
};

class Shared : public ::testing::Test
{
protected:
    Shared()
    {
        addKeyIdColumns(table);
        std::mt19937 random(1);
        TableUpdater updater(&table);
        for (int i = 0; i < 20000; ++i)
            appendRow(table, {static_cast<int>(random() % 1000), i});
    }

    // Under the lock: the index holds every row, in order.
    void expectWhole()
    {
        TableLocker locker(&table);
        ASSERT_EQ(index.count(), table.rowCount());
        int previous = INT_MIN;
        for (const Record &record : index) {
            ASSERT_LE(previous, getInt(record, 0));
            previous = getInt(record, 0);
        }
    }

    Table table{QStringLiteral("shared")};
    IntKeyIndex index{&table};
};

TEST_F(Shared, AWriterAndReadersAndASaver)
{
    std::atomic<bool> writing{true};
    Gate start(4);
    std::thread writer([&] {
        start.arriveAndWait();
        std::mt19937 random(2);
        for (int batch = 0; batch < 60; ++batch) {
            TableUpdater updater(&table);
            QList<Record> removed, updated, inserted;
            for (int i = 0; i < 50; ++i) {
                const Record record = table.masterIndex()->at(static_cast<int>(random() % table.rowCount()));
                if (i % 3 == 0 && !removed.contains(record) && !updated.contains(record)) {
                    removed.append(record);
                } else if (i % 3 == 1 && !removed.contains(record) && !updated.contains(record)) {
                    setInt(record, 0, static_cast<int>(random() % 1000));
                    updated.append(record);
                } else {
                    inserted.append(makeRow(table, {static_cast<int>(random() % 1000), -1}));
                }
            }
            table.process(removed, updated, 0, 0, inserted);
        }
        writing = false;
    });
    // The readers and the saver pause between their turns, as a model's
    // thread does between updates: the table's lock is not fair, and three
    // threads taking it back at once can keep the writer waiting for
    // minutes under ThreadSanitizer.
    const auto pause = [] { std::this_thread::sleep_for(std::chrono::microseconds(200)); };
    std::vector<std::thread> readers;
    for (int r = 0; r < 2; ++r) {
        readers.emplace_back([&] {
            start.arriveAndWait();
            do {
                expectWhole();
                pause();
            } while (writing);
        });
    }
    std::thread saver([&] {
        start.arriveAndWait();
        do {
            QByteArray bytes;
            QDataStream stream(&bytes, QIODevice::WriteOnly);
            TableIO(&table).write(stream); // under the table's lock
            EXPECT_GT(bytes.size(), 20000);
            pause();
        } while (writing);
    });
    writer.join();
    for (std::thread &reader : readers)
        reader.join();
    saver.join();
    expectWhole();
}

TEST_F(Shared, RecordsCopiedAndDroppedAcrossThreadsWhileRowsLeave)
{
    std::vector<Record> held;
    {
        TableLocker locker(&table);
        for (int i = 0; i < 2000; ++i)
            held.push_back(table.masterIndex()->at(i));
    }
    const unsigned char *watched = held.front().rowPtr();
    Gate start(3);
    std::vector<std::thread> copiers;
    for (int t = 0; t < 2; ++t) {
        copiers.emplace_back([&] {
            start.arriveAndWait();
            for (int round = 0; round < 20; ++round) {
                std::vector<Record> copies(held.begin(), held.end());
                copies.clear();
            }
        });
    }
    start.arriveAndWait();
    {
        TableUpdater updater(&table);
        for (int i = 0; i < 2000; i += 2)
            table.remove(held[static_cast<size_t>(i)]);
    }
    for (std::thread &copier : copiers)
        copier.join();
    EXPECT_EQ(Table::references(watched), 1u); // only `held` still has it
    held.clear();
    expectWhole();
}

TEST_F(Shared, ParallelResortOfALargeIndex)
{
    {
        TableUpdater updater(&table);
        std::mt19937 random(3);
        for (const Record &record : *table.masterIndex())
            setInt(record, 0, static_cast<int>(random() % 5000));
        index.resort(); // on the worker pool
    }
    expectWhole();
}

// Jobs that run until stopped, stopped from several threads at once.
class Spinner : public Runnable
{
public:
    explicit Spinner(std::atomic<int> *running) : m_running(running) {}
    void run() override
    {
        ++*m_running;
        while (canRun())
            std::this_thread::yield();
        --*m_running;
    }

private:
    std::atomic<int> *m_running;
};

TEST(RunnableManagerThreads, ManyJobsStoppedFromSeveralThreads)
{
    QThreadPool pool;
    pool.setMaxThreadCount(8);
    std::atomic<int> running{0};
    RunnableManager manager;
    std::vector<void *> handles;
    for (int i = 0; i < 8; ++i)
        handles.push_back(manager.startRunnable(new Spinner(&running), &pool, 0));
    Gate start(4);
    std::vector<std::thread> stoppers;
    for (int t = 0; t < 3; ++t) {
        stoppers.emplace_back([&, t] {
            start.arriveAndWait();
            for (size_t i = static_cast<size_t>(t); i < handles.size(); i += 3)
                manager.stopRunnable(handles[i], t != 1);
            (void)manager.isRunning();
        });
    }
    start.arriveAndWait();
    for (std::thread &stopper : stoppers)
        stopper.join();
    manager.stopRunnables(true);
    EXPECT_FALSE(manager.isRunning());
    EXPECT_EQ(running, 0);
    pool.waitForDone();
}

} // namespace
