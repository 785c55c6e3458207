#ifndef DATABASE_CHECKSUM_H
#define DATABASE_CHECKSUM_H

#include "database_export.h"

// The 64-bit companion of qChecksum: CRC-64 with the ECMA-182 polynomial,
// MSB first, initial value and final XOR all ones (check value of "123456789"
// is 0x62EC59E3F1A4F00A). A length of 0 answers 0 without reading `data`.
// Reentrant.
DATABASE_EXPORT unsigned long long qChecksum64(const char *data, unsigned int length);

#endif // DATABASE_CHECKSUM_H
