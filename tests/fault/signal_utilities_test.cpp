// SPDX-License-Identifier: Apache-2.0
// Arming and disarming, the small signal utilities, hexadecimal dumps. This host has no callbacks.
#include "fault/crash_support.h"

using namespace support;
using namespace crash;

namespace {

struct sigaction disposition(int sig)
{
    struct sigaction action;
    ::sigaction(sig, nullptr, &action);
    return action;
}

void *const kDefault = reinterpret_cast<void *>(SIG_DFL);
void *const kIgnored = reinterpret_cast<void *>(SIG_IGN);

} // namespace

TEST(Callback, AnEmptyTableReturnsZero)
{
    EXPECT_EQ(0, call_signal_table(1, 0, nullptr));
}

TEST(Install, ArmsTheCrashHandlerWithSiginfoOnly)
{
    ChildResult child = run_child([] {
        constexpr int kRestorer = 0x04000000; // the C library's own
        EXPECT_EQ(kDefault, install_sighandler2(SIGUSR1));
        for (int sig : {SIGUSR1, SIGABRT, SIGSEGV, SIGBUS, SIGILL, kDumpFileSignal, kBacktraceSignal}) {
            struct sigaction action = disposition(sig);
            EXPECT_EQ(&signal_err, action.sa_sigaction) << sig;
            EXPECT_EQ(SA_SIGINFO, action.sa_flags & ~kRestorer) << sig;
            for (int masked = 1; masked <= SIGRTMAX; masked++)
                EXPECT_NE(1, ::sigismember(&action.sa_mask, masked)) << masked;
        }
        EXPECT_EQ(SIG_DFL, disposition(SIGALRM).sa_handler);
        EXPECT_EQ(SIG_IGN, disposition(SIGHUP).sa_handler);
        EXPECT_NE(SIG_DFL, disposition(SIGUSR2).sa_handler);
        EXPECT_EQ(kIgnored, install_sighandler());
        EXPECT_EQ(&signal_err, disposition(SIGALRM).sa_sigaction);
    });
    EXPECT_TRUE(child.exited(0)) << child.out;
    EXPECT_EQ("", printed());
}

TEST(Install, AnImpossibleSignalIsReportedAndTheRestArmed)
{
    ChildResult child = run_child([] {
        rename_process("routed");
        for (int sig : {0, -1, 65, SIGKILL, 4711})
            install_sighandler2(sig);
        ::raise(kBacktraceSignal);
        struct sigaction action = disposition(kBacktraceSignal);
        ::sigaction(kAttachSignal, &action, nullptr);
        ::raise(kAttachSignal); // which is still the attach signal
    });
    EXPECT_TRUE(child.exited(0));
    std::string console = printed();
    for (const char *sig : {"0", "-1", "65", "9", "4711"})
        EXPECT_NE(std::string::npos, console.find("install signal handler for " + std::string(sig) + " failed.\n"))
            << sig;
    for (int sig : {kBacktraceSignal, kAttachSignal})
        EXPECT_EQ("", read_log(log_path("routed", child.pid, "attach", sig)).error);
}

TEST(Utility, IgnoreSignalIgnoresItsList)
{
    ChildResult child = run_child([] {
        EXPECT_EQ(kDefault, ignore_signal());
        for (int sig : {SIGBUS, SIGILL, SIGSEGV, SIGABRT, kAttachSignal, SIGHUP, SIGCHLD, SIGPIPE, 50, kDumpFileSignal,
                        kBacktraceSignal})
            EXPECT_EQ(SIG_IGN, disposition(sig).sa_handler) << sig;
        EXPECT_EQ(SIG_DFL, disposition(SIGTERM).sa_handler);
        EXPECT_EQ(kIgnored, ignore_signal());
    });
    EXPECT_TRUE(child.exited(0)) << child.out;
}

TEST(Utility, UninstallResetsTheFaultSignalsOnly)
{
    ChildResult child = run_child([] {
        install_sighandler();
        EXPECT_EQ(reinterpret_cast<void *>(&signal_err), uninstall_sighandler());
        for (int sig : {SIGBUS, SIGILL, SIGSEGV, SIGABRT})
            EXPECT_EQ(SIG_DFL, disposition(sig).sa_handler) << sig;
        EXPECT_EQ(&signal_err, disposition(kBacktraceSignal).sa_sigaction);
    });
    EXPECT_TRUE(child.exited(0)) << child.out;
}

TEST(Utility, PthreadIgnoreBlocksAllInThisThread)
{
    ChildResult child = run_child([] {
        EXPECT_EQ(0, pthread_ignore_signal());
        sigset_t blocked;
        ::pthread_sigmask(SIG_BLOCK, nullptr, &blocked);
        for (int sig : {SIGHUP, SIGINT, SIGSEGV, SIGTERM, 34, kBacktraceSignal, 64})
            EXPECT_EQ(1, ::sigismember(&blocked, sig)) << sig;
    });
    EXPECT_TRUE(child.exited(0)) << child.out;
}

TEST(Utility, CallbackRegistrationReturnsItsArgument)
{
    EXPECT_EQ(0x1234567890UL, install_sigal_err_callback(0x1234567890UL));
}

TEST(Utility, PlainHandlerPrintsTheBacktrace)
{
    ChildResult child = run_child([] {
        install_sighandler();
        ::signal(SIGUSR1, signal_handler);
        ::raise(SIGUSR1);
        EXPECT_EQ(SIG_DFL, disposition(SIGSEGV).sa_handler);
    });
    EXPECT_TRUE(child.exited(0)) << child.out;
    std::vector<std::string> text = lines(read_file(kConsole));
    ASSERT_GE(text.size(), 3U);
    EXPECT_EQ("signal_utilities_test Caught signal 10", text[0]);
    EXPECT_EQ(0U, text[1].rfind("Frame  1: 0x", 0)) << text[1];
    EXPECT_EQ(0U, text[2].rfind("Frame  2: 0x", 0)) << text[2];
}

// ---- hexadecimal dumps ----

namespace {

alignas(16) const
    unsigned char kBytes[33] = {0, 1, 2, 0xab, 4, 5, 6, 7, 8, 9, 10, 11, 12, 13, 14, 15, 16, 17, 0xfe, 0xff};

std::string dump(const char *title, const unsigned char *start, const unsigned char *mark, int len)
{
    return capture_stdout([=] { hex_dump_to_file(STDOUT_FILENO, title, start, mark, len); });
}

std::string address(const void *p)
{
    char text[32];
    std::snprintf(text, sizeof text, "0x%lX", reinterpret_cast<unsigned long>(p));
    return text;
}

} // namespace

TEST(HexDump, SixteenBytesALineAndTheMark)
{
    EXPECT_EQ("\n" + address(kBytes) + ": 00 01 02*ab 04 05 06 07 08 09 0a 0b 0c 0d 0e 0f\n" + address(kBytes + 16) +
                  ": 10 11 fe ff\n",
              dump(nullptr, kBytes, kBytes + 3, 20));
    EXPECT_EQ("\n" + address(kBytes) + ":*00\n", dump(nullptr, kBytes, kBytes, 1));
    EXPECT_EQ("\n" + address(kBytes + 1) + ": 01 02\n", dump(nullptr, kBytes + 1, nullptr, 2));
    EXPECT_EQ(2U, lines(dump(nullptr, kBytes, nullptr, 16)).size());
    EXPECT_EQ(3U, lines(dump(nullptr, kBytes, nullptr, 17)).size());
}

TEST(HexDump, NothingToDump)
{
    EXPECT_EQ("title\n", dump("title\n", nullptr, nullptr, 4));
    EXPECT_EQ("title\n", dump("title\n", kBytes, nullptr, 0));
    EXPECT_EQ("title\n", dump("title\n", kBytes, nullptr, -1));
    EXPECT_EQ("", dump(nullptr, nullptr, nullptr, 4));
    hex_dump_to_file(-1, "title %s", kBytes, nullptr, 4, "never read");
}

TEST(HexDump, TitleUsesTheNamedArgumentsAndThenTheRest)
{
    std::string text = capture_stdout([] {
        hex_dump_to_file(STDOUT_FILENO, "%p %p %d %s %d %lx %c%%%hd", nullptr, kBytes, -1, "more", -7, 0x123456789abUL,
                         'c');
    });
    EXPECT_EQ("0x0 " + address(kBytes) + " -1 more -7 123456789ab c%%hd", text);
    text = capture_stdout([] {
        hex_dump_to_file(STDOUT_FILENO, "%p%p%d%d%d%d%d%d%d%d%d%d", nullptr, nullptr, 0, 1, 2, 3, 4, 5, 6, 7, 8, 9);
    });
    EXPECT_EQ("0x00x00123456789", text);
}

TEST(HexDump, ATitleWithTooManyConversionsIsShownUnchanged)
{
    std::string title;
    for (int i = 0; i < 33; i++)
        title += "%s";
    EXPECT_EQ(title, dump(title.c_str(), nullptr, nullptr, 0));
}
