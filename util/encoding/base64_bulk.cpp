// SPDX-License-Identifier: Apache-2.0
// The portable code: two characters for each 12 bits when encoding, one table for each place when decoding.
#include "util/encoding/base64_bulk.h"

#include "util/encoding/base64_alphabet.h"
#include "util/encoding/base64_vector.h"

#include <array>
#include <cstdint>
#include <cstring>

namespace qv::base64 {
namespace {

// The two characters of each 12 bits.
struct pair {
    char characters[2];
};
constexpr std::array<pair, 4096> kPairs = [] {
    std::array<pair, 4096> pairs{};
    for (std::size_t i = 0; i < pairs.size(); i++)
        pairs[i] = {{kAlphabet[i >> 6], kAlphabet[i & 63]}};
    return pairs;
}();

constexpr std::uint32_t kBad = 0x80000000; // a bit that no 24 bits of data reach

// What a character in each place of a group adds to its 24 bits.
using place_table = std::array<std::uint32_t, 256>;
constexpr std::array<place_table, 4> kPlaces = [] {
    std::array<place_table, 4> places{};
    for (unsigned place = 0; place < 4; place++) {
        places[place].fill(kBad);
        for (std::uint32_t value = 0; value < 64; value++)
            places[place][static_cast<unsigned char>(kAlphabet[value])] = value << (18 - 6 * place);
    }
    return places;
}();

std::uint32_t group_value(const unsigned char *text)
{
    return kPlaces[0][text[0]] | kPlaces[1][text[1]] | kPlaces[2][text[2]] | kPlaces[3][text[3]];
}

} // namespace

void encode_groups(const unsigned char *src, std::size_t groups, char *out)
{
    std::size_t done = encode_vectors(src, groups, out);
    src += done * 3;
    out += done * 4;
    for (groups -= done; groups > 0; groups--, src += 3, out += 4) {
        std::uint32_t bits = std::uint32_t{src[0]} << 16 | std::uint32_t{src[1]} << 8 | src[2];
        std::memcpy(out, kPairs[bits >> 12].characters, 2);
        std::memcpy(out + 2, kPairs[bits & 0xFFF].characters, 2);
    }
}

std::size_t decode_groups(const char *src, std::size_t groups, unsigned char *out)
{
    std::size_t done = decode_vectors(src, groups, out);
    for (; done < groups; done++) {
        std::uint32_t bits = group_value(reinterpret_cast<const unsigned char *>(src) + done * 4);
        if ((bits & kBad) != 0)
            break;
        unsigned char *to = out + done * 3;
        to[0] = static_cast<unsigned char>(bits >> 16);
        to[1] = static_cast<unsigned char>(bits >> 8);
        to[2] = static_cast<unsigned char>(bits);
    }
    return done;
}

} // namespace qv::base64
