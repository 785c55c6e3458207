#ifndef DATABASE_MASTERINDEX_H
#define DATABASE_MASTERINDEX_H

#include "database_export.h"
#include "indexsort.h"

#include <QtCore/QStringList>

// MasterIndex: the primary-key index of a table. It holds every row, defines
// the table's row order and key, and turns a row's key into text and back.
// The table owns its master index (Table::setMasterIndex) and keeps it apart
// from its ordinary indexes: a master index never registers itself.
//
// Variants here: MasterPtrIndex orders rows by the address of their block;
// MasterIndexOrdered compares every pair equal, so rows stay in arrival
// order (a new table's default); MasterIndexProxy delegates to the master
// index its table had when the proxy was made; MasterIndexColumn orders by
// the values of key columns (and MasterIndex_Fast, in masterindex_fast.h, by
// their raw bytes).
class DATABASE_EXPORT MasterIndex : public IndexSort
{
public:
    explicit MasterIndex(Table *table);

    // The key columns, in key order (empty for the variants without them).
    const QList<int> &columns() const { return m_columns; }
    QStringList columnNames() const;
    // The record whose key has the text form `text`, or a null record.
    Record findRecord(const QString &text);
    // The first record whose key compares equal to `key`'s, or a null
    // record: at(search(key, -1)), answered from a hash table of the keys
    // where the index keeps one (see MasterIndex_Fast).
    Record findRecord(const Record &key) const;
    QString getClassName() const override;

    virtual QString toText(const Record &record) = 0;
    // A new record of the table whose key fields hold the key in `text`.
    virtual Record fromText(const QString &text) = 0;

protected:
    QList<int> m_columns;
};

// Orders rows by the address of their row block; has no text key.
class DATABASE_EXPORT MasterPtrIndex : public MasterIndex
{
public:
    explicit MasterPtrIndex(Table *table);
    int compare(const Record &a, const Record &b) const override;
    // The empty string.
    QString toText(const Record &record) override;
    // A new blank record of the table; the text is ignored.
    Record fromText(const QString &text) override;
};

// Keeps rows in arrival order: every pair compares equal, so every add
// appends and resort() changes nothing.
class DATABASE_EXPORT MasterIndexOrdered : public MasterIndex
{
public:
    explicit MasterIndexOrdered(Table *table);
    int compare(const Record &a, const Record &b) const override;
    QString toText(const Record &record) override;
    Record fromText(const QString &text) override;
};

// Compares, and reads and writes keys, through the master index the table
// had when the proxy was made. It must not outlive that index; replacing the
// table's master index later leaves the proxy on the old one.
class DATABASE_EXPORT MasterIndexProxy : public MasterIndex
{
public:
    explicit MasterIndexProxy(Table *table);
    int compare(const Record &a, const Record &b) const override;
    QString toText(const Record &record) override;
    Record fromText(const QString &text) override;
    QString getClassName() const override;

private:
    MasterIndex *m_target;
};

// Orders rows by the values of key columns, compared field by field with
// Field::compare. Its text key is the key fields' texts joined by ","
// (nothing is escaped: a comma inside a value is not protected).
//
// Failures are thrown as a bare QString: "Column '%1' not found to create
// index." for an unknown key column and "Master index can't restore from
// text. Incorrect columns numbers: %1 != %2" for a key text with the wrong
// number of parts.
class DATABASE_EXPORT MasterIndexColumn : public MasterIndex
{
public:
    MasterIndexColumn(Table *table, const QString &column);
    MasterIndexColumn(Table *table, const QStringList &columns);
    // Column numbers taken as given, unchecked.
    MasterIndexColumn(Table *table, const QList<int> &columns);

    int compare(const Record &a, const Record &b) const override;
    // Null when any key field's text is empty.
    QString toText(const Record &record) override;
    Record fromText(const QString &text) override;

    // A new index; the caller owns it.
    static MasterIndex *create(Table *table, QStringList columns);
    // Installs a new index as the table's master index.
    static void createMasterIndex(Table *table, QStringList columns);
    // A new index registered with the table under `name`; the table does not
    // own it.
    static MasterIndex *createIndex(const QString &name, Table *table, QStringList columns);
};

#endif // DATABASE_MASTERINDEX_H
