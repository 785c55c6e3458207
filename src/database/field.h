#ifndef DATABASE_FIELD_H
#define DATABASE_FIELD_H

#include "columndef.h"
#include "database_export.h"
#include "datetime.h"
#include "decimal.h"
#include "fieldtype.h"

#include <cstring>

// Field: an uncounted view of one slot of one row: the column, the slot's
// bytes and the byte holding the column's null bit. It must not outlive the
// Record or index that keeps its row alive.
//
// The raw accessors below do no type checks: the caller knows the column's
// type. Reading as<Type>() gives the slot as stored; the non-const forms
// return references into the row, so writes through them change the row and
// leave the null bit alone. Slots are packed without alignment, so those
// references may be misaligned: fine on x86-64, where rows live.
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

    TableColumnDef *columnDef() const { return m_def; }
    FieldType::Type type() const { return m_def->type; }
    int length() const { return m_def->length; }

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
    // The stored word as it is: no scale is forced (unlike FieldType::getDecimal).
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

private:
    TableColumnDef *m_def = nullptr;
    unsigned char *m_data = nullptr;
    unsigned char *m_nullByte = nullptr;
    unsigned int m_nullMask = 0;
};

#endif // DATABASE_FIELD_H
