#ifndef DATABASE_FIELD_H
#define DATABASE_FIELD_H

#include "columndef.h"
#include "database_export.h"
#include "datetime.h"
#include "decimal.h"
#include "fieldtype.h"

#include <QtCore/QDateTime>
#include <QtCore/QString>
#include <QtCore/QVariant>

#include <cstring>

class FieldValue;

// Field: an uncounted view of one slot of one row: the column, the slot's
// bytes and the byte holding the column's null bit. It must not outlive the
// Record or index that keeps its row alive. Copying a Field copies the
// handle; assigning one Field to another assigns the value.
//
// Raw access. The as...() accessors do no type checks: the caller knows the
// column's type. The const forms read the slot as stored; the non-const forms
// return references into the row, so writes through them change the row and
// leave the null bit alone. Slots are packed without alignment, so those
// references may be misaligned: fine on x86-64, where rows live.
//
// Conversions. The to...() readers answer a fixed value for a null field
// and throw Exception "Incorrect type conversion." for a column type they do
// not read. The writers (operator=) convert from each source type to the
// column's type, mark the field present, and make it null for an empty
// string or an invalid QDateTime. A failed write changes neither the slot
// nor the null bit. What is thrown is part of the interface:
//   Exception      "Incorrect type conversion.", "Can't convert from %1 to %2",
//                  "Can't convert from '%1'' to %2", "Can't convert double to
//                  datetime.", "Can't convert from decimal to datetime.",
//                  "Can't equal; two fields."
//   QString        "Incorrect type of field.", "String is null for QChar",
//                  "String length is not 1 for QChar: %1.", and the decimal
//                  parser's messages when text goes into a Decimal column
//   const char *   "List size exceed" (text with a 50th board list pair) and
//                  "decimal:overflow" (a double too large for a Decimal column)
//
// Two Decimal paths stay apart on purpose: numbers and text are stored at
// the column's scale, a decimal is stored as its packed word, with its own
// scale (which reads back at the column's scale: 1.5 written as decimal(15, 1)
// into a scale-2 column reads 0.15). Assignments from another Decimal field
// and from a variant take the decimal path.
class DATABASE_EXPORT Field
{
public:
    Field() = default;
    // `dataArea` is the row's data area (the row block + Table::base), not the
    // row block itself.
    Field(TableColumnDef *def, unsigned char *dataArea)
        : m_def(def)
        , m_data(dataArea + def->offset)
        , m_nullByte(dataArea + def->nullByteOffset)
        , m_nullMask(def->nullMask)
    {
    }
    Field(const Field &other) = default;

    TableColumnDef *columnDef() const { return m_def; }
    FieldType::Type type() const { return m_def->type; }
    int length() const { return m_def->length; }
    // The column type's name on the value side: "Invalid", "Integer",
    // "Integer64", "Double", "Decimal", "String", "DateTime"; "undefined" for
    // anything else, BoardList included.
    QString typeName() const;
    static QString typeName(FieldType::Type type);

    bool isNull() const { return (*m_nullByte & m_nullMask) != m_nullMask; }
    // Marks the field null; the slot keeps its bytes.
    void setNull() { *m_nullByte &= static_cast<unsigned char>(~m_nullMask); }
    // Marks the field as holding a value.
    void clearNull() { *m_nullByte |= static_cast<unsigned char>(m_nullMask); }
    // Zero-fills the slot; the null bit is not touched.
    void erase() { std::memset(m_data, 0, static_cast<size_t>(m_def->size)); }

    int asInteger() const { return FieldType::getInt(m_data); }
    long long asInteger64() const { return FieldType::getInt64(m_data); }
    double asDouble() const { return FieldType::getDouble(m_data); }
    // The stored word as it is: no scale is forced (unlike toDecimal()).
    decimal asDecimal() const { return decimal::from56s7(FieldType::getInt64(m_data)); }
    datetime asDatetime() const { return FieldType::getDatetime(m_data); }
    const boardlist &asBoardlist() const { return *reinterpret_cast<const boardlist *>(m_data); }

    int &asInteger() { return *reinterpret_cast<int *>(m_data); }
    long long &asInteger64() { return *reinterpret_cast<long long *>(m_data); }
    double &asDouble() { return *reinterpret_cast<double *>(m_data); }
    decimal &asDecimal() { return *reinterpret_cast<decimal *>(m_data); }
    datetime &asDatetime() { return *reinterpret_cast<datetime *>(m_data); }
    boardlist &asBoardlist() { return *reinterpret_cast<boardlist *>(m_data); }

    unsigned char *data() const { return m_data; }

    // Readers. Null results: 0, 0.0, the word 0, the stamp 0, null Qt values,
    // an empty board list.
    int toInteger() const;           // Integer; Integer64 clamped to 32 bits
    long long toInteger64() const;   // Integer, Integer64
    double toDouble() const;         // Integer, Integer64, Double, Decimal
    decimal toDecimal() const;       // Decimal, at the column's scale
    datetime toDatetime() const;     // DateTime; String read as datetime(QString)
    QDateTime toQDateTime() const;   // DateTime, time spec UTC
    QDate toQDate() const;           // DateTime
    QTime toQTime() const;           // DateTime
    boardlist toBoardlist() const;   // BoardList
    QString asString() const;        // String only (QString thrown otherwise)
    QChar asChar() const;            // String of length 1; throws for null
    QChar toChar() const;            // as asChar(), QChar(0) for null
    operator int() const { return toInteger(); }
    operator QString() const { return toString(); }

    // Text and variant forms by column type (null QString or an invalid
    // QVariant for a null field).
    QString toString() const;
    QString toSystemString() const;
    QVariant toVariant() const;

    Field &operator=(int value);
    Field &operator=(long long value);
    Field &operator=(double value);
    Field &operator=(const decimal &value);
    Field &operator=(const QString &value);
    Field &operator=(const char *value) { return *this = QString::fromUtf8(value); }
    Field &operator=(const QChar &value);
    Field &operator=(const datetime &value);
    Field &operator=(const QDateTime &value);
    Field &operator=(const boardlist &value);
    // Converts by the column's type, not by the variant's.
    Field &operator=(const QVariant &value);
    // Assigns the other field's value (null makes this null).
    Field &operator=(const Field &other);

    // Nulls on the right change nothing; a null Integer, Integer64, Double,
    // Decimal or DateTime field starts from zero. No overflow checks.
    Field &operator+=(const Field &other);
    Field &operator-=(const Field &other);

    // Null sorts first; different column types compare by type code (the
    // unreduced difference); Integer answers the unreduced difference of the
    // values; Double answers 0 when this value is the larger: both on purpose.
    int compare(const Field &other) const;
    bool operator==(const Field &other) const { return compare(other) == 0; }
    bool operator!=(const Field &other) const { return compare(other) != 0; }
    bool operator<(const Field &other) const { return compare(other) < 0; }
    bool operator>(const Field &other) const { return compare(other) > 0; }
    bool operator<=(const Field &other) const { return compare(other) <= 0; }
    bool operator>=(const Field &other) const { return compare(other) >= 0; }
    // Equal values of the same type; both null is equal, one null is not.
    bool isEqual(const Field &other) const;

    // Throw Exception "Can't convert from <source> to <column>".
    [[noreturn]] static void incompatibleType(FieldType::Type columnType, FieldType::Type sourceType);
    [[noreturn]] void incompatibleType(FieldType::Type sourceType) const;

    // The board list text form: "first:second,second first:second", groups
    // in the order of their first numbers' text; empty below one pair.
    static QString boardlistToString(const boardlist &value);
    // Reads that form. Throws "List size exceed" (const char *) at a 50th
    // pair; numbers that do not parse are skipped.
    static boardlist boardlistFromString(const QString &text);

protected:
    void markPresent() { clearNull(); }

    TableColumnDef *m_def = nullptr;
    unsigned char *m_data = nullptr;
    unsigned char *m_nullByte = nullptr;
    unsigned int m_nullMask = 0;
};

#endif // DATABASE_FIELD_H
