// SPDX-License-Identifier: Apache-2.0
// The two checksums. CRC-32 uses the processor's instructions first, and the tables for the remaining bytes.
#include "encoding.h"

#include "util/encoding/crc32_hardware.h"
#include "util/encoding/crc_slices.h"

using namespace qv;

extern "C" {

unsigned short qv_crc16(unsigned short start, const unsigned char *buf, unsigned int len)
{
    return crc::extend<std::uint16_t>(crc::kTables16, start, buf, len);
}

unsigned int qv_crc32(unsigned int start, const unsigned char *buf, size_t len)
{
    std::uint32_t sum = ~start;
    std::size_t done = crc::extend_by_hardware(&sum, buf, len);
    return ~crc::extend<std::uint32_t>(crc::kTables32, sum, buf + done, len - done);
}

} // extern "C"
