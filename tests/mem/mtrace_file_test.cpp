// SPDX-License-Identifier: Apache-2.0
// The trace file, and SIGUSR2 while threads allocate.
#include "qv_mtrace.h"

#include "console_print.h"
#include "sighandler.h"
#include "signal_printf.h"
#include "support/random.h"
#include "support/support.h"

#include <algorithm>
#include <csignal>
#include <cstdlib>
#include <ctime>
#include <map>
#include <sys/wait.h>
#include <thread>
#include <unistd.h>

using namespace support;

namespace {

#define NEEDS_INTERPOSITION()                                                                                          \
    if (under_sanitizer())                                                                                             \
    GTEST_SKIP() << "interposition is off in this build: the sanitizer has the allocator"

std::string log_path()
{
    return "/etc/mtrace" + std::to_string(::getpid()) + ".log";
}

std::string hex(const void *ptr)
{
    char text[32];
    std::snprintf(text, sizeof text, "%p", ptr);
    return text;
}

std::uint32_t allocations()
{
    mtrace_stat_record rec = {};
    qv_mtrace_stat_min(&rec);
    return rec.light_allocs;
}

void *volatile sink;

// Keeps the compiler from removing an allocation.
void *kept(void *block)
{
    sink = block;
    return block;
}

// The lines that a traced body writes, without the callers.
std::vector<std::string> traced(const std::function<void()> &body)
{
    ::setenv("MALLOC_TRACE", "/tmp/trace", 1);
    mtrace();
    body();
    muntrace();
    std::vector<std::string> result;
    for (const std::string &line : lines(read_file("/tmp/trace"))) {
        std::size_t place = line.starts_with("@ ") ? line.find("] ") : line.npos;
        result.push_back(place != line.npos ? line.substr(place + 2) : line);
    }
    return result;
}

} // namespace

TEST(MtraceFile, StartsOnlyWithTheVariable)
{
    ::unsetenv("MALLOC_TRACE");
    mtrace();
    EXPECT_EQ(my_malloc_light_hook, __malloc_hook);
    ::setenv("MALLOC_TRACE", "/nowhere/trace", 1);
    mtrace();
    EXPECT_EQ(my_malloc_light_hook, __malloc_hook) << "a file that cannot be created starts no trace";
    muntrace();
    EXPECT_EQ(my_malloc_light_hook, __malloc_hook);
}

TEST(MtraceFile, CallsTheHooksThatItFindsAndRestoresThem)
{
    ::setenv("MALLOC_TRACE", "/tmp/trace", 1);
    mtrace();
    EXPECT_NE(my_malloc_light_hook, __malloc_hook);
    EXPECT_NE(nullptr, __malloc_hook);
    auto hook = __malloc_hook;
    mtrace();
    EXPECT_EQ(hook, __malloc_hook) << "a second start changes nothing";
    std::uint32_t before = allocations();
    std::free(kept(std::malloc(10)));
    if (!under_sanitizer()) {
        EXPECT_EQ(1U, allocations() - before) << "the light statistics continue below the trace";
    }
    muntrace();
    EXPECT_EQ(my_malloc_light_hook, __malloc_hook);
    EXPECT_EQ(my_free_light_hook, __free_hook);
    EXPECT_EQ(my_realloc_light_hook, __realloc_hook);
}

TEST(MtraceFile, LinesOfTheCalls)
{
    NEEDS_INTERPOSITION();
    void *a = nullptr, *b = nullptr, *c = nullptr;
    volatile std::size_t huge = SIZE_MAX / 2, nothing = 0;
    void *d = nullptr;
    auto log = traced([&] {
        a = std::malloc(0x30);
        b = std::realloc(a, 0x40000);
        c = std::realloc(nullptr, 0x10);
        sink = std::realloc(c, huge);
        sink = std::malloc(huge);
        d = std::malloc(0x20);
        sink = std::realloc(d, nothing);
        sink = std::calloc(3, 5);
        std::free(nullptr);
        std::free(b);
        std::free(c);
        std::free(sink);
    });
    std::vector<std::string> expected = {"= Start",
                                         "+ " + hex(a) + " 0x30",
                                         "< " + hex(a),
                                         "> " + hex(b) + " 0x40000",
                                         "+ " + hex(c) + " 0x10",
                                         "! " + hex(c) + " 0x7fffffffffffffff",
                                         "+ (nil) 0x7fffffffffffffff",
                                         "+ " + hex(d) + " 0x20",
                                         "- " + hex(d),
                                         "+ " + hex(sink) + " 0xf",
                                         "- " + hex(b),
                                         "- " + hex(c),
                                         "- " + hex(sink),
                                         "= End"};
    EXPECT_EQ(expected, log);
}

TEST(MtraceFile, LinesNameTheCaller)
{
    NEEDS_INTERPOSITION();
    traced([] { std::free(kept(std::malloc(1))); });
    auto log = lines(read_file("/tmp/trace"));
    ASSERT_EQ(4U, log.size());
    EXPECT_THAT(log[1], testing::ContainsRegex("^@ .*mtrace_file_test:(\\(.*\\))?\\[0x[0-9a-f]+\\] \\+ 0x"));
}

TEST(MtraceFile, FromTheProcessesStart)
{
    NEEDS_INTERPOSITION();
    ChildResult result =
        run_program({"/bin/sh", "-c", "MALLOC_TRACE=/tmp/own " + build_dir() + "/examples/sampled --run-for 0.1"});
    EXPECT_TRUE(result.exited(0)) << result.err;
    auto log = lines(read_file("/tmp/own"));
    ASSERT_GE(log.size(), 3U);
    EXPECT_EQ("= Start", log[0]);
    EXPECT_TRUE(std::any_of(log.begin(), log.end(), [](const std::string &l) { return l.find("] + 0x") != l.npos; }));
}

// ---- SIGUSR2 ----

TEST(Sigusr2, StartsAndEndsATraceInPlaceOfTheHooks)
{
    NEEDS_INTERPOSITION();
    install_sighandler();
    std::uint32_t before = allocations();
    ::raise(SIGUSR2);
    ASSERT_TRUE(exists(log_path()));
    EXPECT_STREQ(log_path().c_str(), std::getenv("MALLOC_TRACE"));
    EXPECT_EQ(my_malloc_light_hook, old_malloc_hook);
    EXPECT_EQ(my_free_light_hook, old_free_hook);
    EXPECT_EQ(my_realloc_light_hook, old_realloc_hook);
    void *block = kept(std::malloc(0x123));
    std::string address = hex(block);
    std::free(block);
    EXPECT_EQ(before, allocations()) << "the light counters do not change meanwhile";
    ::raise(SIGUSR2);
    EXPECT_EQ(nullptr, std::getenv("MALLOC_TRACE"));
    EXPECT_EQ(my_malloc_light_hook, __malloc_hook);
    EXPECT_EQ(nullptr, old_malloc_hook);
    std::string log = read_file(log_path());
    EXPECT_THAT(log, testing::StartsWith("= Start\n"));
    EXPECT_THAT(log, testing::HasSubstr("+ " + address + " 0x123\n"));
    EXPECT_THAT(log, testing::HasSubstr("- " + address + "\n"));
    EXPECT_THAT(log, testing::EndsWith("= End\n"));
    before = allocations();
    std::free(kept(std::malloc(10)));
    EXPECT_EQ(1U, allocations() - before);
}

TEST(Sigusr2, IsReported)
{
    std::size_t start = read_file(kConsole).size();
    signal_mtrace(SIGUSR2);
    signal_mtrace(SIGUSR2);
    EXPECT_EQ("Start mtrace log " + log_path() + "\nStop mtrace log " + log_path() + "\n",
              read_file(kConsole).substr(start));
    EXPECT_THAT(read_file("/etc/consolelog"), testing::HasSubstr("Start mtrace log " + log_path() + "\n"));
    EXPECT_THAT(read_file("/etc/consolelog"), testing::EndsWith("Stop mtrace log " + log_path() + "\n"));
}

TEST(Sigusr2, TheMirrorHookSeesItWithoutAnotherThreadsOutputBeingTouched)
{
    static std::vector<std::string> seen;
    static int context;
    console_print_mfunc_set([](const char *format, va_list ap) {
        char text[128];
        std::vsnprintf(text, sizeof text, format, ap);
        seen.push_back(text);
        context += in_signal_context();
        return 0;
    });
    signal_mtrace(SIGUSR2);
    signal_mtrace(SIGUSR2);
    console_print_mfunc_set(nullptr);
    EXPECT_EQ(
        (std::vector<std::string>{"Start mtrace log " + log_path() + "\n", "Stop mtrace log " + log_path() + "\n"}),
        seen);
    EXPECT_EQ(0, context);
}

TEST(Sigusr2, AStopInstallsTheHandlerForTheSignalGiven)
{
    for (int sig : {SIGUSR1, SIGUSR2}) {
        signal_mtrace(sig);
        ::signal(sig, SIG_DFL);
        signal_mtrace(sig);
        EXPECT_EQ(signal_mtrace, ::signal(sig, SIG_DFL));
        EXPECT_EQ(SIG_DFL, ::signal(sig == SIGUSR1 ? SIGUSR2 : SIGUSR1, SIG_DFL));
    }
}

TEST(Sigusr2, AnOlderVariableIsOverwrittenAndOthersStay)
{
    ::setenv("BEFORE", "1", 1);
    ::setenv("MALLOC_TRACE", "/tmp/other", 1);
    ::setenv("BEHIND", "2", 1);
    signal_mtrace(SIGUSR2);
    EXPECT_STREQ(log_path().c_str(), std::getenv("MALLOC_TRACE"));
    signal_mtrace(SIGUSR2);
    EXPECT_EQ(nullptr, std::getenv("MALLOC_TRACE"));
    EXPECT_STREQ("1", std::getenv("BEFORE"));
    EXPECT_STREQ("2", std::getenv("BEHIND"));
    ::setenv("LATER", "3", 1);
    EXPECT_STREQ("3", std::getenv("LATER"));
}

TEST(Sigusr2, DuringFullTracing)
{
    NEEDS_INTERPOSITION();
    qv_mtrace_start();
    signal_mtrace(SIGUSR2);
    EXPECT_EQ(my_malloc_hook, old_malloc_hook);
    void *block = kept(std::malloc(10));
    qv_mtrace_stop(); // restores the old hooks, which are the library's own by now
    EXPECT_EQ(my_malloc_hook, __malloc_hook);
    std::free(block);
    std::free(kept(std::malloc(10))); // must not recurse
    signal_mtrace(SIGUSR2);
    std::free(kept(std::malloc(10)));
    qv_mtrace_start();
    std::free(kept(std::malloc(10)));
    qv_mtrace_reset();
    std::free(kept(std::malloc(10)));
}

TEST(Sigusr2, TheScriptOfTheToolsNamesTheLeak)
{
    NEEDS_INTERPOSITION();
    if (::access("/usr/bin/mtrace", X_OK) != 0)
        GTEST_SKIP() << "mtrace(1) of libc-devtools is not installed";
    install_sighandler();
    ::raise(SIGUSR2);
    void *leak = kept(std::malloc(4321));
    std::free(kept(std::malloc(99)));
    ::raise(SIGUSR2);
    ChildResult report = run_program({"/usr/bin/mtrace", log_path()});
    EXPECT_THAT(report.out, testing::HasSubstr("Memory not freed:"));
    char address[32];
    std::snprintf(address, sizeof address, "0x%016lx", reinterpret_cast<unsigned long>(leak));
    EXPECT_THAT(report.out, testing::ContainsRegex(std::string(address) + " +0x10e1 +at "));
    EXPECT_THAT(report.out, testing::Not(testing::HasSubstr(" 0x63 "))) << report.out;
    std::free(leak);
}

TEST(Sigusr2, ManyPairsUseNoMoreMemory)
{
    auto pages = [] { return std::stoul(read_file("/proc/self/statm")); };
    auto pairs = [](int count) {
        for (int i = 0; i < 2 * count; i++)
            signal_mtrace(SIGUSR2);
    };
    pairs(2);
    unsigned long before = pages();
    pairs(100);
    EXPECT_EQ(before, pages());
    // The host replaces the environment's list in between.
    for (int i = 0; i < 20; i++) {
        ::setenv(("HOST" + std::to_string(i)).c_str(), "1", 1);
        pairs(1);
    }
    EXPECT_LT(pages(), before + 100);
    for (int i = 0; i < 20; i++)
        EXPECT_STREQ("1", std::getenv(("HOST" + std::to_string(i)).c_str()));
    EXPECT_EQ(nullptr, std::getenv("MALLOC_TRACE"));
}

TEST(Sigusr2, AVariableInAnEmptyEnvironment)
{
    ::clearenv();
    signal_mtrace(SIGUSR2);
    EXPECT_STREQ(log_path().c_str(), std::getenv("MALLOC_TRACE"));
    signal_mtrace(SIGUSR2);
    EXPECT_EQ(nullptr, std::getenv("MALLOC_TRACE"));
    ::setenv("LATER", "1", 1);
    EXPECT_STREQ("1", std::getenv("LATER"));
}

// Calls of mtrace() and toggles at the same time. One that mistook the other's lock for its own would wait forever.
TEST(Sigusr2, AmongCallsOfMtrace)
{
    NEEDS_INTERPOSITION();
    ::alarm(60);
    ::signal(SIGALRM, SIG_DFL);
    ::setenv("MALLOC_TRACE", "/dev/null", 1);
    static volatile bool stop;
    stop = false;
    std::vector<std::thread> threads;
    for (int i = 0; i < 3; i++)
        threads.emplace_back([] {
            while (!stop) {
                mtrace();
                std::free(kept(std::malloc(10)));
                muntrace();
            }
        });
    for (std::size_t i = 0; i < effort(2000); i++)
        signal_mtrace(SIGUSR2);
    stop = true;
    for (std::thread &thread : threads)
        thread.join();
    muntrace();
}

TEST(MtraceFile, ACancelledThreadDoesNotEndInsideTheAllocator)
{
    NEEDS_INTERPOSITION();
    ::alarm(30);
    ::setenv("MALLOC_TRACE", "/tmp/trace", 1);
    mtrace();
    pthread_t thread;
    auto work = [](void *) -> void * {
        pthread_cancel(pthread_self());
        for (int i = 0; i < 1000; i++) // enough to fill the buffer several times
            std::free(kept(std::malloc(10)));
        return const_cast<void **>(&sink);
    };
    ASSERT_EQ(0, pthread_create(&thread, nullptr, work, nullptr));
    void *result = nullptr;
    pthread_join(thread, &result);
    EXPECT_EQ(const_cast<void **>(&sink), result);
    std::free(kept(std::malloc(10)));
    muntrace();
}

TEST(MtraceFile, AHookBelowATraceMayEndIt)
{
    NEEDS_INTERPOSITION();
    ::alarm(30);
    ::setenv("MALLOC_TRACE", "/tmp/trace", 1);
    static int calls;
    static void *(*hook)(std::size_t, const void *);
    hook = [](std::size_t size, const void *) {
        calls++;
        muntrace();
        __malloc_hook = nullptr;
        asm volatile("" ::: "memory"); // the compiler assumes that malloc() does not read it
        void *block = std::malloc(size);
        __malloc_hook = hook;
        return block;
    };
    __malloc_hook = hook;
    mtrace();
    std::free(kept(std::malloc(10)));
    std::free(kept(std::malloc(10)));
    EXPECT_EQ(hook, __malloc_hook);
    EXPECT_EQ(2, calls);
    __malloc_hook = my_malloc_light_hook;
    EXPECT_THAT(read_file("/tmp/trace"), testing::EndsWith("= End\n"));
}

// ---- forks in the middle ----

TEST(Fork, WithTheFileOpenBothWriteTheirOwnLinesOnce)
{
    NEEDS_INTERPOSITION();
    ::setenv("MALLOC_TRACE", "/tmp/trace", 1);
    mtrace();
    void *before = kept(std::malloc(0x777));
    const std::string address = hex(before);
    pid_t child = ::fork();
    if (child == 0) {
        std::free(kept(std::malloc(0x778)));
        muntrace();
        ::_exit(0);
    }
    int status = -1;
    ASSERT_EQ(child, ::waitpid(child, &status, 0));
    ASSERT_EQ(0, status);
    std::free(kept(std::malloc(0x779)));
    std::free(before);
    muntrace();
    auto log = lines(read_file("/tmp/trace"));
    auto count = [&](const std::string &end) {
        return std::count_if(log.begin(), log.end(), [&](const std::string &line) { return line.ends_with(end); });
    };
    EXPECT_EQ(1, count(" 0x777"));
    EXPECT_EQ(1, count(" 0x778")) << "the child's";
    EXPECT_EQ(1, count(" 0x779")) << "the parent's";
    EXPECT_EQ(1, count("- " + address));
    EXPECT_EQ(1, count("= Start"));
    EXPECT_EQ(2, count("= End"));
}

namespace {

pid_t forked = -1;

// Forks once, like a signal handler that interrupts its thread in a traced call while that holds the locks.
void *forking_hook(std::size_t size, const void *)
{
    __malloc_hook = nullptr;
    if (forked < 0)
        forked = ::fork();
    void *block = std::malloc(size);
    __malloc_hook = forking_hook;
    return block;
}

// Whether both the parent and the child made by `forks` reach the end.
bool both_go_on(const std::function<void()> &forks)
{
    return run_child([&] {
               ::alarm(30);
               forks();
               std::free(kept(std::malloc(20)));
               int status = 0;
               if (forked > 0)
                   ::waitpid(forked, &status, 0);
               ::_exit(forked < 0 || status != 0);
           })
        .exited(0);
}

} // namespace

TEST(Fork, InATraceFilesCall)
{
    NEEDS_INTERPOSITION();
    EXPECT_TRUE(both_go_on([] {
        ::setenv("MALLOC_TRACE", "/tmp/trace", 1);
        __malloc_hook = forking_hook;
        mtrace();
        std::free(kept(std::malloc(10)));
        muntrace();
        __malloc_hook = nullptr;
    }));
}

TEST(Fork, InAFullyTracedCall)
{
    NEEDS_INTERPOSITION();
    EXPECT_TRUE(both_go_on([] {
        old_malloc_hook = forking_hook;
        qv_mtrace_start();
        std::free(kept(std::malloc(10)));
        old_malloc_hook = nullptr;
        qv_mtrace_reset();
    }));
}

TEST(Fork, ByACallerThatHoldsTheTable)
{
    EXPECT_TRUE(both_go_on([] {
        qv_mtrace_start();
        pthread_mutex_lock(&mutex);
        forked = ::fork();
        add_malloc_record(10, nullptr, &forked);
        pthread_mutex_unlock(&mutex);
        qv_mtrace_reset();
    }));
}

// ---- under fire ----

namespace {

// Allocates at random until `stop` is set. Every block contains its size, so that a mix-up is detected.
class worker {
public:
    explicit worker(unsigned seed) : random_(seed), blocks_(200) {}

    void run(const volatile bool &stop)
    {
        while (!stop)
            step();
        for (auto &[block, size] : blocks_)
            give_back(block, size);
    }
    bool good() const { return good_; }

private:
    void step()
    {
        auto &[block, size] = blocks_[random_() % blocks_.size()];
        std::size_t wanted = 1 + random_() % (random_() % 16 == 0 ? 100000 : 600);
        switch (random_() % 4) {
        case 0:
            give_back(block, size);
            block = static_cast<unsigned char *>(std::malloc(wanted));
            break;
        case 1:
            give_back(block, size);
            block = static_cast<unsigned char *>(std::calloc(1, wanted));
            good_ = good_ && block[0] == 0 && block[wanted - 1] == 0;
            break;
        case 2:
            block = static_cast<unsigned char *>(std::realloc(block, wanted));
            break;
        default:
            give_back(block, size);
            return;
        }
        size = wanted;
        block[0] = block[size - 1] = static_cast<unsigned char>(size);
    }
    void give_back(unsigned char *&block, std::size_t size)
    {
        if (block == nullptr)
            return;
        good_ = good_ && block[0] == static_cast<unsigned char>(size) &&
                block[size - 1] == static_cast<unsigned char>(size);
        std::free(block);
        block = nullptr;
    }

    std::mt19937 random_;
    std::vector<std::pair<unsigned char *, std::size_t>> blocks_;
    bool good_ = true;
};

double seconds()
{
    timespec now;
    ::clock_gettime(CLOCK_MONOTONIC, &now);
    return static_cast<double>(now.tv_sec) + static_cast<double>(now.tv_nsec) * 1e-9;
}

// LIBCOMMON_SOAK_SECONDS sets a longer time.
double soak_time()
{
    const char *asked = std::getenv("LIBCOMMON_SOAK_SECONDS");
    return asked != nullptr ? std::atof(asked) : 1.5;
}

// Eight threads allocate while the caller disturbs them. True if all blocks keep their contents.
bool soak(double duration, const std::function<void(Random &)> &disturb)
{
    static volatile bool stop;
    stop = false;
    std::vector<worker> workers;
    for (unsigned seed = 1; seed <= 8; seed++)
        workers.emplace_back(seed);
    std::vector<std::thread> threads;
    for (worker &w : workers)
        threads.emplace_back([&w] { w.run(stop); });
    Random random(42);
    for (double end = seconds() + duration; seconds() < end;)
        disturb(random);
    stop = true;
    for (std::thread &thread : threads)
        thread.join();
    return std::all_of(workers.begin(), workers.end(), [](const worker &w) { return w.good(); });
}

} // namespace

TEST(Soak, CountersAreExactAtTheEnd)
{
    NEEDS_INTERPOSITION();
    mtrace_stat_record before = {}, after = {};
    ASSERT_TRUE(soak(0.2, [](Random &) { ::usleep(1000); })); // the threads' own blocks are allocated now
    qv_mtrace_stat_min(&before);
    ASSERT_TRUE(soak(0.5, [](Random &) { ::usleep(1000); }));
    qv_mtrace_stat_min(&after);
    EXPECT_GT(after.light_allocs - before.light_allocs, 1000U);
    EXPECT_EQ(before.light_blocks, after.light_blocks);
    // The few blocks that the C library keeps for threads may have been allocated again, a little larger.
    auto more = static_cast<std::int32_t>(after.light_bytes - before.light_bytes);
    EXPECT_LT(std::abs(more), 16 * 16);
}

TEST(Soak, EverythingAtRandomMoments)
{
    NEEDS_INTERPOSITION();
    install_sighandler();
    time_wait = 0;
    ::alarm(static_cast<unsigned>(soak_time()) + 60); // ends a deadlock
    ::signal(SIGALRM, SIG_DFL);
    unsigned toggles = 0;
    EXPECT_TRUE(soak(soak_time(), [&](Random &random) {
        mtrace_stat_record rec;
        auto operation = static_cast<unsigned>(random() % 6);
        random.doing("operation", operation);
        switch (operation) {
        case 0:
            qv_mtrace_start();
            break;
        case 1:
            qv_mtrace_stop();
            break;
        case 2:
            qv_mtrace_reset();
            break;
        case 3:
            qv_mtrace_stat(&rec, 0);
            break;
        case 4:
            ::kill(::getpid(), SIGUSR2); // any thread receives it, at any place
            toggles++;
            break;
        default:
            ::usleep(static_cast<useconds_t>(random() % 2000));
        }
    }));
    if (toggles % 2 != 0)
        ::raise(SIGUSR2);
    qv_mtrace_reset();
    my_init_hook();
    std::uint32_t count = allocations();
    std::free(kept(std::malloc(10)));
    EXPECT_EQ(1U, allocations() - count) << "everything works as before";
}

TEST(Soak, TheSignalMeetsItsThreadInsideTheAllocator)
{
    NEEDS_INTERPOSITION();
    install_sighandler();
    ::signal(SIGALRM, SIG_DFL);
    ::alarm(60);
    // With one thread, a wait would be for itself. First with light hooks, then with full ones.
    for (bool full : {false, true}) {
        if (full)
            qv_mtrace_start();
        timer_t timer;
        sigevent event = {};
        event.sigev_notify = SIGEV_SIGNAL;
        event.sigev_signo = SIGUSR2;
        ASSERT_EQ(0, ::timer_create(CLOCK_MONOTONIC, &event, &timer));
        itimerspec often = {{0, 300000}, {0, 300000}};
        ::timer_settime(timer, 0, &often, nullptr);
        worker w(3);
        static volatile bool stop;
        stop = false;
        std::thread clock([] {
            sigset_t all;
            ::sigfillset(&all);
            ::pthread_sigmask(SIG_BLOCK, &all, nullptr);
            ::usleep(400000);
            stop = true;
        });
        w.run(stop);
        clock.join();
        ::timer_delete(timer);
        EXPECT_TRUE(w.good());
    }
    qv_mtrace_reset();
}
