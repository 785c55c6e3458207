#ifndef DATABASE_FIELDVALUE_H
#define DATABASE_FIELDVALUE_H

#include "database_export.h"
#include "field.h"

#include <QtCore/QList>

class Table;

// FieldValue: a typed value outside any table. It owns a copy of a column
// definition, re-based for a one-slot buffer (offset 0, the null byte right
// after the slot, mask 1), and that buffer, so it is a Field in every
// respect: conversions, assignment, comparison and text all work on it.
// Copies are deep; nothing refers back to a table or row. A new value is null.
class DATABASE_EXPORT FieldValue : public Field
{
public:
    // Integer, length 1, nullable.
    FieldValue();
    FieldValue(FieldType::Type type, int length, bool nullable);
    // The column's type, length and flags (no table, no strings).
    explicit FieldValue(const TableColumnDef *def);
    FieldValue(Table *table, int column);
    FieldValue(Table *table, const QString &name);
    // The field's definition, slot bytes and null state.
    FieldValue(const Field &field);
    FieldValue(const FieldValue &other);
    FieldValue &operator=(const FieldValue &other);
    virtual ~FieldValue();

    using Field::operator=;

    QString toText() const { return toString(); }
    // Assigns the text with Field's conversions; an empty text makes it null.
    void fromText(const QString &text) { Field::operator=(text); }

protected:
    // Takes ownership of `def`, re-bases it and allocates the zeroed buffer.
    void init(TableColumnDef *def);

private:
    void release();
};

// The library's instantiation of the list, shared by its clients.
extern template class DATABASE_EXPORT QList<FieldValue>;

// A composite key: values compared position by position with
// Field::compare. Only this key's count is consulted: the other key must have
// at least as many values.
class DATABASE_EXPORT KeyValue
{
public:
    KeyValue() = default;
    KeyValue(const QList<FieldValue> &values) : m_values(values) {}

    const QList<FieldValue> &values() const { return m_values; }
    QList<FieldValue> &values() { return m_values; }

    bool operator<(const KeyValue &other) const;
    // True for an empty key.
    bool operator==(const KeyValue &other) const;
    // False for an empty key.
    bool operator!=(const KeyValue &other) const;

private:
    QList<FieldValue> m_values;
};

// A FieldValue made from a constant, present and not nullable: QChar and
// strings make String values as long as the text (a C string read as
// Latin-1), decimal, datetime, int and long long their own types.
class DATABASE_EXPORT FieldConstValue : public FieldValue
{
public:
    FieldConstValue(const QChar &value);
    FieldConstValue(const QString &value);
    FieldConstValue(const char *value);
    FieldConstValue(const decimal &value);
    FieldConstValue(const datetime &value);
    FieldConstValue(const int &value);
    FieldConstValue(const long long &value);
    ~FieldConstValue() override;
};

#endif // DATABASE_FIELDVALUE_H
