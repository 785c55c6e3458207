#ifndef DATABASE_TESTS_TABLEFIXTURE_H
#define DATABASE_TESTS_TABLEFIXTURE_H

// Small helpers for tests that need rows: integer fields written and read
// raw, and a sorted index over an integer key column.

#include <database/indexsort.h>
#include <database/table.h>

#include <functional>

inline void setInt(const Record &record, int column, int value)
{
    Field field = record.data(column);
    FieldType::setInt(field.data(), value);
    field.clearNull();
}

inline int getInt(const Record &record, int column)
{
    return FieldType::getInt(record.data(column).data());
}

// A new row of `table` (not yet appended) with integer columns filled in.
inline Record makeRow(Table &table, std::initializer_list<int> values)
{
    Record record(&table);
    int column = 0;
    for (const int value : values)
        setInt(record, column++, value);
    return record;
}

// Columns "key" and "id", both Integer: the shape most index tests use.
inline void addKeyIdColumns(Table &table)
{
    table.addColumn(QStringLiteral("key"), FieldType::Integer);
    table.addColumn(QStringLiteral("id"), FieldType::Integer);
}

// makeRow, appended to the table.
inline Record appendRow(Table &table, std::initializer_list<int> values)
{
    const Record record = makeRow(table, values);
    record.append();
    return record;
}

// A registered sorted index over integer column `keyColumn`.
class IntKeyIndex : public IndexSort
{
public:
    explicit IntKeyIndex(Table *table, int keyColumn = 0, std::function<bool(const Record &)> accept = {})
        : IndexSort(table, true), m_keyColumn(keyColumn), m_accept(std::move(accept))
    {
    }

    int compare(const Record &a, const Record &b) const override
    {
        const int x = getInt(a, m_keyColumn);
        const int y = getInt(b, m_keyColumn);
        return x < y ? -1 : (x > y ? 1 : 0);
    }
    bool filter(const Record &record) const override { return !m_accept || m_accept(record); }
    QString getClassName() const override { return QStringLiteral("IntKeyIndex"); }

    // The ids (column 1) of the records in index order.
    std::vector<int> ids() const
    {
        std::vector<int> result;
        for (const Record &record : *this)
            result.push_back(getInt(record, 1));
        return result;
    }

private:
    int m_keyColumn;
    std::function<bool(const Record &)> m_accept;
};

#endif // DATABASE_TESTS_TABLEFIXTURE_H
