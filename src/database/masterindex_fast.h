#ifndef DATABASE_MASTERINDEX_FAST_H
#define DATABASE_MASTERINDEX_FAST_H

#include "database_export.h"
#include "masterindex.h"

class KeyTable;

// MasterIndex_Fast: a key-column master index whose key columns are
// adjacent, not nullable and of fixed layout (Integer, Integer64, Decimal,
// String, DateTime), so that the key is one run of bytes in every row and a
// comparison is one block comparison of those bytes.
//
// The order is the byte order of the raw slots, not the numeric one:
// numbers are stored little-endian, so integer and decimal keys do not list
// in numeric order, and strings compare by their UTF-16 units byte by byte.
// Equal keys are equal, which is what a primary key needs; a table whose row
// order matters uses MasterIndexColumn.
//
// The constructors throw a bare QString when the columns do not qualify:
// "Columns must be sequenced: %1(%3) / %2", "Type '%1' unsuported for %2",
// "Columns can't be nullable %1" (and the unknown-column message of
// MasterIndexColumn). create() turns them into a warning and a
// MasterIndexColumn.
//
// A key of at most eight bytes is also kept in a hash table from key to
// row, built at the first findRecord() that runs under the table's lock and
// kept current by every change the index hears, so that a transaction's
// lookup costs a cache miss or two instead of a binary search. A change it
// cannot follow (a row whose key changed, a duplicate key, a change that
// went past it) drops the table; it is built again by a later lookup. An
// update that leaves a row's key as it was costs the index a hash probe
// instead of a search. A subclass keeps the plain searches.
class DATABASE_EXPORT MasterIndex_Fast : public MasterIndexColumn
{
public:
    MasterIndex_Fast(Table *table, const QStringList &columns);
    MasterIndex_Fast(Table *table, const QList<int> &columns);
    ~MasterIndex_Fast() override;

    int compare(const Record &a, const Record &b) const override;
    QString getClassName() const override;

    void add(const Record &record) override;
    void remove(const Record &record, int position) override;
    void update(const Record &record, int firstColumn, int lastColumn, int position) override;
    void process(const QList<Record> &removed, const QList<Record> &updated, int firstColumn, int lastColumn,
                 const QList<Record> &inserted) override;

    // A fast index if the columns qualify; otherwise warns (in Russian, to the
    // user) and answers a MasterIndexColumn. An unknown column still throws.
    // The caller owns the index.
    static MasterIndex *create(Table *table, QStringList columns);
    static void createMasterIndex(Table *table, QStringList columns);
    // Names the new index in the table but does not add it to the table's
    // index list, unlike MasterIndexColumn::createIndex.
    static void createIndex(const QString &name, Table *table, QStringList columns);

protected:
    void setup();

private:
    friend class MasterIndex;
    friend struct MasterIndexFastProbe; // the tests' way to see the key table
    enum class Keys : unsigned char { Unbuilt, Live, Refused };

    // findRecord()'s way in: true when the key table answered (`found` is
    // then the row or null), false when the caller must search.
    bool lookup(const Record &key, Record &found) const;
    bool keysUsable() const;
    bool keysLive() const;
    quint64 packedKey(const unsigned char *row) const;
    void buildKeys() const;
    // After a change the key table followed: live again if it still holds
    // exactly the list's rows, dropped otherwise.
    void keysFollowed(bool ok) const;
    void dropKeys(Keys why) const;

    unsigned long long m_keyOffset = 0;
    int m_keyLength = 0;
    // Lookup state, changed by const lookups under the table's lock.
    mutable KeyTable *m_keys = nullptr;
    mutable quint64 m_keysSeen = 0; // the list's changes() the table agrees with
    mutable Keys m_keysState = Keys::Unbuilt;
    mutable int m_searchesSinceRefused = 0;
};

#endif // DATABASE_MASTERINDEX_FAST_H
