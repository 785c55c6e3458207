#include "table.h"

#include "index.h"
#include "lockorder_p.h"
#include "masterindex.h"
#include "table_p.h"
#include "tablejoin.h"

#include <QtCore/QDebug>
#include <QtCore/QThread>

#include <algorithm>
#include <chrono>
#include <thread>

// The batch and lock protocol: one recursive mutex per table, batches that
// nest on the thread that holds them, and the bookkeeping (owner, depth,
// unlock hooks, lock order) that joins and models rely on. The contract is
// in table.h; doc/architecture.md says how joins and models use it.

void Table::beginUpdate()
{
    Q_D(Table);
    if (d->updateDepth.fetchAndAddOrdered(1) > 0) {
        // Batches nest on the thread that holds them; another thread that
        // counts itself in here would change the table unlocked.
        Q_ASSERT_X(d->batchOwner.loadAcquire() == nullptr || d->batchOwner.loadAcquire() == QThread::currentThreadId(),
                   "Table::beginUpdate",
                   qPrintable(QStringLiteral("a batch of table '%1' is open on another thread").arg(d->name)));
        return;
    }
    if (d->batchOwner.loadAcquire() == QThread::currentThreadId()) {
        // Inside this thread's exclusive batch: the indexes have heard its
        // beginning already.
        acquire();
        d->updateInsideExclusive = true;
        return;
    }
    openBatch();
}

void Table::endUpdate()
{
    Q_D(Table);
    if (d->updateDepth.fetchAndSubOrdered(1) - 1 > 0)
        return;
    if (d->updateInsideExclusive) {
        d->updateInsideExclusive = false;
        release();
        return;
    }
    closeBatch();
}

bool Table::beginExclusiveUpdate()
{
    Q_D(Table);
    if (d->batchOwner.loadAcquire() == QThread::currentThreadId()) {
        acquire();
        return false;
    }
    openBatch();
    return true;
}

void Table::endExclusiveUpdate(bool opened)
{
    if (opened)
        closeBatch();
    else
        release();
}

void Table::openBatch()
{
    Q_D(Table);
    const QList<Index *> dependents = d->dependentIndexes;
    for (Index *index : dependents)
        index->dependentBeginUpdate(this);
    // A writer that opens batches back to back would otherwise take the lock
    // again before a woken reader (a model on the GUI thread) gets it: let a
    // waiting reader in first. Bounded, since this thread may hold the lock
    // through a TableLocker of its own, and the reader would never get it.
    if (d->lockWaiters.load(std::memory_order_acquire) > 0) {
        const auto deadline = std::chrono::steady_clock::now() + std::chrono::milliseconds(2);
        while (d->lockWaiters.load(std::memory_order_acquire) > 0 && std::chrono::steady_clock::now() < deadline)
            std::this_thread::yield();
    }
    acquire();
    d->batchOwner.storeRelease(QThread::currentThreadId());
    d->masterIndex->beginUpdate();
    const QList<Index *> indexes = d->indexes;
    for (Index *index : indexes)
        index->beginUpdate();
}

void Table::closeBatch()
{
    Q_D(Table);
    // The master index hears beginUpdate but never endUpdate.
    const QList<Index *> indexes = d->indexes;
    for (Index *index : indexes)
        index->endUpdate();
    d->batchOwner.storeRelease(nullptr);
    release();
    const QList<Index *> dependents = d->dependentIndexes;
    for (Index *index : dependents)
        index->dependentEndUpdate(this);
}

void Table::lock()
{
    acquire();
}

void Table::unlock()
{
    release();
}

void Table::acquire()
{
    Q_D(Table);
    // Checked before blocking: a wrong order is reported, not deadlocked on.
    LockOrder::acquired(this);
    if (!d->mutex.try_lock()) {
        d->lockWaiters.fetch_add(1, std::memory_order_acq_rel);
        d->mutex.lock();
        d->lockWaiters.fetch_sub(1, std::memory_order_acq_rel);
    }
    if (d->lockDepth++ == 0)
        d->lockOwner.store(QThread::currentThreadId(), std::memory_order_release);
}

void Table::release()
{
    Q_D(Table);
    std::vector<TablePrivate::UnlockHook> hooks;
    if (--d->lockDepth == 0) {
        d->lockOwner.store(nullptr, std::memory_order_release);
        hooks.swap(d->unlockHooks);
    }
    d->mutex.unlock();
    LockOrder::released(this);
    for (const TablePrivate::UnlockHook &hook : hooks)
        hook.run(hook.cookie);
}

bool TablePrivate::heldByCurrentThread() const
{
    return lockOwner.load(std::memory_order_acquire) == QThread::currentThreadId();
}

void TablePrivate::runAfterUnlock(void (*run)(void *), void *cookie)
{
    for (const UnlockHook &hook : unlockHooks) {
        if (hook.cookie == cookie)
            return;
    }
    unlockHooks.push_back({run, cookie});
}

void TablePrivate::dropUnlockHooks(void *cookie)
{
    unlockHooks.erase(std::remove_if(unlockHooks.begin(), unlockHooks.end(),
                                     [cookie](const UnlockHook &hook) { return hook.cookie == cookie; }),
                      unlockHooks.end());
}
