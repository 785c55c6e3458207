#ifndef DATABASE_RECORDSTRANS_H
#define DATABASE_RECORDSTRANS_H

#include "database_export.h"
#include "table.h"

#include <QtCore/QList>

#include <memory>
#include <vector>

class MasterIndex;

// RecordsTrans: inserts, updates and removals of one table's records,
// collected by master key and applied as one Table::process batch.
//
// Each record carries one pending action: insert (a new key), update (a key
// the table has) or remove. Applying (execute(), or the destructor) hands
// them to Table::process with the column range (columnCount, -1) taken when
// the transaction was made, after asking the table's index named
// "IndexLimit", if any, for the surplus records to remove as well.
//
// A transaction goes out of scope applied: call clear() first to abandon it.
// Copies apply too, each its own containers. It takes no lock and opens no
// batch: wrap it in a TableUpdater where indexes must see one batch.
//
// Keys inserted in this transaction stay known to later updaters (the
// sorted list of pending inserts survives execute() and clear()).
//
// Costs: an updater is a lookup in the master index (a hash probe for a
// MasterIndex_Fast over a short key, a binary search otherwise) plus, for a new key, a
// search and an insertion in the pending list (O(log k) comparisons and a
// bounded move); execute() sorts the k actions by row once. Nothing is
// allocated per record beyond the containers' amortised growth.
class DATABASE_EXPORT RecordsTrans
{
public:
    enum Action { Insert = 2, Remove = 4, Update = 5 };

    explicit RecordsTrans(Table *table);
    // Applies the transaction. An exception from Table::process propagates,
    // unless another exception is already unwinding the stack: then it is
    // logged as a warning.
    ~RecordsTrans() noexcept(false);
    RecordsTrans(const RecordsTrans &other);
    RecordsTrans &operator=(const RecordsTrans &other);

    // The records of each action, in row-address order.
    QList<Record> insertList() const;
    QList<Record> updateList() const;
    QList<Record> removeList() const;
    bool isEmpty() const;
    // Forgets every action.
    void clear();
    void execute();

private:
    friend class RecordUpdater;
    class States;
    class Pending;
    QList<Record> listOf(int action) const;

    std::unique_ptr<States> m_states;   // the action of each record, by row
    std::unique_ptr<Pending> m_pending; // pending inserts, in master-index order
    MasterIndex *m_master;
    int m_firstColumn;
    int m_lastColumn;
};

// RecordUpdater: the handle of one key in a transaction. It edits the
// table's row with that key (an update), or a row already pending in the
// transaction, or else makes `key` itself a pending insert: pass a new
// record of the table (Record(table)) whose key columns are filled.
// Writes through data() go straight into the row.
class DATABASE_EXPORT RecordUpdater
{
public:
    RecordUpdater(const Record &key, RecordsTrans &trans);

    // Whether the key named a row already in the table.
    bool isFound() const { return m_position != -1; }
    Field data(int column) const { return m_record.data(column); }
    Field data(const QString &name) const { return m_record.data(name); }
    operator const Record &() const { return m_record; }
    const Table *table() const { return m_record.table(); }
    // Marks the row for removal; cancels a pending insert instead.
    void remove();

private:
    Record m_record;
    RecordsTrans *m_trans;
    // -1 when the key is not in the table. The master index may answer a
    // lookup from its key table, without a position: any other value only
    // says that the row was found.
    int m_position;
};

#endif // DATABASE_RECORDSTRANS_H
