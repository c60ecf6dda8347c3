// SPDX-License-Identifier: Apache-2.0
// The records of full tracing with the test's clock: ages, call chains, the content of a report and its side effects.
#include "qv_mtrace.h"

#include "console_print.h"
#include "support/support.h"

#include <algorithm>
#include <array>
#include <cstdlib>
#include <ctime>
#include <span>
#include <unistd.h>
#include <utility>

using namespace support;

namespace {

#define NEEDS_INTERPOSITION()                                                                                          \
    if (under_sanitizer())                                                                                             \
    GTEST_SKIP() << "interposition is off in this build: the sanitizer has the allocator"

time_t clock_now = 0; // 0: the system clock

std::vector<leak_group> report()
{
    std::vector<leak_group> groups(64);
    groups.resize(static_cast<std::size_t>(get_malloc_statistics(groups.data(), 64)));
    return groups;
}

// Bytes of the blocks that a report at this time finds old enough.
std::uint32_t leaked_at(time_t now)
{
    clock_now = now;
    std::uint32_t bytes = 0;
    for (const leak_group &group : report())
        bytes += group.bytes;
    return bytes;
}

std::array<unsigned, 7> counters()
{
    std::array<unsigned, 7> result;
    std::uint64_t wait = std::exchange(time_wait, 0);
    qv_mtrace_stat_internal(result.data(), nullptr, 0);
    time_wait = wait;
    return result;
}

// A table with only the test's blocks: nothing is traced but what the test passes to the hooks itself.
void start_quietly()
{
    qv_mtrace_reset();
    qv_mtrace_start();
    qv_mtrace_stop();
}

template <typename Body>
void traced(Body body)
{
    qv_mtrace_start();
    body();
    qv_mtrace_stop();
}

// Neither shares its 64 bytes with another function: see is_in_chain().
[[gnu::noinline, gnu::aligned(64)]] void *allocate_here(std::size_t size)
{
    void *block = my_malloc_hook(size, nullptr);
    asm volatile("" ::"r"(block) : "memory");
    return block;
}

[[gnu::noinline, gnu::aligned(64)]] void *reallocate_here(void *block, std::size_t size)
{
    block = my_realloc_hook(block, size, nullptr);
    asm volatile("" ::"r"(block) : "memory");
    return block;
}

template <typename Function>
bool is_in_chain(const leak_group &group, Function *function)
{
    auto begin = reinterpret_cast<std::uint64_t>(function);
    return std::any_of(std::begin(group.trace), std::end(group.trace),
                       [&](std::uint64_t address) { return address > begin && address < begin + 64; });
}

[[gnu::noinline]] int enter_from_depth(int depth, void *block)
{
    int result = depth == 0 ? add_malloc_record(1, nullptr, block) : enter_from_depth(depth - 1, block);
    asm volatile("" : "+r"(result));
    return result;
}

void *fake_block(std::uintptr_t i)
{
    return reinterpret_cast<void *>(0x1000 + 16 * i);
}

std::string last_line(const std::string &path)
{
    auto all = lines(read_file(path));
    return all.empty() ? "" : all.back();
}

} // namespace

extern "C" time_t time(time_t *t) noexcept
{
    timespec now = {clock_now, 0};
    if (clock_now == 0)
        ::clock_gettime(CLOCK_REALTIME, &now);
    if (t != nullptr)
        *t = now.tv_sec;
    return now.tv_sec;
}

// ---- ages ----

TEST(LeakAge, ABlockCountsOnceItIsOldEnough)
{
    clock_now = 5000;
    start_quietly();
    add_malloc_record(70, nullptr, fake_block(1));
    time_wait = 10;
    EXPECT_EQ(0U, leaked_at(5000));
    EXPECT_EQ(0U, leaked_at(5009));
    EXPECT_EQ(70U, leaked_at(5010));
    EXPECT_EQ(70U, leaked_at(5011));
    EXPECT_EQ(0U, leaked_at(4000)) << "as if the clock was set back";
    time_wait = 0;
    EXPECT_EQ(70U, leaked_at(5000));
    qv_mtrace_reset();
}

TEST(LeakAge, TheLineNamesTheLiveBlocksAndTheOldOnes)
{
    clock_now = 5000;
    start_quietly();
    for (std::uintptr_t i = 0; i < 3; i++)
        add_malloc_record(1, nullptr, fake_block(i));
    clock_now = 5001;
    for (std::uintptr_t i = 3; i < 10; i++)
        add_malloc_record(1, nullptr, fake_block(i));
    time_wait = 10;
    EXPECT_EQ(3U, leaked_at(5010));
    EXPECT_THAT(last_line("/etc/consolelog"),
                testing::EndsWith("Total record 10,  3 records malloc but not free within 10(s)"));
    write_file("/etc/consolelog", "");
    EXPECT_EQ(10U, leaked_at(5011));
    EXPECT_EQ("", read_file("/etc/consolelog")) << "no block is too young";
    qv_mtrace_reset();
}

TEST(LeakAge, AReallocationStartsOver)
{
    clock_now = 5000;
    start_quietly();
    void *block = nullptr;
    traced([&] { block = allocate_here(40); });
    time_wait = 0;
    ASSERT_EQ(1U, report().size());
    EXPECT_TRUE(is_in_chain(report()[0], allocate_here));
    clock_now = 6000;
    traced([&] { block = reallocate_here(block, 90); });
    auto groups = report();
    ASSERT_EQ(1U, groups.size());
    EXPECT_EQ(90U, groups[0].bytes);
    EXPECT_TRUE(is_in_chain(groups[0], reallocate_here));
    EXPECT_FALSE(is_in_chain(groups[0], allocate_here));
    time_wait = 10;
    EXPECT_EQ(0U, leaked_at(6009));
    EXPECT_EQ(90U, leaked_at(6010));
    traced([&] { my_free_hook(block, nullptr); });
    EXPECT_EQ(0U, counters()[0]);
    qv_mtrace_reset();
}

TEST(LeakAge, ABlockFromANullReallocationIsTimedToo)
{
    clock_now = 5000;
    start_quietly();
    void *block = nullptr;
    traced([&] { block = reallocate_here(nullptr, 40); });
    time_wait = 10;
    EXPECT_EQ(0U, leaked_at(5009));
    EXPECT_EQ(40U, leaked_at(5010));
    traced([&] { my_free_hook(block, nullptr); });
    qv_mtrace_reset();
}

// ---- call chains ----

TEST(CallChain, HasEightAddressesAtMost)
{
    start_quietly();
    time_wait = 0;
    enter_from_depth(20, fake_block(1));
    auto groups = report();
    ASSERT_EQ(1U, groups.size());
    for (std::uint64_t address : groups[0].trace)
        EXPECT_NE(0U, address);
    EXPECT_EQ(groups[0].trace[MTRACE_CHAIN_SIZE - 2], groups[0].trace[MTRACE_CHAIN_SIZE - 1])
        << "both lie in the recursion";
    qv_mtrace_reset();
}

TEST(CallChain, BeginsWithTheCodeThatRecords)
{
    if (under_sanitizer())
        GTEST_SKIP() << "a sanitizer unwinds with frames of the sanitizer in the chain";
    start_quietly();
    time_wait = 0;
    enter_from_depth(0, fake_block(1));
    auto groups = report();
    ASSERT_EQ(1U, groups.size());
    auto in = [&](int i, auto *function) {
        auto begin = reinterpret_cast<std::uint64_t>(function);
        return groups[0].trace[i] > begin && groups[0].trace[i] < begin + 4096;
    };
    EXPECT_TRUE(in(0, add_malloc_record));
    EXPECT_TRUE(in(1, enter_from_depth));
    qv_mtrace_reset();
}

TEST(CallChain, AShortOneEndsInZeros)
{
    start_quietly();
    time_wait = 0;
    pthread_t thread; // its stack starts with two frames of the C library
    pthread_create(
        &thread, nullptr,
        [](void *block) -> void * {
            add_malloc_record(1, nullptr, block);
            return nullptr;
        },
        fake_block(1));
    pthread_join(thread, nullptr);
    auto groups = report();
    ASSERT_EQ(1U, groups.size());
    std::span<std::uint64_t> trace(groups[0].trace);
    auto end = std::find(trace.begin(), trace.end(), 0U);
    EXPECT_GE(end - trace.begin(), 2);
    EXPECT_LT(end - trace.begin(), MTRACE_CHAIN_SIZE);
    EXPECT_TRUE(std::all_of(end, trace.end(), [](std::uint64_t address) { return address == 0; }));
    qv_mtrace_reset();
}

// ---- reports ----

TEST(Report, HasThirtyTwoGroupsAtMost)
{
    start_quietly();
    // Chains that differ in which of two functions calls the next one.
    struct turns {
        [[gnu::noinline]] static int left(unsigned bits, int depth, void *block)
        {
            int result = next(bits, depth, block);
            asm volatile("" : "+r"(result));
            return result;
        }
        [[gnu::noinline]] static int right(unsigned bits, int depth, void *block)
        {
            int result = next(bits, depth, block);
            asm volatile("nop" : "+r"(result));
            return result;
        }
        [[gnu::always_inline]] static int next(unsigned bits, int depth, void *block)
        {
            if (depth == 0)
                return add_malloc_record(1, nullptr, block);
            return (bits & 1) != 0 ? left(bits >> 1, depth - 1, block) : right(bits >> 1, depth - 1, block);
        }
    };
    for (unsigned i = 0; i < 40; i++)
        turns::left(i, 6, fake_block(i));
    time_wait = 0;
    ASSERT_EQ(40U, report().size());
    struct {
        mtrace_stat_record rec;
        std::uint64_t after;
    } guarded = {{}, 0x5555};
    EXPECT_EQ(MTRACE_LEAK_GROUPS, qv_mtrace_stat(&guarded.rec, 0));
    EXPECT_EQ(std::uint32_t{MTRACE_ROWS}, guarded.rec.rows);
    EXPECT_EQ(40U, guarded.rec.full[0]);
    EXPECT_EQ(0x5555U, guarded.after);
    qv_mtrace_reset();
}

TEST(Report, DoesNotChangeTheCountersThatItReports)
{
    NEEDS_INTERPOSITION();
    for (const char *zone : {"", "Europe/Berlin", "EST5EDT"}) {
        ::setenv("TZ", zone, 1);
        if (*zone == '\0')
            ::unsetenv("TZ");
        qv_mtrace_reset();
        my_init_hook();
        qv_mtrace_start();
        void *volatile block = std::malloc(100); // too young, which prints a line
        mtrace_stat_record first = {}, second = {};
        EXPECT_EQ(MTRACE_LEAK_GROUPS, qv_mtrace_stat(&first, 0));
        EXPECT_EQ(MTRACE_LEAK_GROUPS, qv_mtrace_stat(&second, 0));
        EXPECT_THAT(read_file("/etc/consolelog"), testing::HasSubstr("Total record "));
        EXPECT_TRUE(std::equal(std::begin(first.full), std::end(first.full), std::begin(second.full)))
            << zone << ": " << second.full[0] << " live, " << second.full[2] << " allocations, " << second.full[3]
            << " frees";
        EXPECT_EQ(1U, second.full[0]);
        EXPECT_EQ(0U, second.full[3]);
        std::free(block);
        qv_mtrace_stop();
    }
    qv_mtrace_reset();
}

// ---- a reallocation to nothing ----

TEST(ReallocToZero, ReleasesTheBlockAndFailsInTheFirstClass)
{
    NEEDS_INTERPOSITION();
    void *volatile block = std::malloc(100);
    mtrace_stat_record before = {}, after = {};
    qv_mtrace_stat(&before, 0);
    volatile std::size_t nothing = 0;
    void *volatile result = std::realloc(block, nothing);
    qv_mtrace_stat(&after, 0);
    EXPECT_EQ(nullptr, result);
    EXPECT_EQ(1U, after.light_releases - before.light_releases);
    EXPECT_EQ(before.light_products, after.light_products);
    EXPECT_EQ(1U, after.row.classes[0].failures - before.row.classes[0].failures);
    EXPECT_EQ(before.light_frees, after.light_frees);
    EXPECT_EQ(1U, before.light_blocks - after.light_blocks);
}

TEST(ReallocToZero, EndsTheRecordAndKeepsItsBytesInTheTotal)
{
    start_quietly();
    void *block = nullptr;
    traced([&] { block = my_malloc_hook(100, nullptr); });
    auto before = counters();
    traced([&] { EXPECT_EQ(nullptr, my_realloc_hook(block, 0, nullptr)); });
    auto after = counters();
    EXPECT_EQ(before[0] - 1, after[0]);
    EXPECT_EQ(before[1], after[1]);
    EXPECT_EQ(before[3], after[3]) << "not counted as a free";
    EXPECT_EQ(before[5] + 1, after[5]);
    EXPECT_EQ(before[6], after[6]) << "nor as unmatched";
    qv_mtrace_reset();
}

// ---- the trace file around full tracing ----

namespace {

std::vector<std::string> marks_in(const std::string &path)
{
    std::vector<std::string> marks;
    for (std::string &line : lines(read_file(path)))
        if (line.starts_with("= "))
            marks.push_back(std::move(line));
    return marks;
}

const std::vector<std::string> kWhole = {"= Start", "= End"};

} // namespace

TEST(TraceFileAndFullTracing, AStartEndsTheOldTraceAndStartsAnother)
{
    ::setenv("MALLOC_TRACE", "/tmp/first", 1);
    mtrace();
    ::setenv("MALLOC_TRACE", "/tmp/second", 1);
    qv_mtrace_start();
    EXPECT_EQ(kWhole, marks_in("/tmp/first"));
    EXPECT_TRUE(exists("/tmp/second"));
    EXPECT_NE(my_malloc_hook, __malloc_hook) << "the new trace calls the full hooks";
    ::unsetenv("MALLOC_TRACE");
    muntrace();
    EXPECT_EQ(my_malloc_hook, __malloc_hook);
    EXPECT_EQ(kWhole, marks_in("/tmp/second"));
    qv_mtrace_reset();
}

TEST(TraceFileAndFullTracing, AStopEndsTheTraceAndStartsNone)
{
    for (auto stop : {qv_mtrace_stop, qv_mtrace_reset}) {
        ::setenv("MALLOC_TRACE", "/tmp/trace", 1);
        qv_mtrace_start();
        EXPECT_TRUE(exists("/tmp/trace"));
        stop();
        EXPECT_EQ(kWhole, marks_in("/tmp/trace"));
        EXPECT_EQ(nullptr, __malloc_hook);
        ::unlink("/tmp/trace");
    }
    ::unsetenv("MALLOC_TRACE");
    qv_mtrace_reset();
}

TEST(TraceFileAndFullTracing, LoadingAgainEndsTheTraceAndStartsAnother)
{
    ::setenv("MALLOC_TRACE", "/tmp/first", 1);
    mtrace();
    ::setenv("MALLOC_TRACE", "/tmp/second", 1);
    my_init_hook();
    EXPECT_EQ(kWhole, marks_in("/tmp/first"));
    EXPECT_TRUE(exists("/tmp/second"));
    muntrace();
    EXPECT_EQ(my_malloc_light_hook, __malloc_hook);
    EXPECT_EQ(kWhole, marks_in("/tmp/second"));
}
