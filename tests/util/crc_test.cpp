// SPDX-License-Identifier: Apache-2.0
#include "encoding.h"

#include "support/random.h"
#include "support/support.h"

using namespace support;

namespace {

const unsigned char *bytes_of(const std::string &text)
{
    return reinterpret_cast<const unsigned char *>(text.data());
}

unsigned short crc16(unsigned short start, const std::string &data)
{
    return qv_crc16(start, bytes_of(data), static_cast<unsigned>(data.size()));
}

unsigned crc32(unsigned start, const std::string &data)
{
    return qv_crc32(start, bytes_of(data), data.size());
}

// The reference: continues a sum bit by bit.
std::uint32_t by_bits(std::uint32_t polynomial, std::uint32_t sum, const std::string &data)
{
    for (char c : data) {
        sum ^= static_cast<unsigned char>(c);
        for (int bit = 0; bit < 8; bit++)
            sum = (sum & 1) != 0 ? polynomial ^ (sum >> 1) : sum >> 1;
    }
    return sum;
}

std::string random_bytes(std::mt19937 &random, std::size_t length)
{
    std::string data(length, '\0');
    for (char &c : data)
        c = static_cast<char>(random());
    return data;
}

} // namespace

TEST(Crc, Tables)
{
    EXPECT_EQ(0xC0C1, crc16_table[1]);
    EXPECT_EQ(0x77073096u, crc_table[1]);
    for (unsigned byte = 0; byte < 256; byte++) {
        std::string data(1, static_cast<char>(byte));
        EXPECT_EQ(by_bits(0xA001, 0, data), crc16_table[byte]) << byte;
        EXPECT_EQ(by_bits(0xEDB88320, 0, data), crc_table[byte]) << byte;
    }
}

TEST(Crc16, KnownSums)
{
    EXPECT_EQ(0xBB3D, crc16(0, "123456789"));
    EXPECT_EQ(0x4B37, crc16(0xFFFF, "123456789"));
}

TEST(Crc16, ANullBufferLeavesTheSum)
{
    EXPECT_EQ(0x1234, qv_crc16(0x1234, nullptr, 0));
}

TEST(Crc16, ContinuesFromAnEarlierSum)
{
    EXPECT_EQ(0xBB3D, crc16(crc16(0, "1234"), "56789"));
    Random random(1);
    for (std::size_t length = 0; length < 600; length++) {
        random.doing("length", length);
        std::string data = random_bytes(random, length);
        auto start = static_cast<unsigned short>(random());
        std::size_t cut = random() % (length + 1);
        ASSERT_EQ(by_bits(0xA001, start, data), crc16(start, data)) << length;
        ASSERT_EQ(crc16(start, data), crc16(crc16(start, data.substr(0, cut)), data.substr(cut))) << length;
    }
}

TEST(Crc32, KnownSums)
{
    EXPECT_EQ(0xCBF43926u, crc32(0, "123456789"));
    EXPECT_EQ(0u, crc32(0, ""));
    EXPECT_EQ(0x190A55ADu, crc32(0, std::string(32, '\0')));
    EXPECT_EQ(0xFF6CAB0Bu, crc32(0, std::string(32, '\xFF')));
}

TEST(Crc32, ANullBufferLeavesTheSum)
{
    EXPECT_EQ(0x12345678u, qv_crc32(0x12345678, nullptr, 0));
}

TEST(Crc32, EveryLengthAndAlignment)
{
    Random random(2);
    for (std::size_t length = 0; length < 1200; length++) {
        random.doing("length", length);
        std::string data = random_bytes(random, length + 16);
        std::size_t from = random() % 16;
        auto start = static_cast<unsigned>(random());
        ASSERT_EQ(~by_bits(0xEDB88320, ~start, data.substr(from, length)),
                  qv_crc32(start, bytes_of(data) + from, length))
            << length;
    }
}

TEST(Crc32, LongTextsInParts)
{
    Random random(3);
    for (std::size_t round = 0; round < effort(200); round++) {
        std::string data = random_bytes(random, random() % 20000);
        random.doing("length", data.size());
        unsigned whole = crc32(0, data);
        ASSERT_EQ(~by_bits(0xEDB88320, ~0u, data), whole) << data.size();
        std::size_t cut = random() % (data.size() + 1);
        ASSERT_EQ(whole, crc32(crc32(0, data.substr(0, cut)), data.substr(cut))) << data.size() << " at " << cut;
    }
}
