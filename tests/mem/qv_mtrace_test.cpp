// SPDX-License-Identifier: Apache-2.0
// Heap accounting in the usual host: linked with the library, with the C library's allocator.
#include "qv_mtrace.h"

#include "console_print.h"
#include "support/random.h"
#include "support/support.h"

#include <algorithm>
#include <array>
#include <bit>
#include <climits>
#include <csignal>
#include <cstdlib>
#include <cstring>
#include <malloc.h>
#include <sys/wait.h>
#include <thread>
#include <unistd.h>
#include <utility>

using namespace support;

namespace {

#define NEEDS_INTERPOSITION()                                                                                          \
    if (under_sanitizer())                                                                                             \
    GTEST_SKIP() << "interposition is off in this build: the sanitizer has the allocator"

mtrace_stat_record light_now()
{
    mtrace_stat_record rec = {};
    qv_mtrace_stat_min(&rec);
    return rec;
}

static_assert(MTRACE_TABLE_SIZE == 65536 && MTRACE_ROWS == 32);

// Size classes, which are reported only while there is no table of blocks.
std::array<mtrace_class_row, MTRACE_ROWS> classes_now()
{
    mtrace_stat_record rec = {};
    EXPECT_EQ(MTRACE_SIZE_CLASSES, qv_mtrace_stat(&rec, 0));
    EXPECT_EQ(std::uint32_t{MTRACE_ROWS}, rec.rows);
    std::array<mtrace_class_row, MTRACE_ROWS> rows;
    std::copy(std::begin(rec.row.classes), std::end(rec.row.classes), rows.begin());
    return rows;
}

struct Full {
    std::uint32_t live, bytes, allocs, frees, unmatched_frees, reallocs, unmatched_reallocs;
    bool operator==(const Full &) const = default;
};

std::ostream &operator<<(std::ostream &out, const Full &f)
{
    return out << f.live << " live, " << f.bytes << " bytes, " << f.allocs << " allocations, " << f.frees << " frees, "
               << f.unmatched_frees << " unmatched, " << f.reallocs << " reallocations, " << f.unmatched_reallocs
               << " unmatched";
}

Full full_now()
{
    unsigned counters[7];
    std::uint64_t wait = std::exchange(time_wait, 0); // no block is too young: nothing is printed, which would allocate
    qv_mtrace_stat_internal(counters, nullptr, 0);
    time_wait = wait;
    return {counters[0], counters[1], counters[2], counters[3], counters[4], counters[5], counters[6]};
}

std::uint32_t chunk_of(void *block)
{
    return static_cast<std::uint32_t>(::malloc_usable_size(block) + sizeof(std::size_t));
}

unsigned class_of(std::uint32_t size)
{
    return static_cast<unsigned>(std::bit_width(size)) - 1;
}

void *volatile sink;
int next_address;

// Keeps the compiler from removing an allocation.
void *kept(void *block)
{
    sink = block;
    return block;
}

void *allocate(std::size_t size)
{
    return kept(std::malloc(size));
}

// What a body changes in one size class.
template <typename Body>
mtrace_class_row change(unsigned k, Body body)
{
    auto before = classes_now();
    body();
    auto after = classes_now();
    mtrace_class_row row = after[k];
    row.bytes -= before[k].bytes;
    row.blocks -= before[k].blocks;
    row.allocs -= before[k].allocs;
    row.frees -= before[k].frees;
    row.realloc_releases -= before[k].realloc_releases;
    row.realloc_products -= before[k].realloc_products;
    row.failures -= before[k].failures;
    return row;
}

void expect_row(const mtrace_class_row &row, std::uint32_t bytes, std::uint32_t blocks, std::uint32_t allocs,
                std::uint32_t frees, std::uint32_t releases, std::uint32_t products, std::uint32_t failures)
{
    EXPECT_EQ(bytes, row.bytes);
    EXPECT_EQ(blocks, row.blocks);
    EXPECT_EQ(allocs, row.allocs);
    EXPECT_EQ(frees, row.frees);
    EXPECT_EQ(releases, row.realloc_releases);
    EXPECT_EQ(products, row.realloc_products);
    EXPECT_EQ(failures, row.failures);
}

} // namespace

// ---- light statistics ----

TEST(Light, HooksAreInstalledAtLoad)
{
    EXPECT_EQ(my_malloc_light_hook, __malloc_hook);
    EXPECT_EQ(my_free_light_hook, __free_hook);
    EXPECT_EQ(my_realloc_light_hook, __realloc_hook);
    EXPECT_EQ(nullptr, old_malloc_hook);
    EXPECT_EQ(nullptr, old_free_hook);
    EXPECT_EQ(nullptr, old_realloc_hook);
}

TEST(Light, RowsAreForPowersOfTwo)
{
    auto rows = classes_now();
    for (unsigned k = 0; k < MTRACE_ROWS; k++)
        EXPECT_EQ(1U << k, rows[k].lower_bound);
}

TEST(Light, BlocksCountAsTheirChunk)
{
    NEEDS_INTERPOSITION();
    for (std::size_t size : {0UL, 1UL, 3UL, 24UL, 25UL, 100UL, 1000UL, 100000UL, 1UL << 20}) {
        void *probe = allocate(size);
        std::uint32_t chunk = chunk_of(probe);
        if (size >= 1 << 17) // a chunk in its own mapping has two header words
            chunk += static_cast<std::uint32_t>(sizeof(std::size_t));
        void *block = nullptr;
        expect_row(change(class_of(chunk), [&] { block = allocate(size); }), chunk, 1, 1, 0, 0, 0, 0);
        expect_row(change(class_of(chunk), [&] { std::free(block); }), 0U - chunk, 0U - 1, 0, 1, 0, 0, 0);
        std::free(probe); // not earlier: freeing raises the size from which blocks are mapped
    }
}

TEST(Light, FailuresCountAsRequested)
{
    NEEDS_INTERPOSITION();
    const std::size_t huge = std::size_t{1} << 62; // truncated to 32 bits, only the addend remains
    for (auto [size, k] : {std::pair{0UL, 0U}, {1UL, 0U}, {2UL, 1U}, {3UL, 1U}, {4UL, 2U}, {0xFFFFFFFFUL, 31U}}) {
        expect_row(change(k, [&, s = size] { EXPECT_EQ(nullptr, allocate(huge + s)); }), 0, 0, 0, 0, 0, 0, 1);
    }
}

TEST(Light, NullIsNotFreed)
{
    mtrace_stat_record before = light_now();
    sink = nullptr;
    std::free(sink);
    my_free_light_hook(nullptr, nullptr);
    EXPECT_EQ(before.light_frees, light_now().light_frees);
}

TEST(Light, CallocIsAnAllocation)
{
    NEEDS_INTERPOSITION();
    void *block = nullptr;
    mtrace_class_row row = change(class_of(2016), [&] { block = kept(std::calloc(20, 100)); });
    EXPECT_EQ(1U, row.allocs);
    EXPECT_EQ(chunk_of(block), row.bytes);
    for (int i = 0; i < 2000; i++)
        ASSERT_EQ(0, static_cast<char *>(block)[i]);
    std::free(block);
    mtrace_stat_record before = light_now();
    volatile std::size_t many = SIZE_MAX / 2;
    sink = std::calloc(many, 3);
    EXPECT_EQ(nullptr, sink);
    EXPECT_EQ(ENOMEM, errno);
    EXPECT_EQ(before.light_allocs, light_now().light_allocs);
}

TEST(Light, ReallocationsReleaseAndProduce)
{
    NEEDS_INTERPOSITION();
    void *block = allocate(100);
    mtrace_stat_record before = light_now();
    std::uint32_t chunk = chunk_of(block);
    block = kept(std::realloc(block, 5000));
    mtrace_stat_record after = light_now();
    EXPECT_EQ(1U, after.light_releases - before.light_releases);
    EXPECT_EQ(1U, after.light_products - before.light_products);
    EXPECT_EQ(before.light_blocks, after.light_blocks);
    EXPECT_EQ(chunk_of(block) - chunk, after.light_bytes - before.light_bytes);
    std::free(block);

    sink = nullptr; // unknown to the compiler
    before = light_now();
    block = kept(std::realloc(sink, 100));
    after = light_now();
    EXPECT_EQ(before.light_allocs, after.light_allocs);
    EXPECT_EQ(1U, after.light_products - before.light_products);
    EXPECT_EQ(before.light_releases, after.light_releases);
    std::free(block);
}

TEST(Light, AFailedReallocationCountsARelease)
{
    NEEDS_INTERPOSITION();
    void *volatile block = allocate(100); // the compiler assumes that it is freed
    std::uint32_t chunk = chunk_of(block);
    mtrace_stat_record before = light_now();
    volatile std::size_t huge = SIZE_MAX / 2;
    sink = std::realloc(block, huge);
    mtrace_stat_record after = light_now();
    EXPECT_EQ(nullptr, sink);
    EXPECT_EQ(1U, after.light_releases - before.light_releases);
    EXPECT_EQ(before.light_products, after.light_products);
    EXPECT_EQ(1U, after.light_failures - before.light_failures);
    EXPECT_EQ(chunk, before.light_bytes - after.light_bytes) << "although the block is still allocated";
    std::free(block);
}

TEST(Light, AlignedBlocksCanBeFreed)
{
    NEEDS_INTERPOSITION();
    void *block = std::aligned_alloc(256, 1024);
    sink = block;
    mtrace_stat_record before = light_now();
    block = kept(std::realloc(block, 4000));
    std::free(block);
    mtrace_stat_record after = light_now();
    EXPECT_EQ(1U, after.light_releases - before.light_releases);
    EXPECT_EQ(1U, after.light_frees - before.light_frees);
}

TEST(Light, TheShortReport)
{
    mtrace_stat_record rec;
    std::memset(&rec, 0x55, sizeof rec);
    EXPECT_EQ(MTRACE_TOTALS, qv_mtrace_stat(&rec, MTRACE_MODE_TOTALS));
    EXPECT_EQ(1U, rec.rows);
    EXPECT_EQ(0x55555555U, rec.full[0]) << "unchanged";
    EXPECT_EQ(0x55555555U, rec.row.classes[0].lower_bound);
    EXPECT_EQ(rec.light_allocs + rec.light_products - rec.light_frees - rec.light_releases, rec.light_blocks);
    std::memset(&rec, 0x55, sizeof rec);
    EXPECT_EQ(1, qv_mtrace_stat_min(&rec));
    EXPECT_EQ(1U, rec.rows);
}

TEST(Light, TotalsAreTheSumsOfTheRows)
{
    mtrace_stat_record rec = {};
    ASSERT_EQ(MTRACE_SIZE_CLASSES, qv_mtrace_stat(&rec, 0));
    std::uint32_t bytes = 0, blocks = 0, allocs = 0;
    for (const mtrace_class_row &row : rec.row.classes)
        bytes += row.bytes, blocks += row.blocks, allocs += row.allocs;
    EXPECT_EQ(bytes, rec.light_bytes);
    EXPECT_EQ(blocks, rec.light_blocks);
    EXPECT_EQ(allocs, rec.light_allocs);
}

TEST(Light, HooksByThemselvesCount)
{
    mtrace_stat_record before = light_now();
    void *block = my_malloc_light_hook(100, nullptr);
    ASSERT_NE(nullptr, block);
    EXPECT_EQ(1U, light_now().light_allocs - before.light_allocs);
    block = my_realloc_light_hook(block, 3000, nullptr);
    EXPECT_EQ(1U, light_now().light_releases - before.light_releases);
    EXPECT_EQ(1U, light_now().light_products - before.light_products);
    my_free_light_hook(block, nullptr);
    EXPECT_EQ(1U, light_now().light_frees - before.light_frees);
    EXPECT_EQ(before.light_bytes, light_now().light_bytes);
}

TEST(Light, HooksByThemselvesInstallThemselves)
{
    qv_mtrace_stop();
    EXPECT_EQ(nullptr, __malloc_hook);
    sink = my_malloc_light_hook(100, nullptr);
    EXPECT_EQ(my_malloc_light_hook, __malloc_hook);
    EXPECT_EQ(my_free_light_hook, __free_hook);
    EXPECT_EQ(my_realloc_light_hook, __realloc_hook);
    std::free(sink);
}

TEST(Light, LoadingAgainClears)
{
    my_init_hook();
    mtrace_stat_record rec = light_now();
    EXPECT_EQ(0U, rec.light_allocs);
    EXPECT_EQ(0U, rec.light_bytes);
    EXPECT_EQ(my_malloc_light_hook, old_malloc_hook) << "the hook that was installed before";
    sink = std::malloc(10); // must not recurse
    std::free(sink);
    if (!under_sanitizer()) {
        EXPECT_EQ(1U, light_now().light_allocs);
    }
}

TEST(Light, ThreadsCountExactly)
{
    NEEDS_INTERPOSITION();
    constexpr unsigned kThreads = 8;
    const auto kRounds = static_cast<std::uint32_t>(effort(200000));
    std::array<pthread_t, kThreads> threads;
    static std::uint32_t rounds;
    rounds = kRounds;
    auto work = [](void *) -> void * {
        for (std::uint32_t i = 0; i < rounds; i++) {
            void *volatile block = std::malloc(16 + i % 500);
            if (i % 4 == 0)
                block = std::realloc(block, 700);
            std::free(block);
        }
        return nullptr;
    };
    // A first round, so that whatever thread creation allocates is allocated already.
    for (pthread_t &thread : threads)
        pthread_create(&thread, nullptr, work, nullptr);
    for (pthread_t thread : threads)
        pthread_join(thread, nullptr);
    mtrace_stat_record before = light_now();
    for (pthread_t &thread : threads)
        pthread_create(&thread, nullptr, work, nullptr);
    for (pthread_t thread : threads)
        pthread_join(thread, nullptr);
    mtrace_stat_record after = light_now();
    std::uint32_t own = after.light_allocs - before.light_allocs - kThreads * kRounds; // the threads' own blocks
    EXPECT_LE(own, kThreads);
    EXPECT_EQ(kThreads * (kRounds / 4), after.light_products - before.light_products);
    EXPECT_EQ(kThreads * (kRounds / 4), after.light_releases - before.light_releases);
    EXPECT_EQ(kThreads * kRounds + own, after.light_frees - before.light_frees);
    EXPECT_EQ(before.light_bytes, after.light_bytes);
}

TEST(Light, MoreThreadsThanShardsCountExactly)
{
    NEEDS_INTERPOSITION();
    constexpr unsigned kThreads = 200;
    static pthread_barrier_t all_there;
    pthread_barrier_init(&all_there, nullptr, kThreads);
    auto work = [](void *) -> void * {
        void *volatile block = std::malloc(50);
        pthread_barrier_wait(&all_there);
        for (int i = 0; i < 100; i++) {
            std::free(block);
            block = std::malloc(50);
        }
        std::free(block);
        return nullptr;
    };
    std::vector<pthread_t> threads(kThreads);
    mtrace_stat_record before = light_now();
    for (pthread_t &thread : threads)
        ASSERT_EQ(0, pthread_create(&thread, nullptr, work, nullptr));
    for (pthread_t thread : threads)
        pthread_join(thread, nullptr);
    mtrace_stat_record after = light_now();
    std::uint32_t own = after.light_allocs - before.light_allocs - kThreads * 101;
    EXPECT_LE(own, kThreads) << "a cached stack keeps its block of thread-local storage";
    EXPECT_GE(after.light_frees - before.light_frees, kThreads * 101);
    EXPECT_EQ(own - (after.light_frees - before.light_frees - kThreads * 101),
              after.light_blocks - before.light_blocks);
}

TEST(Light, AChildContinuesCounting)
{
    NEEDS_INTERPOSITION();
    ChildResult result = run_child([] {
        mtrace_stat_record before = light_now();
        sink = std::malloc(100);
        ::_exit(light_now().light_allocs - before.light_allocs == 1 ? 7 : 1);
    });
    EXPECT_TRUE(result.exited(7));
}

// ---- full tracing ----

TEST(FullTracing, BlocksAreRecordedWithTheirRequestedSize)
{
    NEEDS_INTERPOSITION();
    qv_mtrace_start();
    Full before = full_now();
    void *a = allocate(100), *b = allocate(50);
    Full with = full_now();
    std::free(a);
    Full after = full_now();
    std::free(b);
    EXPECT_EQ(2U, with.live - before.live);
    EXPECT_EQ(150U, with.bytes - before.bytes);
    EXPECT_EQ(2U, with.allocs - before.allocs);
    EXPECT_EQ(1U, after.live - before.live);
    EXPECT_EQ(50U, after.bytes - before.bytes);
    EXPECT_EQ(1U, after.frees - before.frees);
    EXPECT_EQ(before.unmatched_frees, full_now().unmatched_frees);
}

TEST(FullTracing, AFreshTableIsEmpty)
{
    void *early = allocate(10);
    qv_mtrace_start();
    EXPECT_EQ(Full{}, full_now());
    my_free_hook(early, nullptr);
    Full now = full_now();
    EXPECT_EQ(1U, now.frees);
    EXPECT_EQ(1U, now.unmatched_frees) << "it was not seen allocated";
    qv_mtrace_reset();
}

TEST(FullTracing, Reallocations)
{
    NEEDS_INTERPOSITION(); // it fails a call
    qv_mtrace_start();
    void *early = my_realloc_hook(nullptr, 40, nullptr);
    Full now = full_now();
    EXPECT_EQ((Full{1, 40, 1, 0, 0, 1, 0}), now) << "an allocation by reallocation is both";
    early = my_realloc_hook(early, 4000, nullptr);
    now = full_now();
    EXPECT_EQ((Full{1, 4000, 1, 0, 0, 2, 0}), now);
    volatile std::size_t huge = SIZE_MAX / 2;
    EXPECT_EQ(nullptr, my_realloc_hook(early, huge, nullptr));
    now = full_now();
    EXPECT_EQ((Full{0, 4000, 1, 0, 0, 3, 0}), now) << "the record is removed, its bytes remain in the total";
    early = my_realloc_hook(early, 100, nullptr);
    EXPECT_EQ((Full{0, 4000, 1, 0, 0, 4, 1}), full_now()) << "the block is unknown from then on";
    EXPECT_EQ(nullptr, my_realloc_hook(nullptr, huge, nullptr));
    EXPECT_EQ((Full{0, 4000, 1, 0, 0, 5, 1}), full_now());
    my_free_hook(early, nullptr);
    EXPECT_EQ((Full{0, 4000, 1, 1, 1, 5, 1}), full_now());
    my_free_hook(nullptr, nullptr);
    EXPECT_EQ((Full{0, 4000, 1, 1, 1, 5, 1}), full_now());
    qv_mtrace_reset();
    EXPECT_EQ(Full{}, full_now());
}

TEST(FullTracing, LightCountersStopAtItsStart)
{
    NEEDS_INTERPOSITION();
    qv_mtrace_start();
    EXPECT_EQ(my_malloc_hook, __malloc_hook);
    mtrace_stat_record before = light_now();
    std::free(allocate(100));
    EXPECT_EQ(before.light_allocs, light_now().light_allocs);
    qv_mtrace_stop();
    EXPECT_EQ(nullptr, __malloc_hook);
    std::free(allocate(100));
    EXPECT_EQ(before.light_allocs, light_now().light_allocs) << "nor after its end";
}

TEST(FullTracing, TheTableOutlivesAStop)
{
    NEEDS_INTERPOSITION();
    mtrace_stat_record rec = {};
    qv_mtrace_start();
    void *block = allocate(100);
    qv_mtrace_stop();
    Full stopped = full_now();
    EXPECT_EQ(MTRACE_LEAK_GROUPS, qv_mtrace_stat(&rec, 0));
    EXPECT_EQ(stopped.live, rec.full[0]);
    std::free(allocate(70));
    EXPECT_EQ(stopped, full_now()) << "nothing more is recorded";
    qv_mtrace_start();
    EXPECT_EQ(stopped.live, full_now().live) << "the table is used further";
    std::free(block);
    EXPECT_EQ(stopped.live - 1, full_now().live);
    qv_mtrace_reset();
    EXPECT_EQ(MTRACE_SIZE_CLASSES, qv_mtrace_stat(&rec, 0));
    EXPECT_EQ(Full{}, full_now());
    EXPECT_EQ(nullptr, __malloc_hook);
}

TEST(FullTracing, HooksOfAStoppedTraceJustAllocate)
{
    qv_mtrace_start();
    qv_mtrace_stop();
    Full before = full_now();
    void *block = my_malloc_hook(100, nullptr);
    block = my_realloc_hook(block, 200, nullptr);
    my_free_hook(block, nullptr);
    EXPECT_EQ(before, full_now());
    EXPECT_EQ(nullptr, __malloc_hook) << "the hooks do not install themselves";
}

TEST(FullTracing, HooksByThemselvesInstallThemselves)
{
    EXPECT_EQ(my_malloc_light_hook, __malloc_hook);
    void *block = my_malloc_hook(100, nullptr);
    EXPECT_EQ(my_malloc_hook, __malloc_hook);
    EXPECT_EQ(my_free_hook, __free_hook);
    EXPECT_EQ(0U, full_now().allocs) << "there is no table";
    my_free_hook(block, nullptr);
    EXPECT_EQ(0U, full_now().frees);
    qv_mtrace_stop();
}

TEST(FullTracing, WithoutATableOrABlockNothingIsEntered)
{
    EXPECT_EQ(0, add_malloc_record(10, nullptr, &next_address));
    EXPECT_EQ((Full{0, 0, 1, 0, 0, 0, 0}), full_now());
    qv_mtrace_start();
    std::uint32_t live = full_now().live;
    EXPECT_EQ(0, add_malloc_record(10, nullptr, nullptr));
    EXPECT_EQ(live, full_now().live);
    qv_mtrace_reset();
}

TEST(FullTracing, TheTableHolds65536Blocks)
{
    qv_mtrace_start();
    qv_mtrace_stop(); // the test records the rest itself
    std::uint32_t live = full_now().live;
    for (std::uintptr_t i = live; i < MTRACE_TABLE_SIZE; i++)
        ASSERT_EQ(1, add_malloc_record(1, nullptr, reinterpret_cast<void *>(0x1000 + i * 16)));
    EXPECT_EQ(std::uint32_t{MTRACE_TABLE_SIZE}, full_now().live);
    EXPECT_EQ(0, add_malloc_record(1, nullptr, reinterpret_cast<void *>(0x10)));
    EXPECT_EQ(std::uint32_t{MTRACE_TABLE_SIZE}, full_now().live);
    EXPECT_EQ(65537U, full_now().allocs) << "counted nevertheless";
    qv_mtrace_reset();
}

TEST(FullTracing, BlocksBeyondTheTableAreUnmatchedLater)
{
    NEEDS_INTERPOSITION();
    if (under_emulation())
        GTEST_SKIP() << "70,000 unwindings take too long here";
    std::vector<void *> blocks(70000);
    qv_mtrace_start();
    for (void *&block : blocks)
        block = allocate(8);
    Full full = full_now();
    for (void *block : blocks)
        std::free(block);
    Full after = full_now();
    qv_mtrace_stop();
    EXPECT_EQ(std::uint32_t{MTRACE_TABLE_SIZE}, full.live);
    EXPECT_EQ(70000U, full.allocs);
    EXPECT_EQ(0U, after.live);
    EXPECT_EQ(70000U - std::uint32_t{MTRACE_TABLE_SIZE}, after.unmatched_frees);
}

TEST(FullTracing, ThreadsAreRecordedExactly)
{
    NEEDS_INTERPOSITION();
    constexpr unsigned kThreads = 8;
    constexpr unsigned kKept = 20;
    static unsigned rounds;
    rounds = static_cast<unsigned>(effort(5000));
    auto work = [](void *kept) -> void * {
        for (unsigned i = 0; i < rounds; i++) {
            void *volatile block = std::malloc(30);
            std::free(block);
        }
        for (unsigned i = 0; i < kKept; i++)
            static_cast<void **>(kept)[i] = std::malloc(100);
        return nullptr;
    };
    static void *kept[kThreads][kKept];
    std::array<pthread_t, kThreads> threads;
    for (unsigned round = 0; round < 2; round++) { // the first round makes the threads' own allocations
        if (round == 1)
            qv_mtrace_start();
        for (unsigned i = 0; i < kThreads; i++)
            pthread_create(&threads[i], nullptr, work, kept[i]);
        for (pthread_t thread : threads)
            pthread_join(thread, nullptr);
    }
    Full now = full_now();
    qv_mtrace_stop();
    std::uint32_t own = now.live - kThreads * kKept; // the threads' own blocks
    EXPECT_LE(own, kThreads);
    EXPECT_TRUE(now.bytes >= kThreads * kKept * 100);
    EXPECT_GE(now.allocs, kThreads * (rounds + kKept));
    EXPECT_LE(now.allocs, kThreads * (rounds + kKept + 1));
}

// ---- the table against its description: plain walks over 65,536 slots ----

namespace {

struct Model {
    struct slot {
        std::uintptr_t ptr = 0;
        std::uint32_t size = 0;
    };
    std::vector<slot> slots = std::vector<slot>(MTRACE_TABLE_SIZE);
    Full f = {};

    void add(std::uintptr_t ptr, std::uint32_t size)
    {
        f.allocs++;
        if (f.live == MTRACE_TABLE_SIZE)
            return;
        std::uint32_t i = f.live;
        while (slots[i % MTRACE_TABLE_SIZE].ptr != 0)
            i++;
        slots[i % MTRACE_TABLE_SIZE] = {ptr, size};
        f.live++;
        f.bytes += size;
    }
    slot *find(std::uintptr_t ptr)
    {
        for (std::uint32_t n = 0; n < MTRACE_TABLE_SIZE; n++)
            if (slots[(f.live - n) % MTRACE_TABLE_SIZE].ptr == ptr)
                return &slots[(f.live - n) % MTRACE_TABLE_SIZE];
        return nullptr;
    }
    void release(std::uintptr_t ptr)
    {
        f.frees++;
        slot *s = find(ptr);
        if (s == nullptr) {
            f.unmatched_frees++;
            return;
        }
        f.live--;
        f.bytes -= s->size;
        s->ptr = 0;
    }
    void reallocate(std::uintptr_t before, std::uintptr_t ptr, std::uint32_t size)
    {
        f.reallocs++;
        if (before == 0) {
            if (ptr != 0)
                add(ptr, size);
            return;
        }
        slot *s = find(before);
        if (s == nullptr) {
            f.unmatched_reallocs++;
        } else if (ptr != 0) {
            f.bytes += size - s->size;
            *s = {ptr, size};
        } else {
            s->ptr = 0;
            f.live--;
        }
    }
};

// The block that the test's allocator returns next.
void *next_block;

} // namespace

TEST(FullTracingModel, SlotsAndCountersFollowTheDescription)
{
    for (unsigned seed = 1; seed <= 3; seed++) {
        Random random(seed);
        qv_mtrace_reset();
        qv_mtrace_start();
        qv_mtrace_stop();
        old_malloc_hook = [](std::size_t, const void *) { return next_block; };
        old_free_hook = [](void *, const void *) {};
        old_realloc_hook = [](void *, std::size_t, const void *) { return next_block; };
        Model model;
        // Few addresses, so that many are in the table more than once, and sometimes a fill level near the table's end.
        const unsigned kAddresses = 300;
        std::uint32_t level = 0;
        for (std::size_t step = 0; step < effort(9000); step++) {
            if (step % 3000 == 0)
                level = random() % 3 == 0 ? 65530 : static_cast<std::uint32_t>(random() % 500);
            while (model.f.live < level && step % 3000 == 0) {
                std::uintptr_t ptr = 0x100000 + model.f.live * 16;
                model.add(ptr, 1);
                add_malloc_record(1, nullptr, reinterpret_cast<void *>(ptr));
            }
            std::uintptr_t ptr = 0x1000 + 16 * (random() % kAddresses);
            auto size = static_cast<std::uint32_t>(random() % 1000);
            next_block = random() % 10 == 0 ? nullptr : reinterpret_cast<void *>(0x1000 + 16 * (random() % kAddresses));
            auto next = reinterpret_cast<std::uintptr_t>(next_block);
            auto operation = static_cast<unsigned>(random() % 5);
            random.doing("operation, block, size, next block", operation, ptr, size, next);
            switch (operation) {
            case 0:
            case 1:
                if (next != 0)
                    model.add(next, size);
                ASSERT_EQ(next_block, my_malloc_hook(size, nullptr));
                break;
            case 2:
            case 3:
                model.release(ptr);
                my_free_hook(reinterpret_cast<void *>(ptr), nullptr);
                break;
            default: {
                std::uintptr_t before = random() % 8 == 0 ? 0 : ptr;
                model.reallocate(before, next, size);
                ASSERT_EQ(next_block, my_realloc_hook(reinterpret_cast<void *>(before), size, nullptr));
            }
            }
            // The hooks have installed themselves; the test's own allocations must not use them.
            __malloc_hook = nullptr;
            __free_hook = nullptr;
            __realloc_hook = nullptr;
            if (model.f.live < 1000 || step % 200 == 0) { // a report is slow
                ASSERT_EQ(model.f, full_now());
            }
        }
        old_malloc_hook = nullptr;
        old_free_hook = nullptr;
        old_realloc_hook = nullptr;
    }
    qv_mtrace_reset();
}

// ---- leak groups ----

namespace {

[[gnu::noinline]] void *leak_here(std::size_t size)
{
    void *block = my_malloc_hook(size, nullptr);
    asm volatile("" ::"r"(block) : "memory");
    return block;
}

[[gnu::noinline]] void *leak_there(std::size_t size)
{
    void *block = my_malloc_hook(size, nullptr);
    asm volatile("nop" ::"r"(block) : "memory");
    return block;
}

bool comes_from(const leak_group &group, void *(*function)(std::size_t))
{
    auto begin = reinterpret_cast<std::uint64_t>(function);
    return std::any_of(std::begin(group.trace), std::end(group.trace),
                       [&](std::uint64_t address) { return address > begin && address < begin + 64; });
}

// The table holds only blocks of two callers, 600 bytes in 4 and 500 in 5, and one of 0 bytes.
std::vector<void *> leak_some()
{
    std::vector<void *> blocks;
    blocks.reserve(32);
    qv_mtrace_reset();
    qv_mtrace_start();
    for (std::size_t i = 0; i < 4; i++)
        blocks.push_back(leak_here(150));
    for (std::size_t i = 0; i < 5; i++)
        blocks.push_back(leak_there(100));
    blocks.push_back(my_malloc_hook(0, nullptr));
    qv_mtrace_stop();
    return blocks;
}

void give_back(const std::vector<void *> &blocks)
{
    qv_mtrace_stop();
    for (void *block : blocks)
        std::free(block);
}

} // namespace

TEST(LeakGroups, AreByCallChainTheLargestFirst)
{
    std::vector<void *> blocks = leak_some();
    time_wait = 0;
    leak_group groups[MTRACE_ROWS] = {};
    write_file("/etc/consolelog", "");
    ASSERT_EQ(2, get_malloc_statistics(groups, MTRACE_ROWS)) << "a group of 0 bytes is left out";
    EXPECT_EQ(600U, groups[0].bytes);
    EXPECT_EQ(4U, groups[0].blocks);
    EXPECT_TRUE(comes_from(groups[0], leak_here));
    EXPECT_EQ(500U, groups[1].bytes);
    EXPECT_EQ(5U, groups[1].blocks);
    EXPECT_TRUE(comes_from(groups[1], leak_there));
    EXPECT_EQ("", read_file("/etc/consolelog")) << "all blocks were old enough";
    give_back(blocks);
}

TEST(LeakGroups, NoMoreGroupsThanRequested)
{
    std::vector<void *> blocks = leak_some();
    time_wait = 0;
    leak_group groups[2] = {};
    groups[1].bytes = 77;
    EXPECT_EQ(1, get_malloc_statistics(groups, 1));
    EXPECT_EQ(600U, groups[0].bytes);
    EXPECT_EQ(77U, groups[1].bytes);
    EXPECT_EQ(0, get_malloc_statistics(nullptr, 0));
    EXPECT_EQ(0, get_malloc_statistics(nullptr, -1));
    EXPECT_EQ(0, get_malloc_statistics(nullptr, INT_MIN));
    give_back(blocks);
}

TEST(LeakGroups, YoungBlocksAreLeftOutAndCounted)
{
    std::vector<void *> blocks = leak_some();
    EXPECT_EQ(1800U, time_wait);
    leak_group groups[MTRACE_ROWS];
    EXPECT_EQ(0, get_malloc_statistics(groups, MTRACE_ROWS));
    EXPECT_THAT(read_file("/etc/consolelog"),
                testing::EndsWith("Total record 10,  0 records malloc but not free within 1800(s)\n"));
    for (std::uint64_t end : {UINT64_MAX, UINT64_MAX - 1}) {
        time_wait = end;
        EXPECT_EQ(0, get_malloc_statistics(groups, MTRACE_ROWS));
        EXPECT_THAT(read_file("/etc/consolelog"), testing::EndsWith(" within " + std::to_string(end) + "(s)\n"));
    }
    time_wait = 0;
    give_back(blocks);
}

TEST(LeakGroups, WithoutLeaksThereAreNoGroups)
{
    leak_group groups[1];
    EXPECT_EQ(0, get_malloc_statistics(groups, 1)) << "no table";
    qv_mtrace_start();
    qv_mtrace_stop();
    EXPECT_EQ(0, get_malloc_statistics(groups, 1)) << "no block";
    EXPECT_FALSE(exists("/etc/consolelog"));
}

TEST(LeakGroups, OneReportHasAllGroups)
{
    std::vector<void *> blocks = leak_some();
    time_wait = 0;
    mtrace_stat_record rec;
    std::memset(&rec, 0x55, sizeof rec);
    EXPECT_EQ(MTRACE_LEAK_GROUPS, qv_mtrace_stat(&rec, 0));
    EXPECT_EQ(2U, rec.rows);
    EXPECT_EQ(10U, rec.full[0]);
    EXPECT_EQ(1100U, rec.full[1]);
    EXPECT_EQ(10U, rec.full[2]);
    EXPECT_EQ(0U, rec.full[3] + rec.full[4] + rec.full[5] + rec.full[6]);
    EXPECT_EQ(600U, rec.row.groups[0].bytes);
    EXPECT_EQ(0x55555555U, rec.reserved0);
    EXPECT_EQ(0x55555555U, rec.reserved1);
    EXPECT_EQ(0x55555555U, rec.light_bytes) << "the light totals are not read";
    give_back(blocks);
}

TEST(LeakGroups, ManyGroupsFillThirtyTwoRows)
{
    qv_mtrace_start();
    qv_mtrace_stop();
    // Chains that differ only in the depth of the recursion.
    struct recursion {
        [[gnu::noinline]] static int enter(int depth)
        {
            if (depth == 0)
                return add_malloc_record(1, nullptr, &next_address);
            int result = enter(depth - 1);
            asm volatile("" : "+r"(result));
            return result;
        }
    };
    time_wait = 0;
    leak_group groups[MTRACE_ROWS];
    for (int depth = 0; depth < 5; depth++)
        recursion::enter(depth);
    EXPECT_EQ(5, get_malloc_statistics(groups, MTRACE_ROWS));
    qv_mtrace_reset();
}

TEST(Comparators, ChainsUpToTheirEnd)
{
    const std::uint64_t a[] = {5, 6, 0, 1, 1, 1, 1, 1}, b[] = {5, 6, 0, 2, 2, 2, 2, 2}, c[] = {5, 7, 0, 0, 0, 0, 0, 0};
    const std::uint64_t d[] = {1, 1, 1, 1, 1, 1, 1, 1}, e[] = {1, 1, 1, 1, 1, 1, 1, 0x8000000000000000};
    auto compare = [](const std::uint64_t *x, const std::uint64_t *y) {
        malloc_stat_entry left = {1, 1, x}, right = {2, 2, y};
        return my_compare_trace(&left, &right);
    };
    EXPECT_EQ(0, compare(a, b)) << "nothing after a 0 is compared";
    EXPECT_LT(compare(a, c), 0);
    EXPECT_GT(compare(c, a), 0);
    EXPECT_LT(compare(d, e), 0) << "compared as unsigned numbers";
    EXPECT_GT(compare(e, d), 0);
    EXPECT_EQ(0, compare(e, e));
}

TEST(Comparators, TheMostBytesFirst)
{
    auto compare = [](std::uint32_t x, std::uint32_t y) {
        malloc_stat_entry left = {x, 1, nullptr}, right = {y, 1, nullptr};
        return my_compare_bytes(&left, &right);
    };
    EXPECT_LT(compare(2, 1), 0);
    EXPECT_GT(compare(1, 2), 0);
    EXPECT_EQ(0, compare(3, 3));
    EXPECT_LT(compare(0x80000000, 1), 0);
}

// ---- forks ----

TEST(FullTracing, AChildMadeWhileTheTableIsLockedCanTrace)
{
    NEEDS_INTERPOSITION();
    qv_mtrace_start();
    static volatile bool stop = false;
    std::vector<std::thread>
        busy; // more threads than processors, so that one is often preempted while it holds the lock
    for (int i = 0; i < 6; i++)
        busy.emplace_back([] {
            while (!stop) {
                void *volatile block = std::malloc(40);
                std::free(block);
            }
        });
    for (std::size_t i = 0; i < effort(200); i++) {
        pid_t child = ::fork();
        if (child == 0) {
            ::alarm(20);
            void *volatile block = std::malloc(33);
            std::uint32_t live = full_now().live;
            std::free(block);
            ::_exit(full_now().live == live - 1 ? 0 : 1);
        }
        int status = -1;
        ASSERT_EQ(child, ::waitpid(child, &status, 0));
        ASSERT_EQ(0, status);
    }
    stop = true;
    for (std::thread &thread : busy)
        thread.join();
    qv_mtrace_reset();
}
