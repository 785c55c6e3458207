#include "columndef.h"

#include "table.h"

#include <QtCore/QDataStream>

TableColumnDef::TableColumnDef(Table *table)
    : table(table)
    , offset(0)
    , size(0)
    , nullIndex(0)
    , nullByteOffset(0)
    , nullMask(0)
{
    nullable = true;
    secondFlag = true;
}

TableColumnDef::TableColumnDef(Table *table, const TableColumnDef &other)
    : table(table)
    , offset(other.offset)
    , size(other.size)
    , nullIndex(0)
    , nullByteOffset(0)
    , nullMask(0)
{
    type = other.type;
    length = other.length;
    nullable = other.nullable;
    secondFlag = other.secondFlag;
}

void TableColumnDef::update(unsigned long long nullAreaOffset, int index)
{
    nullIndex = index;
    nullByteOffset = nullAreaOffset + static_cast<unsigned long long>(index >> 3);
    nullMask = static_cast<unsigned char>(1u << (index & 7));
}

// The column record of a table file (doc/table_format.md).
void TableColumnDef::write(QDataStream &stream) const
{
    stream << name << title << description << static_cast<qint32>(length) << static_cast<qint8>(type)
           << static_cast<qint32>(offset) << static_cast<qint32>(size) << nullable << secondFlag;
}

void TableColumnDef::read(QDataStream &stream)
{
    qint32 storedLength = 0, storedOffset = 0, storedSize = 0;
    qint8 storedType = 0;
    stream >> name >> title >> description >> storedLength >> storedType >> storedOffset >> storedSize >> nullable
        >> secondFlag;
    length = storedLength;
    type = static_cast<FieldType::Type>(static_cast<qint32>(storedType));
    offset = static_cast<unsigned long long>(static_cast<qint64>(storedOffset));
    size = static_cast<unsigned long long>(static_cast<qint64>(storedSize));
}
