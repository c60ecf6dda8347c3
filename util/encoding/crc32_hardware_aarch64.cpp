// SPDX-License-Identifier: Apache-2.0
// CRC-32 by the processor's instruction, 8 bytes at a time. It has a latency of several cycles and a throughput of one
// per cycle, so three parts of a block are summed in parallel and then combined.
#if defined(__aarch64__)
#include "util/encoding/crc32_hardware.h"
#include "util/encoding/crc_slices.h"

#include <array>
#include <cstring>
#include <sys/auxv.h>

namespace qv::crc {
namespace {

constexpr unsigned long kHasCrc32 = 1 << 7; // HWCAP_CRC32
constexpr std::size_t kPart = 1024;         // bytes of each of a block's three parts
constexpr std::size_t kLeast = 16;

__attribute__((target("+crc"))) std::uint32_t add_word(std::uint32_t sum, const unsigned char *at)
{
    std::uint64_t word;
    std::memcpy(&word, at, sizeof word);
    return __builtin_aarch64_crc32x(sum, word);
}

// Extending a sum by zero bytes is linear in the sum: with a table for each of its four bytes it takes four look-ups.
constexpr std::uint32_t over_zeros(std::uint32_t sum, std::size_t bytes)
{
    for (std::size_t bit = 0; bit < bytes * 8; bit++)
        sum = (sum & 1) != 0 ? kPolynomial32 ^ (sum >> 1) : sum >> 1;
    return sum;
}

using skip_table = std::array<std::array<std::uint32_t, 256>, 4>;

// Composed from the 32 single bits, so that the compiler has little to evaluate.
constexpr skip_table make_skip(std::size_t bytes)
{
    std::array<std::uint32_t, 32> bits{};
    for (unsigned i = 0; i < 32; i++)
        bits[i] = over_zeros(1U << i, bytes);
    skip_table table{};
    for (unsigned byte = 0; byte < 4; byte++) {
        for (unsigned value = 0; value < 256; value++) {
            std::uint32_t sum = 0;
            for (unsigned bit = 0; bit < 8; bit++)
                sum ^= (value >> bit & 1) != 0 ? bits[byte * 8 + bit] : 0;
            table[byte][value] = sum;
        }
    }
    return table;
}

constexpr skip_table kSkipPart = make_skip(kPart);

std::uint32_t skip_part(std::uint32_t sum)
{
    return kSkipPart[0][sum & 0xFF] ^ kSkipPart[1][sum >> 8 & 0xFF] ^ kSkipPart[2][sum >> 16 & 0xFF] ^
           kSkipPart[3][sum >> 24];
}

std::uint32_t add_block(std::uint32_t sum, const unsigned char *buf)
{
    std::uint32_t second = 0;
    std::uint32_t third = 0;
    for (std::size_t i = 0; i < kPart; i += 8) {
        sum = add_word(sum, buf + i);
        second = add_word(second, buf + kPart + i);
        third = add_word(third, buf + 2 * kPart + i);
    }
    return skip_part(skip_part(sum) ^ second) ^ third;
}

bool has_crc32()
{
    return (::getauxval(AT_HWCAP) & kHasCrc32) != 0;
}

} // namespace

std::size_t extend_by_hardware(std::uint32_t *sum, const unsigned char *buf, std::size_t len)
{
    if (len < kLeast || !has_crc32())
        return 0;
    std::size_t done = 0;
    for (; len - done >= 3 * kPart; done += 3 * kPart)
        *sum = add_block(*sum, buf + done);
    for (; len - done >= 8; done += 8)
        *sum = add_word(*sum, buf + done);
    return done;
}

} // namespace qv::crc
#endif
