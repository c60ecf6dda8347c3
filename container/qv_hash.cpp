// SPDX-License-Identifier: Apache-2.0
// Hash functions for keys.
#include "hashtbl.h"

#include "ip_addr.h"

#include <bit>
#include <cstddef>
#include <cstdint>
#include <cstring>

namespace {

unsigned reduced(std::uint32_t hash, unsigned size)
{
    return size == 0 ? hash : hash % size;
}

template <typename Word>
Word load(const unsigned char *p)
{
    Word word;
    std::memcpy(&word, p, sizeof word);
    return word;
}

// Little-endian on every host.
std::uint32_t load_le16(const unsigned char *p)
{
    return p[0] | static_cast<std::uint32_t>(p[1]) << 8;
}

// Contract: a single byte at the end counts as signed in one of the two public functions and as unsigned in the other.
// Callers store hashes of both kinds.
template <typename Byte>
std::uint32_t last_byte(unsigned char byte)
{
    return static_cast<std::uint32_t>(static_cast<Byte>(byte));
}

template <typename Byte>
std::uint32_t hash_bytes(const void *data, int len)
{
    if (len < 1 || data == nullptr)
        return 0;
    auto *p = static_cast<const unsigned char *>(data);
    auto h = static_cast<std::uint32_t>(len);

    for (int blocks = len / 4; blocks > 0; blocks--, p += 4) {
        h += load_le16(p);
        std::uint32_t t = (load_le16(p + 2) << 11) ^ h;
        h = (h << 16) ^ t;
        h += h >> 11;
    }

    switch (len % 4) {
    case 3:
        h += load_le16(p);
        h ^= h << 16;
        h ^= last_byte<Byte>(p[2]) << 18;
        h += h >> 11;
        break;
    case 2:
        h += load_le16(p);
        h ^= h << 11;
        h += h >> 17;
        break;
    case 1:
        h += last_byte<Byte>(p[0]);
        h ^= h << 10;
        h += h >> 1;
        break;
    default:
        break;
    }

    h ^= h << 3;
    h += h >> 5;
    h ^= h << 4;
    h += h >> 17;
    h ^= h << 25;
    h += h >> 6;
    return h;
}

} // namespace

extern "C" {

int qv_hashtbl_get_log2(unsigned n)
{
    int k = static_cast<int>(std::bit_width(n | 1U)) - 1;
    // Larger tables get longer chains, which bounds the memory of the buckets.
    if (k <= 4)
        return k + 1;
    if (k <= 9)
        return k;
    if (k <= 14)
        return k - 1;
    if (k <= 19)
        return k - 2;
    if (k <= 24)
        return k - 4;
    return k + 1; // more than hashtbl_init() accepts, which reports it
}

unsigned qv_string_hash(const char *data, int len)
{
    return hash_bytes<signed char>(data, len);
}

unsigned qv_hash_data(const void *data, int len, unsigned size)
{
    return reduced(hash_bytes<unsigned char>(data, len), size);
}

unsigned qv_hash_uint32(unsigned value, unsigned size)
{
    std::uint32_t a = value;
    a = (a + 0x7ed55d16U) + (a << 12);
    a = (a ^ 0xc761c23cU) ^ (a >> 19);
    a = (a + 0x165667b1U) + (a << 5);
    a = (a + 0xd3a2646cU) ^ (a << 9);
    a = (a + 0xfd7046c5U) + (a << 3);
    a = (a ^ 0xb55a4f09U) ^ (a >> 16);
    return reduced(a, size);
}

unsigned qv_hash_ip(const void *address, unsigned size)
{
    constexpr unsigned char kIpv6Family = 10;
    auto *record = static_cast<const unsigned char *>(address);
    auto *bytes = record + offsetof(qv_addr_record, address);
    auto input = record[0] == kIpv6Family ? load<std::uint32_t>(bytes + 8) ^ load<std::uint32_t>(bytes + 12)
                                          : load<std::uint32_t>(bytes);
    return qv_hash_uint32(input, size);
}

unsigned qv_hash_mac(const void *mac, unsigned size)
{
    auto *bytes = static_cast<const unsigned char *>(mac);
    std::uint32_t x = load<std::uint16_t>(bytes);
    x ^= load<std::uint16_t>(bytes + 2);
    x ^= load<std::uint16_t>(bytes + 4);
    return reduced(x ^ (x >> 8), size);
}

} // extern "C"
