#include <database/checksum.h>

#include <QtCore/QByteArray>
#include <QtCore/QRandomGenerator>

#include <gtest/gtest.h>

namespace {

// Bit by bit, straight from the definition of the CRC.
unsigned long long referenceCrc64(const QByteArray &bytes)
{
    unsigned long long crc = ~0ULL;
    for (const char c : bytes) {
        crc ^= static_cast<unsigned long long>(static_cast<unsigned char>(c)) << 56;
        for (int bit = 0; bit < 8; ++bit)
            crc = (crc >> 63) ? (crc << 1) ^ 0x42F0E1EBA9EA3693ULL : crc << 1;
    }
    return ~crc;
}

} // namespace

TEST(Checksum, CheckValue)
{
    EXPECT_EQ(qChecksum64("123456789", 9), 0x62EC59E3F1A4F00AULL);
}

TEST(Checksum, EmptyInputIsZeroAndNeverRead)
{
    EXPECT_EQ(qChecksum64(nullptr, 0), 0u);
    EXPECT_EQ(qChecksum64("abc", 0), 0u);
}

TEST(Checksum, MatchesTheBitwiseDefinition)
{
    QRandomGenerator random(42);
    for (int size : {1, 2, 7, 8, 255, 256, 4097}) {
        QByteArray bytes(size, Qt::Uninitialized);
        for (char &c : bytes)
            c = static_cast<char>(random.bounded(256));
        SCOPED_TRACE(size);
        EXPECT_EQ(qChecksum64(bytes.constData(), static_cast<unsigned>(bytes.size())), referenceCrc64(bytes));
    }
    EXPECT_NE(qChecksum64("a", 1), qChecksum64("b", 1));
}
