// SPDX-License-Identifier: Apache-2.0
// The hash values against values computed independently. Tables on both sides of a module boundary depend on them.
#include "hashtbl.h"
#include "ip_addr.h"

#include "support/support.h"

#include <algorithm>
#include <array>
#include <cstring>

namespace {

struct Text {
    const char *bytes;
    int len;
    unsigned string_hash;
    unsigned data_hash;
};
constexpr Text kTexts[] = {
    {"a", 1, 0x115ea782U, 0x115ea782U},
    {"ab", 2, 0x516b8b44U, 0x516b8b44U},
    {"abc", 3, 0xd2be198aU, 0xd2be198aU},
    {"abcd", 4, 0xdad8b8dbU, 0xdad8b8dbU},
    {"abcde", 5, 0x51ed072eU, 0x51ed072eU},
    {"trust", 5, 0xddcb7d3dU, 0xddcb7d3dU},
    {"untrust", 7, 0x96a48eadU, 0x96a48eadU},
    {"a longer name of an interface", 29, 0x05d4a9eaU, 0x05d4a9eaU},
    {"\xff"
     "",
     1, 0x00000000U, 0xa9e99665U},
    {"ab\xff"
     "",
     3, 0xc25f0954U, 0x611f19c4U},
    {"abcd\x80"
     "",
     5, 0x0397fb3fU, 0x4c2f4105U},
    {"abcdef\x7f"
     "",
     7, 0xc0447f7bU, 0xc0447f7bU},
    {"abcdef\x80"
     "",
     7, 0x2ddd767fU, 0x37f0b5b9U},
    {"\xff"
     "\xff"
     "",
     2, 0x2b7e8647U, 0x2b7e8647U},
    {"\xff"
     "\xff"
     "\xff"
     "\xff"
     "",
     4, 0x36266d6bU, 0x36266d6bU},
};

struct Number {
    unsigned value;
    unsigned hash;
};
constexpr Number kNumbers[] = {
    {0x00000000U, 0x6b4ed927U}, {0x00000001U, 0xb48681b6U}, {0x00000002U, 0xe267b84cU}, {0x7fffffffU, 0xeb5744b1U},
    {0x80000000U, 0x7e7b3c12U}, {0xffffffffU, 0xfe64c182U}, {0xc0a80001U, 0x4b63c81eU}, {0x075bcd15U, 0xd9ab9e21U},
};

// A copy of the bytes at an odd address.
struct Unaligned {
    alignas(8) std::array<unsigned char, 64> room{};
    void *put(const void *bytes, std::size_t size) { return std::memcpy(room.data() + 1, bytes, size); }
};

} // namespace

TEST(StringHash, Values)
{
    for (const Text &text : kTexts)
        EXPECT_EQ(text.string_hash, qv_string_hash(text.bytes, text.len)) << text.bytes;
}

TEST(StringHash, NothingHashesToZero)
{
    EXPECT_EQ(0U, qv_string_hash(nullptr, 5));
    EXPECT_EQ(0U, qv_string_hash("abc", 0));
    EXPECT_EQ(0U, qv_string_hash("abc", -1));
}

TEST(HashData, Values)
{
    for (const Text &text : kTexts) {
        EXPECT_EQ(text.data_hash, qv_hash_data(text.bytes, text.len, 0)) << text.bytes;
        EXPECT_EQ(text.data_hash % 1000, qv_hash_data(text.bytes, text.len, 1000)) << text.bytes;
    }
}

TEST(HashData, NothingHashesToZero)
{
    EXPECT_EQ(0U, qv_hash_data(nullptr, 5, 0));
    EXPECT_EQ(0U, qv_hash_data("abc", 0, 7));
    EXPECT_EQ(0U, qv_hash_data("abc", -3, 7));
}

TEST(HashData, DiffersFromTheStringHashOnlyInASingleHighByteAtTheEnd)
{
    for (int len = 1; len <= 40; len++) {
        for (int last : {0x00, 0x7F, 0x80, 0xFF}) {
            std::string bytes(static_cast<std::size_t>(len), '\xC3');
            bytes.back() = static_cast<char>(last);
            bool differ = (len % 4 == 1 || len % 4 == 3) && last >= 0x80;
            EXPECT_EQ(differ, qv_hash_data(bytes.data(), len, 0) != qv_string_hash(bytes.data(), len)) << len << last;
        }
    }
}

TEST(HashData, AnyAlignment)
{
    Unaligned copy;
    auto *bytes = copy.put("abcdefghijk", 11);
    EXPECT_EQ(qv_hash_data("abcdefghijk", 11, 0), qv_hash_data(bytes, 11, 0));
}

TEST(HashUint32, Values)
{
    for (const Number &number : kNumbers) {
        EXPECT_EQ(number.hash, qv_hash_uint32(number.value, 0));
        EXPECT_EQ(0U, qv_hash_uint32(number.value, 1));
        EXPECT_EQ(number.hash % 4099, qv_hash_uint32(number.value, 4099));
    }
}

TEST(HashUint32, DistinctNumbersHaveDistinctHashes)
{
    std::vector<unsigned> hashes;
    for (std::size_t i = 0; i < support::effort(100000); i++)
        for (auto value : {static_cast<unsigned>(i), ~static_cast<unsigned>(i)})
            hashes.push_back(qv_hash_uint32(value, 0));
    std::sort(hashes.begin(), hashes.end());
    EXPECT_EQ(hashes.end(), std::adjacent_find(hashes.begin(), hashes.end()));
}

TEST(HashIp, Ipv4TakesTheHostOrderWord)
{
    qv_addr_record record{};
    record.family = 2;
    record.address.ipv4 = 0xC0A80001;
    EXPECT_EQ(qv_hash_uint32(0xC0A80001, 0), qv_hash_ip(&record, 0));
    EXPECT_EQ(qv_hash_uint32(0xC0A80001, 97), qv_hash_ip(&record, 97));
    record.family = 0;
    EXPECT_EQ(qv_hash_uint32(0xC0A80001, 0), qv_hash_ip(&record, 0));
}

TEST(HashIp, Ipv6TakesTheInterfaceHalf)
{
    qv_addr_record record{};
    record.family = 10;
    for (unsigned i = 0; i < 16; i++)
        record.address.ipv6[i] = static_cast<unsigned char>(i * 17 + 1);
    std::uint32_t third, fourth;
    std::memcpy(&third, record.address.ipv6 + 8, 4);
    std::memcpy(&fourth, record.address.ipv6 + 12, 4);
    EXPECT_EQ(qv_hash_uint32(third ^ fourth, 0), qv_hash_ip(&record, 0));

    unsigned before = qv_hash_ip(&record, 0);
    record.address.ipv6[7] ^= 0xFF;
    EXPECT_EQ(before, qv_hash_ip(&record, 0));
    Unaligned copy;
    EXPECT_EQ(before, qv_hash_ip(copy.put(&record, sizeof record), 0));
}

TEST(HashMac, FoldsThreeWords)
{
    const unsigned char mac[6] = {0x12, 0x34, 0x56, 0x78, 0x9A, 0xBC};
    // 0x3412 ^ 0x7856 ^ 0xBC9A = 0xF0DE, and 0xF0DE ^ 0x00F0
    EXPECT_EQ(0xF02EU, qv_hash_mac(mac, 0));
    EXPECT_EQ(0xF02EU % 100, qv_hash_mac(mac, 100));
    Unaligned copy;
    EXPECT_EQ(0xF02EU, qv_hash_mac(copy.put(mac, 6), 0));
}

TEST(Log2, FollowsItsTable)
{
    EXPECT_EQ(1, qv_hashtbl_get_log2(0));
    for (int k = 0; k < 32; k++) {
        int expected = k <= 4 ? k + 1 : k <= 9 ? k : k <= 14 ? k - 1 : k <= 19 ? k - 2 : k <= 24 ? k - 4 : k + 1;
        EXPECT_EQ(expected, qv_hashtbl_get_log2(1U << k)) << k;
        EXPECT_EQ(expected, qv_hashtbl_get_log2((2U << k) - 1)) << k; // all ones below the next power
    }
}

TEST(Log2, IsNotMonotonic)
{
    EXPECT_EQ(17, qv_hashtbl_get_log2(1U << 19));
    EXPECT_EQ(16, qv_hashtbl_get_log2(1U << 20));
    EXPECT_EQ(26, qv_hashtbl_get_log2(1U << 25));
}
