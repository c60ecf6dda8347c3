// SPDX-License-Identifier: Apache-2.0
#include "signal_printf.h"

#include "support/support.h"

#include <climits>
#include <csignal>
#include <cstdarg>
#include <fcntl.h>
#include <random>
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
    EXPECT_EQ(format(""), "");
}

TEST(SignalFormat, PlainTextUpToTheBudgetIsWhole)
{
    for (std::size_t n : {1u, 500u, 924u, 925u}) {
        std::string text(n, 'x');
        EXPECT_EQ(format(text), text) << n;
    }
}

TEST(SignalFormat, PlainTextBeyondTheBudgetIsCutAndSaid)
{
    for (std::size_t n : {926u, 1000u, 5000u})
        EXPECT_EQ(format(std::string(n, 'x')), std::string(925, 'x') + kNotice) << n;
    EXPECT_EQ(format(std::string(1000, 'x')).size(), 965u);
}

TEST(SignalFormat, TheBudgetIsTestedBetweenElements)
{
    auto then_more = [](std::size_t n) { return format("%s!", std::string(n, 'x').c_str()); };
    EXPECT_EQ(then_more(924), std::string(924, 'x') + "!") << "100 left";
    EXPECT_EQ(then_more(925), std::string(925, 'x') + kNotice) << "99 left";
    EXPECT_EQ(then_more(973), std::string(973, 'x') + kNotice) << "51 left";
    EXPECT_EQ(then_more(974), std::string(974, 'x')) << "50 left";
    EXPECT_EQ(then_more(980), std::string(980, 'x'));
}

TEST(SignalFormat, TheLastElementIsNotTested)
{
    for (std::size_t n : {925u, 980u, 1022u, 1023u})
        EXPECT_EQ(format("%s", std::string(n, 'x').c_str()), std::string(n, 'x')) << n;
}

TEST(SignalFormat, AnElementLongerThanTheBufferIsClipped)
{
    for (std::size_t n : {1024u, 1025u, 100000u})
        EXPECT_EQ(format("%s", std::string(n, 'x').c_str()), std::string(1023, 'x')) << n;
    EXPECT_EQ(format("ab%s", std::string(2000, 'x').c_str()), "ab" + std::string(1021, 'x'));
    EXPECT_EQ(format("%1000000d", 7), std::string(1023, ' '));
    EXPECT_EQ(format("%-1000000d", 7), "7" + std::string(1022, ' '));
    EXPECT_EQ(format("%01000000d", 7), std::string(1023, '0'));
    EXPECT_EQ(format("%.1000000d", 7), std::string(1023, '0'));
    EXPECT_EQ(format("%99999999999999999999d", 7), std::string(1023, ' ')) << "widths saturate";
    EXPECT_EQ(format("%.99999999999999999999d", 7), std::string(1023, '0'));
    EXPECT_EQ(format("%99999999999c", 'x'), std::string(1023, ' '));
    EXPECT_EQ(format("%-99999999999s|", "x"), "x" + std::string(1022, ' '));
    EXPECT_EQ(format("%2147483647p", static_cast<void *>(nullptr)), "0x" + std::string(1021, ' '));
}

TEST(SignalFormat, SkippingTheTestAfterN)
{
    int produced = -1;
    EXPECT_EQ(format("abc%n", &produced), "abc");
    EXPECT_EQ(produced, 3);
    EXPECT_EQ(format("%d%n!", 12345, &produced), "12345!");
    EXPECT_EQ(produced, 5);
    EXPECT_EQ(format("%n", &produced), "");
    EXPECT_EQ(produced, 0);
    std::string text(924, 'x');
    EXPECT_EQ(format(text + "%nyz", &produced), text + "y" + kNotice);
    EXPECT_EQ(produced, 924);
}

// ---- numbers ----

TEST(SignalFormat, Decimals)
{
    EXPECT_EQ(format("%d", 0), "0");
    EXPECT_EQ(format("%d", 9), "9");
    EXPECT_EQ(format("%d", 10), "10");
    EXPECT_EQ(format("%d", 99), "99");
    EXPECT_EQ(format("%d", 100), "100");
    EXPECT_EQ(format("%d", -42), "-42");
    EXPECT_EQ(format("%i", INT_MIN), "-2147483648");
    EXPECT_EQ(format("%d", INT_MAX), "2147483647");
    EXPECT_EQ(format("%ld", LONG_MIN), "-9223372036854775808");
    EXPECT_EQ(format("%ld", LONG_MAX), "9223372036854775807");
    EXPECT_EQ(format("%lu", ULONG_MAX), "18446744073709551615");
}

TEST(SignalFormat, Fields)
{
    EXPECT_EQ(format("%5d", -42), "  -42");
    EXPECT_EQ(format("%-5d|", -42), "-42  |");
    EXPECT_EQ(format("%05d", -42), "-0042");
    EXPECT_EQ(format("%-05d|", -42), "-42  |") << "left cancels the zeros";
    EXPECT_EQ(format("%2d", 12345), "12345");
    EXPECT_EQ(format("%0d", 5), "5");
    EXPECT_EQ(format("%00005d", 5), "00005") << "repeated flags";
    EXPECT_EQ(format("%- +5d|", 5), "+5   |") << "flags in any order";
}

TEST(SignalFormat, Signs)
{
    EXPECT_EQ(format("%+d", 7), "+7");
    EXPECT_EQ(format("% d", 7), " 7");
    EXPECT_EQ(format("%+ d", 7), "+7");
    EXPECT_EQ(format("%+d", -7), "-7");
    EXPECT_EQ(format("% d", -7), "-7");
    EXPECT_EQ(format("%+u", 7), "+7") << "a sign flag holds for every number";
    EXPECT_EQ(format("% lx", 255L), " ff");
    EXPECT_EQ(format("%+b", 5), "+101");
    EXPECT_EQ(format("%+05d", 42), "+0042");
}

TEST(SignalFormat, Precisions)
{
    EXPECT_EQ(format("%.3d", 5), "005");
    EXPECT_EQ(format("%.0d", 0), "0");
    EXPECT_EQ(format("%.d", 0), "0");
    EXPECT_EQ(format("%8.3d", -5), "    -005");
    EXPECT_EQ(format("%-8.3d|", -5), "-005    |");
    EXPECT_EQ(format("%08.3d", 5), "00000005") << "zeros fill the field here";
    EXPECT_EQ(format("%.2d", 12345), "12345");
    EXPECT_EQ(format("%.6lx", 0xABCL), "000abc");
}

TEST(SignalFormat, UnsignedExtendsItsSign)
{
    EXPECT_EQ(format("%u", -1), "18446744073709551615");
    EXPECT_EQ(format("%u", INT_MIN), "18446744071562067968");
    EXPECT_EQ(format("%u", 4000000000U), "18446744073414584320");
    EXPECT_EQ(format("%lu", 4000000000UL), "4000000000");
}

TEST(SignalFormat, OtherBases)
{
    EXPECT_EQ(format("%x", 0xDEADBEEFCAFEL), "deadbeefcafe") << "always 64 bits";
    EXPECT_EQ(format("%X", 0xDEADBEEFCAFEL), "DEADBEEFCAFE");
    EXPECT_EQ(format("%x", -1L), "ffffffffffffffff");
    EXPECT_EQ(format("%o", -1L), "1777777777777777777777");
    EXPECT_EQ(format("%o", 8L), "10");
    EXPECT_EQ(format("%b", 5), "101");
    EXPECT_EQ(format("%b", 0), "0");
    EXPECT_EQ(format("%b", -1), std::string(64, '1'));
    EXPECT_EQ(format("%lb", 5), "101");
    EXPECT_EQ(format("%016lx", 0x1000L), "0000000000001000");
    EXPECT_EQ(format("%#x"), "%#x");
}

TEST(SignalFormat, Pointers)
{
    auto at = [](unsigned long address) { return reinterpret_cast<void *>(address); };
    EXPECT_EQ(format("%p", at(0x1000)), "0x1000");
    EXPECT_EQ(format("%p", at(0xabc)), "0xABC");
    EXPECT_EQ(format("%p", at(0)), "0x0");
    EXPECT_EQ(format("%20p", at(0x1000)), "0x" + std::string(16, ' ') + "1000");
    EXPECT_EQ(format("%020p", at(0x1000)), "0x" + std::string(16, '0') + "1000");
    EXPECT_EQ(format("%-8p|", at(0x1000)), "0x1000    |");
    EXPECT_EQ(format("%-p|", at(0x1000)), "0x1000|");
    EXPECT_EQ(format("%.6p", at(0x1000)), "0x001000");
    EXPECT_EQ(format("%p", at(ULONG_MAX)), "0xFFFFFFFFFFFFFFFF");
}

TEST(SignalFormat, ALengthHoldsForTheRestOfTheCall)
{
    EXPECT_EQ(format("%ld %d", 1L, 0x100000002L), "1 4294967298");
    EXPECT_EQ(format("%ls %u", "x", 0x100000002L), "x 4294967298") << "whatever it stood at";
    EXPECT_EQ(format("%lx %i", 1L, -3L), "1 -3");
    EXPECT_EQ(format("%ld %b", 1L, 5), "1 101") << "b takes an int all the same";
    EXPECT_EQ(format("%d", 2), "2") << "and not for the next call";
}

TEST(SignalFormat, Lengths)
{
    for (const char *length : {"l", "L", "H", "ll", "lL", "Ll", "LL", "Hl", "HL"})
        EXPECT_EQ(format(std::string("%") + length + "d", 0x100000002L), "4294967298") << length;
    EXPECT_EQ(format("%lHd", 1L), "%Hd") << "H comes first only";
    EXPECT_EQ(format("%llld", 1L), "%ld") << "two at the most";
}

// ---- characters and strings ----

TEST(SignalFormat, Characters)
{
    EXPECT_EQ(format("%c", 'x'), "x");
    EXPECT_EQ(format("%c", 0x100 + 'x'), "x") << "the low byte";
    EXPECT_EQ(format("%3c|", 'x'), "  x|");
    EXPECT_EQ(format("%-3c|", 'x'), "x  |");
    EXPECT_EQ(format("%0c", 'x'), "x");
    EXPECT_EQ(format("%03c", 'x'), "  x") << "blanks, not zeros";
    char text[8] = {};
    EXPECT_EQ(signal_snprintf(text, sizeof text, "a%cb", 0), 3);
    EXPECT_EQ(std::string(text, 4), std::string("a\0b\0", 4));
}

TEST(SignalFormat, Strings)
{
    EXPECT_EQ(format("%s", "abc"), "abc");
    EXPECT_EQ(format("%s", ""), "");
    EXPECT_EQ(format("%5s|", "abc"), "  abc|");
    EXPECT_EQ(format("%-5s|", "abc"), "abc  |");
    EXPECT_EQ(format("%05s|", "abc"), "  abc|");
    EXPECT_EQ(format("%2s", "abc"), "abc");
    EXPECT_EQ(format("%.2s", "abc"), "ab");
    EXPECT_EQ(format("%.s|", "abc"), "|");
    EXPECT_EQ(format("%.0s|", "abc"), "|");
    EXPECT_EQ(format("%.9s|", "abc"), "abc|");
    EXPECT_EQ(format("%5.2s|", "abc"), "   ab|");
    EXPECT_EQ(format("%-5.2s|", "abc"), "ab   |");
    EXPECT_EQ(format("%+s% s", "a", "b"), "ab") << "signs are for numbers";
    const char unended[3] = {'x', 'y', 'z'};
    EXPECT_EQ(format("%.3s", unended), "xyz");
}

TEST(SignalFormat, PercentAndUnknownConversions)
{
    EXPECT_EQ(format("100%%"), "100%");
    EXPECT_EQ(format("%5%|"), "%|");
    EXPECT_EQ(format("%hd"), "%hd");
    EXPECT_EQ(format("%y"), "%y");
    EXPECT_EQ(format("%5y"), "%y") << "flags and widths are read and lost";
    EXPECT_EQ(format("%*d"), "%*d");
    EXPECT_EQ(format("%.*s"), "%*s");
    EXPECT_EQ(format("%z%d", 3), "%z3");
}

TEST(SignalFormat, AFormatThatEndsInsideAConversionWritesItsPercentSign)
{
    for (const char *end : {"%", "%-", "%5", "%5.", "%.3", "%l", "%ll", "% +-05.3ll"})
        EXPECT_EQ(format(std::string("a") + end), "a%") << end;
}

// ---- the buffer of the caller ----

TEST(SignalSnprintf, CutsToTheRoomAndReturnsWhatItStored)
{
    char text[16];
    std::fill_n(text, sizeof text, '#');
    EXPECT_EQ(signal_snprintf(text, 8, "%s", "abcdefghij"), 7);
    EXPECT_STREQ(text, "abcdefg");
    EXPECT_EQ(text[8], '#');
    EXPECT_EQ(signal_snprintf(text, 1, "%s", "abc"), 0);
    EXPECT_STREQ(text, "");
    EXPECT_EQ(text[1], 'b');
}

TEST(SignalSnprintf, WithoutRoomNothingIsWritten)
{
    char text[2] = {'#', '#'};
    EXPECT_EQ(signal_snprintf(text, 0, "abc"), 0);
    EXPECT_EQ(signal_snprintf(text, -1, "abc"), 0);
    EXPECT_EQ(signal_snprintf(text, INT_MIN, "abc"), 0);
    EXPECT_EQ(text[0], '#');
}

TEST(SignalPrintf, WritesOnce)
{
    int fds[2];
    ASSERT_EQ(::pipe2(fds, O_DIRECT), 0); // keeps each write a packet of its own
    signal_printf(fds[1], "%d and %s", 5, "six");
    char text[64] = {};
    EXPECT_EQ(::read(fds[0], text, sizeof text), 9);
    EXPECT_STREQ(text, "5 and six");
}

TEST(SignalPrintf, FailuresAreSilentAndErrnoStays)
{
    errno = 123;
    signal_printf(-1, "x");
    EXPECT_EQ(errno, 123);
}

TEST(SignalPrintf, InSignalContextIsOffOutsideHandlers)
{
    EXPECT_EQ(in_signal_context(), 0);
}

TEST(SignalPrintf, ResHoldsTheMostSignificantDigit)
{
    format("%d", 7123);
    EXPECT_EQ(__res, 7);
    format("%d", 0);
    EXPECT_EQ(__res, 7) << "a zero leaves it";
    format("%lx", 0xE123L);
    EXPECT_EQ(__res, 14);
    format("%p", reinterpret_cast<void *>(0xB00UL));
    EXPECT_EQ(__res, 11);
    format("%d", -95);
    EXPECT_EQ(__res, 9);
    format("%b", 6);
    EXPECT_EQ(__res, 1);
}

// ---- against the C library, where the two agree ----

TEST(SignalFormatModel, RandomConversionsAgreeWithTheCLibrary)
{
    std::mt19937_64 random(20260131);
    auto pick = [&](std::uint64_t n) { return random() % n; };
    for (std::size_t i = 0; i < effort(300000); i++) {
        std::string directive = "%";
        for (const char *flag : {"-", "0"})
            directive += pick(3) == 0 ? flag : "";
        char conversion = "dxXocs"[pick(6)];
        bool is_signed = conversion == 'd';
        if (is_signed)
            directive += pick(4) == 0 ? "+" : pick(4) == 0 ? " " : "";
        if (pick(2) == 0)
            directive += std::to_string(1 + pick(40));
        // A precision together with '0' is the one place where the padding differs, and 0 digits of a 0 another.
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
            ASSERT_EQ(format(fmt, c), libc(fmt.c_str(), c)) << fmt;
        } else if (conversion == 's') {
            if (directive.find('0') != std::string::npos)
                continue;
            fmt += "s>";
            ASSERT_EQ(format(fmt, text.c_str()), libc(fmt.c_str(), text.c_str())) << fmt;
        } else {
            fmt += std::string("l") + conversion + ">";
            long number = static_cast<long>(pick(2) == 0 ? value : 0 - value);
            ASSERT_EQ(format(fmt, number), libc(fmt.c_str(), number)) << fmt;
        }
    }
}
