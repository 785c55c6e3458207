#ifndef DATABASE_INDEXLIMIT_H
#define DATABASE_INDEXLIMIT_H

#include "database_export.h"
#include "indexsort.h"

// IndexLimit: a sorted index that names the records to drop to keep a table
// within a size limit; the records first in its order go first. It never
// drops anything itself. It registers with its table under the name
// "IndexLimit", where transactions (RecordsTrans) look for it. compare()
// stays for the concrete class to define.
class DATABASE_EXPORT IndexLimit : public IndexSort
{
public:
    IndexLimit(int limit, Table *table);

    int limit() const { return m_limit; }
    void setLimit(int limit) { m_limit = limit; }

    void process(const QList<Record> &removed, const QList<Record> &updated, int firstColumn, int lastColumn,
                 const QList<Record> &inserted) override;
    QString getClassName() const override;
    // Up to `count` records from the start of the index whose rows are not in
    // `keep`, in index order; empty when count is not positive.
    virtual QList<Record> toRemove(int count, const QList<Record> &keep);

private:
    int m_limit;
};

#endif // DATABASE_INDEXLIMIT_H
