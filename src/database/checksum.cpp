#include "checksum.h"
#include "checksum_p.h"

#include <array>
#include <cstdint>
#include <cstring>

#if defined(__x86_64__) && defined(__GNUC__)
#include <immintrin.h>
#define DATABASE_CRC_CLMUL 1
#endif

// Three kernels give the same CRC: byte-at-a-time tables (the reference and
// the short-input path), eight tables for eight bytes at a time, and
// carry-less multiplication folding 128-bit blocks, chosen at run time by
// what the processor offers.
//
// The CRC is MSB first: the message is a polynomial whose first byte holds
// the highest powers, and the checksum is (register * x^(8n) + message *
// x^64) mod P. Folding keeps the message as a few 128-bit values congruent
// to it modulo P: A * x^D = A_hi * (x^(D+64) mod P) + A_lo * (x^D mod P).

namespace {

constexpr std::uint64_t polynomial = 0x42F0E1EBA9EA3693ULL;

struct Tables
{
    std::uint64_t t[8][256];
};

constexpr Tables makeTables()
{
    Tables tables{};
    for (unsigned i = 0; i < 256; ++i) {
        std::uint64_t crc = static_cast<std::uint64_t>(i) << 56;
        for (int bit = 0; bit < 8; ++bit)
            crc = (crc & (1ULL << 63)) ? (crc << 1) ^ polynomial : crc << 1;
        tables.t[0][i] = crc;
    }
    // t[k][b]: byte b followed by k zero bytes.
    for (int k = 1; k < 8; ++k) {
        for (unsigned i = 0; i < 256; ++i) {
            const std::uint64_t previous = tables.t[k - 1][i];
            tables.t[k][i] = (previous << 8) ^ tables.t[0][previous >> 56];
        }
    }
    return tables;
}

constexpr Tables tables = makeTables();
static_assert(tables.t[0][1] == polynomial && tables.t[0][2] == 0x85E1C3D753D46D26ULL
                  && tables.t[0][255] == 0x9AFCE626CE85B507ULL,
              "CRC-64 table");

// The register after `length` more bytes, one at a time.
inline std::uint64_t bytewise(std::uint64_t crc, const unsigned char *bytes, std::size_t length)
{
    for (std::size_t i = 0; i < length; ++i)
        crc = tables.t[0][(crc >> 56) ^ bytes[i]] ^ (crc << 8);
    return crc;
}

inline std::uint64_t loadBigEndian(const unsigned char *p)
{
    std::uint64_t word;
    std::memcpy(&word, p, 8);
    return __builtin_bswap64(word);
}

std::uint64_t sliced(std::uint64_t crc, const unsigned char *bytes, std::size_t length)
{
    const auto &t = tables.t;
    for (; length >= 8; bytes += 8, length -= 8) {
        const std::uint64_t c = crc ^ loadBigEndian(bytes);
        crc = t[7][c >> 56] ^ t[6][(c >> 48) & 0xFF] ^ t[5][(c >> 40) & 0xFF] ^ t[4][(c >> 32) & 0xFF]
            ^ t[3][(c >> 24) & 0xFF] ^ t[2][(c >> 16) & 0xFF] ^ t[1][(c >> 8) & 0xFF] ^ t[0][c & 0xFF];
    }
    return bytewise(crc, bytes, length);
}

#ifdef DATABASE_CRC_CLMUL

// x^d mod P.
constexpr std::uint64_t xPower(int d)
{
    std::uint64_t r = 1;
    for (int i = 0; i < d; ++i)
        r = (r & (1ULL << 63)) ? (r << 1) ^ polynomial : r << 1;
    return r;
}

// The folding constants for a distance of d bits: x^d (low) and x^(d+64)
// (high) modulo P.
struct Fold
{
    std::uint64_t low;
    std::uint64_t high;
};
constexpr Fold fold128{xPower(128), xPower(192)};
constexpr Fold fold1024{xPower(1024), xPower(1088)};
constexpr Fold fold4096{xPower(4096), xPower(4160)};

// The register after the 16 bytes of `block` (big-endian: bit 127 first) and
// then `tail`, starting from 0.
__attribute__((target("sse4.1"))) std::uint64_t finish(__m128i block, const unsigned char *tail, std::size_t length)
{
    unsigned char bytes[16];
    const std::uint64_t high = static_cast<std::uint64_t>(_mm_extract_epi64(block, 1));
    const std::uint64_t low = static_cast<std::uint64_t>(_mm_extract_epi64(block, 0));
    const std::uint64_t h = __builtin_bswap64(high), l = __builtin_bswap64(low);
    std::memcpy(bytes, &h, 8);
    std::memcpy(bytes + 8, &l, 8);
    return sliced(sliced(0, bytes, 16), tail, length);
}

// 16 bytes as a big-endian 128-bit value: the first byte in bits 127..120.
__attribute__((target("sse4.1,ssse3"))) inline __m128i load128(const unsigned char *p)
{
    const __m128i reverse = _mm_set_epi8(0, 1, 2, 3, 4, 5, 6, 7, 8, 9, 10, 11, 12, 13, 14, 15);
    return _mm_shuffle_epi8(_mm_loadu_si128(reinterpret_cast<const __m128i *>(p)), reverse);
}

__attribute__((target("pclmul,sse4.1,ssse3"))) inline __m128i fold(__m128i a, __m128i k)
{
    return _mm_xor_si128(_mm_clmulepi64_si128(a, k, 0x11), _mm_clmulepi64_si128(a, k, 0x00));
}

__attribute__((target("pclmul,sse4.1,ssse3"))) __m128i foldRest(__m128i acc, const unsigned char *&bytes,
                                                                 std::size_t &length)
{
    const __m128i k = _mm_set_epi64x(static_cast<long long>(fold128.high), static_cast<long long>(fold128.low));
    for (; length >= 16; bytes += 16, length -= 16)
        acc = _mm_xor_si128(fold(acc, k), load128(bytes));
    return acc;
}

// Folds `count` 128-bit values that stand in message order into one, then
// the whole 16-byte blocks left of the input, and finishes with its tail.
__attribute__((target("pclmul,sse4.1,ssse3"))) std::uint64_t foldAndFinish(const __m128i *values, int count,
                                                                            const unsigned char *bytes,
                                                                            std::size_t length)
{
    const __m128i k = _mm_set_epi64x(static_cast<long long>(fold128.high), static_cast<long long>(fold128.low));
    __m128i acc = values[0];
    for (int j = 1; j < count; ++j)
        acc = _mm_xor_si128(fold(acc, k), values[j]);
    acc = foldRest(acc, bytes, length);
    return finish(acc, bytes, length);
}

// REQUIRES: length >= 128.
__attribute__((target("pclmul,sse4.1,ssse3"))) std::uint64_t clmul(std::uint64_t crc, const unsigned char *bytes,
                                                                    std::size_t length)
{
    __m128i x[8];
    for (int j = 0; j < 8; ++j)
        x[j] = load128(bytes + 16 * j);
    // The register enters as if XOR-ed into the first eight bytes.
    x[0] = _mm_xor_si128(x[0], _mm_set_epi64x(static_cast<long long>(crc), 0));
    bytes += 128;
    length -= 128;
    const __m128i k8 = _mm_set_epi64x(static_cast<long long>(fold1024.high), static_cast<long long>(fold1024.low));
    for (; length >= 128; bytes += 128, length -= 128) {
        for (int j = 0; j < 8; ++j)
            x[j] = _mm_xor_si128(fold(x[j], k8), load128(bytes + 16 * j));
    }
    return foldAndFinish(x, 8, bytes, length);
}

// REQUIRES: length >= 512.
__attribute__((target("avx512f,avx512bw,vpclmulqdq,pclmul,sse4.1,ssse3"))) std::uint64_t
clmul512(std::uint64_t crc, const unsigned char *bytes, std::size_t length)
{
    const __m512i reverse = _mm512_maskz_broadcast_i32x4(0xFFFF, _mm_set_epi8(0, 1, 2, 3, 4, 5, 6, 7, 8, 9, 10, 11, 12, 13, 14, 15));
#define load(p) _mm512_shuffle_epi8(_mm512_loadu_si512(p), reverse)
    __m512i z[8];
    for (int j = 0; j < 8; ++j)
        z[j] = load(bytes + 64 * j);
    z[0] = _mm512_xor_si512(z[0], _mm512_maskz_broadcast_i32x4(0x000F, _mm_set_epi64x(static_cast<long long>(crc), 0)));
    bytes += 512;
    length -= 512;
    const __m512i k = _mm512_maskz_broadcast_i32x4(0xFFFF, 
        _mm_set_epi64x(static_cast<long long>(fold4096.high), static_cast<long long>(fold4096.low)));
    for (; length >= 512; bytes += 512, length -= 512) {
        for (int j = 0; j < 8; ++j) {
            const __m512i high = _mm512_clmulepi64_epi128(z[j], k, 0x11);
            const __m512i low = _mm512_clmulepi64_epi128(z[j], k, 0x00);
            z[j] = _mm512_ternarylogic_epi64(high, low, load(bytes + 64 * j), 0x96);
        }
    }
#undef load
    // The 32 lanes are in message order.
    alignas(64) __m128i lanes[32];
    for (int j = 0; j < 8; ++j)
        _mm512_store_si512(lanes + 4 * j, z[j]);
    return foldAndFinish(lanes, 32, bytes, length);
}

enum class Kernel { Sliced, Clmul, Clmul512 };

Kernel bestKernel()
{
    __builtin_cpu_init();
    if (__builtin_cpu_supports("avx512f") && __builtin_cpu_supports("avx512bw")
        && __builtin_cpu_supports("vpclmulqdq") && __builtin_cpu_supports("pclmul"))
        return Kernel::Clmul512;
    if (__builtin_cpu_supports("pclmul") && __builtin_cpu_supports("sse4.1"))
        return Kernel::Clmul;
    return Kernel::Sliced;
}

const Kernel kernel = bestKernel();

#endif // DATABASE_CRC_CLMUL

std::uint64_t update(std::uint64_t crc, const unsigned char *bytes, std::size_t length, int choice)
{
#ifdef DATABASE_CRC_CLMUL
    const Kernel k = choice < 0 ? kernel : static_cast<Kernel>(choice);
    if (k == Kernel::Clmul512 && length >= 512)
        return clmul512(crc, bytes, length);
    if (k != Kernel::Sliced && length >= 128)
        return clmul(crc, bytes, length);
#else
    (void)choice;
#endif
    return sliced(crc, bytes, length);
}

} // namespace

unsigned long long qChecksum64(const char *data, unsigned int length)
{
    return qChecksum64Update(0, data, length);
}

unsigned long long qChecksum64Update(unsigned long long crc, const char *data, std::size_t length)
{
    if (length == 0)
        return crc;
    return ~update(~crc, reinterpret_cast<const unsigned char *>(data), length, -1);
}

namespace checksum_internal {

int kernelCount()
{
#ifdef DATABASE_CRC_CLMUL
    return 3;
#else
    return 1;
#endif
}

bool kernelAvailable(int kernelNumber)
{
#ifdef DATABASE_CRC_CLMUL
    return kernelNumber <= static_cast<int>(kernel);
#else
    return kernelNumber == 0;
#endif
}

unsigned long long checksumWith(int kernelNumber, unsigned long long crc, const char *data, std::size_t length)
{
    if (kernelNumber == -1)
        return ~bytewise(~crc, reinterpret_cast<const unsigned char *>(data), length);
    return ~update(~crc, reinterpret_cast<const unsigned char *>(data), length, kernelNumber);
}

} // namespace checksum_internal
