// SPDX-License-Identifier: Apache-2.0
// The fatal-signal handler in processes with threads: which thread dies of which signal, which threads count as inside
// a handler, and that cancellation cuts no log.
#include "fault/crash_support.h"

#include "base/unique_fd.h"
#include "console_print.h"
#include "signal_printf.h"

#include <atomic>
#include <csetjmp>
#include <ctime>
#include <fcntl.h>
#include <malloc.h>
#include <pthread.h>
#include <sys/stat.h>
#include <sys/wait.h>

using namespace support;
using namespace crash;

namespace {

constexpr char kName[] = "routed";

// ---- a callback steered by the running case ----

void (*in_phase[8])(); // what the callback does, by phase
int runs_fd = -1;      // receives a byte for each run of the handler

long act(unsigned phase, unsigned long, void *)
{
    if (phase == QV_COREDUMP_FIRST && runs_fd >= 0 && ::write(runs_fd, "r", 1) != 1)
        ::_exit(97);
    if (phase < std::size(in_phase) && in_phase[phase] != nullptr)
        in_phase[phase]();
    return 0;
}

QV_COREDUMP_CALLBACK(act);

pthread_t start(void *(*body)(void *), void *arg = nullptr)
{
    pthread_t thread;
    if (::pthread_create(&thread, nullptr, body, arg) != 0)
        ::_exit(90);
    return thread;
}

void *idle(void *)
{
    for (;;)
        ::pause();
    return nullptr;
}

template <typename Condition>
void wait_until(Condition holds)
{
    while (!holds())
        ::usleep(200);
}

// A process with a second thread that does nothing.
ChildResult threaded_child(const std::function<void()> &body, int timeout_ms = 20000)
{
    return run_child(
        [&] {
            rename_process(kName);
            runs_fd = ::open("/tmp/runs", O_WRONLY | O_CREAT | O_APPEND, 0666);
            install_sighandler();
            start(idle);
            body();
        },
        timeout_ms);
}

std::size_t runs()
{
    return read_file("/tmp/runs").size();
}

std::string core_path(const ChildResult &child, const std::string &kind, int sig)
{
    return log_path(kName, child.pid, kind, sig);
}

sighandler_t disposition(int sig)
{
    struct sigaction action;
    ::sigaction(sig, nullptr, &action);
    return action.sa_handler;
}

void expect_log_up_to_the_callback(const ChildResult &child, int sig)
{
    Log log = read_log(core_path(child, "coredump", sig));
    EXPECT_EQ("", log.error);
    EXPECT_EQ(sig, log.sig);
}

// Slow sleeps: a wait that counts sleeps instead of reading the clock takes far too long.
bool sleeps_are_slow;
int sleeps_fd = -1; // receives a byte for each sleep of a dying thread

void count_sleeps()
{
    sleeps_are_slow = true;
    sleeps_fd = ::open("/tmp/sleeps", O_WRONLY | O_CREAT | O_APPEND, 0666);
}

} // namespace

extern "C" int nanosleep(const timespec *time, timespec *rest)
{
    timespec slow = {0, 50000000};
    if (sleeps_fd >= 0 && ::write(sleeps_fd, "s", 1) != 1)
        ::_exit(96);
    return ::clock_nanosleep(CLOCK_MONOTONIC, 0, sleeps_are_slow ? &slow : time, rest);
}

// ---- a dying thread is as good as disarmed ----

TEST(Dying, ACallbackThatAbortsEndsTheProcess)
{
    for (unsigned phase : {QV_COREDUMP_BACKTRACE, QV_COREDUMP_LAST}) {
        ::unlink("/tmp/runs");
        ChildResult child = threaded_child([phase] {
            in_phase[phase] = [] { std::abort(); };
            write_null();
        });
        EXPECT_TRUE(child.killed_by(SIGABRT)) << child.status << child.timed_out;
        EXPECT_LE(runs(), 2U);
        expect_log_up_to_the_callback(child, SIGSEGV);
    }
}

TEST(Dying, ACallbackThatAbortsWithinAbort)
{
    ChildResult child = threaded_child([] {
        in_phase[QV_COREDUMP_LAST] = [] { std::abort(); };
        std::abort();
    });
    EXPECT_TRUE(child.killed_by(SIGABRT)) << child.status << child.timed_out;
    EXPECT_LE(runs(), 2U);
    expect_log_up_to_the_callback(child, SIGABRT);
}

TEST(Dying, ACallbackThatAlwaysAbortsIsNotCalledForever)
{
    ChildResult child = threaded_child([] {
        in_phase[QV_COREDUMP_FIRST] = [] { std::abort(); };
        write_null();
    });
    EXPECT_TRUE(child.killed_by(SIGABRT)) << child.status << child.timed_out;
    EXPECT_LE(runs(), 10U);
}

namespace {

// The word after the newest block is the size of the rest of the heap.
NO_SANITIZERS void destroy_heap()
{
    for (int i = 0; i < 20; i++) {
        auto *block = static_cast<char *>(std::malloc(20000));
        *reinterpret_cast<volatile unsigned long *>(block + ::malloc_usable_size(block)) = 0xa5a5a5a5a5a5a5a5;
    }
}

} // namespace

// The allocator detects the damage while it holds its lock, and aborts.
TEST(Dying, ACallbackThatAllocatesOnADestroyedHeap)
{
    if (under_sanitizer())
        GTEST_SKIP() << "a sanitizer's allocator keeps its records elsewhere";
    ChildResult child = threaded_child([] {
        ::close(STDERR_FILENO); // suppresses the allocator's message
        in_phase[QV_COREDUMP_LAST] = destroy_heap;
        write_null();
    });
    EXPECT_TRUE(child.killed_by(SIGABRT)) << child.status << child.timed_out;
    EXPECT_LE(runs(), 2U);
    expect_log_up_to_the_callback(child, SIGSEGV);
}

TEST(Dying, ASentSignalEndsTheProcessToo)
{
    for (int sig : {SIGILL, SIGBUS, SIGABRT}) {
        static int to_send;
        to_send = sig;
        ChildResult child = threaded_child([] {
            in_phase[QV_COREDUMP_LAST] = [] { ::raise(to_send); };
            write_null();
        });
        EXPECT_TRUE(child.killed_by(sig)) << child.status << child.timed_out;
        expect_log_up_to_the_callback(child, SIGSEGV);
    }
}

TEST(Dying, DumpRequestsAreStillServed)
{
    ChildResult child = threaded_child([] {
        in_phase[QV_COREDUMP_BACKTRACE] = [] { ::raise(kBacktraceSignal); };
        write_null();
    });
    EXPECT_TRUE(child.killed_by(SIGSEGV)) << child.status;
    EXPECT_EQ("", read_log(core_path(child, "attach", kBacktraceSignal)).error);
    EXPECT_EQ("", read_log(core_path(child, "coredump", SIGSEGV)).error);
}

TEST(Dying, ASentSignalDisarmsWhenTheLogIsWritten)
{
    ChildResult child = threaded_child([] {
        ::raise(SIGSEGV);
        for (int sig : {SIGBUS, SIGABRT, SIGSEGV, SIGILL})
            EXPECT_EQ(SIG_DFL, disposition(sig)) << sig;
        EXPECT_EQ(0, in_signal_context());
    });
    EXPECT_TRUE(child.exited(0)) << child.out;
}

TEST(Dying, WhatACallbackSetsOrArmsIsKept)
{
    ChildResult child = threaded_child([] {
        in_phase[QV_COREDUMP_LAST] = [] { ::signal(SIGBUS, SIG_IGN); };
        ::raise(SIGSEGV);
        EXPECT_EQ(SIG_IGN, disposition(SIGBUS));
        EXPECT_EQ(SIG_DFL, disposition(SIGSEGV));
        in_phase[QV_COREDUMP_LAST] = [] { install_sighandler(); };
        install_sighandler();
        ::raise(SIGSEGV);
        EXPECT_NE(SIG_DFL, disposition(SIGSEGV));
    });
    EXPECT_TRUE(child.exited(0)) << child.out;
}

namespace {

sigjmp_buf way_out;

} // namespace

TEST(Dying, AThreadThatLeftItsDeathDiesOfTheNextFaultUnlessItArmsAgain)
{
    for (bool arms : {false, true}) {
        ::unlink("/tmp/runs");
        ChildResult child = threaded_child([arms] {
            in_phase[QV_COREDUMP_LAST] = [] { siglongjmp(way_out, 1); };
            if (sigsetjmp(way_out, 1) == 0)
                write_null();
            in_phase[QV_COREDUMP_LAST] = nullptr;
            if (arms)
                install_sighandler();
            jump_wild();
        });
        EXPECT_TRUE(child.killed_by(SIGSEGV)) << child.status << child.timed_out;
        EXPECT_EQ(arms ? 2U : 1U, runs());
    }
}

namespace {

bool is_reset_at_backtrace;

} // namespace

TEST(Dying, AForkedChildOfAThreadedProcessDisarmsFirst)
{
    ChildResult child = threaded_child([] {
        pid_t pid = ::fork();
        if (pid == 0) {
            in_phase[QV_COREDUMP_BACKTRACE] = [] { is_reset_at_backtrace = disposition(SIGSEGV) == SIG_DFL; };
            ::raise(SIGSEGV);
            ::_exit(is_reset_at_backtrace ? 0 : 1);
        }
        int status = 0;
        ::waitpid(pid, &status, 0);
        EXPECT_EQ(0, status);
    });
    EXPECT_TRUE(child.exited(0)) << child.out;
}

TEST(Dying, TheWaitForOtherLogsIsBoundedByTheClock)
{
    ChildResult child = threaded_child([] {
        static std::atomic<bool> is_hanging;
        static pthread_t hanging;
        in_phase[QV_COREDUMP_FIRST] = [] {
            if (!::pthread_equal(::pthread_self(), hanging))
                return;
            is_hanging = true;
            idle(nullptr);
        };
        start([](void *) -> void * {
            hanging = ::pthread_self();
            ::raise(kBacktraceSignal);
            return nullptr;
        });
        wait_until([] { return is_hanging.load(); });
        sleeps_are_slow = true;
        write_null();
    });
    EXPECT_TRUE(child.killed_by(SIGSEGV)) << child.status << child.timed_out;
    EXPECT_EQ("", read_log(core_path(child, "coredump", SIGSEGV)).error);
}

namespace {

// With nothing to wait for, a thread sleeps once or twice. A wait of 2 seconds is 40 sleeps.
constexpr std::size_t kFewSleeps = 20;

std::size_t sleeps()
{
    return read_file("/tmp/sleeps").size();
}

} // namespace

TEST(Dying, NoThreadWaitsForAHandlerThatWasLeft)
{
    ChildResult child = threaded_child([] {
        in_phase[QV_COREDUMP_LAST] = [] { siglongjmp(way_out, 1); };
        if (sigsetjmp(way_out, 1) == 0)
            ::raise(kBacktraceSignal);
        in_phase[QV_COREDUMP_LAST] = nullptr;
        count_sleeps();
        start([](void *) -> void * {
            write_null();
            return nullptr;
        });
        idle(nullptr);
    });
    EXPECT_TRUE(child.killed_by(SIGSEGV)) << child.status << child.timed_out;
    EXPECT_EQ("", read_log(core_path(child, "coredump", SIGSEGV)).error);
    EXPECT_LE(sleeps(), kFewSleeps);
}

TEST(Dying, TheWaitForOtherLogsLastsWhileLogsAreFinished)
{
    constexpr int kThreads = 3;
    ChildResult child = threaded_child([] {
        static std::atomic<int> arrived, order;
        qv_set_handle_thread_trace();
        in_phase[QV_COREDUMP_FIRST] = [] {
            arrived++;
            wait_until([] { return arrived == kThreads; });
        };
        // The first log waits longer for the last one than it would for one log alone.
        in_phase[QV_COREDUMP_LAST] = [] {
            ::usleep(static_cast<useconds_t>(order++) * 1300000);
            qv::base::unique_fd ends(::open("/tmp/ends", O_WRONLY | O_CREAT | O_APPEND, 0666));
            if (::write(ends.get(), "e", 1) != 1)
                ::_exit(95);
        };
        for (int i = 0; i < kThreads; i++) {
            start([](void *) -> void * {
                rename_process(kName);
                write_null();
                return nullptr;
            });
        }
        idle(nullptr);
    });
    EXPECT_TRUE(child.killed_by(SIGSEGV)) << child.status << child.timed_out;
    std::vector<std::string> logs = list_dir("/etc/core");
    EXPECT_EQ(static_cast<std::size_t>(kThreads), logs.size());
    for (const std::string &name : logs)
        EXPECT_EQ("", read_log("/etc/core/" + name).error);
    EXPECT_EQ(static_cast<std::size_t>(kThreads), read_file("/tmp/ends").size()) << "no callback was cut off";
}

TEST(Dying, ThreadsWithFinishedLogsDoNotWaitForEachOther)
{
    ChildResult child = threaded_child([] {
        static std::atomic<int> finished;
        in_phase[QV_COREDUMP_LAST] = [] {
            finished++;
            while (finished < 2)
                ::usleep(200);
        };
        count_sleeps();
        for (int i = 0; i < 2; i++) {
            start([](void *) -> void * {
                write_null();
                return nullptr;
            });
        }
        idle(nullptr);
    });
    EXPECT_TRUE(child.killed_by(SIGSEGV)) << child.status << child.timed_out;
    EXPECT_LE(sleeps(), kFewSleeps);
}

// ---- who counts as inside a handler ----

namespace {

std::atomic<bool> is_inside, may_leave;

void stay_inside()
{
    is_inside = true;
    while (!may_leave)
        ::usleep(200);
}

void *request_dump(void *)
{
    ::raise(kBacktraceSignal);
    return nullptr;
}

int mirrored;

int count_mirrored(const char *, va_list)
{
    mirrored++;
    return 0;
}

// Whether this process prints by the ordinary path: only that calls the hook.
bool prints_ordinarily()
{
    mirrored = 0;
    console_print_mfunc_set(count_mirrored);
    console_print("a line\n");
    return mirrored == 1 && in_signal_context() == 0;
}

int status_of(pid_t pid)
{
    int status = -1;
    ::waitpid(pid, &status, 0);
    return status;
}

} // namespace

TEST(Context, AForkedChildDoesNotInheritOtherThreadsHandlers)
{
    ChildResult child = threaded_child([] {
        in_phase[QV_COREDUMP_LAST] = stay_inside;
        pthread_t thread = start(request_dump);
        wait_until([] { return is_inside.load(); });
        EXPECT_EQ(1, in_signal_context());
        for (auto fork_call : {&::fork, &::_Fork}) {
            pid_t pid = fork_call();
            if (pid == 0) {
                in_phase[QV_COREDUMP_LAST] = nullptr;
                bool is_right = prints_ordinarily();
                ::raise(kBacktraceSignal);
                ::_exit(is_right && prints_ordinarily() ? 0 : 1);
            }
            EXPECT_EQ(0, status_of(pid));
        }
        EXPECT_EQ(1, in_signal_context());
        may_leave = true;
        ::pthread_join(thread, nullptr);
        EXPECT_EQ(0, in_signal_context());
    });
    EXPECT_TRUE(child.exited(0)) << child.out << child.timed_out;
}

TEST(Context, AChildForkedByACallbackIsStillInside)
{
    ChildResult child = threaded_child([] {
        static pid_t pid;
        in_phase[QV_COREDUMP_LAST] = [] {
            pid = ::fork();
            if (pid == 0 && in_signal_context() != 1)
                ::_exit(1);
        };
        ::raise(kBacktraceSignal);
        EXPECT_EQ(0, in_signal_context());
        if (pid == 0)
            ::_exit(in_signal_context());
        EXPECT_EQ(0, status_of(pid));
    });
    EXPECT_TRUE(child.exited(0)) << child.out << child.timed_out;
}

namespace {

void leave_handler()
{
    in_phase[QV_COREDUMP_LAST] = [] { siglongjmp(way_out, 1); };
    if (sigsetjmp(way_out, 1) == 0)
        ::raise(kBacktraceSignal);
    in_phase[QV_COREDUMP_LAST] = nullptr;
}

NO_SANITIZERS void raise_deeper(int levels)
{
    volatile char frame[1024];
    frame[0] = 0;
    if (levels > 0)
        raise_deeper(levels - 1);
    else
        ::raise(kBacktraceSignal);
    frame[1] = frame[0];
}

} // namespace

TEST(Context, ALeftHandlerIsForgottenByADeeperOne)
{
    ChildResult child = threaded_child([] {
        leave_handler();
        raise_deeper(50);
        EXPECT_EQ(0, in_signal_context());
        EXPECT_TRUE(prints_ordinarily());
    });
    EXPECT_TRUE(child.exited(0)) << child.out << child.timed_out;
}

TEST(Context, ALeftHandlerIsForgottenByOneOnAnotherThread)
{
    ChildResult child = threaded_child([] {
        leave_handler();
        ::pthread_join(start(request_dump), nullptr);
        EXPECT_EQ(0, in_signal_context());
        EXPECT_TRUE(prints_ordinarily());
    });
    EXPECT_TRUE(child.exited(0)) << child.out << child.timed_out;
}

TEST(Context, ALeftHandlerIsForgottenEvenIfItsThreadHadSignalsBlocked)
{
    ChildResult child = threaded_child([] {
        leave_handler();
        static std::atomic<bool> is_ready, is_blocked;
        pthread_t thread = start([](void *) -> void * {
            is_ready = true;
            wait_until([] { return is_blocked.load(); });
            return request_dump(nullptr);
        });
        wait_until([] { return is_ready.load(); });
        sigset_t all;
        ::sigfillset(&all);
        ::pthread_sigmask(SIG_BLOCK, &all, nullptr);
        is_blocked = true;
        ::pthread_join(thread, nullptr);
        ::pthread_sigmask(SIG_UNBLOCK, &all, nullptr);
        EXPECT_EQ(0, in_signal_context());
        EXPECT_TRUE(prints_ordinarily());
    });
    EXPECT_TRUE(child.exited(0)) << child.out << child.timed_out;
}

TEST(Context, AnOuterHandlerIsNotForgottenByADeeperOne)
{
    ChildResult child = threaded_child([] {
        static int depth, context[3];
        in_phase[QV_COREDUMP_LAST] = [] {
            int level = depth++;
            if (level == 0)
                ::raise(kAttachSignal);
            context[level] = in_signal_context();
        };
        ::raise(kBacktraceSignal);
        EXPECT_EQ(2, depth);
        EXPECT_EQ(1, context[0]);
        EXPECT_EQ(1, context[1]);
        EXPECT_EQ(0, in_signal_context());
    });
    EXPECT_TRUE(child.exited(0)) << child.out << child.timed_out;
}

TEST(Context, AnotherThreadsHandlerStillCountsWhenOneReturns)
{
    ChildResult child = threaded_child([] {
        in_phase[QV_COREDUMP_LAST] = stay_inside;
        pthread_t thread = start(request_dump);
        wait_until([] { return is_inside.load(); });
        in_phase[QV_COREDUMP_LAST] = nullptr;
        ::raise(kAttachSignal);
        EXPECT_EQ(1, in_signal_context());
        may_leave = true;
        ::pthread_join(thread, nullptr);
        EXPECT_EQ(0, in_signal_context());
    });
    EXPECT_TRUE(child.exited(0)) << child.out << child.timed_out;
}

TEST(Context, AThreadThatEndedInsideDoesNotCount)
{
    ChildResult child = threaded_child([] {
        in_phase[QV_COREDUMP_LAST] = [] { ::pthread_exit(nullptr); };
        for (int i = 0; i < (under_emulation() ? 10 : 50); i++) {
            ::pthread_join(start(request_dump), nullptr);
            ASSERT_EQ(0, in_signal_context());
            ASSERT_TRUE(prints_ordinarily());
        }
    });
    EXPECT_TRUE(child.exited(0)) << child.out << child.timed_out;
}

TEST(Context, AFirstThreadThatEndedInsideDoesNotCount)
{
    ChildResult child = threaded_child([] {
        static pthread_t first = ::pthread_self();
        in_phase[QV_COREDUMP_LAST] = [] { ::syscall(SYS_exit, 0); };
        start([](void *) -> void * {
            ::pthread_join(first, nullptr);
            EXPECT_EQ(0, in_signal_context());
            EXPECT_TRUE(prints_ordinarily());
            ::_exit(::testing::Test::HasFailure() ? 1 : 0);
        });
        ::raise(kBacktraceSignal);
    });
    EXPECT_TRUE(child.exited(0)) << child.status << child.out << child.timed_out;
}

TEST(Context, ErrnoIsKept)
{
    ChildResult child = threaded_child([] {
        in_phase[QV_COREDUMP_LAST] = [] { ::pthread_exit(nullptr); };
        ::pthread_join(start(request_dump), nullptr);
        errno = E2BIG;
        EXPECT_EQ(0, in_signal_context());
        EXPECT_EQ(E2BIG, errno);
    });
    EXPECT_TRUE(child.exited(0)) << child.out << child.timed_out;
}

// ---- cancellation ----

namespace {

std::atomic<bool> went_on;

void *cancel_self_and_dump(void *)
{
    ::pthread_cancel(::pthread_self());
    ::raise(kBacktraceSignal);
    went_on = true;
    ::pthread_testcancel();
    return nullptr;
}

} // namespace

TEST(Cancellation, APendingRequestActsAfterTheHandler)
{
    ChildResult child = threaded_child([] {
        ::raise(kBacktraceSignal); // opens the descriptors that stay open
        std::size_t descriptors = list_dir("/proc/self/fd").size();
        for (int i = 0; i < 20; i++) {
            went_on = false;
            void *result = nullptr;
            ::pthread_join(start(cancel_self_and_dump), &result);
            EXPECT_EQ(PTHREAD_CANCELED, result);
            EXPECT_TRUE(went_on);
        }
        EXPECT_EQ(descriptors, list_dir("/proc/self/fd").size());
        EXPECT_EQ(0, in_signal_context());
    });
    EXPECT_TRUE(child.exited(0)) << child.out << child.err << child.timed_out;
    EXPECT_EQ(21U, runs());
    EXPECT_EQ("", read_log(core_path(child, "attach", kBacktraceSignal)).error);
}

TEST(Cancellation, ARequestInTheMiddleOfACrashDoesNotCutItsLog)
{
    ChildResult child = threaded_child([] {
        in_phase[QV_COREDUMP_FIRST] = [] { ::pthread_cancel(::pthread_self()); };
        pthread_t thread = start([](void *) -> void * {
            write_null();
            return nullptr;
        });
        ::pthread_join(thread, nullptr);
        idle(nullptr);
    });
    EXPECT_TRUE(child.killed_by(SIGSEGV)) << child.status << child.timed_out;
    EXPECT_EQ("", read_log(core_path(child, "coredump", SIGSEGV)).error);
}

TEST(Cancellation, AThreadThatIsCancelledAtAnyTimeFinishesItsLog)
{
    ChildResult child = threaded_child([] {
        in_phase[QV_COREDUMP_FIRST] = stay_inside;
        pthread_t thread = start([](void *) -> void * {
            ::pthread_setcanceltype(PTHREAD_CANCEL_ASYNCHRONOUS, nullptr);
            ::raise(kBacktraceSignal);
            for (;;)
                continue;
        });
        wait_until([] { return is_inside.load(); });
        ::pthread_cancel(thread);
        may_leave = true;
        ::pthread_join(thread, nullptr);
        EXPECT_EQ(0, in_signal_context());
    });
    EXPECT_TRUE(child.exited(0)) << child.out << child.err << child.timed_out;
    EXPECT_EQ("", read_log(core_path(child, "attach", kBacktraceSignal)).error);
}
