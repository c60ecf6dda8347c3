// SPDX-License-Identifier: Apache-2.0
// How much stack a dump uses, and the alternate stacks that threads request.
#include "fault/crash_support.h"

#include <alloca.h>
#include <csignal>
#include <pthread.h>
#include <sys/mman.h>

using namespace support;
using namespace crash;

namespace {

constexpr char kName[] = "routed";

ChildResult named_child(const std::function<void()> &body)
{
    return run_child([&] {
        rename_process(kName);
        body();
    });
}

void run_thread(void *(*body)(void *), const pthread_attr_t *attributes = nullptr)
{
    pthread_t thread;
    ASSERT_EQ(0, ::pthread_create(&thread, attributes, body, nullptr));
    ::pthread_join(thread, nullptr);
}

stack_t signal_stack()
{
    stack_t now = {};
    ::sigaltstack(nullptr, &now);
    return now;
}

int flags_of(int sig)
{
    struct sigaction action;
    ::sigaction(sig, nullptr, &action);
    return action.sa_flags & (SA_SIGINFO | SA_ONSTACK | SA_RESTART | SA_NODEFER | static_cast<int>(SA_RESETHAND));
}

NO_SANITIZERS int overflow(int level)
{
    volatile int frame[64];
    frame[level % 64] = level;
    return level < 0 ? 0 : overflow(level + 1) + frame[level % 64];
}

void *overflow_with_stack(void *)
{
    if (qv_use_signal_stack() == 0)
        overflow(0);
    return nullptr;
}

void *overflow_without_stack(void *)
{
    overflow(0);
    return nullptr;
}

Log core_log(const ChildResult &child)
{
    return read_log(log_path(kName, child.pid, "coredump", SIGSEGV));
}

} // namespace

// ---- the interrupted thread's stack ----

namespace {

char *stack_end; // lowest address of the small stack

NO_SANITIZERS void __attribute__((noinline)) raise_here()
{
    ::raise(kBacktraceSignal);
}

// Uses up all of the stack except what a dump is documented to need.
NO_SANITIZERS void *dump_with_little_stack(void *)
{
    char *here = static_cast<char *>(__builtin_frame_address(0));
    auto room = static_cast<std::size_t>(here - stack_end);
    if (room < QV_DUMP_STACK_SIZE)
        ::_exit(91);
    auto *used = static_cast<volatile char *>(alloca(room - QV_DUMP_STACK_SIZE));
    used[0] = 1;
    raise_here();
    used[0] = 2;
    return nullptr;
}

} // namespace

TEST(DumpStack, ADumpFitsIntoTheDocumentedSize)
{
    if (under_sanitizer())
        GTEST_SKIP() << "a sanitizer uses additional stack";
    ChildResult child = named_child([] {
        install_sighandler();
        constexpr std::size_t kGuard = 65536;
        constexpr std::size_t kSize = 262144; // room for the start of a thread on every machine
        auto *mapping = static_cast<char *>(
            ::mmap(nullptr, kGuard + kSize, PROT_READ | PROT_WRITE, MAP_PRIVATE | MAP_ANONYMOUS, -1, 0));
        ::mprotect(mapping, kGuard, PROT_NONE);
        stack_end = mapping + kGuard;
        pthread_attr_t attributes;
        ::pthread_attr_init(&attributes);
        ::pthread_attr_setstack(&attributes, stack_end, kSize);
        run_thread(dump_with_little_stack, &attributes);
    });
    EXPECT_TRUE(child.exited(0)) << child.status << child.out;
    EXPECT_EQ("", read_log(log_path(kName, child.pid, "attach", kBacktraceSignal)).error);
}

// ---- alternate stacks ----

TEST(SignalStack, WithoutOneAnOverflowLeavesNoLog)
{
    if (under_sanitizer())
        GTEST_SKIP() << "a sanitizer installs its own alternate stacks";
    ChildResult child = named_child([] {
        install_sighandler();
        for (int sig : {kAttachSignal, SIGABRT, SIGSEGV, SIGBUS, SIGILL, kDumpFileSignal, kBacktraceSignal})
            EXPECT_EQ(SA_SIGINFO, flags_of(sig)) << sig;
        run_thread(overflow_without_stack);
    });
    EXPECT_TRUE(child.killed_by(SIGSEGV)) << child.status;
    EXPECT_NE("", core_log(child).error);
}

TEST(SignalStack, WithOneAnOverflowLeavesItsLog)
{
    ChildResult child = named_child([] {
        install_sighandler();
        run_thread(overflow_with_stack);
    });
    EXPECT_TRUE(child.killed_by(SIGSEGV)) << child.status;
    Log log = core_log(child);
    EXPECT_EQ("", log.error);
    EXPECT_EQ(20U, log.entries.size());
    EXPECT_NE(std::string::npos, printed().find("is dying(11)"));
}

TEST(SignalStack, TheMainThreadMayRequestOneBeforeTheHandlersAreArmed)
{
    ChildResult child = named_child([] {
        EXPECT_EQ(0, qv_use_signal_stack());
        install_sighandler2(SIGUSR1);
        for (int sig : {SIGUSR1, SIGABRT, SIGSEGV, SIGBUS, SIGILL, kDumpFileSignal, kBacktraceSignal})
            EXPECT_EQ(SA_SIGINFO | SA_ONSTACK, flags_of(sig)) << sig;
        overflow(0);
    });
    EXPECT_TRUE(child.killed_by(SIGSEGV)) << child.status;
    EXPECT_EQ("", core_log(child).error);
}

TEST(SignalStack, ArmedHandlersMoveAndOthersAreLeftAlone)
{
    ChildResult child = named_child([] {
        install_sighandler();
        ::signal(SIGUSR1, [](int) {});
        int other = flags_of(SIGUSR1);
        EXPECT_EQ(0, qv_use_signal_stack());
        for (int sig : {kAttachSignal, SIGABRT, SIGSEGV, SIGBUS, SIGILL, kDumpFileSignal, kBacktraceSignal})
            EXPECT_EQ(SA_SIGINFO | SA_ONSTACK, flags_of(sig)) << sig;
        EXPECT_EQ(other, flags_of(SIGUSR1));
        EXPECT_EQ(0, flags_of(SIGHUP) & SA_ONSTACK);
    });
    EXPECT_TRUE(child.exited(0)) << child.out;
}

TEST(SignalStack, HasTheDocumentedSizeAndAGuardBelow)
{
    if (under_sanitizer())
        GTEST_SKIP() << "a sanitizer installs its own alternate stacks";
    static char *bottom;
    ChildResult child = named_child([] {
        EXPECT_EQ(0, qv_use_signal_stack());
        stack_t mine = signal_stack();
        EXPECT_EQ(static_cast<std::size_t>(QV_SIGNAL_STACK_SIZE), mine.ss_size);
        EXPECT_EQ(0, mine.ss_flags);
        EXPECT_EQ(0, qv_use_signal_stack());
        EXPECT_EQ(mine.ss_sp, signal_stack().ss_sp);
        bottom = static_cast<char *>(mine.ss_sp);
        bottom[0] = 1;
        bottom[QV_SIGNAL_STACK_SIZE - 1] = 1;
        if (!::testing::Test::HasFailure())
            write_word(reinterpret_cast<unsigned long>(bottom) - sizeof(int));
    });
    EXPECT_TRUE(child.killed_by(SIGSEGV)) << child.status << child.out;
}

namespace {

std::size_t mappings()
{
    return lines(read_file("/proc/self/maps")).size();
}

std::string stack_range;

void *use_stack(void *)
{
    EXPECT_EQ(0, qv_use_signal_stack());
    char text[32];
    std::snprintf(text, sizeof text, "%lx-", reinterpret_cast<unsigned long>(signal_stack().ss_sp));
    stack_range = text;
    return nullptr;
}

} // namespace

TEST(SignalStack, IsFreedAtTheEndOfTheThread)
{
    if (under_sanitizer())
        GTEST_SKIP() << "a sanitizer installs its own alternate stacks";
    ChildResult child = named_child([] {
        run_thread(use_stack);
        std::size_t before = mappings();
        for (int i = 0; i < 100; i++)
            run_thread(use_stack);
        EXPECT_LE(mappings(), before + 4);
        EXPECT_EQ(std::string::npos, read_file("/proc/self/maps").find("\n" + stack_range));
    });
    EXPECT_TRUE(child.exited(0)) << child.out;
}

namespace {

alignas(16) char small_stack[16384];
alignas(16) char large_stack[QV_SIGNAL_STACK_SIZE];
void *stack_at_end;
pthread_key_t end_key;

void *use_besides(void *stack, std::size_t size)
{
    stack_t own = {};
    own.ss_sp = stack;
    own.ss_size = size;
    EXPECT_EQ(0, ::sigaltstack(&own, nullptr));
    EXPECT_EQ(0, qv_use_signal_stack());
    ::pthread_setspecific(end_key, &end_key);
    return signal_stack().ss_sp;
}

void *use_besides_small(void *)
{
    EXPECT_NE(small_stack, use_besides(small_stack, sizeof small_stack));
    return nullptr;
}

void *use_besides_large(void *)
{
    EXPECT_EQ(large_stack, use_besides(large_stack, sizeof large_stack));
    return nullptr;
}

} // namespace

TEST(SignalStack, TheHostsStackIsKeptWhenLargeAndRestoredWhenSmall)
{
    if (under_sanitizer())
        GTEST_SKIP() << "a sanitizer installs its own alternate stacks";
    ChildResult child = named_child([] {
        run_thread(use_stack); // makes the library's key, whose destructor then runs before this one
        ::pthread_key_create(&end_key, [](void *) { stack_at_end = signal_stack().ss_sp; });
        run_thread(use_besides_small);
        EXPECT_EQ(small_stack, stack_at_end);
        run_thread(use_besides_large);
        EXPECT_EQ(large_stack, stack_at_end);
    });
    EXPECT_TRUE(child.exited(0)) << child.out;
}

// Above the frames of the main thread lie the loader's data about the program, its arguments and its environment.
TEST(DamagedStack, OverwrittenUpToItsTopLeavesACompleteLog)
{
    if (under_sanitizer())
        GTEST_SKIP() << "the sanitizer reports the damage";
    ChildResult child = named_child([] {
        static volatile char *byte; // not on the stack
        byte = static_cast<volatile char *>(__builtin_frame_address(0));
        install_sighandler();
        for (;;)
            *byte++ = 'A';
    });
    EXPECT_TRUE(child.killed_by(SIGSEGV));
    std::string log = read_file("/etc/core/routed" + std::to_string(child.pid) + ".coredump.11.log");
    EXPECT_NE(std::string::npos, log.find("Stack bottom is at")) << log;
}
