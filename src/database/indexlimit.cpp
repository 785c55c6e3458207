#include "indexlimit.h"

#include <QtCore/QSet>

IndexLimit::IndexLimit(int limit, Table *table)
    : IndexSort(table, true)
    , m_limit(limit)
{
    table->setIndexName(QStringLiteral("IndexLimit"), this);
}

void IndexLimit::process(const QList<Record> &removed, const QList<Record> &updated, int firstColumn,
                         int lastColumn, const QList<Record> &inserted)
{
    IndexSort::process(removed, updated, firstColumn, lastColumn, inserted);
}

QString IndexLimit::getClassName() const
{
    return QStringLiteral("IndexLimit");
}

QList<Record> IndexLimit::toRemove(int count, const QList<Record> &keep)
{
    QList<Record> result;
    if (count <= 0)
        return result;
    QSet<const unsigned char *> kept;
    for (const Record &record : keep)
        kept.insert(record.rowPtr());
    for (const Record &record : *this) {
        if (result.size() >= count)
            break;
        if (!kept.contains(record.rowPtr()))
            result.append(record);
    }
    return result;
}
