// SPDX-License-Identifier: Apache-2.0
// The path of the fatal-signal handler, called directly; the crash tests run it inside real handlers.
#include "console_print.h"

#include "support/next_function.h"
#include "support/print_fatal.h"
#include "support/support.h"

#include <cerrno>
#include <cstdarg>
#include <cstring>
#include <ctime>
#include <fcntl.h>
#include <sys/syscall.h>
#include <sys/time.h>
#include <unistd.h>

using namespace support;

namespace {

// ---- what the tests interpose ----

int clock_result = 0;
timeval told_clock = {1769850000, 0}; // 2026-01-31 09:00:00 UTC
int minutes_west = 0;
std::time_t told_time = 1234;
const std::string kStamp = "2026-01-31 09:00:00(UTC) ";
const char *const kLog = "/etc/consolelog";

std::string drops(int count)
{
    return "Pid " + std::to_string(::getpid()) + " drops total " + std::to_string(count) + " logs as file oversize\n";
}

} // namespace

extern "C" std::time_t time(std::time_t *t)
{
    if (t != nullptr)
        *t = told_time;
    return told_time;
}

extern "C" long syscall(long number, ...)
{
    va_list ap;
    va_start(ap, number);
    long a[6];
    for (long &argument : a)
        argument = va_arg(ap, long);
    va_end(ap);
    static auto real = support::next_function<long(long, ...)>("syscall");
    if (number != SYS_gettimeofday)
        return real(number, a[0], a[1], a[2], a[3], a[4], a[5]);
    *reinterpret_cast<timeval *>(a[0]) = told_clock;
    *reinterpret_cast<struct timezone *>(a[1]) = {minutes_west, 0};
    return clock_result;
}

// ---- the message ----

TEST(SigctxPrint, GoesToTheConsoleAndTheLog)
{
    EXPECT_EQ(21, print_fatal(1, kLog, "ePC %016lx\n", 0xABCUL));
    EXPECT_EQ("ePC 0000000000000abc\n", read_file(kConsole));
    EXPECT_EQ(kStamp + "ePC 0000000000000abc\n", read_file(kLog));
    EXPECT_EQ("", read_file(kSerial));
    EXPECT_EQ(2, print_fatal(0, nullptr, "x\n"));
    EXPECT_EQ(2, print_fatal(0, kLog, "y\n"));
    EXPECT_EQ("ePC 0000000000000abc\n", read_file(kConsole));
}

TEST(SigctxPrint, LongTextIsCutTo1024BytesWithItsZero)
{
    for (std::size_t n : {1024u, 1025u, 2000u}) {
        ::unlink("/tmp/log");
        EXPECT_EQ(1024, print_fatal(0, "/tmp/log", "%s\n", std::string(n - 1, 'x').c_str()));
        std::string wanted = std::string(1023, 'x') + '\0';
        EXPECT_EQ(wanted, read_file("/tmp/log")) << n << ": without a stamp";
    }
}

TEST(SigctxPrint, UpTo1023CharactersAreWhole)
{
    for (std::size_t n : {1u, 1022u, 1023u}) {
        ::unlink("/tmp/log");
        std::string text = std::string(n - 1, 'x') + "\n";
        EXPECT_EQ(static_cast<int>(n), print_fatal(0, "/tmp/log", "%s", text.c_str()));
        EXPECT_EQ(kStamp + text, read_file("/tmp/log"));
    }
}

TEST(SigctxPrint, FailedFormattingWritesTheWholeBuffer)
{
    EXPECT_EQ(1024, print_fatal(1, nullptr, "%lc\n", static_cast<wint_t>(0xD800)));
    EXPECT_EQ(1024u, read_file(kConsole).size());
}

TEST(SigctxPrint, NoHookAndTheCallersErrno)
{
    console_print_mfunc_set([](const char *, va_list) -> int {
        ADD_FAILURE() << "the hook ran";
        return 0;
    });
    errno = ENOENT;
    print_fatal(1, kLog, "%m\n");
    EXPECT_EQ(ENOENT, errno);
    EXPECT_EQ("No such file or directory\n", read_file(kConsole));
}

TEST(SigctxPrint, AnEmptyMessageGetsNoStamp)
{
    EXPECT_EQ(0, print_fatal(1, kLog, "%s", ""));
    EXPECT_TRUE(exists(kLog));
    EXPECT_EQ("", read_file(kLog));
}

TEST(SigctxPrint, UnwritableLogsAreNoFailure)
{
    EXPECT_EQ(2, print_fatal(0, "/no/such/log", "x\n"));
    remount("/etc", true);
    EXPECT_EQ(2, print_fatal(0, kLog, "x\n"));
}

// ---- console descriptors ----

TEST(SigctxDevice, IsOpenedNonBlockingAndApartFromTheOrdinaryOne)
{
    console_print_t("a\n");
    int ordinary = -1, signal_path = -1;
    print_fatal(1, nullptr, "b\n");
    for (const std::string &name : list_dir("/proc/self/fd")) {
        char target[256] = {};
        [[maybe_unused]] ssize_t n = ::readlink(("/proc/self/fd/" + name).c_str(), target, sizeof target - 1);
        if (std::strcmp(target, kConsole) != 0)
            continue;
        int fd = std::stoi(name);
        ((::fcntl(fd, F_GETFL) & O_NONBLOCK) != 0 ? signal_path : ordinary) = fd;
    }
    EXPECT_GE(ordinary, 0);
    EXPECT_GE(signal_path, 0);
    int next = ::open("/dev/null", O_RDONLY);
    print_fatal(1, nullptr, "c\n");
    EXPECT_EQ(next + 1, ::open("/dev/null", O_RDONLY)) << "opened once";
    EXPECT_EQ("b\nc\n", read_file(kConsole))
        << "each descriptor has its own offset: this one overwrites the first line";
}

TEST(SigctxDevice, AFailedOpenIsTriedAgain)
{
    ASSERT_EQ(0, ::rename(kConsole, "/dev/away"));
    print_fatal(1, nullptr, "a\n");
    ASSERT_EQ(0, ::rename("/dev/away", kConsole));
    print_fatal(1, nullptr, "b\n");
    EXPECT_EQ("b\n", read_file(kConsole));
}

TEST(SigctxDevice, WithTheXenMarkerTheSerialPortIsLeftAlone)
{
    mount_tmpfs("/sys");
    for (const char *folder : {"/sys/devices", "/sys/devices/system", "/sys/devices/system/xen_memory"})
        ::mkdir(folder, 0755);
    print_fatal(1, nullptr, "x\n");
    EXPECT_EQ("", read_file(kSerial));
    EXPECT_EQ("x\n", read_file(kConsole));
}

// ---- stamps ----

TEST(SigctxStamp, TheKernelsZoneOffsetIsAppliedAndStillCalledUtc)
{
    minutes_west = -60;
    print_fatal(0, kLog, "x\n");
    minutes_west = 600;
    print_fatal(0, kLog, "y\n");
    EXPECT_EQ("2026-01-31 10:00:00(UTC) x\n2026-01-30 23:00:00(UTC) y\n", read_file(kLog));
}

TEST(SigctxStamp, TheLibrarysZoneIsNotAsked)
{
    ::setenv("TZ", "XXX-5", 1);
    print_fatal(0, kLog, "x\n");
    EXPECT_EQ(kStamp + "x\n", read_file(kLog));
}

TEST(SigctxStamp, In1970ItIsTheUptimeOfTime)
{
    told_clock.tv_sec = 31535999;
    print_fatal(0, kLog, "x\n");
    told_clock.tv_sec = 31536000;
    print_fatal(0, kLog, "y\n");
    told_clock.tv_sec = 0;
    print_fatal(0, kLog, "z\n");
    told_clock.tv_sec = -1;
    print_fatal(0, kLog, "w\n");
    EXPECT_EQ("uptime 1234 x\n1971-01-01 00:00:00(UTC) y\nuptime 1234 z\n1969-12-31 23:59:59(UTC) w\n",
              read_file(kLog));
}

TEST(SigctxStamp, WithoutTheSystemCallItIsTheUptime)
{
    clock_result = -1;
    print_fatal(0, kLog, "x\n");
    told_time = -1;
    print_fatal(0, kLog, "y\n");
    EXPECT_EQ("uptime 1234 x\ny\n", read_file(kLog));
}

TEST(SigctxStamp, ContinuationsGetNone)
{
    print_fatal(0, kLog, "x, ");
    print_fatal(0, kLog, "y\n");
    EXPECT_EQ("x, " + kStamp + "y\n", read_file(kLog));
}

// ---- the size limit ----

TEST(SigctxLimit, DropsAreCountedApartFromTheOrdinaryPath)
{
    write_file(kLog, std::string(524289, 'o'));
    print_fatal(0, kLog, "1\n");
    print_fatal(0, kLog, "2\n");
    qv_clog("3\n");
    write_file(kLog, "");
    print_fatal(0, kLog, "4\n");
    EXPECT_EQ(kStamp + drops(2) + kStamp + "4\n", read_file(kLog));
    write_file(kLog, "");
    qv_clog("5");
    EXPECT_THAT(read_file(kLog), testing::EndsWith(drops(1) + "5"));
}

TEST(SigctxLimit, AFileOfExactly512KiBAcceptsOneMore)
{
    write_file(kLog, std::string(524288, 'o'));
    print_fatal(0, kLog, "1\n");
    EXPECT_EQ(kStamp + "1\n", read_file(kLog).substr(524288));
}

TEST(SigctxLimit, TheNoticeComesWithAPieceOfALineToo)
{
    write_file(kLog, std::string(600000, 'o'));
    print_fatal(0, kLog, "1\n");
    write_file(kLog, "");
    print_fatal(0, kLog, "2");
    EXPECT_EQ(kStamp + drops(1) + "2", read_file(kLog));
}

TEST(SigctxLimit, WithoutAnyStampTheNoticeStandsAlone)
{
    write_file(kLog, std::string(600000, 'o'));
    print_fatal(0, kLog, "1\n");
    write_file(kLog, "");
    clock_result = -1;
    told_time = -1;
    print_fatal(0, kLog, "2\n");
    EXPECT_EQ(drops(1) + "2\n", read_file(kLog));
}
