#ifndef DATABASE_TABLE_P_H
#define DATABASE_TABLE_P_H

//
//  W A R N I N G
//  -------------
//
// This file is not part of the database API. It exists for the convenience
// of the library's own sources (table and persistence) and may change from
// version to version without notice.
//

#include "columndef.h"

#include <QtCore/QAtomicInt>
#include <QtCore/QAtomicPointer>
#include <QtCore/QHash>
#include <QtCore/QList>
#include <QtCore/QMap>
#include <atomic>
#include <mutex>
#include <vector>
#include <QtCore/QString>

class Index;
class MasterIndex;
class TableJoin;

class TablePrivate
{
public:
    TablePrivate(const QString &name, const QString &title) : name(name), title(title) {}

    // Records `name` under the number the next column will get.
    void cacheColumn(const QString &name);
    int columnIndex(const QString &name) const;

    QString name;
    QString title;
    MasterIndex *masterIndex = nullptr;
    QList<Index *> indexes;
    QMap<QString, Index *> indexNames;
    QList<Index *> dependentIndexes;
    QList<TableColumnDef *> columns;
    unsigned long long rowLength = 0;
    unsigned long long rowSize = 4;
    // The same entries twice: an ordered map answers faster for narrow
    // tables, a hash for wide ones.
    QHash<QString, int> columnHash;
    QMap<QString, int> columnMap;
    // Case-folded names, for the duplicate test of addColumn.
    QHash<QString, int> foldedNames;
    // While above 0, addColumn leaves the null-bit layout of the earlier
    // columns to be worked out once at the end (rowless tables only).
    int layoutDeferred = 0;
    // A standard mutex rather than Qt's: the same recursive lock, and one
    // that the thread sanitizer sees.
    std::recursive_mutex mutex;
    // Readers (TableLocker) blocked on the lock; a batch about to open lets
    // them in first.
    std::atomic<int> lockWaiters{0};
    QAtomicInt updateDepth = 0;
    // The thread that holds the lock for a batch (an outermost beginUpdate
    // or an exclusive batch), null between batches. Other threads only ever
    // compare it with their own id.
    QAtomicPointer<void> batchOwner = nullptr;
    // A TableUpdater opened inside this thread's exclusive batch: it only
    // locks, and its end only unlocks.
    bool updateInsideExclusive = false;
    // Set while the row layout changes (addColumn, which reallocates the
    // rows) or the rows are freed with the table (the destructor): a holder
    // of raw row pointers, such as a model, must stop reading them rather
    // than keep them alive.
    bool rowsGoing = false;
    bool destroying = false;

    // The thread that holds `mutex` and how many levels it holds; only the
    // holder writes them. Others only compare the owner with their own id.
    std::atomic<void *> lockOwner{nullptr};
    int lockDepth = 0;
    bool heldByCurrentThread() const;

    // Run once each on the thread that lets go of the lock's last level,
    // after it has: work that must take other tables' locks in their order
    // (a join refilling its main table after a change under a bare lock).
    // Added and taken under the lock.
    struct UnlockHook
    {
        void (*run)(void *);
        void *cookie;
    };
    std::vector<UnlockHook> unlockHooks;
    // Adds the hook unless one with this cookie is waiting already.
    void runAfterUnlock(void (*run)(void *), void *cookie);
    void dropUnlockHooks(void *cookie);
    // The joins whose main table this is: an update of a join key reaches
    // the indexes as a change of the joined columns too.
    QList<TableJoin *> joins;
    // TableIndexRebuilders alive on this table: an index off the table
    // meanwhile is coming back, not deleted. Read by a model's thread.
    std::atomic<int> rebuilders{0};
};

#endif // DATABASE_TABLE_P_H
