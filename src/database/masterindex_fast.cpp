#include "masterindex_fast.h"

#include "table.h"

#include <QtCore/QCoreApplication>
#include <QtCore/QDebug>
#include <QtCore/QtEndian>

#include <cstring>

MasterIndex_Fast::MasterIndex_Fast(Table *table, const QStringList &columns)
    : MasterIndexColumn(table, columns)
{
    setup();
}

MasterIndex_Fast::MasterIndex_Fast(Table *table, const QList<int> &columns)
    : MasterIndexColumn(table, columns)
{
    setup();
}

void MasterIndex_Fast::setup()
{
    m_keyLength = 0;
    if (m_columns.isEmpty())
        return;
    int expected = m_columns.first();
    for (const int column : qAsConst(m_columns)) {
        const TableColumnDef &def = m_table->columnDef(column);
        if (column != expected)
            throw QStringLiteral("Columns must be sequenced: %1(%3) / %2").arg(column).arg(expected).arg(def.name);
        switch (def.type) {
        case FieldType::Integer:
        case FieldType::Integer64:
        case FieldType::Decimal:
        case FieldType::String:
        case FieldType::DateTime:
            break;
        default:
            throw QStringLiteral("Type '%1' unsuported for %2")
                .arg(QString::fromLatin1(FieldType::typeName(def.type)), def.name);
        }
        if (def.nullable)
            throw QStringLiteral("Columns can't be nullable %1").arg(def.name);
        if (column == m_columns.first())
            m_keyOffset = Table::base + def.offset;
        m_keyLength += static_cast<int>(def.size);
        ++expected;
    }
}

int MasterIndex_Fast::compare(const Record &a, const Record &b) const
{
    const unsigned char *x = a.rowPtr() + m_keyOffset;
    const unsigned char *y = b.rowPtr() + m_keyOffset;
    // The common key widths as one big-endian load each: the same answer as
    // memcmp, without the call.
    switch (m_keyLength) {
    case 4: {
        const quint32 u = qFromBigEndian<quint32>(x), v = qFromBigEndian<quint32>(y);
        return u < v ? -1 : (u > v ? 1 : 0);
    }
    case 8: {
        const quint64 u = qFromBigEndian<quint64>(x), v = qFromBigEndian<quint64>(y);
        return u < v ? -1 : (u > v ? 1 : 0);
    }
    default:
        return std::memcmp(x, y, static_cast<size_t>(m_keyLength));
    }
}

QString MasterIndex_Fast::getClassName() const
{
    return QStringLiteral("MasterIndex_Fast");
}

MasterIndex *MasterIndex_Fast::create(Table *table, QStringList columns)
{
    try {
        return new MasterIndex_Fast(table, columns);
    } catch (const QString &message) {
        QMessageLogger(__FILE__, __LINE__, Q_FUNC_INFO).warning().noquote().nospace()
            << QCoreApplication::translate("MasterIndex_Fast", "Невозможно использовать оптимальный MasterIndex для '")
            << table->name() << "':\n" << message;
    }
    return new MasterIndexColumn(table, columns);
}

void MasterIndex_Fast::createMasterIndex(Table *table, QStringList columns)
{
    table->setMasterIndex(create(table, columns));
}

void MasterIndex_Fast::createIndex(const QString &name, Table *table, QStringList columns)
{
    table->setIndexName(name, create(table, columns));
}
