#include "tableformat_p.h"

#include "fieldtype.h"
#include "table.h"

#include <QtCore/QDataStream>

namespace tableformat {

Header readHeader(QDataStream &stream)
{
    Header header;
    qint16 count = 0;
    stream >> count;
    for (int i = 0; i < count; ++i) {
        TableColumnDef def(nullptr);
        def.read(stream);
        header.columns.append(def);
    }
    stream >> header.rowCount >> header.rowLength >> header.recordLength;
    header.complete = stream.status() == QDataStream::Ok;
    return header;
}

QString problem(const Header &header, qint64 dataBytes)
{
    if (!header.complete)
        return QStringLiteral("the header is cut short");
    qint64 offset = 0;
    for (const TableColumnDef &def : header.columns) {
        const QString column = QStringLiteral("column '%1'").arg(def.name);
        if (def.name.isEmpty())
            return QStringLiteral("a column without a name");
        if (def.type < FieldType::Integer || def.type > FieldType::BoardList)
            return QStringLiteral("%1 has the undefined type %2").arg(column).arg(int(def.type));
        if (def.type == FieldType::String && (def.length <= 0 || def.length > Table::maxStringLength))
            return QStringLiteral("%1 has the string length %2").arg(column).arg(def.length);
        const qint64 size = static_cast<qint64>(FieldType::typeLength(def.type, def.length));
        if (static_cast<qint64>(def.offset) != offset)
            return QStringLiteral("%1 is stored at offset %2, its layout puts it at %3")
                .arg(column)
                .arg(static_cast<qint64>(def.offset))
                .arg(offset);
        if (static_cast<qint64>(def.size) != size)
            return QStringLiteral("%1 is stored with size %2, its type takes %3")
                .arg(column)
                .arg(static_cast<qint64>(def.size))
                .arg(size);
        offset += size;
    }
    const qint64 record = offset + (header.columns.size() + 7) / 8;
    if (header.rowLength != offset)
        return QStringLiteral("the row length is %1, the columns take %2").arg(header.rowLength).arg(offset);
    if (header.recordLength != record)
        return QStringLiteral("the record length is %1, the layout needs %2").arg(header.recordLength).arg(record);
    if (header.rowCount < 0)
        return QStringLiteral("the row count is negative (%1)").arg(header.rowCount);
    if (dataBytes < 0)
        return QString();
    const qint64 expected = static_cast<qint64>(header.rowCount) * record;
    if (dataBytes < expected)
        return QStringLiteral("%1 rows need %2 bytes of data, the file has %3")
            .arg(header.rowCount)
            .arg(expected)
            .arg(dataBytes);
    if (dataBytes > expected)
        return QStringLiteral("%1 bytes follow the last of %2 rows").arg(dataBytes - expected).arg(header.rowCount);
    return QString();
}

} // namespace tableformat
