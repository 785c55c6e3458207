#ifndef DATABASE_COLUMNDEF_H
#define DATABASE_COLUMNDEF_H

#include "database_export.h"
#include "fieldtype.h"

#include <QtCore/QString>

class QDataStream;
class Table;

// A column's declaration: its type and length, its name (the key of the
// column, case-sensitive in lookups), whether it may be null, a display
// title (empty: the name serves), a flag the table keeps and saves but never
// reads, and a description.
class DATABASE_EXPORT ColumnDef : public FieldDef
{
public:
    // Integer, length 0, empty strings; the flags are left unset.
    ColumnDef() = default;

    QString name;
    bool nullable;
    QString title;
    bool secondFlag;
    QString description;
};

// A column's place in its table's rows. The table allocates and owns one per
// column.
//
// Row layout: a 32-bit reference count, then from Table::base the slots
// packed in column order without padding (column k at the sum of the sizes of
// columns 0..k-1: its `offset`), then one null bit per column, bit k in byte
// k / 8 of that area, set when the field has a value. `offset` and
// `nullByteOffset` count from the data area, not from the row block.
class DATABASE_EXPORT TableColumnDef : public ColumnDef
{
public:
    // Integer, length 0, empty strings, both flags true, all numbers 0.
    explicit TableColumnDef(Table *table = nullptr);
    // Copies type, length, offset, size and both flags; takes `table`; leaves
    // the strings empty and the null fields 0.
    TableColumnDef(Table *table, const TableColumnDef &other);
    TableColumnDef(const TableColumnDef &other) = default;
    TableColumnDef &operator=(const TableColumnDef &other) = default;

    // Places the column's null bit: number `index` in the area that starts
    // at `nullAreaOffset`.
    void update(unsigned long long nullAreaOffset, int index);

    // The column record of a table file (see doc/table_format.md). read()
    // overwrites the nine stored fields and leaves the table and the null-bit
    // fields alone.
    void write(QDataStream &stream) const;
    void read(QDataStream &stream);

    Table *table;
    unsigned long long offset;
    unsigned long long size;
    int nullIndex;
    unsigned long long nullByteOffset;
    unsigned char nullMask;
};

#endif // DATABASE_COLUMNDEF_H
