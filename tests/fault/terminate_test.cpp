// SPDX-License-Identifier: Apache-2.0
// The termination logger: the signals it handles, its log, its failures, and init's signals.
#include "fault/crash_support.h"

#include <sched.h>
#include <sys/stat.h>
#include <sys/wait.h>

using namespace support;
using namespace crash;

namespace {

constexpr char kName[] = "routed";
constexpr int kSignals[] = {SIGHUP, SIGINT, SIGUSR1, SIGUSR2, SIGPIPE, SIGALRM, SIGTERM, SIGVTALRM, SIGIO, SIGPWR};

// Sends itself the signal. The exit status shows whether it continues.
ChildResult terminated_child(
    int sig, const std::function<void()> &after = [] {})
{
    return run_child([&] {
        rename_process(kName);
        pstrace_terminate_signal();
        ::raise(sig);
        after();
    });
}

std::string path_of(int id, int sig)
{
    return log_path(kName, id, "term", sig, "/flash/core");
}

} // namespace

TEST(Terminate, EverySignalOfTheListIsLoggedAndKills)
{
    std::vector<int> signals(std::begin(kSignals), std::end(kSignals));
    signals.insert(signals.end(), {SIGRTMIN, 51, 52, SIGRTMAX});
    for (int sig : signals) {
        ChildResult child = terminated_child(sig);
        EXPECT_TRUE(child.killed_by(sig)) << sig << " " << child.status;
        std::vector<std::string> text = lines(read_file(path_of(child.pid, sig)));
        ASSERT_GE(text.size(), 5U) << sig;
        char head[128];
        std::snprintf(head, sizeof head, "Process %d receive signal(%d) from pid %d,", child.pid, sig, child.pid);
        EXPECT_EQ(head, text[0]);
        EXPECT_EQ("Backtracing:", text[1]);
        EXPECT_EQ(0U, text[2].rfind("\t<0x", 0)) << text[2];
        EXPECT_EQ(0U, text[text.size() - 2].rfind("\tStack bottom is at ", 0));
    }
    EXPECT_EQ("", printed());
}

TEST(Terminate, OtherSignalsAreLeftAlone)
{
    ChildResult child = run_child([] {
        constexpr int kOthers[] = {SIGQUIT, SIGILL, SIGABRT, SIGBUS, SIGFPE, SIGSEGV, SIGCHLD, SIGPROF};
        struct sigaction before[std::size(kOthers)], after;
        for (std::size_t i = 0; i < std::size(kOthers); i++)
            ::sigaction(kOthers[i], nullptr, &before[i]);
        EXPECT_EQ(nullptr, pstrace_terminate_signal());
        for (std::size_t i = 0; i < std::size(kOthers); i++) {
            ::sigaction(kOthers[i], nullptr, &after);
            EXPECT_EQ(before[i].sa_handler, after.sa_handler) << kOthers[i];
        }
    });
    EXPECT_TRUE(child.exited(0)) << child.out;
}

TEST(Terminate, TheLastInstallerOwnsTheSharedSignals)
{
    ChildResult child = run_child([] {
        auto owner = [](int sig) {
            struct sigaction action;
            ::sigaction(sig, nullptr, &action);
            return action.sa_sigaction;
        };
        install_sighandler();
        pstrace_terminate_signal();
        for (int sig : {14, 51, 52, 12, 1})
            EXPECT_EQ(&signal_terminate, owner(sig)) << sig;
        install_sighandler();
        for (int sig : {14, 51, 52})
            EXPECT_EQ(&signal_err, owner(sig)) << sig;
    });
    EXPECT_TRUE(child.exited(0)) << child.out;
}

TEST(Terminate, InThreadModeTheThreadIsNamed)
{
    ChildResult child = run_child([] {
        qv_set_handle_thread_trace();
        rename_process(kName);
        pstrace_terminate_signal();
        ::raise(SIGTERM);
    });
    EXPECT_TRUE(child.killed_by(SIGTERM));
    EXPECT_TRUE(exists(path_of(child.pid, SIGTERM))); // the main thread's id is the process's
}

TEST(Terminate, AFolderThatCannotBeMadeIsReportedAndTheProcessContinues)
{
    remount("/flash", true);
    ChildResult child = terminated_child(SIGTERM, [] {
        struct sigaction action;
        ::sigaction(SIGTERM, nullptr, &action);
        EXPECT_EQ(SIG_DFL, action.sa_handler);
    });
    EXPECT_TRUE(child.exited(0)) << child.status;
    EXPECT_EQ("mkdir /flash/core  failed, Read-only file system\nFail to create " + path_of(child.pid, SIGTERM) + " \n",
              printed());
}

TEST(Terminate, AFileThatCannotBeMadeIsReportedAndTheProcessContinues)
{
    ::mkdir("/flash/core", 0777);
    remount("/flash", true);
    ChildResult child = terminated_child(SIGTERM);
    EXPECT_TRUE(child.exited(0)) << child.status;
    std::string path = path_of(child.pid, SIGTERM);
    EXPECT_EQ("!!!!!!WARNING: failed to terminate dump log file in " + path + ".\nFail to create " + path + " \n",
              printed());
}

TEST(Terminate, ErrnoIsKept)
{
    remount("/flash", true);
    ChildResult child = run_child([] {
        pstrace_terminate_signal();
        errno = E2BIG;
        ::raise(SIGTERM);
        EXPECT_EQ(E2BIG, errno);
    });
    EXPECT_TRUE(child.exited(0)) << child.out;
}

namespace {

// Runs as the init of a process namespace: sends a child one SIGTERM, and a second one once the child reports survival.
int be_init()
{
    int pipe_fds[2];
    if (::pipe(pipe_fds) != 0)
        return 10;
    pid_t child = ::fork();
    if (child == 0) {
        rename_process(kName);
        pstrace_terminate_signal();
        sigset_t termination, none; // blocked but for the waits, so that no signal comes before its wait
        ::sigemptyset(&none);
        ::sigemptyset(&termination);
        ::sigaddset(&termination, SIGTERM);
        ::sigprocmask(SIG_BLOCK, &termination, nullptr);
        char c = 'r';
        (void)!::write(pipe_fds[1], &c, 1);
        ::sigsuspend(&none); // the first signal ends this ...
        (void)!::write(pipe_fds[1], &c, 1);
        for (;;)
            ::sigsuspend(&none); // ... and the second one all
    }
    char c;
    for (int i = 0; i < 2; i++) {
        if (::read(pipe_fds[0], &c, 1) != 1)
            return 11;
        ::kill(child, SIGTERM);
    }
    int status = 0;
    ::waitpid(child, &status, 0);
    return WIFSIGNALED(status) && WTERMSIG(status) == SIGTERM ? 0 : 12;
}

} // namespace

TEST(Terminate, OneSignalOfInitIsSurvivedUnlogged)
{
    ChildResult child = run_child([] {
        if (::unshare(CLONE_NEWPID) != 0)
            ::_exit(77);
        pid_t init = ::fork();
        if (init == 0)
            ::_exit(be_init());
        int status = 0;
        ::waitpid(init, &status, 0);
        ::_exit(WEXITSTATUS(status));
    });
    if (child.exited(77))
        GTEST_SKIP() << "process namespaces are not available";
    EXPECT_TRUE(child.exited(0)) << child.status;
    EXPECT_FALSE(exists("/flash/core"));
    EXPECT_EQ("", printed());
}
