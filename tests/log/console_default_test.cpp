// SPDX-License-Identifier: Apache-2.0
// The reading of the kernel's list of consoles, which runs when the platform does not answer for it: here the switch is
// the test's own.
#include "console_print.h"

#include "support/support.h"

#include <cstdarg>
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
    EXPECT_EQ(asked(kPreferred), 1);
    EXPECT_EQ(asked(kOther + kPreferred), 1);
    EXPECT_EQ(asked("ttyS0 -W- (E  p a) 4:64\n"), 0);
    EXPECT_EQ(asked("ttyS0 -W- (E  p a) 4:64\ntty0 -WU (EC p ) 4:1\n"), 0) << "flags of a later line";
    EXPECT_EQ(asked("tty0 -WU (EC p ) 4:1\nttyS0 -W- (E p a) 4:64\n"), 0) << "flags of an earlier line";
    EXPECT_EQ(asked("tty0 -WU (EC p ) 4:1\n"), 0);
    EXPECT_EQ(asked(""), 0);
}

TEST(DefaultConsole, ALineWithoutNewlineDoesNotCount)
{
    EXPECT_EQ(asked("ttyS0 -W- (EC p a) 4:64"), 0);
}

TEST(DefaultConsole, OnlyTheFirstOccurrenceOfTheNameIsLookedAt)
{
    EXPECT_EQ(asked("ttyS01 -W- (E ) 4:65\n" + kPreferred), 0);
    EXPECT_EQ(asked("ttyS01 -W- (EC ) 4:65\n"), 1) << "a longer name matches too";
}

TEST(DefaultConsole, Only255BytesAreRead)
{
    EXPECT_EQ(asked(std::string(254 - kPreferred.size(), '#') + "\n" + kPreferred), 1);
    EXPECT_EQ(asked(std::string(255 - kPreferred.size(), '#') + "\n" + kPreferred), 0) << "its newline is the 256th";
}

TEST(DefaultConsole, AMissingListMeansNo)
{
    ChildResult child = run_child([] {
        ::unshare(CLONE_NEWNS);
        mount_tmpfs("/proc");
        ::_exit(is_default_console_device("ttyS0"));
    });
    EXPECT_TRUE(child.exited(0));
    EXPECT_EQ(is_default_console_device(nullptr), 0);
}

TEST(DefaultConsole, AnotherDefaultMakesTheSerialPortAnOutputOfItsOwn)
{
    bind_over("/proc/consoles", kOther);
    console_print_t("a\n");
    EXPECT_EQ(read_file(kSerial), "a\n");
    EXPECT_EQ(read_file(kConsole), "a\n");
}

TEST(DefaultConsole, IsDecidedOnce)
{
    bind_over("/proc/consoles", kPreferred);
    console_print_t("a\n");
    bind_over("/proc/consoles", kOther);
    console_print_t("b\n");
    EXPECT_EQ(read_file(kSerial), "");
    EXPECT_EQ(read_file(kConsole), "a\nb\n");
}

TEST(DefaultConsole, TheSignalPathAsksForItself)
{
    auto print = [](const char *format, ...) {
        va_list ap;
        va_start(ap, format);
        console_print_args_sigctx(1, nullptr, format, ap);
        va_end(ap);
    };
    bind_over("/proc/consoles", kPreferred);
    console_print_t("a\n");
    bind_over("/proc/consoles", kOther);
    print("b\n");
    EXPECT_EQ(read_file(kSerial), "b\n");
    bind_over("/proc/consoles", kPreferred);
    print("c\n");
    EXPECT_EQ(read_file(kSerial), "b\nc\n") << "once";
}
