// SPDX-License-Identifier: Apache-2.0
#include "signal_printf.h"

#include "support/random.h"
#include "support/support.h"

#include <climits>
#include <csignal>
#include <cstdarg>
#include <fcntl.h>
#include <unistd.h>

using namespace support;

namespace {

const std::string kNotice = "Notice: The buffer close to overflow!!!\n";

template <typename... Args>
std::string format(const std::string &fmt, Args... args)
{
    char text[2048];
    int length = signal_snprintf(text, sizeof text, fmt.c_str(), args...);
    EXPECT_EQ(static_cast<std::size_t>(length), ::strlen(text)) << fmt;
    return text;
}

template <typename... Args>
std::string libc(const char *fmt, Args... args)
{
    char text[4096];
    std::snprintf(text, sizeof text, fmt, args...);
    return text;
}

} // namespace

// ---- plain text and the budget ----

TEST(SignalFormat, EmptyFormat)
{
    EXPECT_EQ("", format(""));
}

TEST(SignalFormat, PlainTextUpToTheBudgetIsWhole)
{
    for (std::size_t n : {1u, 500u, 924u, 925u}) {
        std::string text(n, 'x');
        EXPECT_EQ(text, format(text)) << n;
    }
}

TEST(SignalFormat, PlainTextBeyondTheBudgetIsCutWithANotice)
{
    for (std::size_t n : {926u, 1000u, 5000u})
        EXPECT_EQ(std::string(925, 'x') + kNotice, format(std::string(n, 'x'))) << n;
    EXPECT_EQ(965u, format(std::string(1000, 'x')).size());
}

TEST(SignalFormat, TheBudgetIsTestedBetweenElements)
{
    auto then_more = [](std::size_t n) { return format("%s!", std::string(n, 'x').c_str()); };
    EXPECT_EQ(std::string(924, 'x') + "!", then_more(924)) << "100 left";
    EXPECT_EQ(std::string(925, 'x') + kNotice, then_more(925)) << "99 left";
    EXPECT_EQ(std::string(973, 'x') + kNotice, then_more(973)) << "51 left";
    EXPECT_EQ(std::string(974, 'x'), then_more(974)) << "50 left";
    EXPECT_EQ(std::string(980, 'x'), then_more(980));
}

TEST(SignalFormat, TheLastElementIsNotTested)
{
    for (std::size_t n : {925u, 980u, 1022u, 1023u})
        EXPECT_EQ(std::string(n, 'x'), format("%s", std::string(n, 'x').c_str())) << n;
}

TEST(SignalFormat, AnElementLongerThanTheBufferIsClipped)
{
    for (std::size_t n : {1024u, 1025u, 100000u})
        EXPECT_EQ(std::string(1023, 'x'), format("%s", std::string(n, 'x').c_str())) << n;
    EXPECT_EQ("ab" + std::string(1021, 'x'), format("ab%s", std::string(2000, 'x').c_str()));
    EXPECT_EQ(std::string(1023, ' '), format("%1000000d", 7));
    EXPECT_EQ("7" + std::string(1022, ' '), format("%-1000000d", 7));
    EXPECT_EQ(std::string(1023, '0'), format("%01000000d", 7));
    EXPECT_EQ(std::string(1023, '0'), format("%.1000000d", 7));
    EXPECT_EQ(std::string(1023, ' '), format("%99999999999999999999d", 7)) << "widths saturate";
    EXPECT_EQ(std::string(1023, '0'), format("%.99999999999999999999d", 7));
    EXPECT_EQ(std::string(1023, ' '), format("%99999999999c", 'x'));
    EXPECT_EQ("x" + std::string(1022, ' '), format("%-99999999999s|", "x"));
    EXPECT_EQ("0x" + std::string(1021, ' '), format("%2147483647p", static_cast<void *>(nullptr)));
}

TEST(SignalFormat, SkippingTheTestAfterN)
{
    int produced = -1;
    EXPECT_EQ("abc", format("abc%n", &produced));
    EXPECT_EQ(3, produced);
    EXPECT_EQ("12345!", format("%d%n!", 12345, &produced));
    EXPECT_EQ(5, produced);
    EXPECT_EQ("", format("%n", &produced));
    EXPECT_EQ(0, produced);
    std::string text(924, 'x');
    EXPECT_EQ(text + "y" + kNotice, format(text + "%nyz", &produced));
    EXPECT_EQ(924, produced);
}

// ---- numbers ----

TEST(SignalFormat, Decimals)
{
    EXPECT_EQ("0", format("%d", 0));
    EXPECT_EQ("9", format("%d", 9));
    EXPECT_EQ("10", format("%d", 10));
    EXPECT_EQ("99", format("%d", 99));
    EXPECT_EQ("100", format("%d", 100));
    EXPECT_EQ("-42", format("%d", -42));
    EXPECT_EQ("-2147483648", format("%i", INT_MIN));
    EXPECT_EQ("2147483647", format("%d", INT_MAX));
    EXPECT_EQ("-9223372036854775808", format("%ld", LONG_MIN));
    EXPECT_EQ("9223372036854775807", format("%ld", LONG_MAX));
    EXPECT_EQ("18446744073709551615", format("%lu", ULONG_MAX));
}

TEST(SignalFormat, Fields)
{
    EXPECT_EQ("  -42", format("%5d", -42));
    EXPECT_EQ("-42  |", format("%-5d|", -42));
    EXPECT_EQ("-0042", format("%05d", -42));
    EXPECT_EQ("-42  |", format("%-05d|", -42)) << "left alignment disables the zeros";
    EXPECT_EQ("12345", format("%2d", 12345));
    EXPECT_EQ("5", format("%0d", 5));
    EXPECT_EQ("00005", format("%00005d", 5)) << "repeated flags";
    EXPECT_EQ("+5   |", format("%- +5d|", 5)) << "flags in any order";
}

TEST(SignalFormat, Signs)
{
    EXPECT_EQ("+7", format("%+d", 7));
    EXPECT_EQ(" 7", format("% d", 7));
    EXPECT_EQ("+7", format("%+ d", 7));
    EXPECT_EQ("-7", format("%+d", -7));
    EXPECT_EQ("-7", format("% d", -7));
    EXPECT_EQ("+7", format("%+u", 7)) << "a sign flag applies to every number";
    EXPECT_EQ(" ff", format("% lx", 255L));
    EXPECT_EQ("+101", format("%+b", 5));
    EXPECT_EQ("+0042", format("%+05d", 42));
}

TEST(SignalFormat, Precisions)
{
    EXPECT_EQ("005", format("%.3d", 5));
    EXPECT_EQ("0", format("%.0d", 0));
    EXPECT_EQ("0", format("%.d", 0));
    EXPECT_EQ("    -005", format("%8.3d", -5));
    EXPECT_EQ("-005    |", format("%-8.3d|", -5));
    EXPECT_EQ("00000005", format("%08.3d", 5)) << "zeros fill the field here";
    EXPECT_EQ("12345", format("%.2d", 12345));
    EXPECT_EQ("000abc", format("%.6lx", 0xABCL));
}

TEST(SignalFormat, UnsignedExtendsItsSign)
{
    EXPECT_EQ("18446744073709551615", format("%u", -1));
    EXPECT_EQ("18446744071562067968", format("%u", INT_MIN));
    EXPECT_EQ("18446744073414584320", format("%u", 4000000000U));
    EXPECT_EQ("4000000000", format("%lu", 4000000000UL));
}

TEST(SignalFormat, OtherBases)
{
    EXPECT_EQ("deadbeefcafe", format("%x", 0xDEADBEEFCAFEL)) << "always 64 bits";
    EXPECT_EQ("DEADBEEFCAFE", format("%X", 0xDEADBEEFCAFEL));
    EXPECT_EQ("ffffffffffffffff", format("%x", -1L));
    EXPECT_EQ("1777777777777777777777", format("%o", -1L));
    EXPECT_EQ("10", format("%o", 8L));
    EXPECT_EQ("101", format("%b", 5));
    EXPECT_EQ("0", format("%b", 0));
    EXPECT_EQ(std::string(64, '1'), format("%b", -1));
    EXPECT_EQ("101", format("%lb", 5));
    EXPECT_EQ("0000000000001000", format("%016lx", 0x1000L));
    EXPECT_EQ("%#x", format("%#x"));
}

TEST(SignalFormat, EveryNumberAndValueOfHexadecimalDigits)
{
    for (unsigned digit = 0; digit < 16; digit++) {
        for (unsigned place = 0; place < 64; place += 4) {
            const unsigned long value = static_cast<unsigned long>(digit) << place;
            EXPECT_EQ(libc("%lx", value), format("%lx", value));
            EXPECT_EQ(libc("%lX", value - 1), format("%lX", value - 1));
        }
    }
}

TEST(SignalFormat, Pointers)
{
    auto at = [](unsigned long address) { return reinterpret_cast<void *>(address); };
    EXPECT_EQ("0x1000", format("%p", at(0x1000)));
    EXPECT_EQ("0xABC", format("%p", at(0xabc)));
    EXPECT_EQ("0x0", format("%p", at(0)));
    EXPECT_EQ("0x" + std::string(16, ' ') + "1000", format("%20p", at(0x1000)));
    EXPECT_EQ("0x" + std::string(16, '0') + "1000", format("%020p", at(0x1000)));
    EXPECT_EQ("0x1000    |", format("%-8p|", at(0x1000)));
    EXPECT_EQ("0x1000|", format("%-p|", at(0x1000)));
    EXPECT_EQ("0x001000", format("%.6p", at(0x1000)));
    EXPECT_EQ("0xFFFFFFFFFFFFFFFF", format("%p", at(ULONG_MAX)));
}

TEST(SignalFormat, ALengthHoldsForTheRestOfTheCall)
{
    EXPECT_EQ("1 4294967298", format("%ld %d", 1L, 0x100000002L));
    EXPECT_EQ("x 4294967298", format("%ls %u", "x", 0x100000002L)) << "whatever its length was";
    EXPECT_EQ("1 -3", format("%lx %i", 1L, -3L));
    EXPECT_EQ("1 101", format("%ld %b", 1L, 5)) << "b reads an int nevertheless";
    EXPECT_EQ("2", format("%d", 2)) << "but not for the next call";
}

TEST(SignalFormat, Lengths)
{
    for (const char *length : {"l", "L", "H", "ll", "lL", "Ll", "LL", "Hl", "HL"})
        EXPECT_EQ("4294967298", format(std::string("%") + length + "d", 0x100000002L)) << length;
    EXPECT_EQ("%Hd", format("%lHd", 1L)) << "H is valid only as the first";
    EXPECT_EQ("%ld", format("%llld", 1L)) << "at most two";
}

// ---- characters and strings ----

TEST(SignalFormat, Characters)
{
    EXPECT_EQ("x", format("%c", 'x'));
    EXPECT_EQ("x", format("%c", 0x100 + 'x')) << "the low byte";
    EXPECT_EQ("  x|", format("%3c|", 'x'));
    EXPECT_EQ("x  |", format("%-3c|", 'x'));
    EXPECT_EQ("x", format("%0c", 'x'));
    EXPECT_EQ("  x", format("%03c", 'x')) << "blanks, not zeros";
    char text[8] = {};
    EXPECT_EQ(3, signal_snprintf(text, sizeof text, "a%cb", 0));
    EXPECT_EQ(std::string(text, 4), std::string("a\0b\0", 4));
}

TEST(SignalFormat, Strings)
{
    EXPECT_EQ("abc", format("%s", "abc"));
    EXPECT_EQ("", format("%s", ""));
    EXPECT_EQ("  abc|", format("%5s|", "abc"));
    EXPECT_EQ("abc  |", format("%-5s|", "abc"));
    EXPECT_EQ("  abc|", format("%05s|", "abc"));
    EXPECT_EQ("abc", format("%2s", "abc"));
    EXPECT_EQ("ab", format("%.2s", "abc"));
    EXPECT_EQ("|", format("%.s|", "abc"));
    EXPECT_EQ("|", format("%.0s|", "abc"));
    EXPECT_EQ("abc|", format("%.9s|", "abc"));
    EXPECT_EQ("   ab|", format("%5.2s|", "abc"));
    EXPECT_EQ("ab   |", format("%-5.2s|", "abc"));
    EXPECT_EQ("ab", format("%+s% s", "a", "b")) << "signs apply only to numbers";
    const char unended[3] = {'x', 'y', 'z'};
    EXPECT_EQ("xyz", format("%.3s", unended));
}

TEST(SignalFormat, PercentAndUnknownConversions)
{
    EXPECT_EQ("100%", format("100%%"));
    EXPECT_EQ("%|", format("%5%|"));
    EXPECT_EQ("%hd", format("%hd"));
    EXPECT_EQ("%y", format("%y"));
    EXPECT_EQ("%y", format("%5y")) << "flags and widths are read and dropped";
    EXPECT_EQ("%*d", format("%*d"));
    EXPECT_EQ("%*s", format("%.*s"));
    EXPECT_EQ("%z3", format("%z%d", 3));
}

TEST(SignalFormat, AFormatThatEndsInsideAConversionWritesItsPercentSign)
{
    for (const char *end : {"%", "%-", "%5", "%5.", "%.3", "%l", "%ll", "% +-05.3ll"})
        EXPECT_EQ("a%", format(std::string("a") + end)) << end;
}

// ---- the buffer of the caller ----

TEST(SignalSnprintf, CutsToTheRoomAndReturnsWhatItStored)
{
    char text[16];
    std::fill_n(text, sizeof text, '#');
    EXPECT_EQ(7, signal_snprintf(text, 8, "%s", "abcdefghij"));
    EXPECT_STREQ("abcdefg", text);
    EXPECT_EQ('#', text[8]);
    EXPECT_EQ(0, signal_snprintf(text, 1, "%s", "abc"));
    EXPECT_STREQ("", text);
    EXPECT_EQ('b', text[1]);
}

TEST(SignalSnprintf, WithoutRoomNothingIsWritten)
{
    char text[2] = {'#', '#'};
    EXPECT_EQ(0, signal_snprintf(text, 0, "abc"));
    EXPECT_EQ(0, signal_snprintf(text, -1, "abc"));
    EXPECT_EQ(0, signal_snprintf(text, INT_MIN, "abc"));
    EXPECT_EQ('#', text[0]);
}

TEST(SignalPrintf, WritesOnce)
{
    int fds[2];
    ASSERT_EQ(0, ::pipe2(fds, O_DIRECT)); // makes each write a separate packet
    signal_printf(fds[1], "%d and %s", 5, "six");
    char text[64] = {};
    EXPECT_EQ(9, ::read(fds[0], text, sizeof text));
    EXPECT_STREQ("5 and six", text);
}

TEST(SignalPrintf, FailuresAreSilentAndErrnoStays)
{
    errno = 123;
    signal_printf(-1, "x");
    EXPECT_EQ(123, errno);
}

TEST(SignalPrintf, InSignalContextIsOffOutsideHandlers)
{
    EXPECT_EQ(0, in_signal_context());
}

TEST(SignalPrintf, ResHoldsTheMostSignificantDigit)
{
    format("%d", 7123);
    EXPECT_EQ(7, __res);
    format("%d", 0);
    EXPECT_EQ(7, __res) << "a zero does not change it";
    format("%lx", 0xE123L);
    EXPECT_EQ(14, __res);
    format("%p", reinterpret_cast<void *>(0xB00UL));
    EXPECT_EQ(11, __res);
    format("%d", -95);
    EXPECT_EQ(9, __res);
    format("%b", 6);
    EXPECT_EQ(1, __res);
}

// ---- against the C library, where the two agree ----

TEST(SignalFormatModel, RandomConversionsAgreeWithTheCLibrary)
{
    Random64 random(20260131);
    auto pick = [&](std::uint64_t n) { return random() % n; };
    for (std::size_t i = 0; i < effort(300000); i++) {
        random.doing("conversion", i);
        std::string directive = "%";
        for (const char *flag : {"-", "0"})
            directive += pick(3) == 0 ? flag : "";
        char conversion = "dxXocs"[pick(6)];
        bool is_signed = conversion == 'd';
        if (is_signed)
            directive += pick(4) == 0 ? "+" : pick(4) == 0 ? " " : "";
        if (pick(2) == 0)
            directive += std::to_string(1 + pick(40));
        // The two differ only in the padding of a precision together with '0', and in a 0 with 0 digits.
        bool precise = conversion != 'c' && directive.find('0') == std::string::npos && pick(3) == 0;
        if (precise)
            directive += "." + std::to_string(1 + pick(30));
        unsigned long value = random() >> pick(64);
        std::string fmt = "<" + directive;
        std::string text = std::string(pick(60), 's');
        if (conversion == 'c') {
            if (directive.find('0') != std::string::npos)
                continue;
            fmt += "c>";
            int c = 'a' + static_cast<int>(pick(26));
            ASSERT_EQ(libc(fmt.c_str(), c), format(fmt, c)) << fmt;
        } else if (conversion == 's') {
            if (directive.find('0') != std::string::npos)
                continue;
            fmt += "s>";
            ASSERT_EQ(libc(fmt.c_str(), text.c_str()), format(fmt, text.c_str())) << fmt;
        } else {
            fmt += std::string("l") + conversion + ">";
            long number = static_cast<long>(pick(2) == 0 ? value : 0 - value);
            ASSERT_EQ(libc(fmt.c_str(), number), format(fmt, number)) << fmt;
        }
    }
}
