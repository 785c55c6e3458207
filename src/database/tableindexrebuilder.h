#ifndef DATABASE_TABLEINDEXREBUILDER_H
#define DATABASE_TABLEINDEXREBUILDER_H

#include "database_export.h"

#include <QtCore/QList>
#include <QtCore/QPair>
#include <QtCore/QString>

class Index;
class Table;

// TableIndexRebuilder: takes every ordinary index off a table and empties
// it; on destruction rebuilds them all and puts them back in their old order
// under their old names. Between the two the table's rows may change freely
// (a reload, say) and only the master index hears of it.
//
// Indexes fall into three groups, emptied in one order and rebuilt in the
// other, because later groups read from earlier ones:
//   join       class name "TableJoinDep" (dependent join indexes)
//   depend     class name starting with "IndexDepend"
//   other      everything else, main join indexes ("TableJoinMain") included
// Emptied: other, depend, join. Rebuilt: join, depend, other.
//
// Takes no lock: hold the table (TableUpdater) for the rebuilder's life when
// other threads may read it. A copy rebuilds and re-attaches again when it is
// destroyed, so keep the object in one scope. An exception from build() in
// the destructor leaves the remaining indexes unbuilt and detached. Indexes
// added while a rebuilder lives stay; the saved ones come back after them.
class DATABASE_EXPORT TableIndexRebuilder
{
public:
    explicit TableIndexRebuilder(Table *table);
    TableIndexRebuilder(const TableIndexRebuilder &other) = default;
    TableIndexRebuilder &operator=(const TableIndexRebuilder &other) = default;
    ~TableIndexRebuilder() noexcept(false);

protected:
    // Sorts indexes into the three groups, keeping their order.
    void detectIndexGroup(QList<Index *> indexes);

private:
    Table *m_table;
    QList<QPair<Index *, QString>> m_saved;
    QList<Index *> m_joinIndexes;
    QList<Index *> m_dependIndexes;
    QList<Index *> m_otherIndexes;
};

#endif // DATABASE_TABLEINDEXREBUILDER_H
