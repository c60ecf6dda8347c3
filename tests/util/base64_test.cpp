// SPDX-License-Identifier: Apache-2.0
#include "encoding.h"

#include "support/random.h"
#include "support/support.h"

#include <cstring>
#include <optional>

using namespace support;

namespace {

constexpr std::string_view kAlphabet = "ABCDEFGHIJKLMNOPQRSTUVWXYZabcdefghijklmnopqrstuvwxyz0123456789+/";

using encode_function = int (*)(const unsigned char *, std::size_t, char *, std::size_t);

const unsigned char *bytes_of(const std::string &text)
{
    return reinterpret_cast<const unsigned char *>(text.data());
}

// The text encoded into a buffer of this size, or nothing for -1. Nothing is ever written beyond the buffer.
std::optional<std::string> encode(encode_function function, const std::string &data, std::size_t size)
{
    std::vector<char> room(size + 64, '#');
    int length = function(bytes_of(data), data.size(), room.data(), size);
    for (std::size_t i = size; i < room.size(); i++)
        EXPECT_EQ('#', room[i]) << "outside the buffer";
    if (length < 0) {
        EXPECT_EQ(-1, length);
        return std::nullopt;
    }
    EXPECT_EQ('\0', room[static_cast<std::size_t>(length)]);
    return std::string(room.data(), static_cast<std::size_t>(length));
}

std::string encoded(const std::string &data)
{
    return encode(b64_ntop, data, data.size() * 2 + 8).value_or("refused");
}

std::string for_mail(const std::string &data)
{
    return encode(b64_ntop_email, data, data.size() * 2 + 8).value_or("refused");
}

std::optional<std::string> decode(const std::string &text, std::size_t size)
{
    std::vector<unsigned char> room(size + 64, '#');
    int length = b64_pton(text.c_str(), room.data(), size);
    for (std::size_t i = size; i < room.size(); i++)
        EXPECT_EQ('#', room[i]) << "outside the buffer";
    if (length < 0) {
        EXPECT_EQ(-1, length);
        return std::nullopt;
    }
    return std::string(reinterpret_cast<char *>(room.data()), static_cast<std::size_t>(length));
}

std::optional<std::string> decoded(const std::string &text)
{
    return decode(text, text.size() + 1);
}

int counted(const std::string &text)
{
    return b64_pton(text.c_str(), nullptr, 0);
}

std::string random_bytes(std::mt19937 &random, std::size_t length)
{
    std::string data(length, '\0');
    for (char &c : data)
        c = static_cast<char>(random());
    return data;
}

// ---- a second opinion, bit by bit ----

std::string model_encode(const std::string &data, bool mail)
{
    std::string text;
    std::size_t on_line = 0;
    for (std::size_t i = 0; i < data.size(); i += 3) {
        std::string bits;
        std::size_t bytes = std::min<std::size_t>(3, data.size() - i);
        for (std::size_t k = 0; k < bytes; k++)
            for (int bit = 7; bit >= 0; bit--)
                bits += (static_cast<unsigned char>(data[i + k]) >> bit & 1) != 0 ? '1' : '0';
        bits.resize((bytes * 8 + 5) / 6 * 6, '0');
        for (std::size_t k = 0; k < bits.size(); k += 6)
            text += kAlphabet[std::stoul(bits.substr(k, 6), nullptr, 2)];
        text.append(3 - bytes, '=');
        if (mail && bytes == 3 && (on_line += 4) == 72) {
            text += '\n';
            on_line = 0;
        }
    }
    return text;
}

// Room is checked byte by byte: a digit that starts a byte needs room for it, even if padding then drops that byte.
std::optional<std::string> model_decode(const std::string &text, std::optional<std::size_t> size)
{
    std::vector<unsigned char> out;
    std::size_t place = 0, i = 0, count = 0;
    auto skip = [&] {
        while (i < text.size() && std::isspace(static_cast<unsigned char>(text[i])) != 0)
            i++;
    };
    for (skip(); i < text.size() && text[i] != '='; skip()) {
        std::size_t value = kAlphabet.find(text[i++]);
        if (value == kAlphabet.npos)
            return std::nullopt;
        std::size_t touched = place == 0 || place == 3 ? count + 1 : count + 2;
        if (size && touched > *size)
            return std::nullopt;
        out.resize(std::max(out.size(), touched));
        // The current byte and the next one as 16 bits.
        constexpr unsigned kShifts[] = {10, 4, 6, 8};
        std::size_t bits = value << kShifts[place];
        out[count] = static_cast<unsigned char>(out[count] | bits >> 8);
        if (touched == count + 2)
            out[count + 1] = static_cast<unsigned char>(bits);
        if (place != 0)
            count++;
        place = (place + 1) % 4;
    }
    if (i < text.size()) {
        if (place < 2)
            return std::nullopt;
        i++;
        if (place == 2) {
            skip();
            if (i == text.size() || text[i++] != '=')
                return std::nullopt;
        }
        skip();
        if (i != text.size() || (size && out[count] != 0))
            return std::nullopt;
    } else if (place != 0) {
        return std::nullopt;
    }
    return std::string(out.begin(), out.begin() + static_cast<std::ptrdiff_t>(count));
}

} // namespace

TEST(Base64, Alphabet)
{
    EXPECT_EQ(kAlphabet, std::string(Base64));
}

TEST(Base64, KnownTexts)
{
    EXPECT_EQ("", encoded(""));
    EXPECT_EQ("Zg==", encoded("f"));
    EXPECT_EQ("Zm8=", encoded("fo"));
    EXPECT_EQ("Zm9v", encoded("foo"));
    EXPECT_EQ("Zm9vYg==", encoded("foob"));
    EXPECT_EQ("Zm9vYmE=", encoded("fooba"));
    EXPECT_EQ("Zm9vYmFy", encoded("foobar"));
    EXPECT_EQ("AAAA////", encoded(std::string("\0\0\0\xFF\xFF\xFF", 6)));
}

TEST(Base64, EncodingNeedsRoomForTheZero)
{
    EXPECT_EQ(std::nullopt, encode(b64_ntop, "", 0));
    EXPECT_EQ("", encode(b64_ntop, "", 1));
    for (const std::string data : {"f", "fo", "foo"}) {
        EXPECT_EQ(std::nullopt, encode(b64_ntop, data, 4));
        EXPECT_TRUE(encode(b64_ntop, data, 5).has_value());
        EXPECT_EQ(std::nullopt, encode(b64_ntop_email, data, 4));
        EXPECT_TRUE(encode(b64_ntop_email, data, 5).has_value());
    }
}

TEST(Base64, EncodesEveryLengthIntoExactlyEnoughRoom)
{
    Random random(1);
    for (std::size_t length = 0; length < 300; length++) {
        random.doing("length", length);
        std::string data = random_bytes(random, length);
        for (bool mail : {false, true}) {
            encode_function function = mail ? b64_ntop_email : b64_ntop;
            std::string text = model_encode(data, mail);
            ASSERT_EQ(text, encode(function, data, text.size() + 1));
            for (std::size_t size = 0; size <= text.size(); size += 1 + size / 8)
                ASSERT_EQ(std::nullopt, encode(function, data, size)) << size << " for " << text.size();
            ASSERT_EQ(std::nullopt, encode(function, data, text.size()));
        }
    }
}

TEST(Base64, GroupsBeforeTheRoomEndsAreWritten)
{
    char room[8] = "#######";
    EXPECT_EQ(-1, b64_ntop(bytes_of("foobar"), 6, room, 7));
    EXPECT_EQ("Zm9v###", std::string(room));
}

TEST(Base64Email, BreaksLinesAfter72Characters)
{
    const std::string line = encoded(std::string(54, 'x'));
    ASSERT_EQ(72u, line.size());
    EXPECT_EQ(encoded(std::string(53, 'x')), for_mail(std::string(53, 'x')));
    EXPECT_EQ(line + "\n", for_mail(std::string(54, 'x')));
    EXPECT_EQ(line + "\neHh4", for_mail(std::string(57, 'x')));
    EXPECT_EQ(line + "\n" + line + "\n", for_mail(std::string(108, 'x')));
}

TEST(Base64Email, APaddedGroupEndsNoLine)
{
    EXPECT_EQ(72u, for_mail(std::string(52, 'x')).size());
    EXPECT_EQ(72u, for_mail(std::string(53, 'x')).size());
    EXPECT_EQ(72u + 1 + 72, for_mail(std::string(107, 'x')).size());
}

TEST(Base64Email, TheNewlineNeedsRoom)
{
    EXPECT_EQ(std::nullopt, encode(b64_ntop_email, std::string(54, 'x'), 73));
    EXPECT_TRUE(encode(b64_ntop_email, std::string(54, 'x'), 74).has_value());
}

TEST(Base64Decode, KnownTexts)
{
    EXPECT_EQ("", decoded(""));
    EXPECT_EQ("foo", decoded("Zm9v"));
    EXPECT_EQ("f", decoded("Zg=="));
    EXPECT_EQ("fo", decoded("Zm8="));
    EXPECT_EQ("foobar", decoded("Zm9vYmFy"));
}

TEST(Base64Decode, TheCycleMustBeComplete)
{
    EXPECT_EQ(std::nullopt, decoded("Z"));
    EXPECT_EQ(std::nullopt, decoded("Zm"));
    EXPECT_EQ(std::nullopt, decoded("Zm9"));
    EXPECT_EQ("foo", decoded("Zm9v "));
    EXPECT_EQ(-1, counted("Zm9"));
}

TEST(Base64Decode, WhiteSpaceIsSkippedAnywhere)
{
    EXPECT_EQ("foo", decoded(" Z\tm\n9\v\f\rv "));
    EXPECT_EQ("f", decoded("Z g = = \n"));
    EXPECT_EQ("fo", decoded("Z m 8 = \n"));
    EXPECT_EQ("", decoded(" \n"));
}

TEST(Base64Decode, OtherCharactersAreRefused)
{
    for (int c = 1; c < 256; c++) {
        char text[] = {'Z', 'm', '8', static_cast<char>(c), '\0'};
        bool good = kAlphabet.find(static_cast<char>(c)) != kAlphabet.npos;
        EXPECT_EQ(good || c == '=', decoded(text).has_value()) << c;
        // The same within a long text, where vector code decodes several groups at once.
        std::string within = std::string(40, 'A') + static_cast<char>(c) + std::string(63, 'A');
        bool space = std::isspace(c) != 0;
        EXPECT_EQ(good, decoded(within).has_value()) << c;
        EXPECT_EQ(space, decoded(within + "A").has_value()) << c;
    }
}

TEST(Base64Decode, PaddingIsAcceptedOnlyInItsPlaces)
{
    EXPECT_EQ(std::nullopt, decoded("="));
    EXPECT_EQ(std::nullopt, decoded("Z="));
    EXPECT_EQ(std::nullopt, decoded("Zg="));
    EXPECT_EQ(std::nullopt, decoded("Zg=A"));
    EXPECT_EQ("f", decoded("Zg= ="));
    EXPECT_EQ(std::nullopt, decoded("Zg==="));
    EXPECT_EQ(std::nullopt, decoded("Zg==Zg=="));
    EXPECT_EQ(std::nullopt, decoded("Zm8=A"));
    EXPECT_EQ(std::nullopt, decoded("Zm8=="));
    EXPECT_EQ(std::nullopt, decoded("Zm9v="));
}

TEST(Base64Decode, LeftoverBitsMustBeZero)
{
    EXPECT_EQ(std::nullopt, decoded("Zh=="));
    EXPECT_EQ(std::nullopt, decoded("Zm9="));
    EXPECT_EQ("e", decoded("ZQ=="));
}

TEST(Base64Decode, ANullTargetOnlyCounts)
{
    EXPECT_EQ(3, counted("Zm9v"));
    EXPECT_EQ(2, counted("Zm8="));
    EXPECT_EQ(1, counted(" Z g = = "));
    EXPECT_EQ(1, counted("Zh==")) << "counting does not check the leftover bits";
    EXPECT_EQ(-1, counted("Z*=="));
    EXPECT_EQ(3000, counted(std::string(4000, 'A')));
}

TEST(Base64Decode, RoomOfEachPlace)
{
    EXPECT_EQ(std::nullopt, decode("Zm9v", 2));
    EXPECT_EQ("foo", decode("Zm9v", 3));
    EXPECT_EQ(std::nullopt, decode("Zg==", 0));
    EXPECT_EQ(std::nullopt, decode("Zg==", 1)) << "the second digit starts a byte that needs room";
    EXPECT_EQ("f", decode("Zg==", 2));
    EXPECT_EQ(std::nullopt, decode("Zm8=", 2));
    EXPECT_EQ("fo", decode("Zm8=", 3));
    EXPECT_EQ("", decode("", 0));
    EXPECT_EQ(std::nullopt, decode("A", 0));
}

TEST(Base64Decode, DecodesLongTextsIntoExactlyEnoughRoom)
{
    Random random(2);
    for (std::size_t groups = 1; groups < 70; groups++) {
        random.doing("groups", groups);
        std::string data = random_bytes(random, groups * 3);
        std::string text = encoded(data);
        ASSERT_EQ(data, decode(text, data.size()));
        ASSERT_EQ(std::nullopt, decode(text, data.size() - 1));
        ASSERT_EQ(data, decoded(for_mail(data)));
    }
}

TEST(Base64, FollowsTheModel)
{
    Random random(3);
    for (std::size_t round = 0; round < effort(20000); round++) {
        std::string data = random_bytes(random, random() % 200);
        random.doing("bytes", data.size());
        std::string text = encoded(data);
        ASSERT_EQ(model_encode(data, false), text);
        ASSERT_EQ(model_encode(data, true), for_mail(data));
        ASSERT_EQ(data, decoded(text));

        // Damage: white space, padding and invalid characters anywhere, a cut, a buffer of any size.
        for (unsigned damages = random() % 4; damages > 0; damages--) {
            constexpr std::string_view kDamage = " \n=A/*\x80";
            std::size_t at = random() % (text.size() + 1);
            if (random() % 8 == 0)
                text.resize(at);
            else
                text.insert(at, 1, kDamage[random() % kDamage.size()]);
        }
        std::size_t size = data.size() + random() % 8 - std::min<std::size_t>(data.size(), 4);
        ASSERT_EQ(model_decode(text, size), decode(text, size)) << text << " into " << size;
        auto model = model_decode(text, std::nullopt);
        ASSERT_EQ(model ? static_cast<int>(model->size()) : -1, counted(text)) << text;
    }
}
