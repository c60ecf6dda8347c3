// SPDX-License-Identifier: Apache-2.0
// record_checksum.h - the checksum by which a kept frame rule recognises its unwind description.
#ifndef LIBCOMMON_MEM_RECORD_CHECKSUM_H
#define LIBCOMMON_MEM_RECORD_CHECKSUM_H

#include <array>
#include <cstddef>
#include <cstdint>
#include <cstring>

namespace qv::frame_rules {

// Powers of an odd number, so a change of one word always changes a sum of products.
inline constexpr std::size_t kPowers = 16;
inline constexpr auto kPower = [] {
    std::array<std::uint64_t, kPowers> powers{};
    std::uint64_t power = 1;
    for (std::uint64_t &each : powers)
        each = power *= 0x9e3779b97f4a7c15;
    return powers;
}();

// Continues a checksum over a record, whose size is a multiple of 4. A polynomial of the words: each has another power.
// The products of a block do not depend on each other.
inline std::uint64_t checksum_of_words(const void *record, std::size_t size, std::uint64_t sum)
{
    const auto *at = static_cast<const unsigned char *>(record);
    std::size_t i = 0;
    for (; size >= sizeof(std::uint64_t); at += sizeof(std::uint64_t), size -= sizeof(std::uint64_t)) {
        if (i == kPowers) {
            sum *= kPower.back();
            i = 0;
        }
        std::uint64_t word;
        std::memcpy(&word, at, sizeof word);
        sum += word * kPower[i++];
    }
    sum *= kPower.back();
    if (size == 0)
        return sum;
    std::uint32_t last;
    std::memcpy(&last, at, sizeof last);
    return (sum ^ last) * kPower[2];
}

} // namespace qv::frame_rules

#endif
