// SPDX-License-Identifier: Apache-2.0
// Console lines that the termination logger and the trace toggle print inside their handlers: ordinary lines, printed
// without a lock or an allocation.
#include "console_print.h"

#include "fault/crash_support.h"
#include "qv_time.h"
#include "support/next_function.h"

#include <atomic>
#include <cerrno>
#include <clocale>
#include <csignal>
#include <cstdarg>
#include <ctime>
#include <fcntl.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <thread>

using namespace support;
using namespace crash;

namespace {

const char *const kLog = "/etc/consolelog";
constexpr std::time_t kWinter = 1769850000; // 2026-01-31 09:00:00 UTC
constexpr std::time_t kSummer = 1785488400; // 2026-07-31 09:00:00 UTC
constexpr const char *kDaylightZone = "CET-1CEST,M3.5.0,M10.5.0/3";

std::time_t told_time = 0; // 0: the real time
std::atomic<bool> counting{false};
std::atomic<int> allocations{0};

// A termination signal whose log folder cannot be made prints two lines and is survived.
void terminate()
{
    counting = true;
    ::raise(SIGTERM);
    counting = false;
    pstrace_terminate_signal();
}

void arm()
{
    remount("/flash", true);
    pstrace_terminate_signal();
}

std::vector<std::string> logged()
{
    return lines(read_file(kLog));
}

std::string lines_of(pid_t pid, const std::string &stamp)
{
    std::string path = "/flash/core/routed" + std::to_string(pid) + ".term.15.log";
    return stamp + "mkdir /flash/core  failed, Read-only file system\n" + stamp + "Fail to create " + path + " \n";
}

// A message as the fatal path formats it, which is how handlers format their lines.
std::string formatted(int error, const char *text, ...)
{
    ::unlink("/tmp/formatted");
    va_list ap;
    va_start(ap, text);
    errno = error;
    int length = console_print_args_sigctx(0, "/tmp/formatted", text, ap);
    va_end(ap);
    std::string out = read_file("/tmp/formatted");
    EXPECT_EQ(static_cast<std::size_t>(length), out.size());
    return out;
}

// A termination signal inside the crash handler.
bool terminate_in_callback = false;

long callback(unsigned int phase, unsigned long, void *)
{
    if (phase == QV_COREDUMP_FIRST && terminate_in_callback)
        ::raise(SIGTERM);
    return 0;
}
QV_COREDUMP_CALLBACK(callback);

} // namespace

extern "C" std::time_t time(std::time_t *t)
{
    static auto real = support::next_function<std::time_t(std::time_t *)>("time");
    std::time_t now = told_time != 0 ? told_time : real(nullptr);
    if (t != nullptr)
        *t = now;
    return now;
}

// A sanitizer has its own malloc(), which looks up functions before this one can run.
#if !defined(__SANITIZE_ADDRESS__) && !defined(__SANITIZE_THREAD__)
extern "C" void *malloc(std::size_t size)
{
    static auto real = support::next_function<void *(std::size_t)>("malloc");
    if (counting)
        allocations++;
    return real(size);
}
#endif

// ---- the lines ----

TEST(HandlerLines, AreOrdinaryLinesInLocalTime)
{
    ::setenv("TZ", "XXX-5:30", 1);
    told_time = kWinter;
    ChildResult child = run_child([] {
        rename_process("routed");
        arm();
        terminate();
    });
    EXPECT_TRUE(child.exited(0));
    EXPECT_EQ(lines_of(child.pid, "2026-01-31 14:30:00 "), read_file(kLog));
    EXPECT_EQ(lines_of(child.pid, ""), read_file(kConsole));
}

TEST(HandlerLines, IncludeThoseOfTheTraceToggle)
{
    ::setenv("TZ", "XXX+3", 1);
    told_time = kWinter;
    ChildResult child = run_child([] {
        install_sighandler();
        ::raise(SIGUSR2);
        ::raise(SIGUSR2);
    });
    EXPECT_TRUE(child.exited(0));
    std::string path = "/etc/mtrace" + std::to_string(child.pid) + ".log\n";
    EXPECT_EQ("2026-01-31 06:00:00 Start mtrace log " + path + "2026-01-31 06:00:00 Stop mtrace log " + path,
              read_file(kLog));
}

TEST(HandlerLines, FollowAZoneChangeThatAnOrdinaryLineHasSeen)
{
    ::setenv("TZ", "UTC0", 1);
    told_time = kWinter;
    ChildResult child = run_child([] {
        rename_process("routed");
        arm();
        ::setenv("TZ", "XXX-2", 1);
        qv_ilog("ordinary\n");
        terminate();
    });
    EXPECT_EQ(lines_of(child.pid, "2026-01-31 11:00:00 "), read_file(kLog));
}

TEST(HandlerLines, FollowTheStartAndTheEndOfSummerTime)
{
    ::setenv("TZ", kDaylightZone, 1);
    for (auto [installed, now, stamp] : {std::tuple{kWinter, kSummer, "2026-07-31 11:00:00 "},
                                         std::tuple{kSummer, kWinter + 365L * 86400, "2027-01-31 10:00:00 "},
                                         // the second before the change, and the change itself
                                         std::tuple{kWinter, std::time_t{1774745999}, "2026-03-29 01:59:59 "},
                                         std::tuple{kWinter, std::time_t{1774746000}, "2026-03-29 03:00:00 "}}) {
        ::unlink(kLog);
        told_time = installed;
        ChildResult child = run_child([now = now] {
            rename_process("routed");
            arm();
            told_time = now;
            terminate();
        });
        EXPECT_EQ(lines_of(child.pid, stamp), read_file(kLog));
    }
}

TEST(HandlerLines, BeforeTheClockIsSetCarryTheUptime)
{
    told_time = 42;
    ChildResult child = run_child([] {
        rename_process("routed");
        arm();
        terminate();
        told_time = -1;
        terminate();
    });
    EXPECT_EQ(lines_of(child.pid, "uptime 42 ") + lines_of(child.pid, ""), read_file(kLog));
}

TEST(HandlerLines, ShareTheConsoleDescriptor)
{
    ChildResult child = run_child([] {
        rename_process("routed");
        arm();
        console_print("open\n");
        std::vector<std::string> before = list_dir("/proc/self/fd");
        terminate();
        EXPECT_EQ(before, list_dir("/proc/self/fd"));
    });
    EXPECT_TRUE(child.exited(0)) << child.out;
    EXPECT_EQ("open\n" + lines_of(child.pid, ""), read_file(kConsole));
}

TEST(HandlerLines, ShareTheCounterOfDroppedLines)
{
    told_time = kWinter;
    ChildResult child = run_child([] {
        rename_process("routed");
        arm();
        write_file(kLog, std::string(600000, 'o'));
        qv_clog("1\n");
        terminate();
        write_file(kLog, "");
        terminate();
        qv_clog("last\n");
    });
    const std::string stamp = "2026-01-31 09:00:00 ";
    EXPECT_EQ(stamp + "Pid " + std::to_string(child.pid) + " drops total 3 logs as file oversize\n" +
                  lines_of(child.pid, stamp) + stamp + "last\n",
              read_file(kLog));
}

namespace {

std::string events;

int noting_mirror(const char *text, va_list ap)
{
    char out[256];
    std::vsnprintf(out, sizeof out, text, ap);
    events += read_file(kConsole).empty() ? "early " : "late ";
    events += out;
    errno = EBADF;
    return 0;
}

} // namespace

TEST(HandlerLines, ReachTheMirrorHookFirstAndIgnoreItsErrno)
{
    ChildResult child = run_child([] {
        rename_process("routed");
        arm();
        console_print_mfunc_set(noting_mirror);
        errno = E2BIG;
        ::raise(SIGTERM);
        EXPECT_EQ(E2BIG, errno);
        EXPECT_THAT(events, testing::StartsWith("early mkdir /flash/core  failed, Read-only file system\nlate Fail"));
    });
    EXPECT_TRUE(child.exited(0)) << child.out;
    EXPECT_EQ(lines_of(child.pid, ""), read_file(kConsole));
}

TEST(HandlerLines, AllocateNothingInAnyLocale)
{
    if (under_sanitizer())
        GTEST_SKIP() << "sanitizers allocate memory themselves";
    ChildResult child = run_child([] {
        arm();
        bool has_locale = std::setlocale(LC_ALL, "C.UTF-8") != nullptr;
        ::setenv("LANGUAGE", "de:fr", 1);
        terminate();
        EXPECT_EQ(0, allocations) << (has_locale ? "in C.UTF-8" : "in C");
        EXPECT_EQ(2u, logged().size());
    });
    EXPECT_TRUE(child.exited(0)) << child.out;
}

TEST(HandlerLines, NeverWaitForTheInterruptedCode)
{
    // The signal interrupts a thread anywhere in an ordinary line, also while it holds the heap's lock or the clock's.
    ::unsetenv("TZ"); // makes the zone code slow
    write_file("/etc/ilog.txt", "");
    for (std::size_t i = 0; i < effort(60); i++) {
        ChildResult child = run_child(
            [i] {
                arm();
                pid_t parent = ::getpid();
                pid_t sender = ::fork();
                if (sender == 0) {
                    ::usleep(static_cast<useconds_t>(2000 + 37 * i));
                    ::kill(parent, SIGTERM);
                    ::_exit(0);
                }
                const std::string text(1500, 'x'); // needs the heap
                ::truncate("/etc/ilog.txt", 0);
                while (::waitpid(sender, nullptr, WNOHANG) == 0)
                    qv_ilog("%s\n", i % 2 == 0 ? "short" : text.c_str());
            },
            20000);
        ASSERT_TRUE(child.exited(0)) << i;
    }
}

TEST(HandlerLines, AreWrittenWhileTheCallerHoldsTheClocksMutex)
{
    ChildResult child = run_child(
        [] {
            arm();
            localtime_safe_lock();
            terminate();
            localtime_safe_unlock();
        },
        20000);
    EXPECT_TRUE(child.exited(0));
    EXPECT_EQ(2u, logged().size());
}

TEST(HandlerLines, UseTheFatalPathInsideTheCrashHandler)
{
    ChildResult child = run_child([] {
        arm();
        install_sighandler();
        terminate_in_callback = true;
        ::raise(SIGALRM);
    });
    EXPECT_TRUE(child.exited(0));
    EXPECT_THAT(read_file(kLog), testing::HasSubstr("(UTC) mkdir /flash/core"));
}

// ---- %m ----

TEST(HandlerFormat, DescribesErrorsInEnglish)
{
    EXPECT_EQ("a No such file or directory", formatted(ENOENT, "a %m"));
    EXPECT_EQ("No such file or directory", formatted(ENOENT, "%m"));
    EXPECT_EQ("an argument: Read-only file system, 7", formatted(EROFS, "%s: %m, %d", "an argument", 7));
    EXPECT_EQ("%m No such file or directory%", formatted(ENOENT, "%%m %m%%"));
    EXPECT_EQ("Success Success", formatted(0, "%m %m"));
    EXPECT_EQ("Unknown error 12345", formatted(12345, "%m"));
    EXPECT_EQ("Unknown error -1", formatted(-1, "%m"));
}

TEST(HandlerFormat, AgreesWithTheCLibraryInTheCLocale)
{
    const char *const formats[] = {"plain",  "%m",    "[%30m]", "[%-30m]", "[%.7m]",       "[%10.3m]", "%#m",
                                   "%%%m%%", "%s %m", "%.3s%m", "%m %s",   "%5s|%-12s %m", "%200m|"};
    for (const char *text : formats) {
        char wanted[512];
        errno = EACCES;
        std::snprintf(wanted, sizeof wanted, text, "one", "two");
        EXPECT_EQ(wanted, formatted(EACCES, text, "one", "two")) << text;
    }
}

TEST(HandlerFormat, ALongFormatIsNotCutBeforeItsConversions)
{
    std::string literal(990, 'x');
    EXPECT_EQ(literal + "Permission denied", formatted(EACCES, (literal + "%m").c_str()));
    EXPECT_EQ(literal + "Permission denied end",
              formatted(EACCES, (literal + "%.0s%.0s%.0s%.0s%m %s").c_str(), "a", "b", "c", "d", "end"));
}

TEST(HandlerFormat, AllocatesNothing)
{
    if (under_sanitizer())
        GTEST_SKIP() << "sanitizers allocate memory themselves";
    if (std::setlocale(LC_ALL, "C.UTF-8") == nullptr)
        GTEST_SKIP() << "no other locale is installed";
    auto print = [](const char *text, ...) {
        va_list ap;
        va_start(ap, text);
        counting = true;
        console_print_args_sigctx(0, "/tmp/log", text, ap);
        counting = false;
        va_end(ap);
    };
    for (int error : {ENOENT, 12345}) {
        errno = error;
        print("%s %m %-40m %.3m\n", "x");
    }
    EXPECT_EQ(0, allocations);
}
