#ifndef DATABASE_WATCHINDEX_H
#define DATABASE_WATCHINDEX_H

#include "database_export.h"
#include "index.h"

#include <QtCore/QHash>
#include <QtCore/QPointer>

// WatchIndex: which rows were inserted, removed and updated since the index
// was last cleared, so that a consumer can pick up a table's changes. It
// keeps no order; each change is appended to its list, and nothing leaves a
// list until clear() (or build(), which does the same). A row removed and
// added again within one period counts as updated; the same row may appear
// several times in updated().
//
// Registers with its table on construction and unregisters on destruction.
// A copy shares the table and copies the lists but does not register.
class DATABASE_EXPORT WatchIndex : public Index
{
public:
    explicit WatchIndex(Table *table);
    WatchIndex(const WatchIndex &other);
    WatchIndex &operator=(const WatchIndex &other);
    ~WatchIndex() override;

    const QList<Record> &inserted() const { return m_inserted; }
    const QList<Record> &removed() const { return m_removed; }
    const QList<Record> &updated() const { return m_updated; }

    using Index::build;
    using Index::clear;
    // Both empty the three lists.
    void clear() override;
    void build() override;
    // To updated() when the row is in removed() (taken out of it), else to
    // inserted().
    void add(const Record &record) override;
    void remove(const Record &record, int position) override;
    bool filter(const Record &record) const override;
    // Whether the row is in inserted() or updated(); removed() is not asked.
    bool contains(const Record &record) const override;
    void update(const Record &record, int firstColumn, int lastColumn, int position) override;
    QString getClassName() const override;

private:
    QList<Record> m_inserted;
    QList<Record> m_removed;
    QList<Record> m_updated;
    // How many entries of m_removed each row has: most added rows were never
    // removed, and are told so without a scan of the list.
    QHash<const unsigned char *, int> m_removedCount;
    QPointer<Table> m_table; // null once the table is gone
};

#endif // DATABASE_WATCHINDEX_H
