// SPDX-License-Identifier: Apache-2.0
#include "bootargs.h"

#include "support/support.h"

#include <climits>
#include <cstdlib>
#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

using namespace support;

namespace {

unsigned long parse(const std::string &text, const char *key)
{
    write_file("/tmp/cmdline", text);
    return qv_parse_cmdline("/tmp/cmdline", key);
}

} // namespace

TEST(ParseCmdline, NumbersInAllNotations)
{
    EXPECT_EQ(256u, parse("quiet mem=0x100 ro", "mem"));
    EXPECT_EQ(100u, parse("mem=100", "mem"));
    EXPECT_EQ(64u, parse("mem=0100\n", "mem"));
    EXPECT_EQ(ULONG_MAX, parse("mem=18446744073709551615 ", "mem"));
    EXPECT_EQ(ULONG_MAX, parse("mem=99999999999999999999 ", "mem"));
    EXPECT_EQ(ULONG_MAX, parse("mem=-1", "mem"));
    EXPECT_EQ(12u, parse("mem=12ab", "mem"));
    EXPECT_EQ(0u, parse("mem=abc", "mem"));
    EXPECT_EQ(1u, parse("mem=1 mem=2", "mem")) << "the first";
    EXPECT_EQ(0u, parse("quiet ro", "mem"));
}

TEST(ParseCmdline, AKeyMatchesInsideAWord)
{
    EXPECT_EQ(1u, parse("cab=1 ab=2", "ab"));
    EXPECT_EQ(0u, parse("able=7", "ab")) << "the character after the key is always skipped";
    EXPECT_EQ(7u, parse("abx7", "ab"));
}

TEST(ParseCmdline, BlanksEndTheValueFromItsSecondCharacterOn)
{
    EXPECT_EQ(1u, parse("mem=1 2", "mem"));
    EXPECT_EQ(7u, parse("mem= 7 8", "mem")) << "a leading blank does not end the value";
    EXPECT_EQ(7u, parse("mem 7", "mem"));
}

TEST(ParseCmdline, AKeyAtTheVeryEndGivesZero)
{
    EXPECT_EQ(0u, parse("quiet mem", "mem"));
    EXPECT_EQ(0u, parse("quiet mem=", "mem"));
    EXPECT_EQ(0u, parse("mem", "mem"));
    EXPECT_EQ(0u, parse("", "mem"));
}

TEST(ParseCmdline, TheCharacterAfterTheKeyIsSkippedEvenIfItIsAZeroByte)
{
    using namespace std::string_literals;
    EXPECT_EQ(32u, parse("quiet mem\0"
                         "0x20 ro"s,
                         "mem"));
    EXPECT_EQ(17u, parse("mem\0"
                         "17\0"
                         "5"s,
                         "mem"))
        << "a zero byte ends the value";
    EXPECT_EQ(0u, parse("mem\0\0"
                        "17"s,
                        "mem"));
    EXPECT_EQ(0u, parse("mem\0"s, "mem"));
    EXPECT_EQ(0u, parse("quiet\0"
                        "mem=7"s,
                        "mem"))
        << "the key is searched for before the first zero byte";
    EXPECT_EQ(0u, parse(std::string(4095 - 4, 'x') + "mem\0"
                                                     "7"s,
                        "mem"))
        << "the 4096th byte is not read";
    EXPECT_EQ(7u, parse(std::string(4095 - 5, 'x') + "mem\0"
                                                     "7"s,
                        "mem"));
}

TEST(ParseCmdline, Only4095BytesCount)
{
    auto padded = [](std::size_t before, const std::string &tail) { return std::string(before, 'x') + tail; };
    EXPECT_EQ(7u, parse(padded(4095 - 5, "mem=7") + "89", "mem")) << "the digits beyond are not read";
    EXPECT_EQ(0u, parse(padded(4095 - 4, "mem=7"), "mem"));
    EXPECT_EQ(0u, parse(padded(4095 - 3, "mem=7"), "mem")) << "the key ends at the last byte";
    EXPECT_EQ(0u, parse(padded(4095 - 2, "mem=7"), "mem"));
    EXPECT_EQ(0u, parse(padded(4092, " mem"), "mem"));
}

TEST(ParseCmdline, FailuresAreSaidOnStandardOutput)
{
    std::string said = capture_stdout([] { EXPECT_EQ(0u, qv_parse_cmdline("/no/file", "mem")); });
    EXPECT_EQ("open /no/file failed\n", said);
    said = capture_stdout([] { EXPECT_EQ(0u, qv_parse_cmdline("/etc", "mem")); });
    EXPECT_EQ("read /etc failed, Is a directory\n", said);
}

TEST(ParseCmdline, LeavesNoDescriptorOpen)
{
    int before = ::open("/dev/null", O_RDONLY);
    ::close(before);
    parse("mem=1", "mem");
    parse("none", "mem");
    int after = ::open("/dev/null", O_RDONLY);
    EXPECT_EQ(before, after);
}

TEST(HasBootargs, LooksForTheTextAnywhere)
{
    bind_over("/proc/cmdline", "quiet qv_output ro\n");
    EXPECT_EQ(1, qv_has_bootargs("qv_output"));
    EXPECT_EQ(1, qv_has_bootargs("v_out"));
    EXPECT_EQ(0, qv_has_bootargs("verbose"));
    EXPECT_EQ(1, qv_has_bootargs(""));
}

TEST(HasBootargs, Only1023BytesCount)
{
    bind_over("/proc/cmdline", std::string(1023 - 4, 'x') + "word");
    EXPECT_EQ(1, qv_has_bootargs("word"));
    bind_over("/proc/cmdline", std::string(1024 - 4, 'x') + "word");
    EXPECT_EQ(0, qv_has_bootargs("word"));
    EXPECT_EQ(1, qv_has_bootargs("wor"));
}

TEST(HasBootargs, IsOpenedForWritingTooSoARefusalMeansNo)
{
    bind_over("/proc/cmdline", "qv_output");
    remount("/proc/cmdline", true);
    EXPECT_EQ(0, qv_has_bootargs("qv_output"));
}

TEST(Output, QuietLevelsPrintOnlyOnADeviceBootedVerbosely)
{
    bind_over("/proc/cmdline", "quiet\n");
    for (int level : {-1, 0, 2, 3, 6, 100})
        EXPECT_EQ(0, qv_output(level, "no\n"));
    EXPECT_EQ("", read_file(kConsole));
    bind_over("/proc/cmdline", "quiet qv_output\n");
    EXPECT_EQ(6, qv_output(2, "two %d\n", 2));
    EXPECT_EQ(4, qv_output(-1, "neg\n"));
    EXPECT_EQ("two 2\nneg\n", read_file(kConsole));
}

TEST(Output, Levels1And4And5AlwaysPrint)
{
    bind_over("/proc/cmdline", "quiet\n");
    EXPECT_EQ(0, qv_output(1, "one\n")) << "the result is not the length";
    EXPECT_EQ(5, qv_output(4, "four\n"));
    EXPECT_EQ(5, qv_output(5, "five\n"));
    EXPECT_EQ("one\nfour\nfive\n", read_file(kConsole));
    EXPECT_THAT(read_file("/etc/consolelog"), testing::EndsWith(" five\n"));
}

TEST(Output, TextIsCutTo1023CharactersAndPercentSignsStay)
{
    EXPECT_EQ(1023, qv_output(4, "%s", std::string(1023, 'x').c_str()));
    EXPECT_EQ(1023, qv_output(4, "%s", std::string(1024, 'y').c_str()));
    EXPECT_EQ(6, qv_output(4, "100%%d\n"));
    EXPECT_EQ(std::string(1023, 'x') + std::string(1023, 'y') + "100%d\n", read_file(kConsole));
}

TEST(BootArgsKernel, ArgumentsOfTheRealCommandLine)
{
    if (std::getenv("LIBCOMMON_VM_EPOCH") == nullptr)
        GTEST_SKIP() << "needs a machine booted with the test's arguments";
    EXPECT_EQ(0x100u, qv_parse_cmdline("/proc/cmdline", "libcommon.probe"));
    EXPECT_EQ(1, qv_has_bootargs("qv_output"));
    EXPECT_EQ(8, qv_output(2, "verbose\n"));
    EXPECT_EQ("verbose\n", read_file(kConsole));
}
