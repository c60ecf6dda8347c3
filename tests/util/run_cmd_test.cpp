// SPDX-License-Identifier: Apache-2.0
#include "run_cmd.h"

#include "support/support.h"

#include <cerrno>
#include <csignal>
#include <cstdlib>
#include <dlfcn.h>
#include <fcntl.h>
#include <sched.h>
#include <sys/mount.h>
#include <sys/resource.h>
#include <sys/stat.h>
#include <sys/time.h>
#include <sys/wait.h>
#include <unistd.h>

using namespace support;

namespace {

bool fork_fails = false;
int waits_interrupted = 0;

std::string words(int count, const std::string &tail = "")
{
    std::string line = "prog";
    for (int i = 2; i <= count; i++)
        line += " w" + std::to_string(i);
    return line + tail;
}

// A program that prints its arguments, each between brackets: a script, so that argv[0] is the interpreter's.
std::string show_args()
{
    write_file("/tmp/show", "#!/bin/sh\nfor word; do printf '[%s]' \"$word\"; done\n");
    ::chmod("/tmp/show", 0755);
    return "/tmp/show";
}

// Descriptors of the program that the child became, as it lists them itself.
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
    static auto real = reinterpret_cast<pid_t (*)()>(::dlsym(RTLD_NEXT, "fork"));
    if (fork_fails) {
        errno = EAGAIN;
        return -1;
    }
    return real();
}

extern "C" pid_t waitpid(pid_t pid, int *status, int options)
{
    static auto real = reinterpret_cast<pid_t (*)(pid_t, int *, int)>(::dlsym(RTLD_NEXT, "waitpid"));
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
    EXPECT_EQ(run_execv("/bin/sh", exits, 1, 0), 3 << 8);
    EXPECT_EQ(run_execv("/bin/sh", dies, 1, 0), SIGKILL);
    EXPECT_EQ(run_execv(show_args().c_str(), kNoArgs, 1, 0), 0);
}

TEST(RunExecv, WithoutWaitingTheChildIsTheCallersToReap)
{
    char shell[] = "sh", option[] = "-c", leave[] = "exit 5";
    char *const argv[] = {shell, option, leave, nullptr};
    EXPECT_EQ(run_execv("/bin/sh", argv, 0, 0), 0);
    int status = 0;
    EXPECT_GT(::waitpid(-1, &status, 0), 0);
    EXPECT_EQ(status, 5 << 8);
}

TEST(RunExecv, AMissingProgramIsSaidAndLeavesWithStatus255)
{
    ChildResult child = run_child([] { ::_exit(run_execv("/no/such", kNoArgs, 1, 0) == 255 << 8 ? 0 : 1); });
    EXPECT_TRUE(child.exited(0));
    EXPECT_EQ(read_file(kConsole), "execv /no/such error: No such file or directory\n");
}

TEST(RunExecv, AFailedForkIsSaid)
{
    fork_fails = true;
    pid_t pid = 77;
    EXPECT_EQ(run_execv("/bin/true", kNoArgs, 1, 0), -1);
    EXPECT_EQ(run_execv_ex("/bin/sh", kNoArgs, 0, &pid), -1);
    EXPECT_EQ(run_shell("true"), -1);
    fork_fails = false;
    EXPECT_EQ(pid, 77) << "left alone";
    EXPECT_EQ(read_file(kConsole), "fork /bin/true error\nfork /bin/sh error\n");
}

TEST(RunExecv, AnInterruptedWaitGoesOn)
{
    waits_interrupted = 2;
    EXPECT_EQ(run_shell("exit 4"), 4 << 8);
    EXPECT_EQ(waits_interrupted, 0);
    EXPECT_EQ(::waitpid(-1, nullptr, WNOHANG), -1) << "no zombie is left";
    EXPECT_EQ(errno, ECHILD);
}

TEST(RunExecv, AWaitThatFailsGivesMinusOne)
{
    std::signal(SIGCHLD, SIG_IGN); // children are reaped by the kernel, the wait finds none
    EXPECT_EQ(run_execv("/bin/true", kNoArgs, 1, 0), -1);
    EXPECT_EQ(run_shell("true"), -1);
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
    EXPECT_EQ(ignored(0), 1u);
    EXPECT_EQ(ignored(1), 0u);
}

TEST(RunExecv, NoDescriptorAboveStandardErrorReachesTheChild)
{
    open_many(1000);
    char shell[] = "sh", option[] = "-c", body[] = "echo /proc/self/fd/*";
    char *const argv[] = {shell, option, body, nullptr};
    ChildResult child = run_child([&] { run_execv("/bin/sh", argv, 1, 0); });
    // The one above is the shell's own, listing the folder.
    EXPECT_EQ(child.out, "/proc/self/fd/0 /proc/self/fd/1 /proc/self/fd/2 /proc/self/fd/3\n");
    child = run_child([&] { run_shell(kListFds); });
    EXPECT_EQ(child.out, "0 1 2 3 ");
}

TEST(RunExecv, AnEmptyArgumentListRunsTheProgram)
{
    std::string show = show_args();
    EXPECT_EQ(run_shellcmd(show.c_str(), "", 1, 0), 0);
    EXPECT_EQ(run_shellcmd(show.c_str(), " \t ", 1, 0), 0);
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

TEST(CloseExtraFds, AMissingFolderIsSaid)
{
    int kept = ::open("/dev/null", O_RDONLY);
    ChildResult child = run_child([&] {
        bool hidden = ::unshare(CLONE_NEWNS) == 0 && ::mount("tmpfs", "/proc", "tmpfs", 0, nullptr) == 0;
        bool refused = close_extra_fds() == -1;
        bool open = ::fcntl(kept, F_GETFD) == 0; // nothing was closed
        ::_exit(hidden && refused && open ? 0 : 1);
    });
    EXPECT_TRUE(child.exited(0));
    EXPECT_EQ(read_file(kConsole), "close_extra_fds: opendir /proc/" + std::to_string(child.pid) +
                                       "/fd, error: No such file or directory\n");
}

TEST(RunShellcmd, WordsAreCutAtRunsOfBlanksAndTabs)
{
    std::string show = show_args();
    ChildResult child = run_child([&] { run_shellcmd(show.c_str(), "\t zero  one\t\ttwo 'a b' \t", 1, 0); });
    EXPECT_EQ(child.out, "[one][two]['a][b']");
    EXPECT_TRUE(child.exited(0));
}

TEST(RunShellcmd, ThirtyTwoWordsAreTaken)
{
    std::string show = show_args();
    ChildResult child = run_child([&] { run_shellcmd(show.c_str(), words(32).c_str(), 1, 0); });
    EXPECT_THAT(child.out, testing::EndsWith("[w31][w32]"));
    EXPECT_THAT(child.out, testing::Not(testing::HasSubstr("Too many")));
}

TEST(RunShellcmd, ThirtyTwoWordsAndABlankAreWarnedOfAndRun)
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
    EXPECT_EQ(child.out, "[" + word + "]");
}

TEST(RunShellcmdEx, TheIdIsHandedOutAndPolled)
{
    pid_t pid = 0;
    int fds[2];
    ASSERT_EQ(::pipe(fds), 0);
    write_file("/tmp/wait", "#!/bin/sh\nread line\nexit 6\n");
    ::chmod("/tmp/wait", 0755);
    int saved = ::dup(0);
    ::dup2(fds[0], 0);
    EXPECT_EQ(run_shellcmd_ex("/tmp/wait", "wait", 0, &pid), 0);
    ::dup2(saved, 0);
    ASSERT_GT(pid, 0);
    int status = 77;
    EXPECT_EQ(run_shellcmd_ex_wait(pid, &status), 0);
    EXPECT_EQ(::write(fds[1], "go\n", 3), 3);
    pid_t ended = 0;
    while ((ended = run_shellcmd_ex_wait(pid, &status)) == 0)
        ::usleep(1000);
    EXPECT_EQ(ended, pid);
    EXPECT_EQ(status, 6 << 8);
    EXPECT_EQ(run_shellcmd_ex_wait(pid, &status), -1);
}

TEST(RunShell, TheShellsRulesHold)
{
    ChildResult child = run_child([] { ::_exit(run_shell("echo 'a b' | tr a-z A-Z; exit 9") == 9 << 8 ? 0 : 1); });
    EXPECT_EQ(child.out, "A B\n");
    EXPECT_TRUE(child.exited(0));
}

TEST(RunShell, WithoutAShellTheChildReturnsToTheCaller)
{
    ChildResult child = run_child([] {
        // No program can be started from a root without any.
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
