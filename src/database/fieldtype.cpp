#include "fieldtype.h"

#include "exception.h"

unsigned long long FieldType::typeLength(Type type, int length)
{
    switch (type) {
    case Integer:
        return 4;
    case Integer64:
    case Double:
    case Decimal:
    case DateTime:
        return 8;
    case String:
        if (length == 0)
            throw Exception(QStringLiteral("Length of string can't be zero"));
        // Widened from a 32-bit product, as the row layout always computed it.
        return static_cast<unsigned long long>(static_cast<long long>(
            static_cast<qint32>(2u * static_cast<quint32>(length))));
    case BoardList:
        return sizeof(boardlist);
    default:
        throw Exception(QStringLiteral("Type is undefined."));
    }
}

bool FieldType::typeHasLength(Type type)
{
    return type == Decimal || type == String;
}

const char *FieldType::typeName(Type type)
{
    switch (type) {
    case Integer:
        return "Integer";
    case Integer64:
        return "Integer64";
    case Double:
        return "Double";
    case Decimal:
        return "Decimal";
    case String:
        return "VarChar";
    case DateTime:
        return "DateTime";
    case BoardList:
        return "BoardList";
    default:
        return "Undefined";
    }
}

QString FieldType::typeNameWithLength(Type type, int length)
{
    QString name = QString::fromLatin1(typeName(type));
    if (typeHasLength(type))
        name += QStringLiteral("[%1]").arg(length);
    return name;
}

bool FieldType::typeLessThan(Type t1, int len1, Type t2, int len2)
{
    if (t1 != t2)
        return t1 == Integer && t2 == Integer64;
    if (len1 == len2)
        return true;
    if (t1 == String)
        return len1 <= len2;
    return false;
}

QDateTime FieldType::getQDateTime(const unsigned char *ptr)
{
    return QDateTime::fromMSecsSinceEpoch(getInt64(ptr));
}

void FieldType::setQDateTime(unsigned char *ptr, const QDateTime &value)
{
    setInt64(ptr, value.toMSecsSinceEpoch());
}

QString FieldType::getString(const unsigned char *ptr, int length)
{
    // The counter was a 16-bit integer: larger capacities are not supported,
    // and are read as the largest one it could count.
    const int capacity = qBound(0, length, 32767);
    const ushort *units = reinterpret_cast<const ushort *>(ptr);
    int n = 0;
    while (n < capacity && load<ushort>(ptr + 2 * n) != 0)
        ++n;
    return QString(reinterpret_cast<const QChar *>(units), n);
}

void FieldType::setString(unsigned char *ptr, int length, const unsigned short *units, int size)
{
    if (length <= 0)
        return;
    const int n = qBound(0, size, length);
    std::memcpy(ptr, units, 2 * static_cast<size_t>(n));
    std::memset(ptr + 2 * n, 0, 2 * static_cast<size_t>(length - n));
}
