// SPDX-License-Identifier: Apache-2.0
#include "debug_trace.h"

#include "qv_time.h"

#include "support/support.h"

#include <atomic>
#include <cerrno>
#include <cstdlib>
#include <ctime>
#include <fcntl.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <thread>
#include <unistd.h>

using namespace support;

namespace {

std::atomic<std::time_t> told_time{1769850000}; // 2026-01-31 09:00:00 UTC
std::time_t seconds_per_reading = 0;
int base_result = 0;
std::string base;
bool base_fills_all = false;

void make_logs(const std::string &root = "")
{
    ::mkdir((root + "/var").c_str(), 0755);
    ::mkdir((root + "/var/sysinfo").c_str(), 0755);
    ASSERT_EQ(0, ::mkdir((root + "/var/sysinfo/logs").c_str(), 0755));
}

std::string file_of(const std::string &day, pid_t pid = ::getpid())
{
    return "/var/sysinfo/logs/proc" + std::to_string(pid) + "." + day;
}

std::string prefix(int level, const char *file, int line)
{
    return capture_stderr([&] { EXPECT_EQ(0, __qv_print_prefix(level, file, line)); });
}

} // namespace

extern "C" std::time_t time(std::time_t *t)
{
    std::time_t told = told_time.fetch_add(seconds_per_reading);
    if (t != nullptr)
        *t = told;
    return told;
}

extern "C" int qv_get_basedir(char *buf, std::size_t size)
{
    EXPECT_EQ(128u, size);
    EXPECT_EQ('\0', buf[0]);
    base.copy(buf, base_fills_all ? size : size - 1);
    return base_result;
}

TEST(DebugTrace, InitialSettings)
{
    EXPECT_EQ(2, __qv_debug_where);
    EXPECT_EQ(3, __qv_debug_detail);
    EXPECT_EQ(2, __qv_debug_level);
    EXPECT_EQ(0, __qv_debug_calltrace);
    EXPECT_EQ(0, __qv_debug_assert);
    EXPECT_EQ(0, __qv_print_val);
}

TEST(DebugTrace, DefaultsGoToStandardErrorOnly)
{
    make_logs();
    std::string said = capture_stderr([] {
        __qv_print_prefix(2, "qv_stimer", 55);
        __qv_print_msg("message %d\n", 7);
    });
    EXPECT_EQ("[09:00:00] Error: qv_stimer:55: message 7\n", said);
    EXPECT_TRUE(list_dir("/var/sysinfo/logs").empty());
}

TEST(DebugTrace, LevelNames)
{
    const char *names[] = {"", "Fatal", "Error", "Warn", "Debug"};
    for (int level = 0; level < 5; level++)
        EXPECT_EQ(std::string("[09:00:00] ") + names[level] + ": f:1: ", prefix(level, "f", 1));
}

TEST(DebugTrace, Details)
{
    __qv_debug_detail = 0;
    EXPECT_EQ("", prefix(2, "f", 1));
    EXPECT_EQ("still said\n", capture_stderr([] { __qv_print_msg("still said\n"); }));
    __qv_debug_detail = 1;
    EXPECT_EQ("[09:00:00] Error: ", prefix(2, "f", 1));
    __qv_debug_detail = 2;
    EXPECT_EQ("[09:00:00] Error: f: ", prefix(2, "f", 1));
    for (int detail : {-1, 4, 99}) {
        __qv_debug_detail = detail;
        EXPECT_EQ("[09:00:00] <Unknown Detail>: f:1: ", prefix(2, "f", 1));
    }
}

TEST(DebugTrace, LeadingDotsAndSlashesAreRemoved)
{
    EXPECT_EQ("[09:00:00] Error: src/timer:1: ", prefix(2, "../src/timer", 1));
    EXPECT_EQ("[09:00:00] Error: timer.c:1: ", prefix(2, "./timer.c", 1));
    EXPECT_EQ("[09:00:00] Error: a/b:1: ", prefix(2, "/../..a/b", 1));
    EXPECT_EQ("[09:00:00] Error: :1: ", prefix(2, "..", 1));
}

TEST(DebugTrace, NamesOfAnyLengthFitIntoThePrefix)
{
    for (std::size_t length : {900u, 1000u, 1024u, 5000u}) {
        std::string whole = "[09:00:00] Error: " + std::string(length, 'n') + ":1: ";
        EXPECT_EQ(whole.substr(0, 1023), prefix(2, std::string(length, 'n').c_str(), 1));
    }
}

TEST(DebugTrace, TheFileOfTheDay)
{
    make_logs();
    __qv_debug_where = 1;
    std::string said = capture_stderr([] {
        __qv_print_prefix(2, "f", 1);
        __qv_print_msg("%s\n", "message");
    });
    EXPECT_EQ("", said);
    EXPECT_EQ("[09:00:00] Error: f:1: message\n", read_file(file_of("20260131"))) << "flushed at once";
    EXPECT_EQ(1u, list_dir("/var/sysinfo/logs").size());
}

TEST(DebugTrace, BothDestinationsAndAppending)
{
    make_logs();
    write_file(file_of("20260131"), "before\n");
    __qv_debug_where = 3;
    EXPECT_EQ("[09:00:00] Warn: f:1: ", prefix(3, "f", 1));
    EXPECT_EQ("before\n[09:00:00] Warn: f:1: ", read_file(file_of("20260131")));
}

TEST(DebugTrace, AMessageBeforeAnyPrefixOpensNoFile)
{
    make_logs();
    __qv_debug_where = 1;
    EXPECT_EQ("", capture_stderr([] { __qv_print_msg("lost\n"); }));
    EXPECT_TRUE(list_dir("/var/sysinfo/logs").empty());
}

TEST(DebugTrace, MidnightStartsANewFile)
{
    make_logs();
    __qv_debug_where = 1;
    told_time = 1769903999; // 23:59:59
    __qv_print_prefix(2, "f", 1);
    __qv_print_msg("old\n");
    told_time += 2;
    __qv_print_msg("still old\n"); // only a prefix reads the day
    __qv_print_prefix(2, "f", 2);
    __qv_print_msg("new\n");
    EXPECT_EQ("[23:59:59] Error: f:1: old\nstill old\n", read_file(file_of("20260131")));
    EXPECT_EQ("[00:00:01] Error: f:2: new\n", read_file(file_of("20260201")));
}

TEST(DebugTrace, TheTimeIsReadBeforeTheDay)
{
    make_logs();
    __qv_debug_where = 1;
    told_time = 1769903999; // 23:59:59
    seconds_per_reading = 1;
    __qv_print_prefix(2, "f", 1);
    EXPECT_EQ("[23:59:59] Error: f:1: ", read_file(file_of("20260201")));
}

TEST(DebugTrace, AZoneChangeMayBringANewDay)
{
    make_logs();
    __qv_debug_where = 1;
    __qv_print_prefix(2, "f", 1);
    ::setenv("TZ", "XXX-20", 1);
    __qv_print_prefix(2, "f", 2);
    EXPECT_EQ("[05:00:00] Error: f:2: ", read_file(file_of("20260201")));
}

TEST(DebugTrace, AMissingFolderIsReportedAndEndsFileTracing)
{
    __qv_debug_where = 1;
    std::string out, err;
    out = capture_stdout([&] { err = prefix(2, "f", 1); });
    std::string path = file_of("20260131");
    EXPECT_EQ("qv_check_debug_file: fopen(" + path + ") failed: No such file or directory\n" +
                  "qv_check_debug_file: user (" + std::to_string(::getuid()) + ") errno 2: No such file or directory\n",
              out);
    EXPECT_EQ(2, __qv_debug_where);
    EXPECT_EQ("[09:00:00] Error: f:1: ", err) << "the same prefix goes to standard error";
    out = capture_stdout([&] { prefix(2, "f", 1); });
    EXPECT_EQ("", out) << "not opened again";
    make_logs();
    __qv_debug_where = 1;
    prefix(2, "f", 1);
    EXPECT_TRUE(exists(path)) << "until it is requested again";
}

TEST(DebugTrace, WithoutABaseFolderThereIsNoFileAndEachPrefixTriesAgain)
{
    make_logs();
    __qv_debug_where = 3;
    base_result = -1;
    EXPECT_EQ("[09:00:00] Error: f:1: ", prefix(2, "f", 1));
    EXPECT_EQ(3, __qv_debug_where);
    EXPECT_TRUE(list_dir("/var/sysinfo/logs").empty());
    base_result = 0;
    prefix(2, "f", 1);
    EXPECT_TRUE(exists(file_of("20260131")));
}

TEST(DebugTrace, ThePathStartsWithTheBaseFolder)
{
    ::mkdir("/tmp/root", 0755);
    make_logs("/tmp/root");
    base = "/tmp/root";
    __qv_debug_where = 1;
    prefix(2, "f", 1);
    EXPECT_TRUE(exists("/tmp/root" + file_of("20260131")));
}

TEST(DebugTrace, PmsgAddsTheErrnoOfTheCall)
{
    make_logs();
    __qv_debug_where = 3;
    __qv_print_prefix(2, "f", 1);
    std::string said = capture_stderr([] {
        errno = ENOENT;
        EXPECT_EQ(0, __qv_print_pmsg("open %s: %m", "x"));
    });
    EXPECT_EQ("open x: No such file or directory\t[2, No such file or directory]\n", said);
    EXPECT_THAT(read_file(file_of("20260131")), testing::EndsWith(said));
    said = capture_stderr([] {
        errno = 0;
        __qv_print_pmsg("fine");
    });
    EXPECT_EQ("fine\t[0, Success]\n", said);
}

TEST(DebugTrace, PmsgKeepsItsErrnoWhenAStreamFails)
{
    ChildResult child = run_child([] {
        make_logs();
        __qv_debug_where = 3;
        __qv_print_prefix(2, "f", 1);
        ::close(2); // writing to standard error now fails with EBADF
        errno = ENOENT;
        __qv_print_pmsg("x");
    });
    EXPECT_TRUE(child.exited(0));
    EXPECT_THAT(read_file(file_of("20260131", child.pid)), testing::EndsWith("x\t[2, No such file or directory]\n"));
}

TEST(DebugTrace, SeveralFilesDoNoHarmAtExit)
{
    make_logs();
    ChildResult child = run_child([] {
        __qv_debug_where = 1;
        for (int day = 0; day < 5; day++) {
            told_time += 86400;
            __qv_print_prefix(2, "f", day);
        }
        std::exit(0);
    });
    EXPECT_TRUE(child.exited(0));
    EXPECT_EQ(5u, list_dir("/var/sysinfo/logs").size());
}

TEST(DebugTrace, TheMacroIsAnExpressionThatTheLevelGates)
{
    int evaluated = 0;
    std::string said = capture_stderr([&] {
        EXPECT_EQ(0, QV_TRACE(QV_TRACE_ERROR, "error %d\n", ++evaluated));
        EXPECT_EQ(0, QV_TRACE(QV_TRACE_WARN, "warn %d\n", ++evaluated));
        __qv_debug_level = 0;
        QV_TRACE(QV_TRACE_FATAL, "fatal %d\n", ++evaluated);
    });
    EXPECT_EQ(1, evaluated);
    EXPECT_THAT(said, testing::MatchesRegex("\\[09:00:00\\] Error: .*debug_trace_test.cpp:[0-9]+: error 1\n"));
}

// ---- errno ----

TEST(DebugTrace, NothingChangesErrno)
{
    make_logs();
    capture_stderr([] {
        for (int where : {2, 3, 1}) { // among them the opening of the file
            __qv_debug_where = where;
            errno = E2BIG;
            __qv_print_prefix(2, "f", 1);
            EXPECT_EQ(E2BIG, errno) << where;
            __qv_print_msg("%d\n", 1);
            EXPECT_EQ(E2BIG, errno) << where;
            __qv_print_pmsg("%d", 1);
            EXPECT_EQ(E2BIG, errno) << where;
        }
    });
}

TEST(DebugTrace, PrefixAndPmsgReportTheErrorOfTheCallSite)
{
    ::setenv("TZ", ":no/such/zone", 1); // the zone code fails to open it as well
    __qv_debug_where = 3;               // so does the trace with its file
    ChildResult child = run_child([] {
        errno = ECONNRESET;
        __qv_print_prefix(2, "f", 1);
        __qv_print_pmsg("peer: %m");
    });
    EXPECT_THAT(child.err, testing::EndsWith("peer: Connection reset by peer\t[104, Connection reset by peer]\n"));
}

TEST(DebugTrace, BothLinesOfAFailureNameItsErrno)
{
    // A standard output whose writes change errno.
    std::string out;
    cookie_io_functions_t functions = {};
    functions.write = [](void *cookie, const char *text, std::size_t size) -> ssize_t {
        static_cast<std::string *>(cookie)->append(text, size);
        errno = EBADF;
        return static_cast<ssize_t>(size);
    };
    std::FILE *saved = stdout;
    stdout = ::fopencookie(&out, "w", functions);
    std::setvbuf(stdout, nullptr, _IONBF, 0);
    __qv_debug_where = 1;
    std::string err = prefix(2, "f", 1);
    std::fclose(stdout);
    stdout = saved;
    EXPECT_THAT(out, testing::HasSubstr("failed: No such file or directory\n"));
    EXPECT_THAT(out, testing::HasSubstr(") errno 2: No such file or directory\n"));
}

// ---- the end of the process ----

TEST(DebugTrace, TheFileIsClosedAmongTheExitHandlers)
{
    make_logs();
    ChildResult child = run_child([] {
        static int opened = 0;
        static auto is_open = [] { return list_dir("/proc/self/fd").size() > static_cast<std::size_t>(opened); };
        opened = static_cast<int>(list_dir("/proc/self/fd").size());
        std::atexit([] { // runs after those registered later
            if (is_open())
                ::_exit(1);
            __qv_print_msg("late\n");
        });
        __qv_debug_where = 1;
        __qv_print_prefix(2, "f", 1);
        std::atexit([] { // runs before
            __qv_print_msg("in time\n");
            if (!is_open())
                ::_exit(2);
        });
        std::exit(0);
    });
    EXPECT_TRUE(child.exited(0)) << child.status;
    EXPECT_EQ("[09:00:00] Error: f:1: in time\n", read_file(file_of("20260131", child.pid)));
}

// ---- threads ----

namespace {

std::size_t descriptors_of_logs()
{
    std::size_t count = 0;
    for (const std::string &name : list_dir("/proc/self/fd")) {
        char target[256] = {};
        [[maybe_unused]] ssize_t n = ::readlink(("/proc/self/fd/" + name).c_str(), target, sizeof target - 1);
        count += std::string(target).starts_with("/var/sysinfo/logs/");
    }
    return count;
}

} // namespace

TEST(DebugTraceThreads, DaysThatChangeUnderThreadsLoseNothing)
{
    constexpr int kThreads = 4;
    const int rounds = static_cast<int>(effort(400));
    make_logs();
    __qv_debug_where = 1;
    ::setenv("TZ", "UTC0", 1);
    std::vector<std::thread> threads;
    for (int t = 0; t < kThreads; t++)
        threads.emplace_back([=] {
            for (int i = 0; i < rounds; i++) {
                if (i % 2 == 1)
                    told_time += 86400 / 2;
                __qv_print_prefix(2, "f", 1);
                __qv_print_msg("<%d %d>\n", t, i);
            }
        });
    for (std::thread &thread : threads)
        thread.join();
    std::size_t prefixes = 0, messages = 0;
    for (const std::string &name : list_dir("/var/sysinfo/logs")) {
        std::string text = read_file("/var/sysinfo/logs/" + name);
        for (std::size_t at = 0; (at = text.find(" Error: f:1: ", at)) != text.npos; at++)
            prefixes++;
        for (std::size_t at = 0; (at = text.find(">\n", at)) != text.npos; at++)
            messages++;
    }
    EXPECT_EQ(static_cast<std::size_t>(kThreads * rounds), prefixes);
    EXPECT_EQ(static_cast<std::size_t>(kThreads * rounds), messages);
    __qv_print_prefix(2, "f", 1);
    EXPECT_EQ(1u, descriptors_of_logs()) << "the files of other days are closed";
}

TEST(DebugTraceThreads, CancelledThreadsLeaveTheFileUsable)
{
    make_logs();
    __qv_debug_where = 1;
    ChildResult child = run_child(
        [] {
            for (std::size_t i = 0; i < effort(100); i++) {
                std::thread tracing([] {
                    for (;;) {
                        told_time += 86400;
                        QV_TRACE(QV_TRACE_ERROR, "x\n");
                    }
                });
                ::usleep(200);
                ::pthread_cancel(tracing.native_handle());
                tracing.join();
            }
            QV_TRACE(QV_TRACE_ERROR, "x\n");
            ::_exit(descriptors_of_logs() == 1 ? 0 : 1);
        },
        20000);
    EXPECT_TRUE(child.exited(0)) << child.status;
}

TEST(DebugTraceThreads, TheSharedRecordOfLocaltimeIsLeftAlone)
{
    make_logs();
    __qv_debug_where = 1;
    std::time_t other = 1000000000;
    tm *record = ::localtime(&other);
    int year = record->tm_year;
    __qv_print_prefix(2, "f", 1);
    EXPECT_EQ(year, record->tm_year);
}

TEST(DebugTraceThreads, ACallerThatKeepsTheClocksMutexMayTrace)
{
    ChildResult child = run_child(
        [] {
            localtime_safe_lock();
            __qv_print_prefix(2, "f", 1);
            localtime_safe_unlock();
        },
        20000);
    EXPECT_TRUE(child.exited(0));
}

// ---- children ----

TEST(DebugTraceChildren, OpenTheirOwnFile)
{
    make_logs();
    __qv_debug_where = 1;
    __qv_print_prefix(2, "f", 1);
    __qv_print_msg("parent\n");
    ChildResult child = run_child([] {
        __qv_print_msg("lost, before a prefix\n");
        __qv_print_prefix(2, "f", 2);
        __qv_print_msg("child\n");
        EXPECT_EQ(1u, descriptors_of_logs()) << "its own";
        std::exit(0);
    });
    EXPECT_TRUE(child.exited(0));
    __qv_print_prefix(2, "f", 3);
    __qv_print_msg("parent again\n");
    EXPECT_EQ("[09:00:00] Error: f:1: parent\n[09:00:00] Error: f:3: parent again\n", read_file(file_of("20260131")));
    EXPECT_EQ("[09:00:00] Error: f:2: child\n", read_file(file_of("20260131", child.pid)));
}

TEST(DebugTraceChildren, ForkedAmongTracesNeverHangNorRepeatTheParentsText)
{
    if (under_sanitizer())
        GTEST_SKIP() << "a child inherits the locks of the sanitizer that other threads hold";
    make_logs();
    __qv_debug_where = 1;
    std::vector<std::jthread> threads;
    for (int t = 0; t < 2; t++)
        threads.emplace_back([](const std::stop_token &stop) {
            while (!stop.stop_requested())
                __qv_print_msg("%0500d\n", 7);
        });
    __qv_print_prefix(2, "f", 1);
    for (std::size_t i = 0; i < effort(100); i++) {
        pid_t pid = ::fork();
        if (pid == 0) {
            ::alarm(20); // a deadlock ends here
            if (i % 2 == 0)
                __qv_print_prefix(2, "f", 1);
            std::exit(0);
        }
        int status = -1;
        ::waitpid(pid, &status, 0);
        ASSERT_EQ(0, status);
        ::truncate(file_of("20260131").c_str(), 0);
    }
    threads.clear();
    ::truncate(file_of("20260131").c_str(), 0);
    __qv_print_msg("end\n");
    EXPECT_EQ("end\n", read_file(file_of("20260131")));
}

TEST(DebugTrace, ABaseFolderThatFillsTheBufferIsCut)
{
    base = "/tmp/" + std::string(123, 'b');
    base_fills_all = true;
    std::string cut = base.substr(0, 127);
    ::mkdir(cut.c_str(), 0755);
    make_logs(cut);
    __qv_debug_where = 1;
    prefix(2, "f", 1);
    EXPECT_TRUE(exists(cut + file_of("20260131")));
}
