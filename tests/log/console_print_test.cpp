// SPDX-License-Identifier: Apache-2.0
#include "console_print.h"

#include "support/next_function.h"
#include "support/support.h"

#include <cerrno>
#include <climits>
#include <cstdarg>
#include <cstdlib>
#include <cstring>
#include <ctime>
#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

using namespace support;

namespace {

// ---- what the tests interpose ----

std::time_t told_time = 1769850000; // 2026-01-31 09:00:00 UTC; -1 fails
const std::string kStamp = "2026-01-31 09:00:00 ";
int numa_answer = 0;
bool numa_spoils_errno = false;
int told_length = 0; // what vsnprintf() returns without formatting, unless 0
int formattings = 0;
bool no_memory = false;
int allocations = 0;

const char *const kLog = "/etc/consolelog";
const std::string kTooLong = "Error: the size to output is beyond max length\n";

std::string line(std::size_t length)
{
    return std::string(length - 1, 'x') + "\n";
}

std::string drops(int count)
{
    return kStamp + "Pid " + std::to_string(::getpid()) + " drops total " + std::to_string(count) +
           " logs as file oversize\n";
}

void make_log(std::size_t size, const std::string &path = kLog)
{
    write_file(path, std::string(size, 'o'));
}

// What is appended to a log made by make_log().
std::string appended(std::size_t size, const std::string &path = kLog)
{
    return read_file(path).substr(size);
}

std::string mirrored;
int mirror_depth = 0;

int mirror(const char *format, va_list ap)
{
    char text[64];
    std::vsnprintf(text, sizeof text, format, ap);
    mirrored += text;
    errno = EBADF;
    return 99;
}

int printing_mirror(const char *format, va_list ap)
{
    mirror(format, ap);
    if (mirror_depth++ == 0)
        qv_ilog("again\n");
    return 0;
}

int print_args(int to_console, const char *path, const char *format, ...)
{
    va_list ap;
    va_start(ap, format);
    int result = console_print_args(to_console, path, format, ap);
    va_end(ap);
    return result;
}

} // namespace

extern "C" int qv_is_numa_ssm(void)
{
    if (numa_spoils_errno)
        errno = EBADF;
    return numa_answer;
}

extern "C" std::time_t time(std::time_t *t)
{
    if (t != nullptr)
        *t = told_time;
    return told_time;
}

extern "C" int vsnprintf(char *out, std::size_t size, const char *format, va_list ap)
{
    static auto real = support::next_function<int(char *, std::size_t, const char *, va_list)>("vsnprintf");
    formattings++;
    return told_length != 0 ? told_length : real(out, size, format, ap);
}

extern "C" void *realloc(void *block, std::size_t size)
{
    static auto real = support::next_function<void *(void *, std::size_t)>("realloc");
    allocations++;
    return no_memory ? nullptr : real(block, size);
}

// ---- destinations ----

TEST(ConsolePrint, GoesToTheConsoleAndTheLog)
{
    EXPECT_EQ(13, console_print("link %s is %d\n", "up", 7));
    EXPECT_EQ("link up is 7\n", read_file(kConsole));
    EXPECT_EQ(kStamp + "link up is 7\n", read_file(kLog));
    EXPECT_EQ("", read_file(kSerial)) << "the console is the serial port";
}

TEST(ConsolePrint, StaysOffTheConsoleWhenTheHostRequestsIt)
{
    numa_answer = 1;
    EXPECT_EQ(2, console_print("a\n"));
    EXPECT_EQ("", read_file(kConsole));
    EXPECT_EQ(kStamp + "a\n", read_file(kLog));
    EXPECT_EQ(2, console_print_t("b\n")) << "only this function asks the hook";
    EXPECT_EQ("b\n", read_file(kConsole));
    numa_answer = -1;
    console_print("c\n");
    EXPECT_EQ("b\n", read_file(kConsole));
}

namespace {

int printv(const char *format, ...)
{
    va_list ap;
    va_start(ap, format);
    int first = console_printv(format, ap);
    int second = console_printv(format, ap); // the argument list is unchanged
    va_end(ap);
    EXPECT_EQ(first, second);
    return first;
}

} // namespace

TEST(ConsolePrint, TheFamilyOfTheConsole)
{
    EXPECT_EQ(2, console_print_t("%s\n", "t"));
    EXPECT_EQ(3, console_print_nb("%s\n", "nb"));
    EXPECT_EQ(2, printv("%s\n", "v"));
    EXPECT_EQ("t\nnb\nv\nv\n", read_file(kConsole));
    EXPECT_EQ(kStamp + "t\n" + kStamp + "nb\n" + kStamp + "v\n" + kStamp + "v\n", read_file(kLog));
}

TEST(ConsolePrint, TheFamilyOfTheLogs)
{
    ::mkdir("/flash/platform", 0777);
    console_print_mfunc_set(mirror);
    EXPECT_EQ(2, boot_print("%d\n", 1));
    EXPECT_EQ(2, qv_clog("%d\n", 2));
    EXPECT_EQ(2, qv_ilog("%d\n", 3));
    EXPECT_EQ(2, qv_plog("%d\n", 4));
    EXPECT_EQ(2, qv_fru_mlog("%d\n", 5));
    EXPECT_EQ(kStamp + "1\n", read_file("/etc/bootlog"));
    EXPECT_EQ(kStamp + "2\n", read_file("/etc/consolelog"));
    EXPECT_EQ(kStamp + "3\n", read_file("/etc/ilog.txt"));
    EXPECT_EQ(kStamp + "4\n", read_file("/flash/platform/powerlog"));
    EXPECT_EQ(kStamp + "5\n", read_file("/etc/fru_mlog"));
    EXPECT_EQ("", read_file(kConsole));
    EXPECT_EQ("", read_file(kSerial));
    EXPECT_EQ("1\n2\n3\n4\n5\n", mirrored);
}

TEST(ConsolePrint, LogFilesAreMadeWithMode0777)
{
    ::umask(0);
    qv_clog("x\n");
    struct stat info;
    ASSERT_EQ(0, ::stat(kLog, &info));
    EXPECT_EQ(0777u, info.st_mode & 07777);
}

TEST(ConsolePrint, ALogThatCannotBeOpenedIsNoFailure)
{
    EXPECT_EQ(10, qv_plog("no folder\n"));
    remount("/etc", true);
    EXPECT_EQ(10, console_print("read-only\n"));
    EXPECT_EQ("read-only\n", read_file(kConsole));
}

TEST(ConsolePrint, ARemovedLogIsCreatedAgain)
{
    qv_clog("a\n");
    ::unlink(kLog);
    qv_clog("b\n");
    EXPECT_EQ(kStamp + "b\n", read_file(kLog));
}

TEST(ConsolePrintArgs, DestinationsAreTheCallers)
{
    EXPECT_EQ(3, print_args(0, nullptr, "x%d\n", 1));
    EXPECT_EQ(2, print_args(1, nullptr, "y\n"));
    EXPECT_EQ(2, print_args(-5, "/tmp/own", "z\n")) << "any value but 0";
    EXPECT_EQ("y\nz\n", read_file(kConsole));
    EXPECT_EQ(kStamp + "z\n", read_file("/tmp/own"));
    EXPECT_FALSE(exists(kLog));
}

// ---- console descriptors ----

TEST(ConsoleDevice, IsOpenedOnceAndKept)
{
    console_print_t("a\n");
    int next = ::open("/dev/null", O_RDONLY);
    console_print_t("b\n");
    int after = ::open("/dev/null", O_RDONLY);
    EXPECT_EQ(next + 1, after);
    ::unlink(kConsole); // a later replacement of the device has no effect
    EXPECT_EQ(2, console_print_t("c\n"));
    EXPECT_FALSE(exists(kConsole));
}

TEST(ConsoleDevice, AFailedOpenIsTriedAgain)
{
    std::string moved = std::string(kConsole) + ".away";
    ASSERT_EQ(0, ::rename(kConsole, moved.c_str()));
    EXPECT_EQ(2, console_print_t("a\n"));
    ASSERT_EQ(0, ::rename(moved.c_str(), kConsole));
    EXPECT_EQ(2, console_print_t("b\n"));
    EXPECT_EQ("b\n", read_file(kConsole));
    EXPECT_EQ(kStamp + "a\n" + kStamp + "b\n", read_file(kLog));
}

TEST(ConsoleDevice, DescriptorZeroIsUsedLikeAnyOther)
{
    ChildResult child = run_child([] {
        ::close(0);
        console_print_t("a\n");
        console_print_t("b\n");
        ::_exit(::fcntl(0, F_GETFL) >= 0 && (::fcntl(0, F_GETFL) & O_ACCMODE) == O_WRONLY ? 0 : 1);
    });
    EXPECT_TRUE(child.exited(0));
    EXPECT_EQ("a\nb\n", read_file(kConsole));
}

TEST(ConsoleDevice, WorksWithAllStandardDescriptorsClosed)
{
    ChildResult child = run_child([] {
        for (int fd = 0; fd < 3; fd++)
            ::close(fd);
        console_print("a\n");
        console_print("b\n");
    });
    EXPECT_TRUE(child.exited(0));
    EXPECT_EQ("a\nb\n", read_file(kConsole));
    EXPECT_EQ(kStamp + "a\n" + kStamp + "b\n", read_file(kLog));
}

// ---- lengths ----

TEST(ConsoleLength, UpTo1023NeedsNoHeap)
{
    for (std::size_t n : {1u, 1022u, 1023u}) {
        allocations = formattings = 0;
        EXPECT_EQ(static_cast<int>(n), print_args(0, "/tmp/log", "%s", line(n).c_str()));
        EXPECT_EQ(0, allocations) << n;
        EXPECT_EQ(1, formattings) << n;
        EXPECT_EQ(kStamp + line(n), read_file("/tmp/log"));
        ::unlink("/tmp/log");
    }
}

TEST(ConsoleLength, From1024OnTheTextIsFormattedAgain)
{
    for (std::size_t n : {1024u, 1025u, 5000u, 16381u, 16382u}) {
        allocations = formattings = 0;
        EXPECT_EQ(static_cast<int>(n), print_args(1, "/tmp/log", "%s", line(n).c_str()));
        EXPECT_EQ(1, allocations) << n;
        EXPECT_EQ(2, formattings) << n;
        EXPECT_EQ(kStamp + line(n), read_file("/tmp/log"));
        ::unlink("/tmp/log");
    }
    EXPECT_EQ(line(1024) + line(1025) + line(5000) + line(16381) + line(16382), read_file(kConsole));
}

TEST(ConsoleLength, From16383OnANoticeReplacesTheText)
{
    console_print_t("open\n");
    for (std::size_t n : {16383u, 16384u, 100000u})
        EXPECT_EQ(static_cast<int>(n), console_print_t("%s", line(n).c_str()));
    EXPECT_EQ("open\n" + kTooLong + kTooLong + kTooLong, read_file(kConsole));
    EXPECT_EQ(kStamp + "open\n", read_file(kLog));
    EXPECT_EQ(47u, kTooLong.size());
}

TEST(ConsoleLength, TheNoticeGoesToAnOpenConsoleOnly)
{
    EXPECT_EQ(16383, console_print_t("%s", line(16383).c_str()));
    EXPECT_EQ("", read_file(kConsole));
    EXPECT_FALSE(exists(kLog));
    console_print_t("open\n");
    EXPECT_EQ(20000, qv_ilog("%s", line(20000).c_str())) << "also if the text does not go to the console";
    EXPECT_EQ("open\n" + kTooLong, read_file(kConsole));
}

TEST(ConsoleLength, TheLongestPossibleTextIsCountedAndRefused)
{
    console_print_t("open\n");
    told_length = INT_MAX;
    EXPECT_EQ(INT_MAX, print_args(0, kLog, "x"));
    told_length = 0;
    EXPECT_EQ("open\n" + kTooLong, read_file(kConsole));
}

TEST(ConsoleLength, FailingFormattingGrowsTheBufferAndEndsInTheNotice)
{
    console_print_t("open\n");
    formattings = allocations = 0;
    told_length = -1;
    EXPECT_EQ(-1, print_args(1, kLog, "x\n"));
    told_length = 0;
    EXPECT_EQ(4, formattings) << "with 1024, 2048, 4096 and 8192 bytes";
    EXPECT_EQ(3, allocations);
    EXPECT_EQ("open\n" + kTooLong, read_file(kConsole));
}

TEST(ConsoleLength, WithoutMemoryNothingIsWritten)
{
    console_print_t("open\n");
    no_memory = true;
    EXPECT_EQ(-1, print_args(1, kLog, "%s", line(2000).c_str()));
    no_memory = false;
    EXPECT_EQ("open\n", read_file(kConsole));
    EXPECT_EQ(kStamp + "open\n", read_file(kLog));
}

TEST(ConsoleLength, AnEmptyMessageGetsNoStamp)
{
    EXPECT_EQ(0, console_print("%s", ""));
    EXPECT_EQ("", read_file(kConsole));
    EXPECT_TRUE(exists(kLog));
    EXPECT_EQ("", read_file(kLog));
}

// ---- stamps ----

TEST(ConsoleStamp, PrecedesThePieceThatEndsTheLine)
{
    qv_clog("one, ");
    qv_clog("two\n");
    EXPECT_EQ("one, " + kStamp + "two\n", read_file(kLog));
}

TEST(ConsoleStamp, In1970ItIsTheUptime)
{
    told_time = 42;
    qv_clog("x\n");
    told_time = 0;
    qv_clog("y\n");
    told_time = 31535999; // 1970-12-31 23:59:59
    qv_clog("z\n");
    told_time = 31536000;
    qv_clog("w\n");
    EXPECT_EQ("uptime 42 x\nuptime 0 y\nuptime 31535999 z\n1971-01-01 00:00:00 w\n", read_file(kLog));
}

TEST(ConsoleStamp, FollowsTheTimeZone)
{
    ::setenv("TZ", "XXX-2:30", 1);
    qv_clog("x\n");
    ::setenv("TZ", "XXX+10", 1);
    qv_clog("y\n");
    EXPECT_EQ("2026-01-31 11:30:00 x\n2026-01-30 23:00:00 y\n", read_file(kLog));
}

TEST(ConsoleStamp, YearsOfOtherThanFourDigits)
{
    ::setenv("TZ", "UTC0", 1);
    constexpr std::time_t kYear10000 = 253402300800;
    constexpr std::time_t kYear0 = -62167219200;
    for (std::time_t time : {kYear10000 - 1, kYear10000, kYear0, kYear0 - 1}) {
        told_time = time;
        qv_clog("x\n");
    }
    EXPECT_EQ("9999-12-31 23:59:59 x\n10000-01-01 00:00:00 x\n0000-01-01 00:00:00 x\n-001-12-31 23:59:59 x\n",
              read_file(kLog));
}

TEST(ConsoleStamp, IsLeftOutWithoutATime)
{
    told_time = -1;
    EXPECT_EQ(2, qv_clog("x\n"));
    told_time = LONG_MAX; // beyond every calendar
    EXPECT_EQ(2, qv_clog("y\n"));
    EXPECT_EQ("x\ny\n", read_file(kLog));
}

TEST(ConsoleStamp, LeavesTheStaticRecordOfLocaltimeAlone)
{
    std::time_t other = 1000000000;
    tm *record = ::localtime(&other);
    int year = record->tm_year;
    qv_clog("x\n");
    EXPECT_EQ(year, record->tm_year);
}

TEST(ConsoleStampKernel, Epoch1970ClockGivesUptime)
{
    if (std::getenv("LIBCOMMON_VM_EPOCH") == nullptr)
        GTEST_SKIP() << "needs a machine with a clock in 1970";
    static auto real = support::next_function<std::time_t(std::time_t *)>("time");
    told_time = real(nullptr);
    qv_clog("x\n");
    EXPECT_EQ("uptime " + std::to_string(told_time) + " x\n", read_file(kLog));
}

// ---- the size limit ----

TEST(ConsoleLimit, AFileOfExactly512KiBAcceptsOneMore)
{
    make_log(524288);
    qv_clog("x\n");
    EXPECT_EQ(kStamp + "x\n", appended(524288));
    qv_clog("y\n");
    EXPECT_EQ(kStamp + "x\n", appended(524288));
}

TEST(ConsoleLimit, DropsAreCountedAndReportedByTheNextLineWritten)
{
    make_log(524289);
    EXPECT_EQ(2, console_print("1\n"));
    EXPECT_EQ(2, qv_clog("2\n"));
    EXPECT_EQ(1, qv_clog("3"));
    EXPECT_EQ("", appended(524289));
    EXPECT_EQ("1\n", read_file(kConsole)) << "the console has the first line";
    make_log(0);
    qv_clog("4\n");
    EXPECT_EQ(drops(3) + kStamp + "4\n", read_file(kLog));
    qv_clog("5\n");
    EXPECT_EQ(drops(3) + kStamp + "4\n" + kStamp + "5\n", read_file(kLog)) << "the notice appears once";
}

TEST(ConsoleLimit, OneCountForAllLogs)
{
    make_log(600000, "/etc/ilog.txt");
    make_log(600000, "/etc/bootlog");
    qv_ilog("1\n");
    boot_print("2\n");
    qv_clog("3");
    EXPECT_EQ(drops(2) + "3", read_file(kLog)) << "also before a message without newline";
}

TEST(ConsoleLimit, WithoutAStampTheNoticeIsAlone)
{
    make_log(600000);
    qv_clog("1\n");
    make_log(0);
    told_time = -1;
    qv_clog("2\n");
    EXPECT_EQ(drops(1).substr(kStamp.size()) + "2\n", read_file(kLog));
}

// ---- the mirror hook ----

TEST(Mirror, SeesEveryMessageAndItsResultIsIgnored)
{
    EXPECT_EQ(nullptr, mirror_func);
    EXPECT_EQ(0, console_print_mfunc_set(mirror));
    EXPECT_EQ(mirror, mirror_func);
    EXPECT_EQ(3, console_print("a%d\n", 1));
    EXPECT_EQ(2, qv_ilog("b\n"));
    EXPECT_EQ("a1\nb\n", mirrored);
    EXPECT_EQ(0, console_print_mfunc_set(nullptr));
    console_print("c\n");
    EXPECT_EQ("a1\nb\n", mirrored);
    mirror_func = mirror;
    console_print("d\n");
    EXPECT_EQ("a1\nb\nd\n", mirrored) << "the global may be set directly";
}

TEST(Mirror, SeesWhatIsTooLongToPrint)
{
    console_print_mfunc_set(mirror);
    qv_ilog("%s", line(20000).c_str());
    EXPECT_EQ(std::string(63, 'x'), mirrored);
}

TEST(Mirror, AHookThatPrintsIsCalledAgain)
{
    console_print_mfunc_set(printing_mirror);
    qv_clog("a\n");
    EXPECT_EQ("a\nagain\n", mirrored);
    EXPECT_EQ(kStamp + "again\n", read_file("/etc/ilog.txt"));
    EXPECT_EQ(kStamp + "a\n", read_file(kLog));
}

// ---- errno ----

TEST(ConsoleErrno, PercentMIsTheCallersErrnoWhateverHappensBefore)
{
    numa_spoils_errno = true;
    console_print_mfunc_set(mirror);
    errno = ENOENT;
    EXPECT_EQ(26, console_print("%m\n"));
    EXPECT_EQ(ENOENT, errno) << "the caller's errno is unchanged";
    EXPECT_EQ("No such file or directory\n", read_file(kConsole));
    EXPECT_EQ("No such file or directory\n", mirrored);
}

TEST(ConsoleErrno, PercentMSurvivesTheSecondFormatting)
{
    errno = ENOENT;
    int n = console_print_t("%1500d %m\n", 5);
    EXPECT_EQ(1527, n);
    EXPECT_THAT(read_file(kConsole), testing::EndsWith(" No such file or directory\n"));
}

TEST(ConsoleErrno, IsLeftAloneWhenNothingWorks)
{
    remount("/etc", true);
    ::unlink(kConsole);
    errno = 0;
    console_print("x\n");
    EXPECT_EQ(0, errno);
}

// ---- the platform ----

TEST(Platform, AMarkerFileMadeLaterIsSeenAndThenRemembered)
{
    EXPECT_EQ(0, qv_is_pcap_network());
    EXPECT_EQ(0, qv_is_pcap_network());
    write_file("/etc/pcap", "");
    EXPECT_EQ(1, qv_is_pcap_network());
    ::unlink("/etc/pcap");
    EXPECT_EQ(1, qv_is_pcap_network());
}

TEST(Platform, WithTheXenMarkerTheSerialPortIsLeftAlone)
{
    EXPECT_EQ(0, qv_is_aws());
    mount_tmpfs("/sys");
    ::mkdir("/sys/devices", 0755);
    ::mkdir("/sys/devices/system", 0755);
    ::mkdir("/sys/devices/system/xen_memory", 0755);
    EXPECT_EQ(1, qv_is_aws());
    console_print("x\n");
    EXPECT_EQ("x\n", read_file(kConsole));
    EXPECT_EQ("", read_file(kSerial));
}

TEST(Platform, EveryNamedConsoleCountsAsTheDefaultOne)
{
    EXPECT_EQ(1, qv_is_support_default_console_device());
    EXPECT_EQ(1, is_default_console_device("ttyS0"));
    EXPECT_EQ(1, is_default_console_device("nonsense"));
    EXPECT_EQ(0, is_default_console_device(nullptr));
}
