#ifndef DATABASE_MASTERINDEX_FAST_H
#define DATABASE_MASTERINDEX_FAST_H

#include "database_export.h"
#include "masterindex.h"

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
class DATABASE_EXPORT MasterIndex_Fast : public MasterIndexColumn
{
public:
    MasterIndex_Fast(Table *table, const QStringList &columns);
    MasterIndex_Fast(Table *table, const QList<int> &columns);

    int compare(const Record &a, const Record &b) const override;
    QString getClassName() const override;

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
    unsigned long long m_keyOffset = 0;
    int m_keyLength = 0;
};

#endif // DATABASE_MASTERINDEX_FAST_H
