#ifndef DATABASE_TABLELOCK_P_H
#define DATABASE_TABLELOCK_P_H

//
//  W A R N I N G
//  -------------
//
// This file is not part of the database API. It exists for the convenience
// of the library's own sources and may change from version to version
// without notice.
//

#include "database_export.h"

#include <QtCore/QAtomicInt>
#include <QtCore/QAtomicPointer>

#include <atomic>
#include <mutex>
#include <vector>

class Table;

// A table's batch and lock protocol: one recursive mutex, batches that nest
// on the thread that holds them, exclusive batches, the owner and depth of
// the lock, and work to run once the lock is let go of. What a batch tells
// the indexes is the listener's business, so the protocol can be driven on
// its own. The contract is Table's (table.h); doc/architecture.md says how
// joins and models use it.
class DATABASE_EXPORT TableLock
{
public:
    // What the opening and closing of a batch tell, in this order.
    class Listener
    {
    public:
        virtual ~Listener() = default;
        virtual void batchOpening() = 0; // before the lock is taken
        virtual void batchOpened() = 0;  // under the lock
        virtual void batchClosing() = 0; // under the lock
        virtual void batchClosed() = 0;  // after the lock is let go of
    };

    // `table` names the lock in the lock-order checks and in messages (null:
    // neither); the listener must outlive the lock.
    TableLock(const Table *table, Listener *listener) : m_table(table), m_listener(listener) {}
    TableLock(const TableLock &) = delete;
    TableLock &operator=(const TableLock &) = delete;

    // Only the outermost level opens and closes a batch. Another thread's
    // beginUpdate while a batch is open is a misuse, stopped in debug builds.
    void beginUpdate();
    void endUpdate();
    // A batch that always excludes other writers: the outermost level opens
    // one but leaves the nesting count alone, so another thread's
    // beginUpdate locks and waits. Inside this thread's batch it only locks;
    // the answer tells endExclusiveUpdate which of the two it did.
    bool beginExclusiveUpdate();
    void endExclusiveUpdate(bool opened);

    // One level of the lock, outside any batch's bookkeeping.
    void acquire();
    void release();

    bool heldByCurrentThread() const;
    // Whether a batch is open on some thread; on the calling one.
    bool batchOpen() const { return m_batchOwner.loadAcquire() != nullptr; }
    bool batchOpenHere() const;

    // Runs run(cookie) once, on the thread that lets go of the lock's last
    // level, after it has; a cookie already waiting is not added twice.
    // Called under the lock.
    void runAfterUnlock(void (*run)(void *), void *cookie);
    void dropUnlockHooks(void *cookie);

private:
    void openBatch();
    void closeBatch();

    const Table *const m_table;
    Listener *const m_listener;
    // A standard mutex rather than Qt's: the same recursive lock, and one
    // that the thread sanitizer sees.
    std::recursive_mutex m_mutex;
    // Readers blocked on the lock; a batch about to open lets them in first.
    std::atomic<int> m_lockWaiters{0};
    QAtomicInt m_updateDepth = 0;
    // The thread that holds the lock for a batch (an outermost beginUpdate
    // or an exclusive batch), null between batches. Other threads only ever
    // compare it with their own id.
    QAtomicPointer<void> m_batchOwner = nullptr;
    // A beginUpdate inside this thread's exclusive batch: it only locks, and
    // its end only unlocks.
    bool m_updateInsideExclusive = false;
    // The thread that holds the mutex and how many levels it holds; only the
    // holder writes them.
    std::atomic<void *> m_lockOwner{nullptr};
    int m_lockDepth = 0;
    struct UnlockHook
    {
        void (*run)(void *);
        void *cookie;
    };
    std::vector<UnlockHook> m_unlockHooks;
};

#endif // DATABASE_TABLELOCK_P_H
