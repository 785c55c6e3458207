// The devices of the folder save and load: the gzip writer that deflates on
// several threads and the read-ahead over a slow source. What they produce
// is checked with zlib alone and with the serial compressor.

#include <database/qtiocompressor.h>
#include <database/tablefile_p.h>

#include <QtCore/QBuffer>
#include <QtCore/QRandomGenerator>

#include <gtest/gtest.h>
#include <zlib.h>

#include <algorithm>
#include <cstring>

#include "zlibutil.h"

namespace {

// Text-like bytes that deflate well, with repeats far apart: a phrase of
// the first kilobytes comes back near the end, so a chunk that lost the one
// before it would show in the size.
QByteArray sample(int size, quint32 seed)
{
    QRandomGenerator random(seed);
    QByteArray words[64];
    for (QByteArray &word : words) {
        const int length = 3 + random.bounded(8);
        for (int i = 0; i < length; ++i)
            word.append(static_cast<char>('a' + random.bounded(26)));
    }
    QByteArray out;
    out.reserve(size + 16);
    while (out.size() < size) {
        out.append(words[random.bounded(64)]);
        out.append(random.bounded(10) == 0 ? '\n' : ' ');
        if (random.bounded(200) == 0)
            out.append(QByteArray::number(random.generate64()));
    }
    out.truncate(size);
    return out;
}

QByteArray compress(const QByteArray &data, int threads, int chunk, const QList<int> &writes)
{
    QByteArray packed;
    QBuffer buffer(&packed);
    buffer.open(QIODevice::WriteOnly);
    TableGzipWriter writer(&buffer, 6, threads, chunk);
    EXPECT_TRUE(writer.open(QIODevice::WriteOnly));
    int at = 0;
    for (int i = 0; at < data.size(); ++i) {
        const int n = std::min(writes.at(i % writes.size()), data.size() - at);
        EXPECT_EQ(writer.write(data.constData() + at, n), n);
        at += n;
    }
    writer.close();
    EXPECT_FALSE(writer.hasError());
    EXPECT_TRUE(buffer.isOpen()); // not the writer's to close
    return packed;
}

// A device that takes `room` bytes and then fails.
class FullDevice : public QIODevice
{
public:
    explicit FullDevice(qint64 room) : m_room(room) {}
    qint64 taken = 0;

protected:
    qint64 readData(char *, qint64) override { return -1; }
    qint64 writeData(const char *, qint64 size) override
    {
        if (taken + size > m_room) {
            setErrorString(QStringLiteral("disk full"));
            return -1;
        }
        taken += size;
        return size;
    }

private:
    qint64 m_room;
};

// A source that hands over its bytes a few at a time, then 0 or -1.
class TrickleDevice : public QIODevice
{
public:
    TrickleDevice(QByteArray data, bool fails) : m_data(std::move(data)), m_fails(fails) {}

protected:
    qint64 readData(char *to, qint64 size) override
    {
        if (m_at == m_data.size())
            return m_fails ? -1 : 0;
        const qint64 n = std::min<qint64>({size, 1 + m_at % 7919, m_data.size() - m_at});
        std::memcpy(to, m_data.constData() + m_at, static_cast<size_t>(n));
        m_at += static_cast<int>(n);
        return n;
    }
    qint64 writeData(const char *, qint64) override { return -1; }

private:
    QByteArray m_data;
    bool m_fails;
    int m_at = 0;
};

QByteArray readAll(QIODevice &device, int step, qint64 *last = nullptr)
{
    QByteArray out;
    QByteArray block(step, 0);
    for (;;) {
        const qint64 n = device.read(block.data(), step);
        if (n <= 0) {
            if (last)
                *last = n;
            return out;
        }
        out.append(block.constData(), static_cast<int>(n));
    }
}

} // namespace

// Any gzip reader takes the output: zlib alone (which checks the CRC and the
// length of the trailer) and the library's serial device. Sizes around the
// chunk boundaries and one, two and three threads, with writes of every size.
TEST(TableGzipWriter, OneStandardMemberForAnyCutOfTheInput)
{
    constexpr int Chunk = 64 * 1024;
    const QByteArray data = sample(5 * Chunk + 123, 7);
    for (const int size : {1, 1000, Chunk - 1, Chunk, Chunk + 1, 2 * Chunk, 5 * Chunk + 123}) {
        for (const int threads : {1, 2, 3}) {
            SCOPED_TRACE(testing::Message() << size << " bytes, " << threads << " threads");
            const QByteArray input = data.left(size);
            const QByteArray packed = compress(input, threads, Chunk, {size % 2 ? 777 : 65536 * 3, 1, 40000});
            ASSERT_GE(packed.size(), 18);
            EXPECT_EQ(packed.left(10), QByteArray::fromHex("1f8b0800000000000003"));
            EXPECT_EQ(inflateWithZlib(packed, 31), input);

            QBuffer buffer(const_cast<QByteArray *>(&packed));
            QtIOCompressor serial(&buffer, 6, 65500);
            serial.setStreamFormat(QtIOCompressor::GzipFormat);
            ASSERT_TRUE(serial.open(QIODevice::ReadOnly));
            EXPECT_EQ(serial.readAll(), input);
        }
    }
}

// Each chunk refers back into the one before it: the output is about the
// size of one serial deflate, where independent chunks would each pay for
// their words again.
TEST(TableGzipWriter, ChunksKeepTheWindowOfTheOneBefore)
{
    constexpr int Chunk = 64 * 1024;
    const QByteArray input = sample(16 * Chunk, 11);
    const QByteArray parallel = compress(input, 2, Chunk, {100000});

    z_stream stream{};
    ASSERT_EQ(deflateInit2(&stream, 6, Z_DEFLATED, 31, 8, Z_DEFAULT_STRATEGY), Z_OK);
    QByteArray serial(static_cast<int>(deflateBound(&stream, static_cast<uLong>(input.size()))), 0);
    stream.next_in = reinterpret_cast<Bytef *>(const_cast<char *>(input.constData()));
    stream.avail_in = static_cast<uInt>(input.size());
    stream.next_out = reinterpret_cast<Bytef *>(serial.data());
    stream.avail_out = static_cast<uInt>(serial.size());
    ASSERT_EQ(deflate(&stream, Z_FINISH), Z_STREAM_END);
    serial.resize(static_cast<int>(stream.total_out));
    deflateEnd(&stream);

    EXPECT_LT(parallel.size(), serial.size() + serial.size() / 50);
}

TEST(TableGzipWriter, NothingWrittenNothingOutAndFailuresReported)
{
    QByteArray packed;
    QBuffer buffer(&packed);
    buffer.open(QIODevice::WriteOnly);
    {
        TableGzipWriter writer(&buffer, 6, 2, 64 * 1024);
        ASSERT_TRUE(writer.open(QIODevice::WriteOnly));
        EXPECT_FALSE(writer.open(QIODevice::WriteOnly));
    }
    EXPECT_TRUE(packed.isEmpty());

    QBuffer readOnly;
    readOnly.open(QIODevice::ReadOnly);
    EXPECT_FALSE(TableGzipWriter(&readOnly).open(QIODevice::WriteOnly));
    EXPECT_FALSE(TableGzipWriter(&buffer).open(QIODevice::ReadOnly));

    // The device fills up while chunks are still being deflated: the writer
    // fails at once and stays failed, and closing joins its threads.
    const QByteArray input = sample(40 * 64 * 1024, 3);
    FullDevice full(100000);
    full.open(QIODevice::WriteOnly);
    TableGzipWriter writer(&full, 6, 2, 64 * 1024);
    ASSERT_TRUE(writer.open(QIODevice::WriteOnly));
    qint64 result = 0;
    for (int at = 0; at < input.size() && result >= 0; at += 50000)
        result = writer.write(input.constData() + at, std::min(50000, input.size() - at));
    EXPECT_EQ(result, -1);
    EXPECT_TRUE(writer.hasError());
    EXPECT_EQ(writer.errorString(), QStringLiteral("Error writing to underlying device: disk full"));
    EXPECT_EQ(writer.write("x", 1), -1);
    const qint64 taken = full.taken;
    writer.close();
    EXPECT_EQ(full.taken, taken); // no trailer after a failure
}

// The reader gets the source's bytes in order whatever it asks for, then
// the source's own end: 0, or -1 after every byte before the failure.
TEST(TableReadAhead, HandsOverTheSourceAndItsEnd)
{
    const QByteArray data = sample(300000, 5);
    for (const bool fails : {false, true}) {
        for (const int step : {1, 4096, 1 << 20}) {
            SCOPED_TRACE(testing::Message() << (fails ? "failing" : "ending") << " source, reads of " << step);
            TrickleDevice source(data, fails);
            source.open(QIODevice::ReadOnly);
            TableReadAhead ahead(&source, 10000, 3);
            ASSERT_TRUE(ahead.open(QIODevice::ReadOnly));
            EXPECT_FALSE(ahead.atEnd());
            qint64 last = 1;
            EXPECT_EQ(readAll(ahead, step, &last), data);
            EXPECT_EQ(last, fails ? -1 : 0);
            EXPECT_TRUE(ahead.atEnd());
        }
    }
    // Left with blocks unread and the thread waiting for room: closing
    // stops it, and the source is the caller's again.
    TrickleDevice source(data, false);
    source.open(QIODevice::ReadOnly);
    {
        TableReadAhead ahead(&source, 1000, 2);
        ASSERT_TRUE(ahead.open(QIODevice::ReadOnly));
        char first[10];
        EXPECT_GT(ahead.read(first, 10), 0);
    }
    EXPECT_GT(readAll(source, 65536).size(), data.size() / 2);

    QBuffer writeOnly;
    writeOnly.open(QIODevice::WriteOnly);
    EXPECT_FALSE(TableReadAhead(&writeOnly).open(QIODevice::ReadOnly));
}
