// SPDX-License-Identifier: Apache-2.0
// crc32_hardware.h - CRC-32 by the processor's instructions: one file for each architecture, crc32_hardware_*.cpp.
#ifndef LIBCOMMON_UTIL_ENCODING_CRC32_HARDWARE_H
#define LIBCOMMON_UTIL_ENCODING_CRC32_HARDWARE_H

#include <cstddef>
#include <cstdint>

namespace qv::crc {

// Extends *sum, in its inverted form, over a first part of the bytes. Returns the length of that part: 0, with *sum
// unchanged, when the processor lacks the instructions or the input is too short to gain from them.
std::size_t extend_by_hardware(std::uint32_t *sum, const unsigned char *buf, std::size_t len);

} // namespace qv::crc

#endif
