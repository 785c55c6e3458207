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
#include <QtCore/QString>

class Index;
class MasterIndex;

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
    // Set while the rows are about to be reallocated (addColumn) or freed with
    // the table (the destructor): a holder of raw row pointers, such as a
    // model, must stop reading them rather than keep them alive.
    bool rowsGoing = false;
    bool destroying = false;
};

#endif // DATABASE_TABLE_P_H
