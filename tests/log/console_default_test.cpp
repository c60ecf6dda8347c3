// SPDX-License-Identifier: Apache-2.0
// The reading of the kernel's list of consoles, which happens unless the platform decides. This program defines the
// platform's switch itself.
#include "console_print.h"

#include "support/print_fatal.h"
#include "support/support.h"

#include <sched.h>
#include <unistd.h>

using namespace support;

extern "C" int qv_is_support_default_console_device(void)
{
    return 0;
}

namespace {

int asked(const std::string &list)
{
    bind_over("/proc/consoles", list);
    return is_default_console_device("ttyS0");
}

const std::string kPreferred = "ttyS0                -W- (EC p a)    4:64\n";
const std::string kOther = "tty0                 -WU (E  p  )    4:1\n";

} // namespace

TEST(DefaultConsole, TheOwnLineMustCarryBothFlags)
{
    EXPECT_EQ(1, asked(kPreferred));
    EXPECT_EQ(1, asked(kOther + kPreferred));
    EXPECT_EQ(0, asked("ttyS0 -W- (E  p a) 4:64\n"));
    EXPECT_EQ(0, asked("ttyS0 -W- (E  p a) 4:64\ntty0 -WU (EC p ) 4:1\n")) << "flags of a later line do not count";
    EXPECT_EQ(0, asked("tty0 -WU (EC p ) 4:1\nttyS0 -W- (E p a) 4:64\n")) << "flags of an earlier line do not count";
    EXPECT_EQ(0, asked("tty0 -WU (EC p ) 4:1\n"));
    EXPECT_EQ(0, asked(""));
}

TEST(DefaultConsole, ALineWithoutNewlineDoesNotCount)
{
    EXPECT_EQ(0, asked("ttyS0 -W- (EC p a) 4:64"));
}

TEST(DefaultConsole, OnlyTheFirstOccurrenceOfTheNameIsLookedAt)
{
    EXPECT_EQ(0, asked("ttyS01 -W- (E ) 4:65\n" + kPreferred));
    EXPECT_EQ(1, asked("ttyS01 -W- (EC ) 4:65\n")) << "a longer name matches too";
}

TEST(DefaultConsole, Only255BytesAreRead)
{
    EXPECT_EQ(1, asked(std::string(254 - kPreferred.size(), '#') + "\n" + kPreferred));
    EXPECT_EQ(0, asked(std::string(255 - kPreferred.size(), '#') + "\n" + kPreferred))
        << "its newline is the 256th byte";
}

TEST(DefaultConsole, AMissingListMeansNo)
{
    ChildResult child = run_child([] {
        ::unshare(CLONE_NEWNS);
        mount_tmpfs("/proc");
        ::_exit(is_default_console_device("ttyS0"));
    });
    EXPECT_TRUE(child.exited(0));
    EXPECT_EQ(0, is_default_console_device(nullptr));
}

TEST(DefaultConsole, AnotherDefaultMakesTheSerialPortAnOutputOfItsOwn)
{
    bind_over("/proc/consoles", kOther);
    console_print_t("a\n");
    EXPECT_EQ("a\n", read_file(kSerial));
    EXPECT_EQ("a\n", read_file(kConsole));
}

TEST(DefaultConsole, IsDecidedOnce)
{
    bind_over("/proc/consoles", kPreferred);
    console_print_t("a\n");
    bind_over("/proc/consoles", kOther);
    console_print_t("b\n");
    EXPECT_EQ("", read_file(kSerial));
    EXPECT_EQ("a\nb\n", read_file(kConsole));
}

TEST(DefaultConsole, TheSignalPathAsksForItself)
{
    bind_over("/proc/consoles", kPreferred);
    console_print_t("a\n");
    bind_over("/proc/consoles", kOther);
    print_fatal(1, nullptr, "b\n");
    EXPECT_EQ("b\n", read_file(kSerial));
    bind_over("/proc/consoles", kPreferred);
    print_fatal(1, nullptr, "c\n");
    EXPECT_EQ("b\nc\n", read_file(kSerial)) << "only once";
}
