#ifndef DATABASE_FIELDTYPE_H
#define DATABASE_FIELDTYPE_H

#include "database_export.h"
#include "datetime.h"
#include "decimal.h"

#include <QtCore/QDateTime>
#include <QtCore/QString>
#include <QtCore/QtGlobal>

#include <cstring>

// Slots are stored little-endian and read with plain unaligned loads.
static_assert(Q_BYTE_ORDER == Q_LITTLE_ENDIAN, "row slots are little-endian");

// The value of BoardList columns: a count and 50 pairs, 404 bytes copied
// whole. This library only stores and copies it.
struct boardlist
{
    struct entry
    {
        qint32 first;
        qint32 second;
    };

    qint32 count;
    entry entries[50];
};
static_assert(sizeof(boardlist) == 404, "boardlist is stored byte for byte");

// FieldType: what a column can hold, and how each value sits in the bytes of
// a row slot. A slot has no tag and no length of its own: the column's
// declaration says which type and length apply. Slots need not be aligned.
//
// Slot encodings (little-endian):
//   Integer     signed 32-bit              Decimal    the packed decimal word,
//   Integer64   signed 64-bit                         brought to the column's scale
//   Double      IEEE 754 binary64          DateTime   the datetime stamp
//   String      exactly `length` UTF-16 units, zero-filled after the text,
//               no terminator when full; longer text is cut silently
//   BoardList   the 404-byte boardlist
//
// No getter or setter checks its arguments: the caller knows the column.
class DATABASE_EXPORT FieldType
{
public:
    // A fixed underlying type: files may carry any code, and those must stay
    // representable (they are refused as "Type is undefined.").
    enum Type : int {
        Invalid = 0,
        Integer = 1,
        Integer64 = 2,
        Double = 3,
        Decimal = 4,
        String = 5,
        DateTime = 6,
        BoardList = 7,
    };

    // The slot width in bytes. Throws Exception "Type is undefined." for a
    // type outside 1..7 and "Length of string can't be zero" for a String of
    // length 0. A negative String length is not checked.
    static unsigned long long typeLength(Type type, int length);
    // True for Decimal (the scale) and String (the capacity).
    static bool typeHasLength(Type type);
    // The schema's names: "Undefined", "Integer", "Integer64", "Double",
    // "Decimal", "VarChar", "DateTime", "BoardList".
    static const char *typeName(Type type);
    // typeName(), with "[length]" for Decimal and String: "VarChar[20]".
    static QString typeNameWithLength(Type type, int length);
    // Whether a column declared (t1, len1) can be held by one declared
    // (t2, len2): equal declarations answer true, as does a String that is
    // not longer, and Integer under Integer64.
    static bool typeLessThan(Type t1, int len1, Type t2, int len2);

    static int getInt(const unsigned char *ptr) { return load<qint32>(ptr); }
    static void setInt(unsigned char *ptr, int value) { store<qint32>(ptr, value); }
    static long long getInt64(const unsigned char *ptr) { return load<qint64>(ptr); }
    static void setInt64(unsigned char *ptr, long long value) { store<qint64>(ptr, value); }
    static double getDouble(const unsigned char *ptr) { return load<double>(ptr); }
    static void setDouble(unsigned char *ptr, double value) { store<double>(ptr, value); }

    // The stored word with its scale bits replaced by the column's scale.
    static decimal getDecimal(const unsigned char *ptr, int scale)
    {
        const quint64 word = load<quint64>(ptr);
        return decimal::from56s7(static_cast<qint64>((word & ~(0x7FULL << 56))
                                                      | ((static_cast<quint64>(scale) & 0x7F) << 56)));
    }
    // Stores the value brought to the column's scale (see decimal::setScale).
    static void setDecimal(unsigned char *ptr, int scale, decimal value)
    {
        if (value.scale() != scale)
            value.setScale(static_cast<short>(scale));
        store<qint64>(ptr, value.to56s7());
    }

    static datetime getDatetime(const unsigned char *ptr) { return datetime(load<qint64>(ptr)); }
    static void setDatetime(unsigned char *ptr, datetime value) { store<qint64>(ptr, value.data()); }
    // The stamp as a true instant, in local time. Unlike datetime(QDateTime),
    // setQDateTime() stores the instant of the value in its own time spec:
    // the two differ by the zone offset, on purpose.
    static QDateTime getQDateTime(const unsigned char *ptr);
    static void setQDateTime(unsigned char *ptr, const QDateTime &value);

    // The units up to the first zero or `length` units. Capacities above
    // 32767 units are read as 32767.
    static QString getString(const unsigned char *ptr, int length);
    static QString getSharedString(const unsigned char *ptr, int length) { return getString(ptr, length); }
    // Copies at most `length` units and zero-fills the rest of the slot.
    static void setString(unsigned char *ptr, int length, const QString &text)
    {
        setString(ptr, length, reinterpret_cast<const unsigned short *>(text.utf16()), text.size());
    }
    static void setString(unsigned char *ptr, int length, const unsigned short *units, int size);

private:
    template <typename T>
    static T load(const unsigned char *ptr)
    {
        T value;
        std::memcpy(&value, ptr, sizeof value);
        return value;
    }
    template <typename T>
    static void store(unsigned char *ptr, T value)
    {
        std::memcpy(ptr, &value, sizeof value);
    }
};

// The declaration of a column's type: the type, and the length where the
// type has one (Decimal scale, String capacity), else 0.
class DATABASE_EXPORT FieldDef
{
public:
    FieldDef() : type(FieldType::Integer), length(0) {}
    FieldDef(FieldType::Type fieldType) : type(fieldType), length(0) {}
    FieldDef(FieldType::Type fieldType, int fieldLength) : type(fieldType), length(fieldLength) {}

    FieldType::Type type;
    int length;
};

#endif // DATABASE_FIELDTYPE_H
