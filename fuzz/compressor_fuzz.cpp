// The compressing device alone: arbitrary bytes read in each format end in
// data or an error, never a hang; and data written with any buffer size
// reads back as it was.

#include "fuzzcommon.h"

#include <database/qtiocompressor.h>

#include <QtCore/QBuffer>

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size)
{
    fuzz::setUp();
    if (size < 2)
        return 0;
    const auto format = static_cast<QtIOCompressor::StreamFormat>(data[0] % 3);
    const int bufferSize = 1 + data[1] * 7;
    QByteArray bytes(reinterpret_cast<const char *>(data + 2), static_cast<int>(size - 2));

    // Reading: the loop ends because each read makes progress or stops.
    {
        QBuffer device(&bytes);
        QtIOCompressor reader(&device, 6, bufferSize);
        reader.setStreamFormat(format);
        if (reader.open(QIODevice::ReadOnly)) {
            char out[1024];
            qint64 total = 0;
            for (int reads = 0; reads < 100000; ++reads) {
                const qint64 n = reader.read(out, sizeof out);
                if (n <= 0)
                    break;
                total += n;
                if (total > (64 << 20))
                    break; // a bomb: enough shown
            }
        }
    }

    // Writing and reading back, with a flush in the middle.
    QBuffer packed;
    {
        QtIOCompressor writer(&packed, data[1] % 10, bufferSize);
        writer.setStreamFormat(format);
        if (!writer.open(QIODevice::WriteOnly))
            abort();
        writer.write(bytes.left(bytes.size() / 2));
        writer.flush();
        writer.write(bytes.mid(bytes.size() / 2));
        writer.close();
    }
    QByteArray again = packed.data();
    QBuffer device(&again);
    QtIOCompressor reader(&device, 6, bufferSize);
    reader.setStreamFormat(format);
    if (!reader.open(QIODevice::ReadOnly))
        abort();
    if (!bytes.isEmpty() && reader.readAll() != bytes)
        abort();
    return 0;
}
