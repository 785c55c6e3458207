#include "table.h"

#include "index.h"
#include "lockorder_p.h"
#include "masterindex.h"
#include "table_p.h"

#include <QtCore/QThread>

#include <algorithm>
#include <chrono>
#include <thread>

// The batch and lock protocol (tablelock_p.h), and what a table's batches
// tell its indexes.

void TableLock::beginUpdate()
{
    if (m_updateDepth.fetchAndAddOrdered(1) > 0) {
        // Batches nest on the thread that holds them; another thread that
        // counts itself in here would change the table unlocked.
        Q_ASSERT_X(m_batchOwner.loadAcquire() == nullptr || m_batchOwner.loadAcquire() == QThread::currentThreadId(),
                   "Table::beginUpdate",
                   qPrintable(QStringLiteral("a batch of table '%1' is open on another thread")
                                  .arg(m_table ? m_table->name() : QString())));
        return;
    }
    if (m_batchOwner.loadAcquire() == QThread::currentThreadId()) {
        // Inside this thread's exclusive batch: the indexes have heard its
        // beginning already.
        acquire();
        m_updateInsideExclusive = true;
        return;
    }
    openBatch();
}

void TableLock::endUpdate()
{
    if (m_updateDepth.fetchAndSubOrdered(1) - 1 > 0)
        return;
    if (m_updateInsideExclusive) {
        m_updateInsideExclusive = false;
        release();
        return;
    }
    closeBatch();
}

bool TableLock::beginExclusiveUpdate()
{
    if (batchOpenHere()) {
        acquire();
        return false;
    }
    openBatch();
    return true;
}

void TableLock::endExclusiveUpdate(bool opened)
{
    if (opened)
        closeBatch();
    else
        release();
}

void TableLock::openBatch()
{
    m_listener->batchOpening();
    // A writer that opens batches back to back would otherwise take the lock
    // again before a woken reader (a model on the GUI thread) gets it: let a
    // waiting reader in first. Bounded, since this thread may hold the lock
    // through a TableLocker of its own, and the reader would never get it.
    if (m_lockWaiters.load(std::memory_order_acquire) > 0) {
        const auto deadline = std::chrono::steady_clock::now() + std::chrono::milliseconds(2);
        while (m_lockWaiters.load(std::memory_order_acquire) > 0 && std::chrono::steady_clock::now() < deadline)
            std::this_thread::yield();
    }
    acquire();
    m_batchOwner.storeRelease(QThread::currentThreadId());
    m_listener->batchOpened();
}

void TableLock::closeBatch()
{
    m_listener->batchClosing();
    m_batchOwner.storeRelease(nullptr);
    release();
    m_listener->batchClosed();
}

void TableLock::acquire()
{
    // Checked before blocking: a wrong order is reported, not deadlocked on.
    if (m_table)
        LockOrder::acquired(m_table);
    if (!m_mutex.try_lock()) {
        m_lockWaiters.fetch_add(1, std::memory_order_acq_rel);
        m_mutex.lock();
        m_lockWaiters.fetch_sub(1, std::memory_order_acq_rel);
    }
    if (m_lockDepth++ == 0)
        m_lockOwner.store(QThread::currentThreadId(), std::memory_order_release);
}

void TableLock::release()
{
    std::vector<UnlockHook> hooks;
    if (--m_lockDepth == 0) {
        m_lockOwner.store(nullptr, std::memory_order_release);
        hooks.swap(m_unlockHooks);
    }
    m_mutex.unlock();
    if (m_table)
        LockOrder::released(m_table);
    for (const UnlockHook &hook : hooks)
        hook.run(hook.cookie);
}

bool TableLock::heldByCurrentThread() const
{
    return m_lockOwner.load(std::memory_order_acquire) == QThread::currentThreadId();
}

bool TableLock::batchOpenHere() const
{
    return m_batchOwner.loadAcquire() == QThread::currentThreadId();
}

void TableLock::runAfterUnlock(void (*run)(void *), void *cookie)
{
    for (const UnlockHook &hook : m_unlockHooks) {
        if (hook.cookie == cookie)
            return;
    }
    m_unlockHooks.push_back({run, cookie});
}

void TableLock::dropUnlockHooks(void *cookie)
{
    m_unlockHooks.erase(std::remove_if(m_unlockHooks.begin(), m_unlockHooks.end(),
                                       [cookie](const UnlockHook &hook) { return hook.cookie == cookie; }),
                        m_unlockHooks.end());
}

// --- The table's side: who hears a batch ------------------------------------

void TablePrivate::Hearing::batchOpening()
{
    const QList<Index *> dependents = d->dependentIndexes;
    for (Index *index : dependents)
        index->dependentBeginUpdate(table);
}

void TablePrivate::Hearing::batchOpened()
{
    d->masterIndex->beginUpdate();
    const QList<Index *> indexes = d->indexes;
    for (Index *index : indexes)
        index->beginUpdate();
}

void TablePrivate::Hearing::batchClosing()
{
    // The master index hears beginUpdate but never endUpdate.
    const QList<Index *> indexes = d->indexes;
    for (Index *index : indexes)
        index->endUpdate();
}

void TablePrivate::Hearing::batchClosed()
{
    const QList<Index *> dependents = d->dependentIndexes;
    for (Index *index : dependents)
        index->dependentEndUpdate(table);
}

void Table::beginUpdate()
{
    d_func()->lock.beginUpdate();
}

void Table::endUpdate()
{
    d_func()->lock.endUpdate();
}

bool Table::beginExclusiveUpdate()
{
    return d_func()->lock.beginExclusiveUpdate();
}

void Table::endExclusiveUpdate(bool opened)
{
    d_func()->lock.endExclusiveUpdate(opened);
}

void Table::lock()
{
    d_func()->lock.acquire();
}

void Table::unlock()
{
    d_func()->lock.release();
}
