#ifndef DATABASE_INDEXDEPEND_H
#define DATABASE_INDEXDEPEND_H

#include "database_export.h"

#include <QtCore/QList>

class Index;
class Record;
class TableIndexRebuilder;

// IndexDependBase: passes every notification it is given on to a list of
// dependent indexes, for an index class that owns one or derives from it
// (it is not an Index itself). Each forwarding walks a copy of the list
// taken when it starts, so a dependent may add or remove dependents while
// it is notified; add() does not ask filter(), the dependent filters itself.
// An exception from a dependent stops the walk there.
//
// clear(true) suspends the dependents in bulk: each join index among them
// ("TableJoinMain", "TableJoinDep") leads to one TableIndexRebuilder for its
// join's main table (one per table), which empties that table's index
// groups; every other dependent is cleared at once. build(true) destroys the
// pending rebuilders in order, which rebuilds those tables. The destructor
// does not (it warns): call build(true) before destroying a suspended object.
class DATABASE_EXPORT IndexDependBase
{
public:
    IndexDependBase();
    // Not copyable: the pending rebuilders are owned.
    IndexDependBase(const IndexDependBase &) = delete;
    IndexDependBase &operator=(const IndexDependBase &) = delete;
    virtual ~IndexDependBase();

    // No check for duplicates: an index added twice hears everything twice.
    void addDependentIndex(Index *index);
    // Removes the first occurrence, if any.
    void removeDependentIndex(Index *index);
    QList<Index *> dependentIndexes() const { return m_dependents; }

    void add(const Record &record);
    void remove(const Record &record, int position);
    void update(const Record &record, int firstColumn, int lastColumn, int position);
    void process(const QList<Record> &removed, const QList<Record> &updated, int firstColumn, int lastColumn,
                 const QList<Record> &inserted);
    // false: clear() on each dependent; true: the bulk suspension above.
    void clear(bool full);
    // false: build() on each dependent; true: the pending rebuilders go.
    void build(bool full);

private:
    QList<Index *> m_dependents;
    QList<TableIndexRebuilder *> m_rebuilders;
};

#endif // DATABASE_INDEXDEPEND_H
