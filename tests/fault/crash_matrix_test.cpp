// SPDX-License-Identifier: Apache-2.0
// Kinds of crashes, each many times: every one leaves a complete log, or the documented message where none is possible.
#include "fault/crash_support.h"

#include "console_print.h"
#include "support/machine.h"

#include <atomic>
#include <fcntl.h>
#include <malloc.h>
#include <pthread.h>
#include <sys/mman.h>
#include <sys/resource.h>
#include <sys/stat.h>

using namespace support;
using namespace crash;

namespace {

// More than 14 kinds of crashes: above 300 crashes in a run on every machine. The emulated machine runs two such
// programs.
const std::size_t kRounds = under_emulation() ? 12 : 24;
constexpr int kThreads = 16;
constexpr char kName[] = "routed";

// ---- a callback that can hold threads in the handler until all are there ----

std::atomic<int> arrived;
int expected_threads; // 0: no thread waits

long rendezvous(unsigned phase, unsigned long, void *)
{
    if (phase == QV_COREDUMP_FIRST && expected_threads != 0) {
        arrived++;
        while (arrived < expected_threads)
            ::usleep(100);
    }
    return 0;
}

QV_COREDUMP_CALLBACK(rendezvous);

// ---- rounds ----

ChildResult die(const std::function<void()> &body)
{
    return run_child([&] {
        rename_process(kName);
        install_sighandler();
        body();
    });
}

// Each round dies by the signal and leaves a complete log; `check` may examine it further.
void expect_logs(int sig, const std::function<void()> &body, const std::function<void(const Log &)> &check = {})
{
    for (std::size_t i = 0; i < kRounds; i++) {
        ChildResult child = die(body);
        ASSERT_TRUE(child.killed_by(sig))
            << "round " << i << " status " << child.status << " hung " << child.timed_out << child.out << child.err;
        Log log = read_log(log_path(kName, child.pid, "coredump", sig));
        ASSERT_EQ("", log.error) << "round " << i;
        ASSERT_EQ(sig, log.sig);
        if (check)
            check(log);
    }
}

void start_thread(void *(*body)(void *), void *arg = nullptr)
{
    pthread_t thread;
    if (::pthread_create(&thread, nullptr, body, arg) != 0)
        ::_exit(90);
}

[[noreturn]] void wait_for_the_end()
{
    for (;;)
        ::pause();
}

void *die_of_null(void *)
{
    write_null();
    return nullptr;
}

std::size_t count_of(const std::string &text, const std::string &part)
{
    std::size_t n = 0;
    for (std::size_t at = text.find(part); at != std::string::npos; at = text.find(part, at + 1))
        n++;
    return n;
}

} // namespace

// ---- single faults ----

TEST(Matrix, NullWrite)
{
    expect_logs(SIGSEGV, write_null, [](const Log &log) { EXPECT_EQ(kBadAddress, log.fault); });
}

TEST(Matrix, JumpToAWildAddress)
{
    expect_logs(SIGSEGV, jump_wild, [](const Log &log) {
        EXPECT_EQ(kWildAddress, log.pc);
        ASSERT_FALSE(log.entries.empty());
        EXPECT_EQ(std::string::npos, log.entries[0].text.find("[0x123450]"));
    });
}

namespace {

NO_SANITIZERS void smash_and_die(unsigned long link)
{
    auto *record = static_cast<volatile unsigned long *>(__builtin_frame_address(0));
    record[0] = link;
    record[1] = 0x4242424242424242;
    write_null();
    asm volatile("" ::: "memory");
}

} // namespace

TEST(Matrix, SmashedFrameChain)
{
    for (unsigned long link : {0x4141414141414141UL, 0x10UL, 0xffffffffffffffffUL, 0x00007fffffffeff9UL})
        expect_logs(SIGSEGV, [link] { smash_and_die(link); });
}

namespace {

NO_SANITIZERS void write_long(unsigned long address, unsigned long value)
{
    *reinterpret_cast<volatile unsigned long *>(address) = value;
}

NO_SANITIZERS void destroy_heap()
{
    auto *block = static_cast<volatile unsigned char *>(std::malloc(64));
    for (int i = -16; i < 4096; i++)
        block[i] = 0xa5;
}

} // namespace

TEST(Matrix, HeapDestroyedBefore)
{
    expect_logs(SIGSEGV, [] {
        destroy_heap();
        write_null();
    });
}

TEST(Matrix, InsideMalloc)
{
    if (under_sanitizer())
        GTEST_SKIP() << "a sanitizer's allocator keeps its records elsewhere";
    expect_logs(SIGABRT, [] {
        ::close(STDERR_FILENO); // suppresses the allocator's message
        constexpr std::size_t kSize = 100000;
        for (int i = 0; i < 100; i++) {
            // The word after the newest block is the size of the rest of the heap.
            auto *block = static_cast<char *>(std::malloc(kSize));
            write_long(reinterpret_cast<unsigned long>(block) + ::malloc_usable_size(block), 0xa5a5a5a5a5a5a5a5);
        }
    });
}

TEST(Matrix, WhileAnotherThreadHoldsTheHeapsLock)
{
    expect_logs(SIGSEGV, [] {
        ::mallopt(M_ARENA_MAX, 1);
        auto hammer = [](void *) -> void * {
            for (;;) {
                void *volatile block = std::malloc(5000); // beyond the per-thread caches
                std::free(block);
            }
        };
        for (int i = 0; i < 3; i++)
            start_thread(hammer);
        ::usleep(2000);
        write_null();
    });
}

TEST(Matrix, InsideTheMirrorHook)
{
    expect_logs(SIGSEGV, [] {
        console_print_mfunc_set([](const char *, va_list) {
            write_null();
            return 0;
        });
        console_print("mirrored\n");
    });
}

TEST(Matrix, Abort)
{
    expect_logs(SIGABRT, [] { std::abort(); });
}

TEST(Matrix, BusErrorOnATruncatedMapping)
{
    expect_logs(SIGBUS, [] {
        int fd = ::memfd_create("short", 0);
        if (::ftruncate(fd, 4096) != 0)
            ::_exit(91);
        void *map = ::mmap(nullptr, 4096, PROT_READ | PROT_WRITE, MAP_SHARED, fd, 0);
        if (::ftruncate(fd, 0) != 0)
            ::_exit(92);
        write_word(reinterpret_cast<unsigned long>(map));
    });
}

TEST(Matrix, IllegalInstruction)
{
    expect_logs(SIGILL, execute_illegal_instruction);
}

// ---- threads ----

TEST(Matrix, SecondaryThreadByProcess)
{
    expect_logs(SIGSEGV, [] {
        start_thread(die_of_null);
        wait_for_the_end();
    });
}

TEST(Matrix, SecondaryThreadByThread)
{
    for (std::size_t i = 0; i < kRounds; i++) {
        ::mkdir("/etc/core", 0777);
        std::size_t before = list_dir("/etc/core").size();
        ChildResult child = die([] {
            qv_set_handle_thread_trace();
            start_thread(die_of_null);
            wait_for_the_end();
        });
        ASSERT_TRUE(child.killed_by(SIGSEGV));
        ASSERT_EQ(before + 1, list_dir("/etc/core").size());
    }
    for (const std::string &name : list_dir("/etc/core")) {
        Log log = read_log("/etc/core/" + name);
        EXPECT_EQ("", log.error);
        EXPECT_EQ("/etc/core/" + name, log.label);
    }
}

TEST(Matrix, SixteenThreadsAtOnceEachWithItsLog)
{
    for (std::size_t i = 0; i < kRounds / 4; i++) {
        mount_tmpfs("/etc/core");
        ChildResult child = die([] {
            qv_set_handle_thread_trace();
            expected_threads = kThreads;
            for (int n = 0; n < kThreads; n++)
                start_thread(die_of_null);
            wait_for_the_end();
        });
        ASSERT_TRUE(child.killed_by(SIGSEGV)) << child.status << child.timed_out;
        std::vector<std::string> logs = list_dir("/etc/core");
        EXPECT_EQ(static_cast<std::size_t>(kThreads), logs.size());
        for (const std::string &name : logs)
            EXPECT_EQ("", read_log("/etc/core/" + name).error);
    }
}

TEST(Matrix, SixteenThreadsAtOnceIntoOneLog)
{
    for (std::size_t i = 0; i < kRounds / 4; i++) {
        ChildResult child = die([] {
            expected_threads = kThreads;
            for (int n = 0; n < kThreads; n++)
                start_thread(die_of_null);
            wait_for_the_end();
        });
        ASSERT_TRUE(child.killed_by(SIGSEGV)) << child.status << child.timed_out;
        EXPECT_EQ("", read_log(log_path(kName, child.pid, "coredump", SIGSEGV)).error);
        EXPECT_EQ(static_cast<std::size_t>(kThreads),
                  count_of(printed(), " pid " + std::to_string(child.pid) + " parent"));
    }
}

// However the threads interleave, the process leaves at least one complete log.
TEST(Matrix, SixteenThreadsWithoutOrder)
{
    for (std::size_t i = 0; i < kRounds / 2; i++) {
        ChildResult child = die([] {
            static std::atomic<bool> go;
            auto body = [](void *) -> void * {
                while (!go)
                    ::sched_yield();
                return die_of_null(nullptr);
            };
            for (int n = 0; n < kThreads; n++)
                start_thread(body);
            go = true;
            wait_for_the_end();
        });
        ASSERT_TRUE(child.killed_by(SIGSEGV)) << child.status << child.timed_out;
        ASSERT_EQ("", read_log(log_path(kName, child.pid, "coredump", SIGSEGV)).error) << "round " << i;
    }
}

// ---- no room for a log ----

TEST(Matrix, NoFreeDescriptors)
{
    for (std::size_t i = 0; i < kRounds; i++) {
        ChildResult child = die([] {
            ::raise(kBacktraceSignal); // opens the console, which stays open
            rlimit limit = {64, 64};
            ::setrlimit(RLIMIT_NOFILE, &limit);
            while (::dup(0) >= 0 || ::dup(1) >= 0)
                continue;
            write_null();
        });
        ASSERT_TRUE(child.killed_by(SIGSEGV)) << child.status;
        // Without a descriptor the command name is unreadable too.
        std::string path = log_path(program_invocation_short_name, child.pid, "coredump", SIGSEGV);
        EXPECT_FALSE(exists(path));
        std::string console = read_file(kConsole);
        EXPECT_NE(std::string::npos, console.find("is dying(11), ePC :"));
        EXPECT_NE(std::string::npos, console.find("!!!!!!WARNING: failed to core dump log file in " + path +
                                                  ".\nFail to create " + path + " \n"))
            << console;
    }
}

TEST(Matrix, ReadOnlyEtc)
{
    remount("/etc", true);
    for (std::size_t i = 0; i < kRounds; i++) {
        ChildResult child = die(write_null);
        ASSERT_TRUE(child.killed_by(SIGSEGV)) << child.status;
        std::string told = "mkdir /etc/core\tfailed, Read-only file system\nFail to create " +
                           log_path(kName, child.pid, "coredump", SIGSEGV) + " \n";
        EXPECT_NE(std::string::npos, read_file(kConsole).find(told));
    }
}

TEST(Matrix, DiskFull)
{
    mount_tmpfs("/etc/core", 8192);
    write_file("/etc/core/small", "");
    int fd = ::open("/etc/core/filler", O_WRONLY | O_CREAT, 0666);
    char block[4096] = {};
    while (::write(fd, block, sizeof block) > 0)
        continue;
    ::close(fd);
    for (std::size_t i = 0; i < kRounds; i++) {
        ChildResult child = die(write_null);
        ASSERT_TRUE(child.killed_by(SIGSEGV)) << child.status;
        char told[128];
        std::snprintf(told, sizeof told, "!!!!!!WARNING: process %d pid %d parent %d  is dying(11), ePC :  ", child.pid,
                      child.pid, ::getpid());
        EXPECT_NE(std::string::npos, printed().find(told));
        EXPECT_EQ("", read_file(log_path(kName, child.pid, "coredump", SIGSEGV)));
    }
}
