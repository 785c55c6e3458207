#ifndef DATABASE_INDEXVECTOR_H
#define DATABASE_INDEXVECTOR_H

#include "database_export.h"
#include "index.h"

#include <QtCore/QPointer>

#include <QtCore/QVector>

// IndexVector: the records of a table in one contiguous vector, in the order
// of compare(), which each subclass defines. Every operation is a linear
// scan: meant for small tables, where a vector beats the partitioned list.
// Equal keys keep their arrival order, and resort() is stable.
//
// Registers with its table on construction and unregisters on destruction.
// A copy shares the table and copies the records but does not register.
//
// A batch (process(), a transaction) is applied a record at a time: each
// updated record is placed against the others' new keys in their old
// places, so a batch that changed several keys in place can leave the
// vector out of order. Call resort() after such a batch.
//
// resort() compares through the process-wide sortIndex, so two vector
// indexes must not resort at the same time (it is not re-entrant).
class DATABASE_EXPORT IndexVector : public Index
{
public:
    // The index whose compare() lessThan() uses while resort() runs.
    static IndexVector *sortIndex;

    explicit IndexVector(Table *table);
    IndexVector(const IndexVector &other);
    IndexVector &operator=(const IndexVector &other);
    ~IndexVector() override;

    int count() const { return m_records.size(); }
    // A copy of the record at i; Record::null when i is out of range.
    Record get(int i) const;
    Table *table() const { return m_table; }

    using Index::build;
    using Index::clear;
    void clear() override;
    // Adds every accepted record of the master index, under the table's lock;
    // does not clear first.
    void build() override;
    // Before the first element that compares above the record.
    void add(const Record &record) override;
    // The first element with the record's row; `position` is not used.
    void remove(const Record &record, int position) override;
    bool filter(const Record &record) const override;
    // Whether an element compares equal to the record (by key, not by row).
    bool contains(const Record &record) const override;
    QString getClassName() const override;

    virtual int compare(const Record &a, const Record &b) const = 0;
    // The first position after `after` whose element compares equal to the
    // record (compare(record, element), the record first); -1 if none.
    virtual int search(const Record &record, int after) const;
    virtual void resort();

    // sortIndex's compare(a, b) is negative.
    static bool lessThan(const Record &a, const Record &b);

private:
    QPointer<Table> m_table; // null once the table is gone
    QVector<Record> m_records;
};

#endif // DATABASE_INDEXVECTOR_H
