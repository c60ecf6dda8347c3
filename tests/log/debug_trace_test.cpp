// SPDX-License-Identifier: Apache-2.0
#include "debug_trace.h"

#include "support/support.h"

#include <cerrno>
#include <cstdlib>
#include <ctime>
#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

using namespace support;

namespace {

std::time_t told_time = 1769850000; // 2026-01-31 09:00:00 UTC
std::time_t seconds_per_reading = 0;
int base_result = 0;
std::string base;

void make_logs(const std::string &root = "")
{
    ::mkdir((root + "/var").c_str(), 0755);
    ::mkdir((root + "/var/sysinfo").c_str(), 0755);
    ASSERT_EQ(::mkdir((root + "/var/sysinfo/logs").c_str(), 0755), 0);
}

std::string file_of(const std::string &day, pid_t pid = ::getpid())
{
    return "/var/sysinfo/logs/proc" + std::to_string(pid) + "." + day;
}

std::string prefix(int level, const char *file, int line)
{
    return capture_stderr([&] { EXPECT_EQ(__qv_print_prefix(level, file, line), 0); });
}

} // namespace

extern "C" std::time_t time(std::time_t *t)
{
    std::time_t told = told_time;
    told_time += seconds_per_reading;
    if (t != nullptr)
        *t = told;
    return told;
}

extern "C" int qv_get_basedir(char *buf, std::size_t size)
{
    EXPECT_EQ(size, 128u);
    EXPECT_EQ(buf[0], '\0');
    base.copy(buf, size - 1);
    return base_result;
}

TEST(DebugTrace, InitialSettings)
{
    EXPECT_EQ(__qv_debug_where, 2);
    EXPECT_EQ(__qv_debug_detail, 3);
    EXPECT_EQ(__qv_debug_level, 2);
    EXPECT_EQ(__qv_debug_calltrace, 0);
    EXPECT_EQ(__qv_debug_assert, 0);
    EXPECT_EQ(__qv_print_val, 0);
}

TEST(DebugTrace, DefaultsGoToStandardErrorOnly)
{
    make_logs();
    std::string said = capture_stderr([] {
        __qv_print_prefix(2, "qv_stimer", 55);
        __qv_print_msg("message %d\n", 7);
    });
    EXPECT_EQ(said, "[09:00:00] Error: qv_stimer:55: message 7\n");
    EXPECT_TRUE(list_dir("/var/sysinfo/logs").empty());
}

TEST(DebugTrace, LevelNames)
{
    const char *names[] = {"", "Fatal", "Error", "Warn", "Debug"};
    for (int level = 0; level < 5; level++)
        EXPECT_EQ(prefix(level, "f", 1), std::string("[09:00:00] ") + names[level] + ": f:1: ");
}

TEST(DebugTrace, Details)
{
    __qv_debug_detail = 0;
    EXPECT_EQ(prefix(2, "f", 1), "");
    EXPECT_EQ(capture_stderr([] { __qv_print_msg("still said\n"); }), "still said\n");
    __qv_debug_detail = 1;
    EXPECT_EQ(prefix(2, "f", 1), "[09:00:00] Error: ");
    __qv_debug_detail = 2;
    EXPECT_EQ(prefix(2, "f", 1), "[09:00:00] Error: f: ");
    for (int detail : {-1, 4, 99}) {
        __qv_debug_detail = detail;
        EXPECT_EQ(prefix(2, "f", 1), "[09:00:00] <Unknown Detail>: f:1: ");
    }
}

TEST(DebugTrace, LeadingDotsAndSlashesAreLeftOut)
{
    EXPECT_EQ(prefix(2, "../src/timer", 1), "[09:00:00] Error: src/timer:1: ");
    EXPECT_EQ(prefix(2, "./timer.c", 1), "[09:00:00] Error: timer.c:1: ");
    EXPECT_EQ(prefix(2, "/../..a/b", 1), "[09:00:00] Error: a/b:1: ");
    EXPECT_EQ(prefix(2, "..", 1), "[09:00:00] Error: :1: ");
}

TEST(DebugTrace, NamesOfAnyLengthStayInThePrefix)
{
    for (std::size_t length : {900u, 1000u, 1024u, 5000u}) {
        std::string whole = "[09:00:00] Error: " + std::string(length, 'n') + ":1: ";
        EXPECT_EQ(prefix(2, std::string(length, 'n').c_str(), 1), whole.substr(0, 1023));
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
    EXPECT_EQ(said, "");
    EXPECT_EQ(read_file(file_of("20260131")), "[09:00:00] Error: f:1: message\n") << "flushed at once";
    EXPECT_EQ(list_dir("/var/sysinfo/logs").size(), 1u);
}

TEST(DebugTrace, BothDestinationsAndAppending)
{
    make_logs();
    write_file(file_of("20260131"), "before\n");
    __qv_debug_where = 3;
    EXPECT_EQ(prefix(3, "f", 1), "[09:00:00] Warn: f:1: ");
    EXPECT_EQ(read_file(file_of("20260131")), "before\n[09:00:00] Warn: f:1: ");
}

TEST(DebugTrace, AMessageBeforeAnyPrefixOpensNoFile)
{
    make_logs();
    __qv_debug_where = 1;
    EXPECT_EQ(capture_stderr([] { __qv_print_msg("lost\n"); }), "");
    EXPECT_TRUE(list_dir("/var/sysinfo/logs").empty());
}

TEST(DebugTrace, MidnightBringsANewFile)
{
    make_logs();
    __qv_debug_where = 1;
    told_time = 1769903999; // 23:59:59
    __qv_print_prefix(2, "f", 1);
    __qv_print_msg("old\n");
    told_time += 2;
    __qv_print_msg("still old\n"); // only a prefix looks
    __qv_print_prefix(2, "f", 2);
    __qv_print_msg("new\n");
    EXPECT_EQ(read_file(file_of("20260131")), "[23:59:59] Error: f:1: old\nstill old\n");
    EXPECT_EQ(read_file(file_of("20260201")), "[00:00:01] Error: f:2: new\n");
}

TEST(DebugTrace, TheTimeIsReadBeforeTheDay)
{
    make_logs();
    __qv_debug_where = 1;
    told_time = 1769903999; // 23:59:59
    seconds_per_reading = 1;
    __qv_print_prefix(2, "f", 1);
    EXPECT_EQ(read_file(file_of("20260201")), "[23:59:59] Error: f:1: ");
}

TEST(DebugTrace, AZoneChangeMayBringANewDay)
{
    make_logs();
    __qv_debug_where = 1;
    __qv_print_prefix(2, "f", 1);
    ::setenv("TZ", "XXX-20", 1);
    __qv_print_prefix(2, "f", 2);
    EXPECT_EQ(read_file(file_of("20260201")), "[05:00:00] Error: f:2: ");
}

TEST(DebugTrace, AMissingFolderIsSaidAndEndsFileTracing)
{
    __qv_debug_where = 1;
    std::string out, err;
    out = capture_stdout([&] { err = prefix(2, "f", 1); });
    std::string path = file_of("20260131");
    EXPECT_EQ(out, "qv_check_debug_file: fopen(" + path + ") failed: No such file or directory\n" +
                       "qv_check_debug_file: user (" + std::to_string(::getuid()) +
                       ") errno 2: No such file or directory\n");
    EXPECT_EQ(__qv_debug_where, 2);
    EXPECT_EQ(err, "[09:00:00] Error: f:1: ") << "the same prefix goes to standard error";
    out = capture_stdout([&] { prefix(2, "f", 1); });
    EXPECT_EQ(out, "") << "not tried again";
    make_logs();
    __qv_debug_where = 1;
    prefix(2, "f", 1);
    EXPECT_TRUE(exists(path)) << "until somebody asks again";
}

TEST(DebugTrace, WithoutABaseFolderThereIsNoFileAndEachPrefixTriesAgain)
{
    make_logs();
    __qv_debug_where = 3;
    base_result = -1;
    EXPECT_EQ(prefix(2, "f", 1), "[09:00:00] Error: f:1: ");
    EXPECT_EQ(__qv_debug_where, 3);
    EXPECT_TRUE(list_dir("/var/sysinfo/logs").empty());
    base_result = 0;
    prefix(2, "f", 1);
    EXPECT_TRUE(exists(file_of("20260131")));
}

TEST(DebugTrace, TheBaseFolderLeadsThePath)
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
        EXPECT_EQ(__qv_print_pmsg("open %s: %m", "x"), 0);
    });
    EXPECT_EQ(said, "open x: No such file or directory\t[2, No such file or directory]\n");
    EXPECT_THAT(read_file(file_of("20260131")), testing::EndsWith(said));
    said = capture_stderr([] {
        errno = 0;
        __qv_print_pmsg("fine");
    });
    EXPECT_EQ(said, "fine\t[0, Success]\n");
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
    EXPECT_EQ(list_dir("/var/sysinfo/logs").size(), 5u);
}

TEST(DebugTrace, TheMacroIsAnExpressionThatTheLevelGates)
{
    int evaluated = 0;
    std::string said = capture_stderr([&] {
        EXPECT_EQ(QV_TRACE(QV_TRACE_ERROR, "error %d\n", ++evaluated), 0);
        EXPECT_EQ(QV_TRACE(QV_TRACE_WARN, "warn %d\n", ++evaluated), 0);
        __qv_debug_level = 0;
        QV_TRACE(QV_TRACE_FATAL, "fatal %d\n", ++evaluated);
    });
    EXPECT_EQ(evaluated, 1);
    EXPECT_THAT(said, testing::MatchesRegex("\\[09:00:00\\] Error: .*debug_trace_test.cpp:[0-9]+: error 1\n"));
}
