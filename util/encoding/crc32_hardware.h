// SPDX-License-Identifier: Apache-2.0
// crc32_hardware.h - CRC-32 by the processor's own means: one file an architecture, crc32_hardware_*.cpp.
#ifndef LIBCOMMON_UTIL_ENCODING_CRC32_HARDWARE_H
#define LIBCOMMON_UTIL_ENCODING_CRC32_HARDWARE_H

#include <cstddef>
#include <cstdint>

namespace crc {

// Carries *sum, inverted as within the computation, on over a first part of the bytes; returns how many. 0, and *sum
// left alone, where the processor has not the means or the part would be too short to be worth it.
std::size_t by_hardware(std::uint32_t *sum, const unsigned char *buf, std::size_t len);

} // namespace crc

#endif
