#ifndef DATABASE_TABLEIO_H
#define DATABASE_TABLEIO_H

#include "database_export.h"
#include "field.h"

#include <QtCore/QList>
#include <QtCore/QMap>
#include <QtCore/QPair>
#include <QtCore/QString>

class QDataStream;
class QDir;
class Table;
class TableColumnDef;

// FieldDefConvertor: moves one column's value from a stored row (laid out
// as the table was when it was saved) into a live row. The base converts
// through Field's assignment, null included; a client subclass may compute
// the live value from the stored one in any way.
class DATABASE_EXPORT FieldDefConvertor
{
public:
    FieldDefConvertor() = default;
    FieldDefConvertor(const FieldDefConvertor &) = default;
    FieldDefConvertor &operator=(const FieldDefConvertor &) = default;
    virtual ~FieldDefConvertor();

    virtual void convert(Field &destination, const Field &source);

    // Not owned: the stored column (of the load's temporary table) and the
    // live one.
    TableColumnDef *source = nullptr;
    TableColumnDef *destination = nullptr;
};

// TableIO: saves a table to a stream or a data folder and loads it back.
// The format is in doc/table_format.md: a big-endian header written with
// QDataStream (columns and three counts) and the rows as raw little-endian
// copies of their data areas. Nothing here reports success or failure.
//
// Loading replaces the table's rows. Stored columns are matched to live
// ones by name, or through Convertors: a multi-map from a live column name
// to (stored column name, convertor). An entry with an empty key marks the
// stored column as dropped (never added to the live table). Convertors
// named by entries that match are owned by the load and deleted at its end;
// an entry whose stored column is missing, or whose convertor is null, is
// skipped with the warning "Column not found in translation.". Live columns
// that nothing fills stay null.
//
// Thread safety: a write holds the table's lock throughout; a read runs in
// an update bracket and nothing else may use the table while it loads.
class DATABASE_EXPORT TableIO
{
public:
    using Convertors = QMultiMap<QString, QPair<QString, FieldDefConvertor *>>;

    // Raw copies for columns whose type, length, width and nullability are
    // unchanged; the null bit is copied too.
    class DATABASE_EXPORT FieldDefConvertor_Copy : public FieldDefConvertor
    {
    public:
        void convert(Field &destination, const Field &source) override;
        unsigned long long size = 0;
    };
    class DATABASE_EXPORT FieldDefConvertor_Copy4 : public FieldDefConvertor_Copy
    {
    public:
        void convert(Field &destination, const Field &source) override;
    };
    class DATABASE_EXPORT FieldDefConvertor_Copy8 : public FieldDefConvertor_Copy
    {
    public:
        void convert(Field &destination, const Field &source) override;
    };

    explicit TableIO(Table *table) : m_table(table) {}

    // The table's file in `dir`: named as the table, no extension.
    QString fileName(const QDir &dir) const;

    void write(QDataStream &stream);
    // With withRows false, the header still carries the real row count.
    void write(QDataStream &stream, bool withRows);
    // Writes the file, or the file + ".gz" when the setting "compressed" of
    // group "Database" is true, and removes the other one. Atomic: the new
    // file replaces the old one only once it is complete, so a save that
    // fails (or a process killed during it) leaves the previous files as
    // they were.
    void write(const QDir &dir);

    // Reads a table stream into the table. A stream at its end leaves the
    // table untouched. With addMissingColumns, stored columns the table lacks
    // are added (unless dropped). Indexes are detached for the load and
    // rebuilt at the end.
    //
    // Damaged input: whatever the bytes, the read stays inside its buffers.
    //   - A column record the schema refuses (empty name, undefined type,
    //     a string length below 1 or beyond Table::maxStringLength, a row
    //     longer than Table::maxRowSize, clashing duplicate) throws that
    //     Exception, with the table cleared and its indexes attached.
    //   - A record length smaller than the stored layout needs is read into a
    //     zero-filled buffer of the layout's size; bytes beyond the layout are
    //     skipped. A negative record length reads as zero.
    //   - A short stream still yields the stored row count of rows, each made
    //     from the last record read (zeros before the first), but at most
    //     65536 rows past the end of the stream, and fewer when rows are so
    //     wide that those would take more than 256 MiB; a negative count
    //     reads none. Rows of a record length of 0 count as past the end.
    //   - A conversion that throws (stored text that a live number column
    //     cannot read) aborts the load: the rows appended so far stay, and the
    //     indexes are attached again and rebuilt.
    void read(QDataStream &stream);
    void read(QDataStream &stream, bool addMissingColumns);
    void read(QDataStream &stream, bool addMissingColumns, const TableIO::Convertors &convertors);
    // Reads the plain file if it exists, else the compressed one; with
    // neither the table keeps its rows.
    void read(const QDir &dir, bool addMissingColumns);

    // Why the last folder read or write of this object fell short, empty
    // when it did not: a file that could not be written or committed, or a
    // file whose bytes ran out or were damaged (a cut or corrupt gzip
    // stream, a read error). The rows read before the fault stay in the
    // table. The same text goes to the Qt log as a warning naming the file.
    // A file that is simply absent is no error.
    QString errorString() const { return m_error; }

    // An estimate in bytes of the master index's rows (withRows), handles
    // (withRecords) and unused handle slots (withSpare).
    unsigned long long memoryUsage(bool withRows, bool withRecords, bool withSpare) const;

    // Appends to `list`, in live column order, the convertors that fill this
    // table from rows laid out like `stored`.
    void make_fromDefs(QList<FieldDefConvertor *> &list, const Table *stored, const TableIO::Convertors &convertors);
    // Runs each convertor from the stored data area `source` into the live
    // data area `destination`.
    void convertDefs(const QList<FieldDefConvertor *> &list, unsigned char *destination, unsigned char *source);

private:
    void fail(const QString &path, const QString &reason);

    Table *m_table;
    QString m_error;
};

#endif // DATABASE_TABLEIO_H
