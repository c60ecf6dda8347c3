// SPDX-License-Identifier: Apache-2.0
// Base64 with AVX2: 24 bytes to 32 characters at a step, and back.
#if defined(__x86_64__)
#include "util/encoding/base64_vector.h"

#include <cstring>
#include <immintrin.h>

namespace qv::base64 {
namespace {

constexpr std::size_t kGroups = 8; // a vector of 32 characters
#define AVX2 __attribute__((target("avx2")))

bool has_avx2()
{
    __builtin_cpu_init(); // a caller may run before libgcc's constructor; a second call returns at once
    return __builtin_cpu_supports("avx2") != 0;
}

// Two blocks of 12 bytes, each at the low end of a 128-bit lane. The second load starts 4 bytes early, so that no load
// reads after the 24 bytes.
AVX2 __m256i load_24(const unsigned char *src)
{
    __m128i low = _mm_loadu_si128(reinterpret_cast<const __m128i *>(src));
    __m128i high = _mm_srli_si128(_mm_loadu_si128(reinterpret_cast<const __m128i *>(src + 8)), 4);
    return _mm256_set_m128i(high, low);
}

// Splits the bytes a, b, c of each group into four 6-bit values, one in each byte.
AVX2 __m256i split(__m256i bytes)
{
    // Each 32-bit word gets b a c b, so that every value lies within one of its 16-bit halves: a:b holds the first two
    // shifted, b:c the last two.
    const __m256i order = _mm256_setr_epi8(1, 0, 2, 1, 4, 3, 5, 4, 7, 6, 8, 7, 10, 9, 11, 10, //
                                           1, 0, 2, 1, 4, 3, 5, 4, 7, 6, 8, 7, 10, 9, 11, 10);
    __m256i words = _mm256_shuffle_epi8(bytes, order);
    // The low half is a:b as a number, the high half b:c. Values 0 and 2 are shifted right to the low byte of their
    // half by a multiplication that keeps the high word; values 1 and 3 left to the high byte by one that keeps the low
    // word.
    __m256i even =
        _mm256_mulhi_epu16(_mm256_and_si256(words, _mm256_set1_epi32(0x0FC0FC00)), _mm256_set1_epi32(0x04000040));
    __m256i odd =
        _mm256_mullo_epi16(_mm256_and_si256(words, _mm256_set1_epi32(0x003F03F0)), _mm256_set1_epi32(0x01000010));
    return _mm256_or_si256(even, odd);
}

// Each value's character: the value plus a distance that depends on which of the alphabet's five runs it is in.
AVX2 __m256i to_characters(__m256i values)
{
    const __m256i distances = _mm256_setr_epi8('a' - 26, '0' - 52, '0' - 52, '0' - 52, '0' - 52, '0' - 52, '0' - 52,
                                               '0' - 52, '0' - 52, '0' - 52, '0' - 52, '+' - 62, '/' - 63, 'A', 0, 0, //
                                               'a' - 26, '0' - 52, '0' - 52, '0' - 52, '0' - 52, '0' - 52, '0' - 52,
                                               '0' - 52, '0' - 52, '0' - 52, '0' - 52, '+' - 62, '/' - 63, 'A', 0, 0);
    // Values 52 to 63 have places 1 to 12; 26 to 51 share place 0; those below 26 get place 13.
    __m256i place = _mm256_subs_epu8(values, _mm256_set1_epi8(51));
    __m256i is_capital = _mm256_cmpgt_epi8(_mm256_set1_epi8(26), values);
    place = _mm256_or_si256(place, _mm256_and_si256(is_capital, _mm256_set1_epi8(13)));
    return _mm256_add_epi8(values, _mm256_shuffle_epi8(distances, place));
}

AVX2 std::size_t encode_avx2(const unsigned char *src, std::size_t groups, char *out)
{
    std::size_t done = 0;
    for (; groups - done >= kGroups; done += kGroups, src += kGroups * 3, out += kGroups * 4)
        _mm256_storeu_si256(reinterpret_cast<__m256i *>(out), to_characters(split(load_24(src))));
    return done;
}

AVX2 __m256i in_range(__m256i text, char first, char last)
{
    return _mm256_and_si256(_mm256_cmpgt_epi8(text, _mm256_set1_epi8(static_cast<char>(first - 1))),
                            _mm256_cmpgt_epi8(_mm256_set1_epi8(static_cast<char>(last + 1)), text));
}

// The distance where the mask is set.
AVX2 __m256i masked(__m256i mask, int distance)
{
    return _mm256_and_si256(mask, _mm256_set1_epi8(static_cast<char>(distance)));
}

// Each character's value; false when one is outside the alphabet. Bytes from 128 up are negative and so in no range.
AVX2 bool to_values(__m256i text, __m256i *values)
{
    __m256i capital = in_range(text, 'A', 'Z');
    __m256i small = in_range(text, 'a', 'z');
    __m256i digit = in_range(text, '0', '9');
    __m256i plus = _mm256_cmpeq_epi8(text, _mm256_set1_epi8('+'));
    __m256i slash = _mm256_cmpeq_epi8(text, _mm256_set1_epi8('/'));
    __m256i known =
        _mm256_or_si256(_mm256_or_si256(capital, small), _mm256_or_si256(_mm256_or_si256(digit, plus), slash));
    if (_mm256_movemask_epi8(known) != -1)
        return false;
    __m256i distance = _mm256_or_si256(
        _mm256_or_si256(masked(capital, -'A'), masked(small, 26 - 'a')),
        _mm256_or_si256(_mm256_or_si256(masked(digit, 52 - '0'), masked(plus, 62 - '+')), masked(slash, 63 - '/')));
    *values = _mm256_add_epi8(text, distance);
    return true;
}

// Four 6-bit values of each 32-bit word become 3 bytes, packed to 12 at the low end of each 128-bit lane.
AVX2 __m256i join(__m256i values)
{
    __m256i twelve = _mm256_maddubs_epi16(values, _mm256_set1_epi32(0x01400140));   // v0 * 64 + v1, v2 * 64 + v3
    __m256i twenty_four = _mm256_madd_epi16(twelve, _mm256_set1_epi32(0x00011000)); // first * 4096 + second
    const __m256i order = _mm256_setr_epi8(2, 1, 0, 6, 5, 4, 10, 9, 8, 14, 13, 12, -1, -1, -1, -1, //
                                           2, 1, 0, 6, 5, 4, 10, 9, 8, 14, 13, 12, -1, -1, -1, -1);
    return _mm256_shuffle_epi8(twenty_four, order);
}

AVX2 std::size_t decode_avx2(const char *src, std::size_t groups, unsigned char *out)
{
    std::size_t done = 0;
    for (; groups - done >= kGroups; done += kGroups, src += kGroups * 4, out += kGroups * 3) {
        __m256i values;
        if (!to_values(_mm256_loadu_si256(reinterpret_cast<const __m256i *>(src)), &values))
            break;
        // The first store writes four bytes too many. The second half overwrites them and writes exactly its 12 bytes.
        __m256i bytes = join(values);
        __m128i high = _mm256_extracti128_si256(bytes, 1);
        _mm_storeu_si128(reinterpret_cast<__m128i *>(out), _mm256_castsi256_si128(bytes));
        _mm_storel_epi64(reinterpret_cast<__m128i *>(out + 12), high);
        int last = _mm_extract_epi32(high, 2);
        std::memcpy(out + 20, &last, sizeof last);
    }
    return done;
}

#undef AVX2

} // namespace

std::size_t encode_vectors(const unsigned char *src, std::size_t groups, char *out)
{
    return groups >= kGroups && has_avx2() ? encode_avx2(src, groups, out) : 0;
}

std::size_t decode_vectors(const char *src, std::size_t groups, unsigned char *out)
{
    return groups >= kGroups && has_avx2() ? decode_avx2(src, groups, out) : 0;
}

} // namespace qv::base64
#endif
