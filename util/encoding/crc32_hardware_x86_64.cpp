// SPDX-License-Identifier: Apache-2.0
// CRC-32 by carry-less multiplication.
//
// The bytes are a polynomial over the two-element field; the sum is its remainder modulo P. A 16-byte block with n bits
// between it and a later block is folded into that block: its two halves, multiplied by x^(n+64) and x^n modulo P, are
// added there, which keeps the remainder. Four blocks are folded in parallel, which hides the multiplier's latency. The
// last 16-byte block goes through the tables.
//
// Everything is in the reflected order of this checksum, where bit 0 of the first byte is the highest power. The
// product of two reflected 64-bit numbers comes out one place short, so the constants hold x^(n-1) instead of x^n.
#if defined(__x86_64__)
#include "util/encoding/crc32_hardware.h"
#include "util/encoding/crc_slices.h"

#include <immintrin.h>

namespace qv::crc {
namespace {

constexpr std::size_t kBlock = 16;
constexpr std::size_t kLanes = 4;
constexpr std::size_t kLeast = kLanes * kBlock;

// x^n modulo P, reflected: bit 31 is the power 0. In the low half of a 64-bit factor it means x^n times x^32.
constexpr std::uint64_t power(unsigned n)
{
    std::uint32_t value = 0x80000000; // 1
    for (; n > 0; n--)
        value = (value & 1) != 0 ? kPolynomial32 ^ (value >> 1) : value >> 1;
    return value;
}

// The factors that move a block's halves by a number of bits. A 32-bit constant in the low half of a 64-bit factor adds
// 32 powers, and the reflected product is one place short: 33 less in all.
struct multipliers {
    std::uint64_t first;  // for bytes 0 to 7, the higher powers
    std::uint64_t second; // for bytes 8 to 15
};
constexpr multipliers moving(unsigned bits)
{
    return {power(bits + 64 - 33), power(bits - 33)};
}

constexpr multipliers kFourBlocks = moving(kLanes * kBlock * 8);
constexpr multipliers kOneBlock = moving(kBlock * 8);

// The three-operand encodings of AVX let the loop run at the multiplier's throughput; without them it runs at half.
#define CLMUL __attribute__((target("pclmul,avx")))

CLMUL __m128i load(const unsigned char *at)
{
    return _mm_loadu_si128(reinterpret_cast<const __m128i *>(at));
}

CLMUL __m128i constants(multipliers by)
{
    return _mm_set_epi64x(static_cast<long long>(by.second), static_cast<long long>(by.first));
}

// The block, moved, plus the later block.
CLMUL __m128i fold(__m128i block, __m128i by, __m128i later)
{
    __m128i first = _mm_clmulepi64_si128(block, by, 0x00);
    __m128i second = _mm_clmulepi64_si128(block, by, 0x11);
    return _mm_xor_si128(_mm_xor_si128(first, second), later);
}

// Folds whole blocks into *sum; returns how many bytes they are.
CLMUL std::size_t extend_by_clmul(std::uint32_t *sum, const unsigned char *buf, std::size_t len)
{
    __m128i lanes[kLanes];
    for (std::size_t i = 0; i < kLanes; i++)
        lanes[i] = load(buf + i * kBlock);
    lanes[0] = _mm_xor_si128(lanes[0], _mm_cvtsi32_si128(static_cast<int>(*sum)));

    std::size_t done = kLanes * kBlock;
    const __m128i four = constants(kFourBlocks);
    for (; len - done >= kLanes * kBlock; done += kLanes * kBlock) {
        for (std::size_t i = 0; i < kLanes; i++)
            lanes[i] = fold(lanes[i], four, load(buf + done + i * kBlock));
    }
    const __m128i one = constants(kOneBlock);
    __m128i block = lanes[0];
    for (std::size_t i = 1; i < kLanes; i++)
        block = fold(block, one, lanes[i]);
    for (; len - done >= kBlock; done += kBlock)
        block = fold(block, one, load(buf + done));
    unsigned char rest[kBlock];
    _mm_storeu_si128(reinterpret_cast<__m128i *>(rest), block);
    *sum = extend<std::uint32_t>(kTables32, 0, rest, kBlock);
    return done;
}

#undef CLMUL

bool has_clmul()
{
    __builtin_cpu_init(); // a caller may run before libgcc's constructor; a second call returns at once
    return __builtin_cpu_supports("pclmul") != 0 && __builtin_cpu_supports("avx") != 0;
}

} // namespace

std::size_t extend_by_hardware(std::uint32_t *sum, const unsigned char *buf, std::size_t len)
{
    if (len < kLeast || !has_clmul())
        return 0;
    return extend_by_clmul(sum, buf, len);
}

} // namespace qv::crc
#endif
