// SPDX-License-Identifier: Apache-2.0
#include "strutil.h"

#include "support/random.h"
#include "support/support.h"

#include <cstring>

using namespace support;

namespace {

std::string copy(const std::string &src, std::size_t size)
{
    char dst[64];
    std::memset(dst, '#', sizeof dst);
    EXPECT_EQ(src.size(), strlcpy(dst, src.c_str(), size));
    return std::string(dst, std::find(dst, dst + 63, '#'));
}

std::string trim(const std::string &src, std::size_t size)
{
    char dst[64];
    std::memset(dst, '#', sizeof dst);
    EXPECT_EQ(dst, trim_utf8_name(dst, src.c_str(), size));
    for (std::size_t i = size; i < sizeof dst; i++)
        EXPECT_EQ('#', dst[i]) << "outside the buffer";
    return size == 0 ? "" : dst;
}

} // namespace

TEST(Strlcpy, CopiesWithinTheRoomAndReturnsTheWholeLength)
{
    EXPECT_EQ(std::string("abc\0", 4), copy("abc", 5));
    EXPECT_EQ(std::string("abc\0", 4), copy("abc", 4));
    EXPECT_EQ(std::string("ab\0", 3), copy("abc", 3));
    EXPECT_EQ(std::string("\0", 1), copy("abc", 1));
    EXPECT_EQ("", copy("abc", 0));
    EXPECT_EQ(std::string("\0", 1), copy("", 2));
}

TEST(Strlcat, AppendsWithinTheRoomAndReturnsTheLengthItTried)
{
    char dst[8] = "ab";
    EXPECT_EQ(4u, strlcat(dst, "cd", sizeof dst));
    EXPECT_STREQ("abcd", dst);
    EXPECT_EQ(7u, strlcat(dst, "efg", sizeof dst));
    EXPECT_STREQ("abcdefg", dst);
    EXPECT_EQ(10u, strlcat(dst, "hij", sizeof dst));
    EXPECT_STREQ("abcdefg", dst);
    EXPECT_EQ(7u, strlcat(dst, "", sizeof dst));
}

TEST(Strlcat, ATextWithoutEndInTheRoomStaysAsItIs)
{
    char dst[4] = {'w', 'x', 'y', 'z'};
    EXPECT_EQ(7u, strlcat(dst, "abc", 4));
    EXPECT_EQ(5u, strlcat(dst, "abc", 2));
    EXPECT_EQ(3u, strlcat(dst, "abc", 0));
    EXPECT_EQ("wxyz", std::string(dst, 4));
}

TEST(Strcasestr, TheFirstMatchIgnoringCase)
{
    const char *text = "xxabcxxABC";
    EXPECT_EQ(text + 2, strcasestr(text, "ABC"));
    EXPECT_EQ(text + 2, strcasestr(text, "abcX"));
    EXPECT_EQ(text, strcasestr(text, ""));
    EXPECT_EQ(nullptr, strcasestr(text, "abd"));
    EXPECT_EQ(text + 3, strcasestr(text, "BCxxAB"));
    EXPECT_EQ(std::string(), strcasestr("", ""));
    EXPECT_EQ(nullptr, strcasestr("", "a"));
    EXPECT_EQ(std::string("ab"), strcasestr("aab", "AB"));
    EXPECT_EQ(nullptr, strcasestr("ab", "abc"));
    EXPECT_EQ(std::string("\xC4"), strcasestr("\xC4", "\xC4"));
}

TEST(Utf8, LengthByTheFirstByte)
{
    for (int b = 0; b < 256; b++) {
        int wanted = b >= 0xFC && b <= 0xFD   ? 6
                     : b >= 0xF8 && b <= 0xFB ? 5
                     : b >= 0xF0 && b <= 0xF7 ? 4
                     : b >= 0xE0 && b <= 0xEF ? 3
                     : b >= 0xC0 && b <= 0xDF ? 2
                                              : 1;
        EXPECT_EQ(wanted, get_utf8_byte_count_by_1st_byte(static_cast<unsigned char>(b))) << b;
    }
}

TEST(TrimUtf8Name, NamesThatFitAreCopied)
{
    EXPECT_EQ("abcdefg", trim("abcdefg", 8));
    EXPECT_EQ("", trim("", 8));
    EXPECT_EQ("", trim("", 1));
}

TEST(TrimUtf8Name, OthersAreCutAfterAWholeCharacterAndMarked)
{
    EXPECT_EQ("abcdef~", trim("abcdefgh", 8));
    EXPECT_EQ("\xE4\xB8\xAD\xE4\xB8\xAD~", trim("\xE4\xB8\xAD\xE4\xB8\xAD\xE4\xB8\xAD", 8));
    EXPECT_EQ("\xE4\xB8\xAD\xE4\xB8\xAD~", trim("\xE4\xB8\xAD\xE4\xB8\xAD\xE4\xB8\xAD", 9));
    EXPECT_EQ("a\xC3\xA4~", trim("a\xC3\xA4\xC3\xA4\xC3\xA4xx", 6))
        << "the next character would end where the mark belongs";
    EXPECT_EQ("a\xC3\xA4\xC3\xA4~", trim("a\xC3\xA4\xC3\xA4\xC3\xA4xx", 7));
    EXPECT_EQ("\xFC\x80\x80\x80\x80\x80y~", trim("\xFC\x80\x80\x80\x80\x80yyyyyyyy", 9));
    EXPECT_EQ("\x80\x80~", trim("\x80\x80\x80\x80", 4)) << "a stray byte counts as a character";
}

TEST(TrimUtf8Name, TinyRoomsAreNotOverrun)
{
    EXPECT_EQ("", trim("abc", 0));
    EXPECT_EQ("", trim("abc", 1));
    EXPECT_EQ("~", trim("abc", 2));
    EXPECT_EQ("~", trim("\xE4\xB8\xAD", 2));
    EXPECT_EQ("~", trim("\xE4\xB8\xAD", 3));
    EXPECT_EQ("~", trim("ab", 2));
}

TEST(TrimUtf8Name, RandomNamesAgreeWithAModel)
{
    Random random(7);
    for (std::size_t round = 0; round < effort(100000); round++) {
        std::string name;
        std::size_t length = random() % 40;
        while (name.size() < length)
            name += static_cast<char>(1 + random() % 255);
        std::size_t size = 2 + random() % 40;
        random.doing("trim: length, size", length, size);
        std::string wanted;
        if (name.size() < size) {
            wanted = name;
        } else {
            std::size_t p = 0;
            for (;;) {
                auto n = static_cast<std::size_t>(get_utf8_byte_count_by_1st_byte(static_cast<unsigned char>(name[p])));
                if (p + n > size - 2)
                    break;
                p += n;
            }
            wanted = name.substr(0, p) + "~";
        }
        ASSERT_EQ(wanted, trim(name, size)) << "size " << size;
    }
}
