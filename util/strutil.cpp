// SPDX-License-Identifier: Apache-2.0
// Bounded string copies, case-insensitive search, truncation of UTF-8 names.
#include "strutil.h"

#include <algorithm>
#include <cctype>
#include <cstring>
#include <strings.h>

// <string.h> declares two C++ overloads of strcasestr(), so the function is defined under another name, with the symbol
// given for the linker.
extern "C" QV_API char *find_ignoring_case(const char *haystack, const char *needle) __asm__("strcasestr");

namespace {

int lower(char c)
{
    return std::tolower(static_cast<unsigned char>(c));
}

} // namespace

extern "C" {

char *find_ignoring_case(const char *haystack, const char *needle)
{
    if (*needle == '\0')
        return const_cast<char *>(haystack);
    int first = lower(*needle);
    std::size_t rest = std::strlen(needle + 1);
    for (; *haystack != '\0'; haystack++) {
        if (lower(*haystack) == first && ::strncasecmp(haystack + 1, needle + 1, rest) == 0)
            return const_cast<char *>(haystack);
    }
    return nullptr;
}

size_t strlcpy(char *dst, const char *src, size_t size) QV_LIBC_THROW
{
    std::size_t length = std::strlen(src);
    if (size == 0)
        return length;
    std::size_t copied = std::min(length, size - 1);
    std::memcpy(dst, src, copied);
    dst[copied] = '\0';
    return length;
}

size_t strlcat(char *dst, const char *src, size_t size) QV_LIBC_THROW
{
    std::size_t length = ::strnlen(dst, size);
    return length + strlcpy(dst + length, src, size - length);
}

int get_utf8_byte_count_by_1st_byte(unsigned char b)
{
    if (b < 0xC0 || b > 0xFD)
        return 1;
    if (b < 0xE0)
        return 2;
    if (b < 0xF0)
        return 3;
    if (b < 0xF8)
        return 4;
    return b < 0xFC ? 5 : 6;
}

char *trim_utf8_name(char *dst, const char *src, size_t size)
{
    if (size == 0)
        return dst;
    // A buffer of one byte holds the terminator but no "~".
    if (size == 1 || std::strlen(src) < size) {
        strlcpy(dst, src, size);
        return dst;
    }
    // src is at least size bytes long, so the characters read, all below size - 1, lie within it.
    std::size_t p = 0;
    for (;;) {
        auto n = static_cast<std::size_t>(get_utf8_byte_count_by_1st_byte(static_cast<unsigned char>(src[p])));
        if (p + n >= size - 1)
            break;
        std::memcpy(dst + p, src + p, n);
        p += n;
    }
    dst[p] = '~';
    dst[p + 1] = '\0';
    return dst;
}

} // extern "C"
