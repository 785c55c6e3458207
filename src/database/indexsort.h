#ifndef DATABASE_INDEXSORT_H
#define DATABASE_INDEXSORT_H

#include "database_export.h"
#include "indexlist.h"

#include <QtCore/QMap>
#include <QtCore/QVector>

// IndexSort: the records of a table in the order of compare(), which each
// subclass defines. Adjacent records satisfy compare(earlier, later) <= 0,
// and records with equal keys stay in the order in which they were added:
// a new record goes after every record with an equal key, a batch keeps its
// own order, and resort() is stable.
//
// Searches are binary and call compare(element, key), element of the list
// first; `after` is an exclusive start (-1: the whole list). They assume the
// list is in order; rows whose key was changed without update() are still
// found by indexOf() through a linear fallback.
//
// process() applies a whole batch in one pass: a batch of k changes costs
// about k binary searches (run together, so that their cache misses
// overlap) plus one sweep over the partitions. Positions of records whose
// key changed in the row before the batch are found in one pass over the
// handles; the additions are sorted and their places searched in the list as
// it will stand without the removed and moved records, and then both are made
// in one pass over the partitions, shared with the global pool. The list
// keeps that edit (PartitionList::lastEdit) for a model to follow.
//
// Sorting is stable and has one result, whatever the algorithm. resort()
// of fewer than 512 records is an in-place merge sort in the calling
// thread; from 512 on, and in process() from 32768 additions on, runs are
// sorted and merged on Qt Concurrent's global pool through a buffer of at
// most half the handles (never rows), freed before returning; the caller
// blocks. compare() must therefore be callable from several threads at once.
//
// Costs on a million rows: a search is about 20 comparisons, each reaching
// a row somewhere in the heap; a single insertion or removal also moves up
// to half a partition (5,000 handles, 80 KB). Prefer process() (through
// Table::process or RecordsTrans) and searchMany() for many changes or
// lookups at once.
class DATABASE_EXPORT IndexSort : public IndexList
{
public:
    // The less-than relation of sorting and merging: compare(a, b) < 0.
    struct LessThan
    {
        const IndexSort *index;
        bool operator()(const Record &a, const Record &b) const { return index->compare(a, b) < 0; }
    };

    IndexSort(Table *table, bool registered);
    explicit IndexSort(const QString &tableName);

    using IndexList::build;
    // Appends every accepted record of the master index, then resort().
    void build() override;
    // Inserts after every record with an equal key.
    void add(const Record &record) override;
    void process(const QList<Record> &removed, const QList<Record> &updated, int firstColumn, int lastColumn,
                 const QList<Record> &inserted) override;
    // Moves the record to its place if its key no longer fits between its
    // neighbours; removes it if filter() refuses it, adds it if it is absent.
    // A `position` hint is used only when it holds the record's row.
    void update(const Record &record, int firstColumn, int lastColumn, int position) override;
    // Row identity: the run of the record's key first, then a linear scan.
    int indexOf(const Record &record) const override;
    QString getClassName() const override;

    virtual int compare(const Record &a, const Record &b) const = 0;
    // The first position after `after` whose record compares equal to key;
    // -1 if none.
    virtual int search(const Record &key, int after) const;
    // The last such position; -1 if none.
    virtual int searchLast(const Record &key, int after) const;
    // A linear scan from after + 1 for comparisons that do not follow the
    // list's order. It answers the offset from after + 1, not the position
    // (the two agree for after == -1); -1 if none.
    virtual int searchFull(const Record &key, int after) const;
    virtual void resort();

    // Positions of many records at once (-1 for those not in the index).
    QMap<Record, int> indexOfs(QList<Record> records) const;
    // search(key, -1) for each key, answered in the keys' order: the bulk
    // form of a lookup, which overlaps the memory accesses of many searches.
    QVector<int> searchMany(const QVector<Record> &keys) const;

protected:
    // The insertion point of a new record: after every equal key.
    int indexOfAdd(const Record &record) const;

private:
    int searchEqual(const Record &key, int after, bool last) const;
};

#endif // DATABASE_INDEXSORT_H
