// The loader's record reader alone, on streams of bytes: what each damaged
// shape hands over, and the chunked path against a record-at-a-time model.

#include <database/tablerecords_p.h>

#include <QtCore/QBuffer>
#include <QtCore/QRandomGenerator>

#include <gtest/gtest.h>

#include <algorithm>
#include <vector>

namespace {

using Records = std::vector<std::vector<unsigned char>>;

Records readAll(QIODevice &device, qint64 layout, qint64 record, qint64 rowCount, qint64 maxPastEnd)
{
    QDataStream stream(&device);
    Records out;
    tablerecords::read(stream, layout, record, rowCount, maxPastEnd, [&](const unsigned char *bytes) {
        out.emplace_back(bytes, bytes + layout);
    });
    return out;
}

Records readAll(const QByteArray &bytes, qint64 layout, qint64 record, qint64 rowCount, qint64 maxPastEnd)
{
    QBuffer buffer;
    buffer.setData(bytes);
    buffer.open(QIODevice::ReadOnly);
    return readAll(buffer, layout, record, rowCount, maxPastEnd);
}

// The documented behaviour, a record at a time over a plain byte array.
Records model(const QByteArray &bytes, qint64 layout, qint64 record, qint64 rowCount, qint64 maxPastEnd)
{
    record = std::max<qint64>(record, 0);
    std::vector<unsigned char> last(static_cast<size_t>(layout), 0);
    Records out;
    qint64 at = 0, pastEnd = 0;
    for (qint64 r = 0; r < rowCount; ++r) {
        const bool ended = at >= bytes.size();
        if ((ended || record == 0) && ++pastEnd > maxPastEnd)
            break;
        const qint64 n = std::min({record, layout, std::max<qint64>(0, bytes.size() - at)});
        for (qint64 i = 0; i < n; ++i)
            last[static_cast<size_t>(i)] = static_cast<unsigned char>(bytes[static_cast<int>(at + i)]);
        at += record;
        out.push_back(last);
    }
    return out;
}

// A device that hands over at most seven bytes a read, as a pipe might.
class Trickle : public QIODevice
{
public:
    explicit Trickle(const QByteArray &bytes) : m_bytes(bytes) { open(QIODevice::ReadOnly); }
    bool isSequential() const override { return true; }
    qint64 bytesAvailable() const override { return m_bytes.size() - m_at + QIODevice::bytesAvailable(); }
    bool atEnd() const override { return m_at >= m_bytes.size() && QIODevice::bytesAvailable() == 0; }

protected:
    qint64 readData(char *data, qint64 max) override
    {
        const qint64 n = std::min<qint64>({max, 7, m_bytes.size() - m_at});
        std::copy(m_bytes.constData() + m_at, m_bytes.constData() + m_at + n, data);
        m_at += n;
        return n;
    }
    qint64 writeData(const char *, qint64) override { return -1; }

private:
    QByteArray m_bytes;
    qint64 m_at = 0;
};

} // namespace

TEST(TableRecords, DamagedShapesHandOverWhatTheLoaderAlwaysMade)
{
    using R = std::vector<unsigned char>;
    // Records of 3 bytes on a layout of 3; the stream ends in the third.
    Records got = readAll(QByteArray("abcdefgh", 8), 3, 3, 5, 100);
    // The cut record overwrites the start of the one before; then that one
    // comes again for the rows still promised.
    EXPECT_EQ(got, (Records{R{'a', 'b', 'c'}, R{'d', 'e', 'f'}, R{'g', 'h', 'f'}, R{'g', 'h', 'f'},
                            R{'g', 'h', 'f'}}));
    // Past the end, at most maxPastEnd made-up rows.
    EXPECT_EQ(readAll(QByteArray("abc", 3), 3, 3, 10, 2).size(), 3u);
    // Shorter records than the layout: the tail stays zero.
    got = readAll(QByteArray("abcd", 4), 3, 2, 2, 100);
    EXPECT_EQ(got, (Records{R{'a', 'b', 0}, R{'c', 'd', 0}}));
    // Longer ones: the tail is skipped.
    got = readAll(QByteArray("abcdef", 6), 2, 3, 2, 100);
    EXPECT_EQ(got, (Records{R{'a', 'b'}, R{'d', 'e'}}));
    // Records of no bytes are made-up rows, bounded alike; so are negative lengths.
    EXPECT_EQ(readAll(QByteArray("abc", 3), 3, 0, 10, 4).size(), 4u);
    EXPECT_EQ(readAll(QByteArray("abc", 3), 3, -5, 10, 4).size(), 4u);
    // A promise of no rows reads nothing.
    EXPECT_TRUE(readAll(QByteArray("abc", 3), 3, 3, 0, 4).empty());
}

// Chunked reads (short records), chunk boundaries (long ones), devices that
// trickle and every damage above against the record-at-a-time model.
TEST(TableRecords, EveryShapeMatchesTheRecordAtATimeModel)
{
    QRandomGenerator random(5);
    for (int round = 0; round < 3000; ++round) {
        const bool big = round % 50 == 0;
        const qint64 layout = big ? 30000 + random.bounded(20000) : random.bounded(12);
        // Big records straddle MaxChunkedRecord: both paths.
        const qint64 record = big ? 30000 + random.bounded(70000) : static_cast<qint64>(random.bounded(16)) - 2;
        const qint64 rowCount = random.bounded(big ? 30 : 12);
        const qint64 maxPastEnd = 1 + random.bounded(4);
        const qint64 full = std::max<qint64>(record, 0) * rowCount;
        QByteArray bytes(static_cast<int>(random.bounded(static_cast<int>(full + 10))), Qt::Uninitialized);
        for (char &c : bytes)
            c = static_cast<char>(random.bounded(256));
        SCOPED_TRACE(testing::Message() << "round " << round << " layout " << layout << " record " << record
                                        << " rows " << rowCount << " bytes " << bytes.size());
        const Records expected = model(bytes, layout, record, rowCount, maxPastEnd);
        ASSERT_EQ(readAll(bytes, layout, record, rowCount, maxPastEnd), expected);
        Trickle trickle(bytes);
        ASSERT_EQ(readAll(trickle, layout, record, rowCount, maxPastEnd), expected);
    }
}
