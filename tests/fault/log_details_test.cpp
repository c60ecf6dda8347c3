// SPDX-License-Identifier: Apache-2.0
// The details of crash logs: what a host with QV_CRASH_DETAILS finds after the ordinary text.
#include "crash_details.h"
#include "cxx/crash_note.hpp"
#include "fault/crash_support.h"
#include "libcommon_version.h"
#include "mcache.h"

#undef NDEBUG
#include <atomic>
#include <cassert>
#include <dlfcn.h>
#include <link.h>
#include <mutex>
#include <stdexcept>
#include <sys/resource.h>
#include <thread>
#include <vector>

using namespace support;
using namespace crash;
using testing::HasSubstr;
using testing::Not;
using testing::StartsWith;

namespace {

QV_CRASH_DETAILS;

// The details of the log that the body's process leaves; fails the test when they are not whole.
std::string details_of(int signal, const std::string &kind, const std::function<void()> &body)
{
    ChildResult child = run_child([&body] {
        rename_process("detailed");
        install_sighandler();
        body();
    });
    Log log = read_log(log_path("detailed", child.pid, kind, signal));
    EXPECT_EQ("", log.error);
    EXPECT_THAT(log.rest, StartsWith("Details 1:\n"));
    EXPECT_TRUE(log.rest.ends_with("\nDetails end\n")) << log.rest;
    return log.rest;
}

std::string dump_details(const std::function<void()> &before = [] {})
{
    return details_of(52, "attach", [&before] {
        before();
        std::raise(52);
    });
}

std::vector<std::string> lines_with(const std::string &details, const std::string &title)
{
    std::vector<std::string> found;
    for (const std::string &line : lines(details)) {
        if (line.starts_with(title))
            found.push_back(line.substr(title.size()));
    }
    return found;
}

std::string hex(unsigned long value)
{
    char text[32];
    std::snprintf(text, sizeof text, "%016lx", value);
    return text;
}

TEST(LogDetails, AFaultHasItsCodeAndAddress)
{
    std::string details = details_of(SIGSEGV, "coredump", write_null);
    EXPECT_THAT(details, HasSubstr("\nsignal : 11 code 1 address " + hex(kBadAddress) + "\n"));
}

TEST(LogDetails, ASentSignalHasItsSender)
{
    std::string parent = std::to_string(::getpid());
    ChildResult child;
    std::string details = details_of(52, "attach", [] {
        pid_t sender = ::fork();
        if (sender == 0) {
            ::kill(::getppid(), 52);
            ::_exit(0);
        }
        int status;
        while (::waitpid(sender, &status, 0) < 0) {
        }
        write_file("/tmp/sender", std::to_string(sender));
    });
    EXPECT_THAT(details, HasSubstr("\nsignal : 52 code 0 from pid " + read_file("/tmp/sender") + " uid 0\n"));
}

TEST(LogDetails, TheMostValuableComesFirst)
{
    std::string details = dump_details();
    std::size_t at = 0;
    for (const char *title : {"signal : ", "time   : ", "self   : ", "arg0   : ", "range  : ", "exe    : ", "module : ",
                              "thread : ", "stack  : ", "code   : ", "memory : ", "limit  : ", "version: "}) {
        std::size_t found = details.find(std::string("\n") + title, at);
        ASSERT_NE(std::string::npos, found) << title << "\n" << details;
        at = found;
    }
}

TEST(LogDetails, NamesOfProcessAndProgram)
{
    std::string details = dump_details();
    char program[512] = {};
    ASSERT_LT(0, ::readlink("/proc/self/exe", program, sizeof program - 1));
    EXPECT_EQ(std::vector<std::string>{program}, lines_with(details, "exe    : "));
    EXPECT_THAT(details, HasSubstr(" name detailed\n"));
    EXPECT_THAT(details, HasSubstr("\nversion: libcommon " LIBCOMMON_VERSION ", Linux "));
}

// ---- notes ----

TEST(CrashNote, TheLastOneOfEachThread)
{
    std::string details = dump_details([] {
        qv_crash_note("serving request %d", 16);
        qv_crash_note("serving request %d of %s\n", 17, "rx");
    });
    std::vector<std::string> notes = lines_with(details, "note   : ");
    ASSERT_EQ(1u, notes.size());
    EXPECT_THAT(notes[0], testing::EndsWith(" serving request 17 of rx"));
}

TEST(CrashNote, AnEmptyOneRemovesIt)
{
    std::string details = dump_details([] {
        qv_crash_note("serving");
        qv_crash_note("%s", "");
    });
    EXPECT_TRUE(lines_with(details, "note   : ").empty());
}

TEST(CrashNote, IsCutAndStaysOneLine)
{
    std::string details = dump_details([] { qv_crash_note("a\nb%0300d", 0); });
    std::vector<std::string> notes = lines_with(details, "note   : ");
    ASSERT_EQ(1u, notes.size());
    std::string text = notes[0].substr(notes[0].find(' ') + 1);
    EXPECT_EQ("a b" + std::string(QV_CRASH_NOTE_SIZE - 1 - 3, '0'), text);
}

TEST(CrashNote, OfOtherThreadsThatAreAlive)
{
    std::string details = dump_details([] {
        std::thread([] { qv_crash_note("of a thread that has ended"); }).join();
        std::atomic<bool> has_note = false;
        std::thread([&has_note] {
            qv_crash_note("of a thread that lives");
            has_note = true;
            for (;;)
                ::pause();
        }).detach();
        while (!has_note)
            std::this_thread::yield();
    });
    EXPECT_THAT(details, HasSubstr(" of a thread that lives\n"));
    EXPECT_THAT(details, Not(HasSubstr("ended")));
}

TEST(CrashNote, EntriesOfEndedThreadsAreUsedAgain)
{
    std::string details = dump_details([] {
        for (int i = 0; i < 2 * QV_CRASH_NOTE_THREADS; i++)
            std::thread([] { qv_crash_note("short-lived"); }).join();
        qv_crash_note("there is room");
    });
    EXPECT_THAT(details, HasSubstr(" there is room\n"));
}

TEST(CrashNote, KeepsErrno)
{
    errno = ENOTTY;
    qv_crash_note("x");
    EXPECT_EQ(ENOTTY, errno);
}

// ---- what ended the process ----

TEST(LogDetails, TheMessageOfAnAssertion)
{
    std::string details =
        details_of(SIGABRT, "coredump", [] { __assert_fail("answer == 42", "question.c", 41, "ask"); });
    EXPECT_THAT(details, HasSubstr("question.c:41: ask: Assertion `answer == 42' failed."));
}

void refuse(bool is_wanted)
{
    if (is_wanted)
        throw std::runtime_error("no route");
}

TEST(LogDetails, AnExceptionThatNobodyCatches)
{
    std::string details = details_of(SIGABRT, "coredump", [] {
        qv::note_uncaught_exceptions();
        []() noexcept { refuse(true); }();
    });
    EXPECT_THAT(details, HasSubstr(" uncaught std::runtime_error: no route\n"));
}

TEST(LogDetails, WhatAnObjectCacheFound)
{
    if (under_sanitizer())
        GTEST_SKIP() << "the sanitizer ends the process at the overrun";
    std::string details = details_of(SIGSEGV, "coredump", [] {
        mcache *cache = mcache_create("session", 64, nullptr, 0, 1);
        mcache_alloc(cache);
        void *object = mcache_alloc(cache);
        std::memset(object, 0x11, 80);
        mcache_free(cache, object);
    });
    std::vector<std::string> found = lines_with(details, "cache  : ");
    ASSERT_EQ(1u, found.size());
    EXPECT_THAT(found[0], StartsWith("code 5 object "));
    EXPECT_THAT(found[0], testing::EndsWith(" guard 1111111111111111 name session"));
}

TEST(LogDetails, ACacheThatIsNone)
{
    if (under_sanitizer())
        GTEST_SKIP() << "the sanitizer ends the process at the null pointer";
    std::string details = details_of(SIGSEGV, "coredump", [] { mcache_alloc(nullptr); });
    EXPECT_THAT(details, HasSubstr("\ncache  : code 1 object 0000000000000000 guard 0000000000000000 name -\n"));
}

// ---- modules ----

TEST(LogDetails, ModulesWithBiasAndBuildId)
{
    std::vector<std::string> modules = lines_with(dump_details(), "module : ");
    Dl_info info;
    link_map *map;
    ASSERT_NE(0, ::dladdr1(reinterpret_cast<void *>(install_sighandler), &info, reinterpret_cast<void **>(&map),
                           RTLD_DL_LINKMAP));
    auto is_library = [map](const std::string &module) {
        return module.starts_with(hex(map->l_addr) + " ") && module.find("/libcommon.so") != std::string::npos;
    };
    auto library = std::find_if(modules.begin(), modules.end(), is_library);
    ASSERT_NE(modules.end(), library);
    std::string id = library->substr(34, library->find(' ', 34) - 34);
    EXPECT_EQ(40u, id.size()) << *library;
    EXPECT_EQ(std::string::npos, id.find_first_not_of("0123456789abcdef"));
}

TEST(LogDetails, ModulesThatWereUnloaded)
{
    std::string plugin = build_dir() + "/libvrkernel.so";
    std::string details = dump_details([&plugin] {
        void *handle = ::dlopen(plugin.c_str(), RTLD_NOW);
        if (handle == nullptr)
            ::_exit(1);
        qv_crash_note_modules();
        ::dlclose(handle);
    });
    EXPECT_THAT(lines_with(details, "gone   : "), testing::ElementsAre(testing::EndsWith(" " + plugin)));
    EXPECT_THAT(lines_with(details, "module : "), testing::Each(Not(testing::EndsWith(" " + plugin))));
}

// ---- threads ----

// What is said of a thread, from its line to the next thread's.
std::string section_of(const std::string &details, const std::string &name)
{
    std::size_t at = details.find(" " + name + "\n call");
    if (at == std::string::npos)
        return {};
    return details.substr(at, details.find("\nthread : ", at) - at);
}

void name_thread(const char *name)
{
    ::prctl(PR_SET_NAME, name);
}

void await_state(const std::atomic<int> &tid, char state)
{
    for (;;) {
        std::string text = read_file("/proc/self/task/" + std::to_string(tid.load()) + "/stat");
        std::size_t close = text.rfind(')');
        if (close != std::string::npos && text[close + 2] == state)
            return;
        ::usleep(1000);
    }
}

TEST(LogDetails, AThreadThatWaitsForAMutexAndItsOwner)
{
    std::string details = dump_details([] {
        static std::mutex lock;
        static std::atomic<int> waiter = 0;
        lock.lock();
        std::thread([] {
            name_thread("waiter");
            waiter = thread_id();
            lock.lock();
        }).detach();
        while (waiter == 0)
            std::this_thread::yield();
        await_state(waiter, 'S');
        write_file("/tmp/owner", std::to_string(thread_id()));
    });
    std::string waiter = section_of(details, "waiter");
    EXPECT_THAT(waiter, HasSubstr(" holds 00000002 owner " + read_file("/tmp/owner") + "\n")) << details;
    EXPECT_THAT(waiter, HasSubstr("\n found : "));
    EXPECT_THAT(details, Not(HasSubstr("deadlock")));
}

TEST(LogDetails, ADeadlockIsACircle)
{
    std::string details = dump_details([] {
        static std::mutex first, second;
        static std::atomic<int> tids[2] = {0, 0}, locked = 0;
        auto lock_both = [](std::mutex &own, std::mutex &other, int index) {
            own.lock();
            locked++;
            while (locked < 2)
                std::this_thread::yield();
            tids[index] = thread_id();
            other.lock();
        };
        std::thread([lock_both] { lock_both(first, second, 0); }).detach();
        std::thread([lock_both] { lock_both(second, first, 1); }).detach();
        for (const std::atomic<int> &tid : tids) {
            while (tid == 0)
                std::this_thread::yield();
            await_state(tid, 'S');
        }
        int low = std::min(tids[0].load(), tids[1].load()), high = std::max(tids[0].load(), tids[1].load());
        write_file("/tmp/circle",
                   std::to_string(low) + " waits for " + std::to_string(high) + " waits for " + std::to_string(low));
    });
    EXPECT_EQ(std::vector<std::string>{read_file("/tmp/circle")}, lines_with(details, "deadlock: "));
}

TEST(LogDetails, EveryThreadIsListed)
{
    const int threads = under_emulation() ? 10 : 100;
    std::string details = dump_details([threads] {
        std::atomic<int> begun = 0;
        for (int i = 0; i < threads; i++) {
            std::thread([&begun] {
                begun++;
                for (;;)
                    ::pause();
            }).detach();
        }
        while (begun < threads)
            ::usleep(1000);
    });
    std::size_t listed = lines_with(details, "thread : ").size();
    if (details.find("threads: no time for the rest\n") != std::string::npos)
        GTEST_SKIP() << "the machine is slow: " << listed << " threads were listed within the limit";
    EXPECT_EQ(static_cast<std::size_t>(threads) + 1, listed);
}

// ---- walks of all threads ----

// What is said of a thread, wherever it is.
std::string lines_of(const std::string &details, const std::string &name)
{
    std::size_t at = details.find(" " + name + "\n");
    return at == std::string::npos ? std::string() : details.substr(at, details.find("\nthread : ", at) - at);
}

std::atomic<int> waiting;

NO_SANITIZERS void wait_for_ever()
{
    waiting++;
    while (waiting != 0)
        ::pause();
}

// pause() need not have a frame, and then its caller is in none: what a walk always has is that one's caller.
NO_SANITIZERS void call_wait()
{
    wait_for_ever();
    asm volatile("" ::: "memory");
}

void start_waiting(
    const char *name, void (*before)() = [] {})
{
    int expected = waiting + 1;
    std::thread([name, before] {
        name_thread(name);
        before();
        call_wait();
    }).detach();
    while (waiting != expected)
        ::usleep(1000);
}

// An answer has half a second, which a loaded emulator may need for a handler.
bool was_too_slow(const std::string &details)
{
    return under_emulation() &&
           (details.find("none, no ") != std::string::npos || details.find("no time") != std::string::npos);
}

TEST(ThreadWalks, EachThreadWritesItsOwn)
{
    std::string details = dump_details([] {
        qv_crash_walk_threads();
        start_waiting("walked");
    });
    if (was_too_slow(details))
        GTEST_SKIP() << "the machine is too slow";
    std::string walked = lines_of(details, "walked");
    EXPECT_THAT(walked, HasSubstr("\n walk  : sp "));
    unsigned long start = reinterpret_cast<unsigned long>(&call_wait);
    bool is_named = false;
    for (const std::string &line : lines(walked)) {
        unsigned long address = line.starts_with(" frame : ") ? std::strtoul(line.c_str() + 26, nullptr, 16) : 0;
        is_named = is_named || (address > start && address < start + 64);
    }
    EXPECT_TRUE(is_named) << walked;
}

TEST(ThreadWalks, AreNotAskedForWithoutTheCall)
{
    std::string details = dump_details([] { start_waiting("walked"); });
    EXPECT_THAT(details, Not(HasSubstr("\n walk  : ")));
}

TEST(ThreadWalks, ACrashAsksNobody)
{
    std::string details = details_of(SIGSEGV, "coredump", [] {
        qv_crash_walk_threads();
        start_waiting("walked");
        write_null();
    });
    EXPECT_THAT(details, HasSubstr(" walked\n"));
    EXPECT_THAT(details, Not(HasSubstr("\n walk  : ")));
}

TEST(ThreadWalks, AThreadThatBlocksTheSignalIsSkipped)
{
    std::string details = dump_details([] {
        qv_crash_walk_threads();
        start_waiting("blocked", [] { pthread_ignore_signal(); });
        start_waiting("open");
    });
    if (was_too_slow(details))
        GTEST_SKIP() << "the machine is too slow";
    EXPECT_THAT(lines_of(details, "blocked"), HasSubstr("\n walk  : none, the thread blocks the signal"));
    EXPECT_THAT(lines_of(details, "open"), HasSubstr("\n frame : "));
}

TEST(ThreadWalks, ASignalThatTheHostUsesIsLeftAlone)
{
    ChildResult child = run_child([] {
        ::signal(QV_CRASH_WALK_SIGNAL, SIG_IGN);
        bool is_refused = qv_crash_walk_threads() == -1 && errno == EBUSY;
        ::_exit(is_refused ? 0 : 1);
    });
    EXPECT_TRUE(child.exited(0));
}

// Threads come and go while they are asked; the process lives on, and so do its later dumps.
TEST(ThreadWalks, OfThreadsThatEndMeanwhile)
{
    std::string details = dump_details([] {
        qv_crash_walk_threads();
        static std::atomic<int> started;
        for (int i = 0; i < 4; i++) {
            std::thread([] {
                for (;;) {
                    started++;
                    std::thread([] { ::usleep(300); }).join();
                }
            }).detach();
        }
        while (started < 8)
            ::usleep(1000);
        for (int i = 0; i < (under_emulation() ? 1 : 10); i++)
            std::raise(52);
        ::unlink(log_path("detailed", ::getpid(), "attach", 52).c_str()); // the last one may be shorter
    });
    if (was_too_slow(details))
        GTEST_SKIP() << "the machine is too slow";
    EXPECT_THAT(details, HasSubstr("\n walk  : "));
}

// A child inherits the questions of its parent's dump, but nobody who would answer.
TEST(ThreadWalks, AForkedChildAsksItsOwnThreads)
{
    std::string details = details_of(52, "attach", [] {
        qv_crash_walk_threads();
        start_waiting("parents");
        std::raise(52);
        pid_t child = ::fork();
        if (child == 0) {
            rename_process("child");
            start_waiting("forked"); // a thread that is being created blocks the signal
            std::raise(52);
            ::_exit(0);
        }
        write_file("/tmp/child", std::to_string(child));
        int status;
        while (::waitpid(child, &status, 0) < 0) {
        }
    });
    if (under_sanitizer())
        return; // the thread sanitizer starts no thread in a child of many threads
    std::string log = read_file(log_path("child", std::atoi(read_file("/tmp/child").c_str()), "attach", 52));
    if (was_too_slow(log))
        GTEST_SKIP() << "the machine is too slow";
    EXPECT_THAT(log, HasSubstr("\n frame : "));
    EXPECT_THAT(log, Not(HasSubstr("another dump asks")));
}

// Each one has a walk or the reason why not.
TEST(ThreadWalks, OfManyThreads)
{
    const int threads = under_emulation() || under_sanitizer() ? 10 : 100;
    std::string details = dump_details([threads] {
        qv_crash_walk_threads();
        for (int i = 0; i < threads; i++)
            start_waiting("many");
    });
    EXPECT_EQ(lines_with(details, "thread : ").size() - 1, lines_with(details, " walk  : ").size()) << details;
    if (!was_too_slow(details)) {
        EXPECT_THAT(details, HasSubstr("\n walk  : sp "));
    }
}

// ---- dumps of several threads ----

// One file has room for one dump: a second one waits. A dump's writer stays here for a while.
std::atomic<bool> is_slow;
std::atomic<int> writers, dumps;

long write_slowly(unsigned phase, unsigned long, void *)
{
    if (phase != QV_COREDUMP_LAST || !is_slow)
        return 0;
    if (++writers > 1)
        ::_exit(91);
    ::usleep(20000);
    writers--;
    dumps++;
    return 0;
}

QV_COREDUMP_CALLBACK(write_slowly);

TEST(Dumps, OfSeveralThreadsAreNoMixture)
{
    if (under_emulation())
        GTEST_SKIP() << "five dumps take longer there than one waits for another";
    ChildResult child = run_child([] {
        rename_process("detailed");
        install_sighandler();
        for (int i = 0; i < 4; i++)
            start_waiting("dumped");
        is_slow = true;
        std::vector<std::string> threads = list_dir("/proc/self/task");
        for (const std::string &thread : threads)
            ::syscall(SYS_tgkill, ::getpid(), std::atoi(thread.c_str()), 52);
        while (dumps < 5)
            ::usleep(1000);
    });
    ASSERT_TRUE(child.exited(0)) << "91: two write at once";
    EXPECT_EQ("", read_log(log_path("detailed", child.pid, "attach", 52)).error);
}

// ---- more signals ----

TEST(CrashMoreSignals, ADivisionLeavesALog)
{
    std::string details = details_of(SIGFPE, "coredump", [] {
        qv_crash_more_signals();
        std::raise(SIGFPE);
        std::raise(SIGFPE);
    });
    EXPECT_THAT(details, HasSubstr("signal : 8 code -6 "));
}

TEST(CrashMoreSignals, AreLeftAloneWithoutTheCall)
{
    if (under_sanitizer())
        GTEST_SKIP() << "the sanitizer takes SIGFPE";
    ChildResult child = run_child([] {
        install_sighandler();
        std::raise(SIGFPE);
    });
    EXPECT_TRUE(child.killed_by(SIGFPE));
    EXPECT_FALSE(exists("/etc/core"));
}

TEST(CrashMoreSignals, TheProcessEndsByTheSecondOfThem)
{
    ChildResult child = run_child([] {
        install_sighandler();
        qv_crash_more_signals();
        std::raise(SIGSYS);
        std::raise(SIGTRAP);
    });
    EXPECT_TRUE(child.killed_by(SIGTRAP)) << "the first one reset the dispositions of all";
}

NO_SANITIZERS int recurse(int depth)
{
    char volatile room[4096];
    room[0] = static_cast<char>(depth);
    return depth < 0 ? 0 : recurse(depth + 1) + room[0];
}

TEST(CrashMoreSignals, AStackOverflowLeavesALog)
{
    if (under_sanitizer())
        GTEST_SKIP() << "the sanitizers have their own alternate stack";
    rlimit small = {1 << 20, 1 << 20};
    std::string details = details_of(SIGSEGV, "coredump", [&small] {
        ::setrlimit(RLIMIT_STACK, &small);
        qv_crash_more_signals();
        recurse(0);
    });
    EXPECT_THAT(details, HasSubstr("\nrange  : "));
}

} // namespace
