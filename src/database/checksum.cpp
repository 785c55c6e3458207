#include "checksum.h"

#include <array>

namespace {

constexpr unsigned long long polynomial = 0x42F0E1EBA9EA3693ULL;

constexpr std::array<unsigned long long, 256> makeTable()
{
    std::array<unsigned long long, 256> table{};
    for (unsigned i = 0; i < 256; ++i) {
        unsigned long long crc = static_cast<unsigned long long>(i) << 56;
        for (int bit = 0; bit < 8; ++bit)
            crc = (crc & (1ULL << 63)) ? (crc << 1) ^ polynomial : crc << 1;
        table[i] = crc;
    }
    return table;
}

constexpr std::array<unsigned long long, 256> table = makeTable();
static_assert(table[1] == polynomial && table[255] == 0x9AFCE626CE85B507ULL, "CRC-64 table");

} // namespace

unsigned long long qChecksum64(const char *data, unsigned int length)
{
    return qChecksum64Update(0, data, length);
}

unsigned long long qChecksum64Update(unsigned long long crc, const char *data, std::size_t length)
{
    if (length == 0)
        return crc;
    const unsigned char *bytes = reinterpret_cast<const unsigned char *>(data);
    crc = ~crc;
    for (std::size_t i = 0; i < length; ++i)
        crc = table[(crc >> 56) ^ bytes[i]] ^ (crc << 8);
    return ~crc;
}
