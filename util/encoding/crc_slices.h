// SPDX-License-Identifier: Apache-2.0
// crc_slices.h - reflected checksums by tables, eight bytes at a time.
#ifndef LIBCOMMON_UTIL_ENCODING_CRC_SLICES_H
#define LIBCOMMON_UTIL_ENCODING_CRC_SLICES_H

#include <array>
#include <cstddef>
#include <cstdint>

namespace qv::crc {

constexpr std::uint16_t kPolynomial16 = 0xA001;
constexpr std::uint32_t kPolynomial32 = 0xEDB88320;
constexpr std::size_t kStride = 8;

// tables[k][b]: the sum of the byte b followed by k zero bytes.
template <typename Sum, Sum Polynomial>
constexpr std::array<std::array<Sum, 256>, kStride> make_tables()
{
    std::array<std::array<Sum, 256>, kStride> tables{};
    for (unsigned byte = 0; byte < 256; byte++) {
        Sum sum = static_cast<Sum>(byte);
        for (int bit = 0; bit < 8; bit++)
            sum = static_cast<Sum>((sum & 1) != 0 ? Polynomial ^ (sum >> 1) : sum >> 1);
        tables[0][byte] = sum;
    }
    for (std::size_t k = 1; k < kStride; k++) {
        for (unsigned byte = 0; byte < 256; byte++) {
            Sum before = tables[k - 1][byte];
            tables[k][byte] = static_cast<Sum>(tables[0][before & 0xFF] ^ (before >> 8));
        }
    }
    return tables;
}

inline constexpr auto kTables16 = make_tables<std::uint16_t, kPolynomial16>();
inline constexpr auto kTables32 = make_tables<std::uint32_t, kPolynomial32>();

static_assert(kTables16[0][1] == 0xC0C1 && kTables32[0][1] == 0x77073096);

// Extends a sum over more bytes, eight at a time. Each byte uses the table for its distance from the end of the eight,
// so the look-ups are independent; in a byte-wise loop each waits for the one before.
template <typename Sum>
Sum extend(const std::array<std::array<Sum, 256>, kStride> &tables, Sum sum, const unsigned char *buf, std::size_t len)
{
    for (; len >= kStride; len -= kStride, buf += kStride) {
        std::uint64_t bytes = 0;
        for (std::size_t i = 0; i < kStride; i++)
            bytes |= std::uint64_t{buf[i]} << (8 * i);
        auto extended = [&](std::size_t i, std::uint64_t of) {
            return tables[kStride - 1 - i][(of >> (8 * i)) & 0xFF];
        };
        // The previous sum affects only the first bytes. The others are summed first, without waiting for it.
        Sum more = 0;
        for (std::size_t i = sizeof sum; i < kStride; i++)
            more = static_cast<Sum>(more ^ extended(i, bytes));
        const std::uint64_t met = bytes ^ sum;
        for (std::size_t i = 0; i < sizeof sum; i++)
            more = static_cast<Sum>(more ^ extended(i, met));
        sum = more;
    }
    for (; len > 0; len--, buf++)
        sum = static_cast<Sum>(tables[0][(sum ^ *buf) & 0xFF] ^ (sum >> 8));
    return sum;
}

} // namespace qv::crc

#endif
