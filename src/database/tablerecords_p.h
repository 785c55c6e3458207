#ifndef DATABASE_TABLERECORDS_P_H
#define DATABASE_TABLERECORDS_P_H

//
//  W A R N I N G
//  -------------
//
// This file is not part of the database API. It exists for the convenience
// of the library's own sources and may change from version to version
// without notice.
//

#include <QtCore/QDataStream>

#include <algorithm>
#include <cstring>
#include <vector>

// The stored records of a table file, as the loader has always read them,
// damaged streams included. Each record is handed over as `layout` bytes
// (the stored row layout), whatever the record length says:
//   - a record shorter than the layout is followed by the rest of the
//     layout as it stood before it: zeros at first;
//   - a record longer than the layout has its tail skipped;
//   - a record cut short by the end of the stream overwrites the start of
//     the one before it, and the rest of that one stays;
//   - once the stream has ended, the last record is handed over again for
//     each row still promised, at most `maxPastEnd` times; records of
//     length 0 count against the same bound.
// Records of up to MaxChunkedRecord bytes are read many at a time, longer
// ones one by one; both hand over the same bytes, also from a device that
// hands over its bytes a few at a time.
namespace tablerecords {

constexpr qint64 ReadBlock = 256 * 1024;
constexpr qint64 MaxChunkedRecord = 64 * 1024;

template <typename Take>
void read(QDataStream &stream, qint64 layout, qint64 record, qint64 rowCount, qint64 maxPastEnd, Take take)
{
    std::vector<unsigned char> buffer(static_cast<size_t>(layout) + 1, 0);
    record = std::max<qint64>(record, 0);
    const int readable = static_cast<int>(std::min(record, layout));
    const int skipped = static_cast<int>(record - readable);
    // A sequential device (a pipe, a socket) may hand over or skip less than
    // asked before its end: go on until it is done or nothing more comes,
    // so that the next record starts where it should. Both answer how many
    // bytes they got through.
    auto readFully = [&stream](char *to, int n) {
        int got = 0;
        while (got < n) {
            const int read = stream.readRawData(to + got, n - got);
            if (read <= 0)
                break;
            got += read;
        }
        return got;
    };
    auto skipFully = [&stream](int n) {
        int gone = 0;
        while (gone < n) {
            const int step = stream.skipRawData(n - gone);
            if (step <= 0)
                break;
            gone += step;
        }
        return gone;
    };
    qint64 pastEnd = 0;
    if (readable > 0 && record <= MaxChunkedRecord) {
        // `buffer` keeps the last record read, so that a short stream ends
        // exactly as a record-at-a-time read does.
        const qint64 perChunk = std::max<qint64>(1, ReadBlock / record);
        std::vector<char> chunk(static_cast<size_t>(perChunk * record));
        for (qint64 r = 0; r < rowCount;) {
            if (stream.atEnd()) {
                if (++pastEnd > maxPastEnd)
                    break;
                take(buffer.data());
                ++r;
                continue;
            }
            const int got = readFully(chunk.data(), static_cast<int>(std::min(perChunk, rowCount - r) * record));
            const qint64 full = got / record;
            const int partial = static_cast<int>(got % record);
            for (qint64 i = 0; i < full; ++i) {
                const char *at = chunk.data() + i * record;
                if (readable < layout) {
                    // Shorter than the layout: the buffer, whose tail is as a
                    // record-at-a-time read leaves it.
                    std::memcpy(buffer.data(), at, static_cast<size_t>(readable));
                    take(buffer.data());
                } else {
                    take(reinterpret_cast<const unsigned char *>(at));
                }
            }
            if (full > 0)
                std::memcpy(buffer.data(), chunk.data() + (full - 1) * record, static_cast<size_t>(readable));
            r += full;
            if (partial > 0 || full == 0) {
                std::memcpy(buffer.data(), chunk.data() + full * record,
                            static_cast<size_t>(std::min(partial, readable)));
                take(buffer.data());
                ++r;
            }
        }
        return;
    }
    for (qint64 r = 0; r < rowCount; ++r) {
        if ((stream.atEnd() || record == 0) && ++pastEnd > maxPastEnd)
            break;
        // A short read leaves the rest of the buffer as it was.
        if (readable > 0)
            readFully(reinterpret_cast<char *>(buffer.data()), readable);
        if (skipped > 0)
            skipFully(skipped);
        take(buffer.data());
    }
}

} // namespace tablerecords

#endif // DATABASE_TABLERECORDS_P_H
