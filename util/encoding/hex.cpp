// SPDX-License-Identifier: Apache-2.0
// Bytes as hexadecimal text.
#include "encoding.h"

#include <cstddef>

extern "C" int hex_to_str(const unsigned char *src, char *dst, unsigned int len, unsigned int dstlen)
{
    static constexpr char kDigits[] = "0123456789abcdef";
    // In 64 bits, where twice the length cannot overflow.
    if (dstlen <= uint64_t{len} * 2)
        return -1;
    for (std::size_t i = 0; i < len; i++) {
        dst[2 * i] = kDigits[src[i] >> 4];
        dst[2 * i + 1] = kDigits[src[i] & 0xF];
    }
    dst[std::size_t{2} * len] = '\0';
    return static_cast<int>(2 * len + 1);
}
