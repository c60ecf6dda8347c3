// SPDX-License-Identifier: Apache-2.0
#include "run_cmd.h"

#include "console_print.h"
#include "debug_trace.h"
#include "sighandler.h"

#include "support/next_function.h"
#include "support/print_fatal.h"
#include "support/support.h"

#include <cerrno>
#include <csignal>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <fcntl.h>
#include <functional>
#include <malloc.h>
#include <sched.h>
#include <sys/mount.h>
#include <sys/resource.h>
#include <sys/stat.h>
#include <sys/time.h>
#include <sys/wait.h>
#include <thread>
#include <unistd.h>

using namespace support;

namespace {

bool fork_fails = false;
bool no_close_range = false;
int waits_interrupted = 0;

std::string words(int count, const std::string &tail = "")
{
    std::string line = "prog";
    for (int i = 2; i <= count; i++)
        line += " w" + std::to_string(i);
    return line + tail;
}

// A program that prints its arguments in brackets. It is a script, so argv[0] is its interpreter's.
std::string show_args()
{
    write_file("/tmp/show", "#!/bin/sh\nfor word; do printf '[%s]' \"$word\"; done\n");
    ::chmod("/tmp/show", 0755);
    return "/tmp/show";
}

// The descriptors of the started program, listed by itself.
constexpr const char *kListFds = "ls /proc/self/fd | tr '\\n' ' '";

int open_many(int count)
{
    rlimit limit = {4096, 4096};
    ::setrlimit(RLIMIT_NOFILE, &limit);
    int last = -1;
    for (int i = 0; i < count; i++)
        last = ::open("/dev/null", O_RDONLY | (i % 3 == 0 ? O_CLOEXEC : 0));
    for (int fd = 10; fd < last; fd += 7)
        ::close(fd);
    return last;
}

char *const kNoArgs[] = {nullptr};

} // namespace

extern "C" pid_t fork(void)
{
    static auto real = support::next_function<pid_t()>("fork");
    if (fork_fails) {
        errno = EAGAIN;
        return -1;
    }
    return real();
}

extern "C" int close_range(unsigned first, unsigned last, int flags)
{
    static auto real = support::next_function<int(unsigned, unsigned, int)>("close_range");
    if (no_close_range) {
        errno = ENOSYS;
        return -1;
    }
    return real(first, last, flags);
}

extern "C" pid_t waitpid(pid_t pid, int *status, int options)
{
    static auto real = support::next_function<pid_t(pid_t, int *, int)>("waitpid");
    if (waits_interrupted > 0) {
        waits_interrupted--;
        errno = EINTR;
        return -1;
    }
    return real(pid, status, options);
}

TEST(RunExecv, WaitingGivesTheRawStatus)
{
    char shell[] = "sh", option[] = "-c", leave[] = "exit 3", die[] = "kill -9 $$";
    char *const exits[] = {shell, option, leave, nullptr};
    char *const dies[] = {shell, option, die, nullptr};
    EXPECT_EQ(3 << 8, run_execv("/bin/sh", exits, 1, 0));
    EXPECT_EQ(SIGKILL, run_execv("/bin/sh", dies, 1, 0));
    EXPECT_EQ(0, run_execv(show_args().c_str(), kNoArgs, 1, 0));
}

TEST(RunExecv, WithoutWaitingTheChildIsTheCallersToReap)
{
    char shell[] = "sh", option[] = "-c", leave[] = "exit 5";
    char *const argv[] = {shell, option, leave, nullptr};
    EXPECT_EQ(0, run_execv("/bin/sh", argv, 0, 0));
    int status = 0;
    EXPECT_GT(::waitpid(-1, &status, 0), 0);
    EXPECT_EQ(5 << 8, status);
}

TEST(RunExecv, AMissingProgramIsReportedAndExitsWith255)
{
    ChildResult child = run_child([] { ::_exit(run_execv("/no/such", kNoArgs, 1, 0) == 255 << 8 ? 0 : 1); });
    EXPECT_TRUE(child.exited(0));
    EXPECT_EQ("execv /no/such error: No such file or directory\n", read_file(kConsole));
}

TEST(RunExecv, AFailedForkIsReported)
{
    fork_fails = true;
    pid_t pid = 77;
    EXPECT_EQ(-1, run_execv("/bin/true", kNoArgs, 1, 0));
    EXPECT_EQ(-1, run_execv_ex("/bin/sh", kNoArgs, 0, &pid));
    EXPECT_EQ(-1, run_shell("true"));
    fork_fails = false;
    EXPECT_EQ(77, pid) << "unchanged";
    EXPECT_EQ("fork /bin/true error\nfork /bin/sh error\n", read_file(kConsole));
}

TEST(RunExecv, AnInterruptedWaitContinues)
{
    waits_interrupted = 2;
    EXPECT_EQ(4 << 8, run_shell("exit 4"));
    EXPECT_EQ(0, waits_interrupted);
    EXPECT_EQ(-1, ::waitpid(-1, nullptr, WNOHANG)) << "no zombie is left";
    EXPECT_EQ(ECHILD, errno);
}

TEST(RunExecv, AWaitThatFailsGivesMinusOne)
{
    std::signal(SIGCHLD, SIG_IGN); // the kernel reaps children, so the wait finds none
    EXPECT_EQ(-1, run_execv("/bin/true", kNoArgs, 1, 0));
    EXPECT_EQ(-1, run_shell("true"));
}

TEST(RunExecv, SigintIsRestoredOnlyWhenAsked)
{
    std::signal(SIGINT, SIG_IGN);
    char shell[] = "sh", option[] = "-c", body[] = "grep SigIgn /proc/self/status";
    char *const argv[] = {shell, option, body, nullptr};
    auto ignored = [&](int dfl_sigint) {
        ChildResult child = run_child([&] { run_execv("/bin/sh", argv, 1, dfl_sigint); });
        return (std::strtoul(child.out.c_str() + 8, nullptr, 16) >> (SIGINT - 1)) & 1;
    };
    EXPECT_EQ(1u, ignored(0));
    EXPECT_EQ(0u, ignored(1));
}

TEST(RunExecv, NoDescriptorAboveStandardErrorReachesTheChild)
{
    open_many(1000);
    char shell[] = "sh", option[] = "-c", body[] = "echo /proc/self/fd/*";
    char *const argv[] = {shell, option, body, nullptr};
    ChildResult child = run_child([&] { run_execv("/bin/sh", argv, 1, 0); });
    // The shell itself has one more open, to list the folder.
    EXPECT_EQ("/proc/self/fd/0 /proc/self/fd/1 /proc/self/fd/2 /proc/self/fd/3\n", child.out);
    child = run_child([&] { run_shell(kListFds); });
    EXPECT_EQ("0 1 2 3 ", child.out);
}

TEST(RunExecv, AnEmptyArgumentListRunsTheProgram)
{
    std::string show = show_args();
    EXPECT_EQ(0, run_shellcmd(show.c_str(), "", 1, 0));
    EXPECT_EQ(0, run_shellcmd(show.c_str(), " \t ", 1, 0));
}

TEST(CloseExtraFds, ClosesAllFromThreeUpAndKeepsTheRest)
{
    ChildResult child = run_child([] {
        int last = open_many(1000);
        bool good = close_extra_fds() == 0;
        for (int fd = 0; fd <= last + 8; fd++)
            good = good && (::fcntl(fd, F_GETFD) >= 0) == (fd < 3);
        ::_exit(good ? 0 : 1);
    });
    EXPECT_TRUE(child.exited(0));
}

TEST(CloseExtraFds, WorksWithStandardDescriptorsClosed)
{
    ChildResult child = run_child([] {
        open_many(20);
        ::close(0);
        ::close(1);
        int result = close_extra_fds();
        ::_exit(result == 0 && ::fcntl(3, F_GETFD) < 0 && ::fcntl(0, F_GETFD) < 0 ? 0 : 1);
    });
    EXPECT_TRUE(child.exited(0));
}

TEST(CloseExtraFds, AMissingFolderIsReported)
{
    int kept = ::open("/dev/null", O_RDONLY);
    ChildResult child = run_child([&] {
        bool hidden = ::unshare(CLONE_NEWNS) == 0 && ::mount("tmpfs", "/proc", "tmpfs", 0, nullptr) == 0;
        bool refused = close_extra_fds() == -1;
        bool open = ::fcntl(kept, F_GETFD) == 0; // nothing was closed
        ::_exit(hidden && refused && open ? 0 : 1);
    });
    EXPECT_TRUE(child.exited(0));
    EXPECT_EQ("close_extra_fds: opendir /proc/" + std::to_string(child.pid) + "/fd, error: No such file or directory\n",
              read_file(kConsole));
}

TEST(CloseExtraFds, WorksOnAKernelWithoutTheRangeCall)
{
    no_close_range = true;
    ChildResult child = run_child([] {
        int last = open_many(300);
        bool good = close_extra_fds() == 0;
        for (int fd = 0; fd <= last + 8; fd++)
            good = good && (::fcntl(fd, F_GETFD) >= 0) == (fd < 3);
        ::_exit(good ? 0 : 1);
    });
    EXPECT_TRUE(child.exited(0));
}

namespace {

// Uses up all descriptors.
void use_up_descriptors()
{
    rlimit limit = {64, 64};
    ::setrlimit(RLIMIT_NOFILE, &limit);
    while (::open("/dev/null", O_RDONLY) >= 0) {
    }
}

} // namespace

TEST(CloseExtraFds, WorksWithoutAFreeDescriptor)
{
    ChildResult child = run_child([] {
        use_up_descriptors();
        bool good = close_extra_fds() == 0;
        for (int fd = 0; fd < 64; fd++)
            good = good && (::fcntl(fd, F_GETFD) >= 0) == (fd < 3);
        ::_exit(good ? 0 : 1);
    });
    EXPECT_TRUE(child.exited(0));
    EXPECT_EQ("", read_file(kConsole));
}

TEST(CloseExtraFds, WithoutAFreeDescriptorAndTheRangeCallTheFailureIsReported)
{
    no_close_range = true;
    ChildResult child = run_child([] {
        console_print("open\n");
        use_up_descriptors();
        int result = close_extra_fds();
        ::_exit(result == -1 && ::fcntl(63, F_GETFD) == 0 ? 0 : 1);
    });
    EXPECT_TRUE(child.exited(0));
    EXPECT_EQ("open\nclose_extra_fds: opendir /proc/" + std::to_string(child.pid) + "/fd, error: Too many open files\n",
              read_file(kConsole));
}

namespace {

// Files of the host, at the lowest free descriptors.
std::vector<std::string> open_host_files()
{
    std::vector<std::string> paths;
    for (int i = 0; i < 8; i++) {
        paths.push_back("/tmp/host" + std::to_string(i));
        ::open(paths.back().c_str(), O_WRONLY | O_CREAT, 0644);
    }
    return paths;
}

} // namespace

TEST(CloseExtraFds, LaterLinesGoToTheConsoleAndIntoNoFileOfTheHost)
{
    ChildResult child = run_child([] {
        ::mkdir("/var/sysinfo", 0755);
        ::mkdir("/var/sysinfo/logs", 0755);
        __qv_debug_where = QV_TRACE_TO_FILE;
        auto print_all = [](const char *text) {
            console_print_t("%s", text);
            print_fatal(1, nullptr, "%s", text);
            __qv_print_prefix(2, "f", 1);
            __qv_print_msg("%s", text);
        };
        print_all("before\n");
        EXPECT_EQ(0, close_extra_fds());
        std::vector<std::string> paths = open_host_files();
        write_file(kConsole, "");
        print_all("after\n");
        for (const std::string &path : paths)
            EXPECT_EQ("", read_file(path)) << path;
        for (const std::string &name : list_dir("/var/sysinfo/logs"))
            EXPECT_THAT(read_file("/var/sysinfo/logs/" + name), testing::EndsWith(" Error: f:1: after\n"));
    });
    EXPECT_TRUE(child.exited(0)) << child.out;
    EXPECT_EQ("after\n", read_file(kConsole)) << "each path writes at its own offset";
}

TEST(CloseExtraFds, ConsolesWithALowNumberStayOpen)
{
    ChildResult child = run_child([] {
        ::close(0);
        console_print("a\n"); // opened as descriptor 0
        close_extra_fds();
        console_print("b\n");
        ::_exit(::fcntl(0, F_GETFD) == 0 && ::fcntl(3, F_GETFD) != 0 ? 0 : 1);
    });
    EXPECT_TRUE(child.exited(0));
    EXPECT_EQ("a\nb\n", read_file(kConsole));
}

TEST(CloseExtraFds, ATraceOfAllocationsGoesIntoNoFileOfTheHost)
{
    if (under_sanitizer())
        GTEST_SKIP() << "the sanitizer replaces the allocator";
    ChildResult child = run_child([] {
        install_sighandler();
        ::raise(SIGUSR2);
        EXPECT_EQ(0, close_extra_fds());
        std::vector<std::string> paths = open_host_files();
        for (int i = 0; i < 500; i++)
            std::free(std::malloc(100));
        ::raise(SIGUSR2);
        for (const std::string &path : paths)
            EXPECT_EQ("", read_file(path)) << path;
    });
    EXPECT_TRUE(child.exited(0)) << child.out;
    EXPECT_THAT(read_file("/etc/mtrace" + std::to_string(child.pid) + ".log"), testing::StartsWith("= Start\n"));
}

// ---- a child whose program cannot be started ----

TEST(FailedChild, ReportsOnAConsoleThatTheParentHasOpened)
{
    console_print("parent\n");
    ChildResult child = run_child([] { ::_exit(run_execv("/no/such", kNoArgs, 1, 0) == 255 << 8 ? 0 : 1); });
    EXPECT_TRUE(child.exited(0));
    // The child's own descriptor writes from the start of the plain file that replaces the console.
    EXPECT_THAT(read_file(kConsole), testing::HasSubstr("execv /no/such error: No such file or directory\n"));
}

TEST(FailedChild, RunsTheCallersExitHandlers)
{
    ChildResult child = run_child([] {
        std::atexit([] { write_file("/tmp/left", "by exit"); });
        run_execv("/no/such", kNoArgs, 1, 0);
        ::_exit(read_file("/tmp/left") == "by exit" ? 0 : 1);
    });
    EXPECT_TRUE(child.exited(0));
}

namespace {

// A caller with pending text in streams of several descriptors runs a program that cannot be started.
void fail_with_pending_text(const std::function<void()> &run)
{
    std::vector<std::FILE *> files;
    for (int i = 0; i < 6; i++) {
        files.push_back(std::fopen(("/tmp/pending" + std::to_string(i)).c_str(), "w"));
        std::fprintf(files.back(), "pending%d\n", i);
    }
    std::printf("on standard output\n");
    run();
    for (std::FILE *file : files)
        std::fclose(file);
    std::fflush(stdout);
}

void expect_written_once(const ChildResult &child)
{
    EXPECT_TRUE(child.exited(0)) << child.status;
    EXPECT_EQ("on standard output\n", child.out);
    for (int i = 0; i < 6; i++)
        EXPECT_EQ("pending" + std::to_string(i) + "\n", read_file("/tmp/pending" + std::to_string(i)));
    EXPECT_EQ("execv /no/such error: No such file or directory\n", read_file(kConsole));
    EXPECT_EQ(1u, lines(read_file("/etc/consolelog")).size());
}

} // namespace

TEST(FailedChild, WritesNoneOfTheCallersPendingText)
{
    expect_written_once(run_child([] { fail_with_pending_text([] { run_execv("/no/such", kNoArgs, 1, 0); }); }));
}

TEST(FailedChild, WritesNoneOfItWithOtherThreadsRunning)
{
    int fds[2];
    ASSERT_EQ(0, ::pipe(fds));
    expect_written_once(run_child(
        [&] {
            // A thread waits for input while it holds the stream's lock: flushing all streams would never return.
            std::FILE *input = ::fdopen(fds[0], "r");
            std::thread reading([&] { std::fgetc(input); });
            ::usleep(20000);
            fail_with_pending_text([] { run_execv("/no/such", kNoArgs, 1, 0); });
            [[maybe_unused]] ssize_t n = ::write(fds[1], "x", 1);
            reading.join();
        },
        20000));
}

TEST(FailedChild, ThePendingTextComesBeforeTheProgramsOutput)
{
    ChildResult child = run_child([] {
        std::printf("first\n");
        run_shell("echo second");
        std::fflush(stdout);
    });
    EXPECT_EQ("first\nsecond\n", child.out);
}

TEST(FailedChild, LeavesTheParentsPlaceInItsInputAlone)
{
    write_file("/tmp/input", "one\ntwo\nthree\n");
    ChildResult child = run_child([] {
        ::close(0);
        ::open("/tmp/input", O_RDONLY);
        char line[32];
        EXPECT_STREQ("one\n", std::fgets(line, sizeof line, stdin));
        run_execv("/no/such", kNoArgs, 1, 0);
        EXPECT_STREQ("two\n", std::fgets(line, sizeof line, stdin));
        EXPECT_STREQ("three\n", std::fgets(line, sizeof line, stdin));
        EXPECT_EQ(nullptr, std::fgets(line, sizeof line, stdin));
    });
    EXPECT_TRUE(child.exited(0)) << child.out;
}

// ---- what the program gets ----

namespace {

std::string own_argv0(const std::function<void(const char *program)> &run)
{
    // cat prints its own command line. argv[0] is a plain name: busybox selects the command by it.
    ChildResult child = run_child([&] { run("/bin/cat"); });
    return child.out.substr(0, child.out.find('\0'));
}

} // namespace

TEST(RunExecv, TheFirstArgumentIsArgv0)
{
    char name[] = "cat", file[] = "/proc/self/cmdline";
    char *const argv[] = {name, file, nullptr};
    pid_t pid = 0;
    EXPECT_EQ("cat", own_argv0([&](const char *cat) { run_execv(cat, argv, 1, 0); }));
    EXPECT_EQ("cat", own_argv0([](const char *cat) { run_shellcmd(cat, "cat /proc/self/cmdline", 1, 0); }));
    EXPECT_EQ("cat", own_argv0([&](const char *cat) {
                  run_execv_ex(cat, argv, 0, &pid);
                  ::waitpid(pid, nullptr, 0);
              }));
    EXPECT_EQ("cat", own_argv0([&](const char *cat) {
                  run_shellcmd_ex(cat, "cat /proc/self/cmdline", 0, &pid);
                  ::waitpid(pid, nullptr, 0);
              }));
    ChildResult child = run_child([] { run_shell("cat /proc/$$/cmdline; true"); });
    using namespace std::string_literals;
    EXPECT_EQ("/bin/sh\0-c\0cat /proc/$$/cmdline; true\0"s, child.out);
}

namespace {

// The ignored signals (SigIgn) of the program that `run` starts.
unsigned long ignored_by(const std::function<void(const char *script)> &run)
{
    write_file("/tmp/sigs", "#!/bin/sh\ngrep -E '^Sig(Ign|Blk)' /proc/self/status\n");
    ::chmod("/tmp/sigs", 0755);
    ChildResult child = run_child([&] { run("/tmp/sigs"); });
    std::size_t at = child.out.find("SigIgn:");
    return at == child.out.npos ? ~0UL : std::strtoul(child.out.c_str() + at + 7, nullptr, 16);
}

unsigned long bit(int sig)
{
    return 1UL << (sig - 1);
}

} // namespace

TEST(RunExecv, WaitAndSigintAreIndependent)
{
    std::signal(SIGINT, SIG_IGN);
    char name[] = "sigs";
    char *const argv[] = {name, nullptr};
    for (int sigint : {0, 1, -1}) {
        unsigned long wanted = sigint != 0 ? 0 : bit(SIGINT);
        EXPECT_EQ(wanted, ignored_by([&](const char *path) { run_execv(path, argv, 1, sigint); }) & bit(SIGINT));
        EXPECT_EQ(wanted, ignored_by([&](const char *path) { run_shellcmd(path, "sigs", 1, sigint); }) & bit(SIGINT));
        auto reaped = [](pid_t pid) { ::waitpid(pid, nullptr, 0); };
        pid_t pid = 0;
        EXPECT_EQ(wanted, ignored_by([&](const char *path) {
                              EXPECT_EQ(0, run_execv(path, argv, 0, sigint));
                              reaped(-1);
                          }) & bit(SIGINT));
        EXPECT_EQ(wanted, ignored_by([&](const char *path) {
                              EXPECT_EQ(0, run_execv_ex(path, argv, sigint, &pid));
                              reaped(pid);
                          }) & bit(SIGINT));
        EXPECT_EQ(wanted, ignored_by([&](const char *path) {
                              EXPECT_EQ(0, run_shellcmd_ex(path, "sigs", sigint, &pid));
                              reaped(pid);
                          }) & bit(SIGINT));
    }
    EXPECT_EQ(bit(SIGINT), ignored_by([](const char *path) { run_shell(path); }) & bit(SIGINT));
}

TEST(RunExecv, WithoutWaitingTheCallReturnsBeforeTheProgramEnds)
{
    int fds[2];
    ASSERT_EQ(0, ::pipe(fds));
    write_file("/tmp/block", "#!/bin/sh\nread line\nexit 4\n");
    ::chmod("/tmp/block", 0755);
    ::dup2(fds[0], 0);
    EXPECT_EQ(0, run_shellcmd("/tmp/block", "block", 0, 1));
    int status = 0;
    EXPECT_EQ(0, ::waitpid(-1, &status, WNOHANG)) << "the child is running";
    EXPECT_EQ(1, ::write(fds[1], "\n", 1));
    EXPECT_GT(::waitpid(-1, &status, 0), 0);
    EXPECT_EQ(4 << 8, status);
}

TEST(RunExecv, NoOtherSignalIsTouched)
{
    for (int sig : {SIGHUP, SIGQUIT, SIGTERM, SIGPIPE, SIGUSR1, SIGTSTP, SIGRTMIN})
        std::signal(sig, SIG_IGN);
    sigset_t blocked;
    ::sigemptyset(&blocked);
    ::sigaddset(&blocked, SIGUSR2);
    ::sigaddset(&blocked, SIGINT);
    ::sigprocmask(SIG_BLOCK, &blocked, nullptr);
    char name[] = "sigs";
    char *const argv[] = {name, nullptr};
    unsigned long ignored = 0;
    for (int sigint : {0, 1}) {
        ignored = ignored_by([&](const char *path) { run_execv(path, argv, 1, sigint); });
        for (int sig : {SIGHUP, SIGQUIT, SIGTERM, SIGPIPE, SIGUSR1, SIGTSTP, SIGRTMIN})
            EXPECT_NE(0u, ignored & bit(sig)) << sig;
        // No script: the shell clears the signal mask of its children.
        char grep[] = "grep", pattern[] = "SigBlk:", file[] = "/proc/self/status";
        char *const show_mask[] = {grep, pattern, file, nullptr};
        ChildResult child = run_child([&] { run_execv("/bin/grep", show_mask, 1, sigint); });
        std::size_t at = child.out.find("SigBlk:");
        ASSERT_NE(child.out.npos, at);
        EXPECT_EQ(bit(SIGUSR2) | bit(SIGINT), std::strtoul(child.out.c_str() + at + 7, nullptr, 16));
    }
}

TEST(RunShellcmd, LongCopiesAreFreed)
{
    if (under_sanitizer())
        GTEST_SKIP() << "the sanitizer's heap keeps freed memory";
    std::string line = "true " + std::string(1 << 20, ' ');
    auto held = [] { return ::mallinfo2().uordblks + ::mallinfo2().hblkhd; };
    pid_t pid = 0;
    run_shellcmd("/bin/true", line.c_str(), 1, 0);
    std::size_t before = held();
    for (int i = 0; i < 3; i++) {
        EXPECT_EQ(0, run_shellcmd("/bin/true", line.c_str(), 1, 0));
        EXPECT_EQ(0, run_shellcmd_ex("/bin/true", line.c_str(), 0, &pid));
        ::waitpid(pid, nullptr, 0);
    }
    fork_fails = true;
    EXPECT_EQ(-1, run_shellcmd("/bin/true", line.c_str(), 1, 0));
    fork_fails = false;
    EXPECT_LT(held(), before + line.size() / 2);
}

TEST(RunShellcmd, WordsAreCutAtRunsOfBlanksAndTabs)
{
    std::string show = show_args();
    ChildResult child = run_child([&] { run_shellcmd(show.c_str(), "\t zero  one\t\ttwo 'a b' \t", 1, 0); });
    EXPECT_EQ("[one][two]['a][b']", child.out);
    EXPECT_TRUE(child.exited(0));
}

TEST(RunShellcmd, ThirtyTwoWordsAreAccepted)
{
    std::string show = show_args();
    ChildResult child = run_child([&] { run_shellcmd(show.c_str(), words(32).c_str(), 1, 0); });
    EXPECT_THAT(child.out, testing::EndsWith("[w31][w32]"));
    EXPECT_THAT(child.out, testing::Not(testing::HasSubstr("Too many")));
}

TEST(RunShellcmd, ThirtyTwoWordsAndABlankWarnAndRun)
{
    std::string show = show_args();
    ChildResult child = run_child([&] { run_shellcmd(show.c_str(), words(32, " ").c_str(), 1, 0); });
    EXPECT_THAT(child.out, testing::HasSubstr("** Too many args (max. 32) **\n"));
    EXPECT_THAT(child.out, testing::HasSubstr("[w32]"));
}

TEST(RunShellcmd, OfThirtyThreeWordsTheFirstThirtyTwoArePassed)
{
    std::string show = show_args();
    ChildResult child = run_child([&] { run_shellcmd(show.c_str(), words(33).c_str(), 1, 0); });
    EXPECT_THAT(child.out, testing::HasSubstr("** Too many args (max. 32) **\n"));
    EXPECT_THAT(child.out, testing::HasSubstr("[w31][w32]"));
    EXPECT_THAT(child.out, testing::Not(testing::HasSubstr("w33")));
}

TEST(RunShellcmd, AVeryLongLineNeedsNoStack)
{
    std::string show = show_args();
    std::string word(100000, 'x');
    rlimit limit;
    ::getrlimit(RLIMIT_STACK, &limit);
    ChildResult child = run_child([&] {
        std::string padded = "prog " + std::string(16u << 20, ' ') + word;
        run_shellcmd(show.c_str(), padded.c_str(), 1, 0);
    });
    EXPECT_EQ("[" + word + "]", child.out);
}

TEST(RunShellcmdEx, TheProcessIdIsReturnedAndPolled)
{
    pid_t pid = 0;
    int fds[2];
    ASSERT_EQ(0, ::pipe(fds));
    write_file("/tmp/wait", "#!/bin/sh\nread line\nexit 6\n");
    ::chmod("/tmp/wait", 0755);
    int saved = ::dup(0);
    ::dup2(fds[0], 0);
    EXPECT_EQ(0, run_shellcmd_ex("/tmp/wait", "wait", 0, &pid));
    ::dup2(saved, 0);
    ASSERT_GT(pid, 0);
    int status = 77;
    EXPECT_EQ(0, run_shellcmd_ex_wait(pid, &status));
    EXPECT_EQ(3, ::write(fds[1], "go\n", 3));
    pid_t ended = 0;
    while ((ended = run_shellcmd_ex_wait(pid, &status)) == 0)
        ::usleep(1000);
    EXPECT_EQ(pid, ended);
    EXPECT_EQ(6 << 8, status);
    EXPECT_EQ(-1, run_shellcmd_ex_wait(pid, &status));
}

TEST(RunShell, TheShellsRulesApply)
{
    ChildResult child = run_child([] { ::_exit(run_shell("echo 'a b' | tr a-z A-Z; exit 9") == 9 << 8 ? 0 : 1); });
    EXPECT_EQ("A B\n", child.out);
    EXPECT_TRUE(child.exited(0));
}

TEST(RunShell, WithoutAShellTheChildReturnsToTheCaller)
{
    ChildResult child = run_child([] {
        // An empty root has no program to start.
        ::mkdir("/tmp/empty", 0755);
        if (::chroot("/tmp/empty") != 0)
            ::_exit(50);
        pid_t self = ::getpid();
        int result = run_shell("true");
        if (::getpid() != self) {
            std::fflush(stdout);
            ::_exit(result == -1 ? 7 : 8);
        }
        ::_exit(result == 7 << 8 ? 0 : 1);
    });
    EXPECT_TRUE(child.exited(0));
    EXPECT_THAT(child.out, testing::HasSubstr("197: execv failed, No such file or directory\n"));
}
