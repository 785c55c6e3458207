#ifndef DATABASE_INDEX_H
#define DATABASE_INDEX_H

#include "database_export.h"
#include "table.h"

#include <QtCore/QList>
#include <QtCore/QString>

// Index: the interface through which a table keeps every index current.
//
// Arguments: `firstColumn`..`lastColumn` is the inclusive range of changed
// columns (0..columnCount()-1 for a whole row, -1..-1 for new rows);
// `position` is the record's place in this very index when the caller knows
// it, else -1: an index may trust it and must search when it is -1. Records
// are the same record when they share the row.
//
// The table calls these with its lock held; an index takes no lock of its
// own. Absent records are ignored. The order of the virtual operations is
// part of the interface: new ones are only ever added at the end.
class DATABASE_EXPORT Index
{
public:
    Index() = default;
    Index(const Index &) = default;
    Index &operator=(const Index &) = default;
    virtual ~Index();

    // clear(full) and build(full) ignore the flag and call clear()/build();
    // indexes that rebuild in groups use it.
    virtual void clear(bool full);
    virtual void clear() = 0;
    virtual void build(bool full);
    virtual void build() = 0;
    // clear(true), then build(true).
    virtual void rebuild();
    virtual void add(const Record &record) = 0;
    // A batch: each removed record is removed, each updated one updated, and
    // each inserted one added if filter() accepts it, in that order.
    virtual void process(const QList<Record> &removed, const QList<Record> &updated, int firstColumn,
                         int lastColumn, const QList<Record> &inserted);
    virtual void remove(const Record &record, int position) = 0;
    virtual bool filter(const Record &record) const = 0;
    virtual bool contains(const Record &record) const = 0;
    // remove(record, position), then add(record) if filter() accepts it.
    virtual void update(const Record &record, int firstColumn, int lastColumn, int position);
    // -1 unless the index knows positions.
    virtual int indexOf(const Record &record) const;
    virtual void beginUpdate();
    virtual void endUpdate();
    virtual void dependentBeginUpdate(Table *table);
    virtual void dependentEndUpdate(Table *table);
    // The class's own name; the library tells index kinds apart by it.
    virtual QString getClassName() const = 0;
};

#endif // DATABASE_INDEX_H
