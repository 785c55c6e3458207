#ifndef DATABASE_CHECKSUM_H
#define DATABASE_CHECKSUM_H

#include "database_export.h"

#include <cstddef>

// The 64-bit companion of qChecksum: CRC-64 with the ECMA-182 polynomial,
// MSB first, initial value and final XOR all ones (check value of "123456789"
// is 0x62EC59E3F1A4F00A). A length of 0 answers 0 without reading `data`.
// Reentrant.
DATABASE_EXPORT unsigned long long qChecksum64(const char *data, unsigned int length);

// The same checksum, continued: `crc` is the checksum of the bytes before
// `data` (0 for none), so qChecksum64Update(qChecksum64Update(0, a, n), b, m)
// is the checksum of a followed by b, and qChecksum64Update(0, data, n)
// equals qChecksum64(data, n). Any length, 4 GiB and more included.
DATABASE_EXPORT unsigned long long qChecksum64Update(unsigned long long crc, const char *data, std::size_t length);

#endif // DATABASE_CHECKSUM_H
