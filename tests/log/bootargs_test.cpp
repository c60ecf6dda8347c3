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
    EXPECT_EQ(parse("quiet mem=0x100 ro", "mem"), 256u);
    EXPECT_EQ(parse("mem=100", "mem"), 100u);
    EXPECT_EQ(parse("mem=0100\n", "mem"), 64u);
    EXPECT_EQ(parse("mem=18446744073709551615 ", "mem"), ULONG_MAX);
    EXPECT_EQ(parse("mem=99999999999999999999 ", "mem"), ULONG_MAX);
    EXPECT_EQ(parse("mem=-1", "mem"), ULONG_MAX);
    EXPECT_EQ(parse("mem=12ab", "mem"), 12u);
    EXPECT_EQ(parse("mem=abc", "mem"), 0u);
    EXPECT_EQ(parse("mem=1 mem=2", "mem"), 1u) << "the first";
    EXPECT_EQ(parse("quiet ro", "mem"), 0u);
}

TEST(ParseCmdline, AKeyMatchesInsideAWord)
{
    EXPECT_EQ(parse("cab=1 ab=2", "ab"), 1u);
    EXPECT_EQ(parse("able=7", "ab"), 0u) << "one character is skipped whatever it is";
    EXPECT_EQ(parse("abx7", "ab"), 7u);
}

TEST(ParseCmdline, BlanksEndTheValueFromItsSecondCharacterOn)
{
    EXPECT_EQ(parse("mem=1 2", "mem"), 1u);
    EXPECT_EQ(parse("mem= 7 8", "mem"), 7u) << "a first blank does not";
    EXPECT_EQ(parse("mem 7", "mem"), 7u);
}

TEST(ParseCmdline, AKeyAtTheVeryEndGivesZero)
{
    EXPECT_EQ(parse("quiet mem", "mem"), 0u);
    EXPECT_EQ(parse("quiet mem=", "mem"), 0u);
    EXPECT_EQ(parse("mem", "mem"), 0u);
    EXPECT_EQ(parse("", "mem"), 0u);
}

TEST(ParseCmdline, TheCharacterAfterTheKeyIsSkippedEvenIfItIsAZeroByte)
{
    using namespace std::string_literals;
    EXPECT_EQ(parse("quiet mem\0"
                    "0x20 ro"s,
                    "mem"),
              32u);
    EXPECT_EQ(parse("mem\0"
                    "17\0"
                    "5"s,
                    "mem"),
              17u)
        << "a zero byte ends the value";
    EXPECT_EQ(parse("mem\0\0"
                    "17"s,
                    "mem"),
              0u);
    EXPECT_EQ(parse("mem\0"s, "mem"), 0u);
    EXPECT_EQ(parse("quiet\0"
                    "mem=7"s,
                    "mem"),
              0u)
        << "the key is looked for before the first one";
    EXPECT_EQ(parse(std::string(4095 - 4, 'x') + "mem\0"
                                                 "7"s,
                    "mem"),
              0u)
        << "the 4096th byte does not count";
    EXPECT_EQ(parse(std::string(4095 - 5, 'x') + "mem\0"
                                                 "7"s,
                    "mem"),
              7u);
}

TEST(ParseCmdline, Only4095BytesCount)
{
    auto padded = [](std::size_t before, const std::string &tail) { return std::string(before, 'x') + tail; };
    EXPECT_EQ(parse(padded(4095 - 5, "mem=7") + "89", "mem"), 7u) << "the digits behind are not read";
    EXPECT_EQ(parse(padded(4095 - 4, "mem=7"), "mem"), 0u);
    EXPECT_EQ(parse(padded(4095 - 3, "mem=7"), "mem"), 0u) << "the key ends at the last byte";
    EXPECT_EQ(parse(padded(4095 - 2, "mem=7"), "mem"), 0u);
    EXPECT_EQ(parse(padded(4092, " mem"), "mem"), 0u);
}

TEST(ParseCmdline, FailuresAreSaidOnStandardOutput)
{
    std::string said = capture_stdout([] { EXPECT_EQ(qv_parse_cmdline("/no/file", "mem"), 0u); });
    EXPECT_EQ(said, "open /no/file failed\n");
    said = capture_stdout([] { EXPECT_EQ(qv_parse_cmdline("/etc", "mem"), 0u); });
    EXPECT_EQ(said, "read /etc failed, Is a directory\n");
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
    EXPECT_EQ(qv_has_bootargs("qv_output"), 1);
    EXPECT_EQ(qv_has_bootargs("v_out"), 1);
    EXPECT_EQ(qv_has_bootargs("verbose"), 0);
    EXPECT_EQ(qv_has_bootargs(""), 1);
}

TEST(HasBootargs, Only1023BytesCount)
{
    bind_over("/proc/cmdline", std::string(1023 - 4, 'x') + "word");
    EXPECT_EQ(qv_has_bootargs("word"), 1);
    bind_over("/proc/cmdline", std::string(1024 - 4, 'x') + "word");
    EXPECT_EQ(qv_has_bootargs("word"), 0);
    EXPECT_EQ(qv_has_bootargs("wor"), 1);
}

TEST(HasBootargs, IsOpenedForWritingTooSoARefusalMeansNo)
{
    bind_over("/proc/cmdline", "qv_output");
    remount("/proc/cmdline", true);
    EXPECT_EQ(qv_has_bootargs("qv_output"), 0);
}

TEST(Output, QuietLevelsPrintOnlyOnADeviceBootedVerbosely)
{
    bind_over("/proc/cmdline", "quiet\n");
    for (int level : {-1, 0, 2, 3, 6, 100})
        EXPECT_EQ(qv_output(level, "no\n"), 0);
    EXPECT_EQ(read_file(kConsole), "");
    bind_over("/proc/cmdline", "quiet qv_output\n");
    EXPECT_EQ(qv_output(2, "two %d\n", 2), 6);
    EXPECT_EQ(qv_output(-1, "neg\n"), 4);
    EXPECT_EQ(read_file(kConsole), "two 2\nneg\n");
}

TEST(Output, Levels1And4And5AlwaysPrint)
{
    bind_over("/proc/cmdline", "quiet\n");
    EXPECT_EQ(qv_output(1, "one\n"), 0) << "which tells nothing of its length";
    EXPECT_EQ(qv_output(4, "four\n"), 5);
    EXPECT_EQ(qv_output(5, "five\n"), 5);
    EXPECT_EQ(read_file(kConsole), "one\nfour\nfive\n");
    EXPECT_THAT(read_file("/etc/consolelog"), testing::EndsWith(" five\n"));
}

TEST(Output, TextIsCutTo1023CharactersAndPercentSignsStay)
{
    EXPECT_EQ(qv_output(4, "%s", std::string(1023, 'x').c_str()), 1023);
    EXPECT_EQ(qv_output(4, "%s", std::string(1024, 'y').c_str()), 1023);
    EXPECT_EQ(qv_output(4, "100%%d\n"), 6);
    EXPECT_EQ(read_file(kConsole), std::string(1023, 'x') + std::string(1023, 'y') + "100%d\n");
}

TEST(BootArgsKernel, ArgumentsOfTheRealCommandLine)
{
    if (std::getenv("LIBCOMMON_VM_EPOCH") == nullptr)
        GTEST_SKIP() << "needs a machine booted with arguments of ours";
    EXPECT_EQ(qv_parse_cmdline("/proc/cmdline", "libcommon.probe"), 0x100u);
    EXPECT_EQ(qv_has_bootargs("qv_output"), 1);
    EXPECT_EQ(qv_output(2, "verbose\n"), 8);
    EXPECT_EQ(read_file(kConsole), "verbose\n");
}
