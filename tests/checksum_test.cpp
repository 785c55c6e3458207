#include <database/checksum.h>
#include <database/checksum_p.h>

#include <QtCore/QByteArray>
#include <QtCore/QRandomGenerator>

#include <gtest/gtest.h>

#include <cstdio>
#include <string>

#include <sys/mman.h>
#include <unistd.h>

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

// Every kernel the processor can run, against the bytewise reference, on
// lengths around each kernel's block sizes, at odd alignments, and resumed
// at arbitrary cuts.
TEST(Checksum, KernelsAgreeWithTheReference)
{
    QRandomGenerator random(7);
    QByteArray bytes(70000, Qt::Uninitialized);
    for (char &c : bytes)
        c = static_cast<char>(random.bounded(256));
    const int lengths[] = {0, 1, 15, 16, 17, 127, 128, 129, 255, 256, 257, 383, 511, 512, 1000, 4096, 65537};
    for (int kernel = 0; kernel < checksum_internal::kernelCount(); ++kernel) {
        if (!checksum_internal::kernelAvailable(kernel)) {
            // Say so: a green run on a machine without the instructions
            // has not checked that kernel.
            std::printf("checksum kernel %d: this CPU lacks its instructions, not checked\n", kernel);
            RecordProperty("kernel" + std::to_string(kernel), "not checked: instructions missing");
            continue;
        }
        for (const int length : lengths) {
            for (const int offset : {0, 1, 13}) {
                SCOPED_TRACE(testing::Message() << "kernel " << kernel << " length " << length << " offset " << offset);
                const char *data = bytes.constData() + offset;
                const unsigned long long expected = referenceCrc64(QByteArray(data, length));
                EXPECT_EQ(checksum_internal::checksumWith(kernel, 0, data, static_cast<size_t>(length)), expected);
                const int cut = static_cast<int>(random.bounded(length + 1));
                const unsigned long long first = checksum_internal::checksumWith(kernel, 0, data, static_cast<size_t>(cut));
                EXPECT_EQ(checksum_internal::checksumWith(kernel, first, data + cut, static_cast<size_t>(length - cut)),
                          expected);
            }
        }
    }
    EXPECT_EQ(qChecksum64(bytes.constData(), 4097), referenceCrc64(bytes.left(4097)));
    EXPECT_NE(qChecksum64("a", 1), qChecksum64("b", 1));
}

// x^e mod P, by squaring: the register's closed form for runs of zeros.
static unsigned long long multiplyModP(unsigned long long a, unsigned long long b)
{
    unsigned long long product = 0;
    for (int bit = 63; bit >= 0; --bit) {
        product = (product >> 63) ? (product << 1) ^ 0x42F0E1EBA9EA3693ULL : product << 1;
        if ((b >> bit) & 1)
            product ^= a;
    }
    return product;
}

static unsigned long long xPowerModP(unsigned long long e)
{
    unsigned long long result = 1, square = 2; // x^0, x^1
    for (; e; e >>= 1) {
        if (e & 1)
            result = multiplyModP(result, square);
        square = multiplyModP(square, square);
    }
    return result;
}

// A length past 4 GiB is taken whole. The bytes are zeros: one 64 MiB shared
// mapping repeated over 4 GiB + 64 MiB of address space, so reading them
// costs few page faults; their CRC has a closed form, all-ones * x^(8n).
TEST(Checksum, LengthsPastFourGiB)
{
    const size_t chunk = size_t(64) << 20;
    const int chunks = 65;
    const size_t length = chunk * chunks;
    const int fd = memfd_create("zeros", 0);
    if (fd < 0 || ftruncate(fd, static_cast<off_t>(chunk)) != 0)
        GTEST_SKIP() << "no memfd";
    char *base = static_cast<char *>(mmap(nullptr, length, PROT_NONE, MAP_PRIVATE | MAP_ANONYMOUS | MAP_NORESERVE, -1, 0));
    ASSERT_NE(base, MAP_FAILED);
    for (int i = 0; i < chunks; ++i)
        ASSERT_NE(mmap(base + i * chunk, chunk, PROT_READ, MAP_SHARED | MAP_FIXED, fd, 0), MAP_FAILED);
    const unsigned long long expected = ~multiplyModP(~0ULL, xPowerModP(8 * length));
    EXPECT_EQ(qChecksum64Update(0, base, length), expected);
    EXPECT_EQ(qChecksum64Update(0, base, 1000), ~multiplyModP(~0ULL, xPowerModP(8 * 1000)));
    munmap(base, length);
    close(fd);
}
