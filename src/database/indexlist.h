#ifndef DATABASE_INDEXLIST_H
#define DATABASE_INDEXLIST_H

#include "database_export.h"
#include "index.h"
#include "partitionlist.h"

#include <QtCore/QPointer>

// IndexList: the records of a table in a plain list, in the order they were
// added; the base of the sorted and master indexes, which share its storage
// and positional operations.
//
// A registered list adds itself to its table on construction and removes
// itself on destruction. Records are kept in a PartitionList, each holding
// a reference on its row, so the list keeps its rows alive.
//
// Not copyable: a copy would register a second time and share nothing. It
// may be destroyed after its table (it then has nothing to unregister from);
// any other use after that is a programming error, asserted where it can be.
class DATABASE_EXPORT IndexList : public Index
{
public:
    using const_iterator = PartitionList<Record>::const_iterator;

    IndexList(Table *table, bool registered);
    // Finds the table through ApplicationCore::table(). When no table has
    // that name the list keeps a null table and registers nowhere.
    explicit IndexList(const QString &tableName);
    ~IndexList() override;
    IndexList(const IndexList &) = delete;
    IndexList &operator=(const IndexList &) = delete;

    Table *table() { return m_table; }
    const Table *table() const { return m_table; }
    int count() const { return m_list.count(); }
    // The record at i; Record::null when i is out of range.
    const Record &at(int i) const { return m_list.at(i); }
    const_iterator begin() const { return m_list.begin(); }
    const_iterator end() const { return m_list.end(); }
    const PartitionList<Record> &list() const { return m_list; }

    using Index::build;
    using Index::clear;
    void clear() override;
    // Appends every record of the master index that filter() accepts, under
    // the table's lock; does not clear first (rebuild() does).
    void build() override;
    // Appends; callers test filter() first.
    void add(const Record &record) override;
    // The hint is used when the element at `position` has the record's row;
    // otherwise indexOf() finds it. Absent records are ignored.
    void remove(const Record &record, int position) override;
    // The default's outcome, record for record; a plain IndexList given many
    // removals and updates reaches it in one pass over the list instead of a
    // scan for each.
    void process(const QList<Record> &removed, const QList<Record> &updated, int firstColumn, int lastColumn,
                 const QList<Record> &inserted) override;
    bool filter(const Record &record) const override;
    bool contains(const Record &record) const override;
    // Row identity, scanning from the front.
    int indexOf(const Record &record) const override;
    QString getClassName() const override;
    // Moves the elements first..last (inclusive) to position `to`, counted in
    // the list as it is once they are taken out. Nothing happens when
    // first == to or to == last. Elements past the end are not taken, and a
    // target past the end appends.
    virtual void move(int first, int last, int to);

protected:
    // Appends the master index's accepted records, through add() or straight
    // into the list.
    void appendFromMaster(bool throughAdd);

    Table *m_table;
    // Null once the table is gone; m_table stays the fast way in.
    QPointer<Table> m_tableAlive;
    PartitionList<Record> m_list;
    bool m_registered;
};

#endif // DATABASE_INDEXLIST_H
