// SPDX-License-Identifier: Apache-2.0
// Base64 with NEON: 48 bytes to 64 characters at a step, and back. The structure loads separate the groups' bytes.
#if defined(__aarch64__)
#include "util/encoding/base64_alphabet.h"
#include "util/encoding/base64_vector.h"

#include <arm_neon.h>
#include <cstdint>

namespace qv::base64 {
namespace {

constexpr std::size_t kGroups = 16; // four vectors of one character of each group

uint8x16x4_t alphabet()
{
    return vld1q_u8_x4(reinterpret_cast<const std::uint8_t *>(kAlphabet));
}

uint8x16_t in_range(uint8x16_t text, char first, char last)
{
    return vandq_u8(vcgeq_u8(text, vdupq_n_u8(static_cast<std::uint8_t>(first))),
                    vcleq_u8(text, vdupq_n_u8(static_cast<std::uint8_t>(last))));
}

// Each character's value, 255 outside the alphabet.
uint8x16_t to_values(uint8x16_t text)
{
    auto value = [&](uint8x16_t in, int distance, uint8x16_t otherwise) {
        return vbslq_u8(in, vaddq_u8(text, vdupq_n_u8(static_cast<std::uint8_t>(distance))), otherwise);
    };
    uint8x16_t result = vdupq_n_u8(255);
    result = value(in_range(text, 'A', 'Z'), -'A', result);
    result = value(in_range(text, 'a', 'z'), 26 - 'a', result);
    result = value(in_range(text, '0', '9'), 52 - '0', result);
    result = value(vceqq_u8(text, vdupq_n_u8('+')), 62 - '+', result);
    return value(vceqq_u8(text, vdupq_n_u8('/')), 63 - '/', result);
}

} // namespace

std::size_t encode_vectors(const unsigned char *src, std::size_t groups, char *out)
{
    const uint8x16x4_t characters = alphabet();
    const uint8x16_t six_bits = vdupq_n_u8(0x3F);
    std::size_t done = 0;
    for (; groups - done >= kGroups; done += kGroups, src += kGroups * 3, out += kGroups * 4) {
        uint8x16x3_t bytes = vld3q_u8(src);
        uint8x16x4_t text;
        text.val[0] = vshrq_n_u8(bytes.val[0], 2);
        text.val[1] = vandq_u8(vorrq_u8(vshlq_n_u8(bytes.val[0], 4), vshrq_n_u8(bytes.val[1], 4)), six_bits);
        text.val[2] = vandq_u8(vorrq_u8(vshlq_n_u8(bytes.val[1], 2), vshrq_n_u8(bytes.val[2], 6)), six_bits);
        text.val[3] = vandq_u8(bytes.val[2], six_bits);
        for (uint8x16_t &values : text.val)
            values = vqtbl4q_u8(characters, values);
        vst4q_u8(reinterpret_cast<std::uint8_t *>(out), text);
    }
    return done;
}

std::size_t decode_vectors(const char *src, std::size_t groups, unsigned char *out)
{
    std::size_t done = 0;
    for (; groups - done >= kGroups; done += kGroups, src += kGroups * 4, out += kGroups * 3) {
        uint8x16x4_t text = vld4q_u8(reinterpret_cast<const std::uint8_t *>(src));
        uint8x16_t seen = vdupq_n_u8(0);
        for (uint8x16_t &values : text.val) {
            values = to_values(values);
            seen = vorrq_u8(seen, values);
        }
        if (vmaxvq_u8(seen) > 63)
            break;
        uint8x16x3_t bytes;
        bytes.val[0] = vorrq_u8(vshlq_n_u8(text.val[0], 2), vshrq_n_u8(text.val[1], 4));
        bytes.val[1] = vorrq_u8(vshlq_n_u8(text.val[1], 4), vshrq_n_u8(text.val[2], 2));
        bytes.val[2] = vorrq_u8(vshlq_n_u8(text.val[2], 6), text.val[3]);
        vst3q_u8(out, bytes);
    }
    return done;
}

} // namespace qv::base64
#endif
