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
#include "tablelock_p.h"

#include <QtCore/QHash>
#include <QtCore/QList>
#include <QtCore/QMap>
#include <atomic>
#include <vector>
#include <QtCore/QString>

class Index;
class MasterIndex;
class Table;
class TableJoin;

class TablePrivate
{
public:
    TablePrivate(Table *table, const QString &name, const QString &title)
        : name(name), title(title), hearing{table, this}, lock(table, &hearing)
    {
    }

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
    // Set while the row layout changes (addColumn, which reallocates the
    // rows) or the rows are freed with the table (the destructor): a holder
    // of raw row pointers, such as a model, must stop reading them rather
    // than keep them alive.
    bool rowsGoing = false;
    bool destroying = false;

    // The indexes hear a batch open and close; dependents of other tables
    // hear it around the lock.
    struct Hearing final : TableLock::Listener
    {
        Table *table;
        TablePrivate *d;
        Hearing(Table *table, TablePrivate *d) : table(table), d(d) {}
        void batchOpening() override;
        void batchOpened() override;
        void batchClosing() override;
        void batchClosed() override;
    } hearing;
    TableLock lock;

    // The joins whose main table this is: an update of a join key reaches
    // the indexes as a change of the joined columns too.
    QList<TableJoin *> joins;
    // TableIndexRebuilders alive on this table: an index off the table
    // meanwhile is coming back, not deleted. Read by a model's thread.
    std::atomic<int> rebuilders{0};
};

#endif // DATABASE_TABLE_P_H
