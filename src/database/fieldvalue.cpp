#include "fieldvalue.h"

#include "table.h"

#include <cstdlib>

template class QList<FieldValue>;

namespace {

// The slot width; a String of length 0 (an empty constant) has no slot.
unsigned long long slotSize(const TableColumnDef &def)
{
    if (def.type == FieldType::String && def.length <= 0)
        return 0;
    return FieldType::typeLength(def.type, def.length);
}

TableColumnDef *newDefinition(FieldType::Type type, int length, bool nullable)
{
    TableColumnDef *def = new TableColumnDef(nullptr);
    def->type = type;
    def->length = length;
    def->nullable = nullable;
    return def;
}

} // namespace

void FieldValue::init(TableColumnDef *def)
{
    QScopedPointer<TableColumnDef> owned(def);
    def->table = nullptr;
    def->offset = 0;
    def->size = slotSize(*def); // may throw: nothing is owned yet
    def->nullIndex = 0;
    def->nullByteOffset = def->size;
    def->nullMask = 1;
    unsigned char *buffer = static_cast<unsigned char *>(std::calloc(static_cast<size_t>(def->size) + 1, 1));
    Q_CHECK_PTR(buffer);
    m_def = owned.take();
    m_data = buffer;
    m_nullByte = buffer + def->size;
    m_nullMask = 1;
}

void FieldValue::release()
{
    std::free(m_data);
    delete m_def;
    m_data = nullptr;
    m_def = nullptr;
}

FieldValue::FieldValue()
{
    init(newDefinition(FieldType::Integer, 1, true));
}

FieldValue::FieldValue(FieldType::Type type, int length, bool nullable)
{
    init(newDefinition(type, length, nullable));
}

FieldValue::FieldValue(const TableColumnDef *def)
{
    init(new TableColumnDef(nullptr, *def));
}

FieldValue::FieldValue(Table *table, int column)
    : FieldValue(&table->columnDef(column))
{
}

FieldValue::FieldValue(Table *table, const QString &name)
    : FieldValue(table, table->columnIndex(name))
{
}

FieldValue::FieldValue(const Field &field)
    : FieldValue(field.columnDef())
{
    std::memcpy(m_data, field.data(), static_cast<size_t>(m_def->size));
    if (!field.isNull())
        clearNull();
}

FieldValue::FieldValue(const FieldValue &other)
    : FieldValue(static_cast<const Field &>(other))
{
}

FieldValue &FieldValue::operator=(const FieldValue &other)
{
    if (this == &other)
        return *this;
    FieldValue copy(other);
    release();
    std::swap(m_def, copy.m_def);
    std::swap(m_data, copy.m_data);
    std::swap(m_nullByte, copy.m_nullByte);
    m_nullMask = 1;
    return *this;
}

FieldValue::~FieldValue()
{
    release();
}

bool KeyValue::operator<(const KeyValue &other) const
{
    for (int i = 0; i < m_values.size(); ++i) {
        const int c = m_values[i].compare(other.m_values.at(i));
        if (c != 0)
            return c < 0;
    }
    return false;
}

bool KeyValue::operator==(const KeyValue &other) const
{
    for (int i = 0; i < m_values.size(); ++i) {
        if (m_values[i].compare(other.m_values.at(i)) != 0)
            return false;
    }
    return true;
}

bool KeyValue::operator!=(const KeyValue &other) const
{
    return !(*this == other);
}

FieldConstValue::FieldConstValue(const QChar &value)
    : FieldValue(FieldType::String, 1, false)
{
    FieldType::setString(m_data, 1, QString(value));
    clearNull();
}

FieldConstValue::FieldConstValue(const QString &value)
    : FieldValue(FieldType::String, value.size(), false)
{
    FieldType::setString(m_data, value.size(), value);
    clearNull();
}

FieldConstValue::FieldConstValue(const char *value)
    : FieldConstValue(QString::fromLatin1(value))
{
}

FieldConstValue::FieldConstValue(const decimal &value)
    : FieldValue(FieldType::Decimal, 0, false)
{
    FieldType::setInt64(m_data, value.to56s7());
    clearNull();
}

FieldConstValue::FieldConstValue(const datetime &value)
    : FieldValue(FieldType::DateTime, 0, false)
{
    FieldType::setDatetime(m_data, value);
    clearNull();
}

FieldConstValue::FieldConstValue(const int &value)
    : FieldValue(FieldType::Integer, 0, false)
{
    FieldType::setInt(m_data, value);
    clearNull();
}

FieldConstValue::FieldConstValue(const long long &value)
    : FieldValue(FieldType::Integer64, 0, false)
{
    FieldType::setInt64(m_data, value);
    clearNull();
}

FieldConstValue::~FieldConstValue() = default;
