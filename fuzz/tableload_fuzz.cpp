// A table loaded from arbitrary bytes, plain and through the compressing
// device: whatever the bytes, the load stays inside its buffers, ends, and
// throws nothing but the documented Exception.

#include "fuzzcommon.h"

#include <database/masterindex.h>
#include <database/qtiocompressor.h>
#include <database/tableformat_p.h>
#include <database/tableio.h>

#include <QtCore/QBuffer>
#include <QtCore/QDataStream>

namespace {

class ByNumber : public IndexSort
{
public:
    explicit ByNumber(Table *table) : IndexSort(table, true) {}
    int compare(const Record &a, const Record &b) const override
    {
        return a.data(0).toInteger64() < b.data(0).toInteger64() ? -1 : a.data(0).toInteger64() > b.data(0).toInteger64();
    }
};

} // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size)
{
    fuzz::setUp();
    if (size < 1)
        return 0;
    const bool compressed = data[0] & 1;
    QByteArray bytes(reinterpret_cast<const char *>(data + 1), static_cast<int>(size - 1));
    Table table(QStringLiteral("quotes"));
    table.addColumn(QStringLiteral("n"), FieldType::Integer64);
    table.addColumn(QStringLiteral("s"), FieldType::String, 8);
    table.addColumn(QStringLiteral("m"), FieldType::Decimal, 2);
    ByNumber index(&table);
    QBuffer buffer(&bytes);
    buffer.open(QIODevice::ReadOnly);
    QtIOCompressor compressor(&buffer, 6, 4096);
    compressor.setStreamFormat(QtIOCompressor::GzipFormat);
    QDataStream stream;
    if (compressed) {
        if (!compressor.open(QIODevice::ReadOnly))
            return 0;
        stream.setDevice(&compressor);
    } else {
        stream.setDevice(&buffer);
    }
    if (!compressed) {
        // The header checker tabletool verify uses takes any bytes too.
        QDataStream header(bytes);
        const tableformat::Header stored = tableformat::readHeader(header);
        (void)tableformat::problem(stored, bytes.size() - header.device()->pos());
        buffer.seek(0);
    }
    fuzz::documented([&] { TableIO(&table).read(stream, data[0] & 2); });
    // What was loaded is whole: every index holds every row.
    if (index.count() != table.rowCount())
        abort();
    for (const Record &record : index)
        (void)record.data(0).toString();
    return 0;
}
