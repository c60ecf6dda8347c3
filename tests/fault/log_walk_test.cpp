// SPDX-License-Identifier: Apache-2.0
// What a log shows of a broken call chain, or of code without a frame pointer.
#include "backtrace.h"
#include "fault/crash_support.h"
#include "support/machine.h"

#include <cstdlib>
#include <malloc.h>
#include <set>
#include <stop_token>
#include <sys/mman.h>
#include <thread>

using namespace support;
using namespace crash;

namespace {

unsigned long at(const void *p)
{
    return reinterpret_cast<unsigned long>(p);
}

// The body runs on a new stack: on the main thread's, earlier calls leave records and return addresses, which the log
// may show too.
Log log_of(int sig, const std::function<void()> &body)
{
    ChildResult child = run_child([&] {
        rename_process("routed");
        install_sighandler();
        std::thread(body).join();
    });
    EXPECT_TRUE(child.killed_by(sig)) << child.status << child.out << child.err;
    return read_log(log_path("routed", child.pid, "coredump", sig));
}

bool shows(const Log &log, const std::string &function)
{
    for (const Log::Entry &entry : log.entries) {
        if (entry.text.find("(" + function + "+") != std::string::npos)
            return true;
    }
    return false;
}

// Checks that no entry appears twice.
void expect_no_copies(const Log &log)
{
    std::set<std::string> seen;
    for (const Log::Entry &entry : log.entries)
        EXPECT_TRUE(seen.insert(entry.frame + entry.text).second) << entry.frame << " " << entry.text;
}

// Logs a walk that starts from given registers.
Log log_of_walk(unsigned long fp, unsigned long sp)
{
    procps_read_maps();
    ucontext_t context;
    std::memset(&context, 0, sizeof context);
    set_frame_pointer(context, fp);
    set_stack_pointer(context, sp);
    crash_record rec = {};
    rec.uctx = &context;
    Log log;
    std::string text = capture_stdout([&] {
        int depth = coredump_backtrace_to_file(STDOUT_FILENO, &rec);
        EXPECT_EQ(static_cast<int>(rec.depth), depth);
    });
    for (const std::string &line : lines(text)) {
        std::size_t arrow = line.find("> -> ");
        if (arrow != std::string::npos)
            log.entries.push_back({line.substr(2, arrow - 2), line.substr(arrow + 5)});
        if (line.rfind("\tStack bottom is at ", 0) == 0)
            log.bottom = line.substr(20);
    }
    return log;
}

// An address that follows a call.
__attribute__((noinline)) unsigned long return_address()
{
    return at(__builtin_return_address(0));
}

std::string pointer_text(unsigned long value)
{
    char text[32];
    std::snprintf(text, sizeof text, "0x%lX", value);
    return text;
}

} // namespace

extern "C" {

volatile bool is_dying = true;

// The compiler is not to see that this never returns: nothing would follow the call, and the return address would be in
// the next function.
__attribute__((noinline, visibility("default"))) void dying_by_abort()
{
    if (is_dying)
        std::abort();
}

__attribute__((noinline, visibility("default"))) void calls_dying_by_abort()
{
    dying_by_abort();
    asm volatile("" ::: "memory");
}

__attribute__((noinline, visibility("default"))) int dying_compare(const void *a, const void *b)
{
    write_null();
    return a < b ? -1 : 1;
}

__attribute__((noinline, visibility("default"))) void dying_in_sort()
{
    int numbers[16] = {};
    std::qsort(numbers, 16, sizeof numbers[0], dying_compare);
    asm volatile("" ::: "memory");
}

__attribute__((noinline, visibility("default"))) NO_SANITIZERS void dying_with_own_link()
{
    auto *record = static_cast<volatile unsigned long *>(__builtin_frame_address(0));
    record[0] = at(const_cast<const unsigned long *>(record));
    write_null();
    asm volatile("" ::: "memory");
}
}

// In code that keeps no frame pointer, the register may point into anything, also into what another thread unmaps.
TEST(LogWalk, FollowsAPointerIntoMemoryThatComesAndGoes)
{
    constexpr std::size_t kPage = 4096;
    void *page = ::mmap(nullptr, kPage, PROT_READ | PROT_WRITE, MAP_PRIVATE | MAP_ANONYMOUS, -1, 0);
    ASSERT_NE(MAP_FAILED, page);
    std::jthread other([page](const std::stop_token &stop) {
        while (!stop.stop_requested()) {
            ::mprotect(page, kPage, PROT_NONE);
            ::mprotect(page, kPage, PROT_READ | PROT_WRITE);
        }
    });
    auto address = reinterpret_cast<unsigned long>(page);
    for (std::size_t i = 0; i < effort(3000); i++)
        ASSERT_NE("", log_of_walk(address, address).bottom) << "walk " << i;
}

TEST(LogWalk, AnAbortShowsWhoCalledIt)
{
    Log log = log_of(SIGABRT, calls_dying_by_abort);
    ASSERT_EQ("", log.error);
    EXPECT_TRUE(shows(log, "calls_dying_by_abort"));
    if (kWalkScansTheStack && !under_sanitizer()) { // a sanitizer leaves return addresses on the stack
        EXPECT_TRUE(shows(log, "abort"));
        expect_no_copies(log);
    }
}

TEST(LogWalk, ACallbackOfTheCLibraryShowsWhoCalledThat)
{
    Log log = log_of(SIGSEGV, dying_in_sort);
    ASSERT_EQ("", log.error);
    EXPECT_TRUE(shows(log, "dying_in_sort"));
}

TEST(LogWalk, MallocsAbortShowsWhoFreed)
{
    if (under_sanitizer())
        GTEST_SKIP() << "the sanitizer has the allocator";
    Log log = log_of(SIGABRT, [] {
        constexpr std::size_t kSize = 65536;
        auto *block = static_cast<unsigned char *>(std::malloc(kSize));
        *reinterpret_cast<volatile unsigned long *>(block + ::malloc_usable_size(block)) = 0;
        std::free(block);
    });
    ASSERT_EQ("", log.error);
    EXPECT_GT(log.entries.size(), 5U);
    if (kWalkScansTheStack) {
        EXPECT_TRUE(shows(log, "__libc_free"));
    }
}

TEST(LogWalk, ARecordLinkedToItself)
{
    Log log = log_of(SIGSEGV, dying_with_own_link);
    ASSERT_EQ("", log.error);
    if (kWalkScansTheStack)
        expect_no_copies(log);
    else
        EXPECT_EQ(20U, log.entries.size());
}

// An intact chain is shown word by word, whatever its addresses are and wherever it lies.
TEST(LogWalk, AnIntactChainIsShownUnchanged)
{
    unsigned long records[4][2];
    for (int i = 0; i < 3; i++) {
        records[i][0] = at(records[i + 1]);
        records[i][1] = 0x1000U + static_cast<unsigned>(i);
    }
    records[3][0] = 2; // the outermost function's frame pointer may be anything
    records[3][1] = 0x1003;
    for (unsigned long sp : {0UL, at(records)}) {
        Log log = log_of_walk(at(records), sp);
        ASSERT_EQ(4U, log.entries.size());
        for (std::size_t i = 0; i < 3; i++) {
            EXPECT_EQ("0x100" + std::to_string(i), log.entries[i].text);
            EXPECT_EQ(pointer_text(at(records[i + 1])), log.entries[i].frame);
        }
        EXPECT_EQ("0x1003", log.entries[3].text);
        EXPECT_EQ("0x2", log.bottom);
    }
}

TEST(LogWalk, TheChainEndsAtALinkDownwards)
{
    unsigned long records[3][2] = {{at(records[1]), 0x1000}, {at(records[2]), 0x1001}, {at(records[0]), 0x1002}};
    Log log = log_of_walk(at(records), at(records));
    EXPECT_EQ(kWalkScansTheStack ? 3U : 20U, log.entries.size());
    if (kWalkScansTheStack) {
        EXPECT_EQ(pointer_text(at(records[2])), log.bottom);
    }
}

// A record that an earlier call left on the stack leads to words that are no record.
TEST(LogWalk, ASearchedChainEndsWhereTheReturnAddressIsNoCode)
{
    if (!kWalkScansTheStack)
        GTEST_SKIP() << "the log shows the chain of records as it is";
    unsigned long caller = return_address();
    alignas(16) unsigned long left[3][2] = {{at(left[1]), caller}, {at(left[2]), caller}, {at(left[2]), 0}};
    Log log = log_of_walk(0, at(left));
    ASSERT_GE(log.entries.size(), 2U);
    EXPECT_EQ(pointer_text(at(left[1])), log.entries[0].frame);
    EXPECT_EQ(pointer_text(at(left[2])), log.entries[1].frame);
    for (const Log::Entry &entry : log.entries)
        EXPECT_NE("(nil)", entry.text) << entry.frame;
}

// Whatever the registers hold, the walk ends and reads no unmapped memory.
TEST(LogWalk, AnyRegisters)
{
    std::vector<unsigned long> stack(4096);
    unsigned long state = 1;
    for (std::size_t round = 0; round < effort(60); round++) {
        for (unsigned long &word : stack) {
            state = state * 6364136223846793005 + 1442695040888963407;
            unsigned long pick = state >> 60, offset = state >> 20 & 0x7fff;
            word = pick < 6    ? at(stack.data()) + offset
                   : pick < 10 ? at(reinterpret_cast<void *>(&log_of)) + offset
                               : state;
        }
        for (unsigned long fp : {0UL, 1UL, 8UL, stack[0], stack[1], at(&stack[7]), ~0UL, ~7UL})
            EXPECT_LE(log_of_walk(fp, round % 2 == 0 ? at(stack.data()) : stack[2]).entries.size(), 20U);
    }
}
