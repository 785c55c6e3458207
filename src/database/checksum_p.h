#ifndef DATABASE_CHECKSUM_P_H
#define DATABASE_CHECKSUM_P_H

//
//  W A R N I N G
//  -------------
//
// This file is not part of the database API. It lets the tests run each CRC
// kernel on the same inputs, and may change from version to version without
// notice.
//

#include "database_export.h"

#include <cstddef>

namespace checksum_internal {

// Kernels by number: 0 eight bytes at a time through tables, 1 carry-less
// multiplication on 128-bit registers, 2 the same on 512-bit registers.
DATABASE_EXPORT int kernelCount();
DATABASE_EXPORT bool kernelAvailable(int kernel);
// qChecksum64Update through one kernel; -1 is the byte-at-a-time reference.
DATABASE_EXPORT unsigned long long checksumWith(int kernel, unsigned long long crc, const char *data,
                                                std::size_t length);

} // namespace checksum_internal

#endif // DATABASE_CHECKSUM_P_H
