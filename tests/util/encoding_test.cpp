// SPDX-License-Identifier: Apache-2.0
// Hexadecimal text, byte order, and the digest of a file where there is no libcrypto.
#include "encoding.h"

#include "support/support.h"

#include <cstring>

using namespace support;

namespace {

const unsigned char kBytes[] = {0x00, 0x0F, 0xA5, 0xFF};

std::vector<std::string> libraries_sought;

} // namespace

// Replaces the loader's function: no library is found.
extern "C" void *dlopen(const char *name, int) noexcept
{
    libraries_sought.push_back(name);
    return nullptr;
}

TEST(HexText, LowerCaseDigits)
{
    char text[16] = "###############";
    EXPECT_EQ(9, hex_to_str(kBytes, text, 4, sizeof text));
    EXPECT_STREQ("000fa5ff", text);
    EXPECT_EQ('#', text[9]);
}

TEST(HexText, NeedsRoomForTheZero)
{
    char text[16] = "###############";
    EXPECT_EQ(-1, hex_to_str(kBytes, text, 4, 8));
    EXPECT_EQ('#', text[0]) << "a refused call writes nothing";
    EXPECT_EQ(9, hex_to_str(kBytes, text, 4, 9));
}

TEST(HexText, NoBytes)
{
    char text[] = "#";
    EXPECT_EQ(-1, hex_to_str(kBytes, text, 0, 0));
    EXPECT_EQ('#', text[0]);
    EXPECT_EQ(1, hex_to_str(nullptr, text, 0, 1));
    EXPECT_EQ('\0', text[0]);
}

TEST(HexText, LengthsThatWouldWrapAreRefused)
{
    char text[16] = "###############";
    EXPECT_EQ(-1, hex_to_str(kBytes, text, 0x80000000, sizeof text));
    EXPECT_EQ(-1, hex_to_str(kBytes, text, 0x80000003, sizeof text));
    EXPECT_EQ(-1, hex_to_str(kBytes, text, 0x80000000, 0xFFFFFFFF));
    EXPECT_EQ(-1, hex_to_str(kBytes, text, 0xFFFFFFFF, 0xFFFFFFFF));
    EXPECT_EQ('#', text[0]);
}

TEST(ByteOrder, AllEightBytesAreReversed)
{
    EXPECT_EQ(0x0807060504030201u, qv_ntoh64(0x0102030405060708));
    EXPECT_EQ(0x0807060504030201u, qv_hton64(0x0102030405060708));
    EXPECT_EQ(0xFF00000000000000u, qv_ntoh64(0xFF));
    EXPECT_EQ(0x123456789ABCDEF0u, qv_ntoh64(qv_hton64(0x123456789ABCDEF0)));
}

TEST(FileMd5, FailsWhereThereIsNoLibcrypto)
{
    write_file("/tmp/file", "abc");
    char text[33] = "#";
    EXPECT_EQ(-1, filemd5str("/tmp/file", text, sizeof text));
    EXPECT_EQ('#', text[0]);
    EXPECT_THAT(libraries_sought, testing::Contains("libcrypto.so.3"));
}
