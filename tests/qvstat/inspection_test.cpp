// SPDX-License-Identifier: Apache-2.0
// The reader of the inspection record: on this process, where the library's own reports say what is right, and on
// memory that is damaged.
#include "qvstat/processes.h"

#include "elf_image.h"
#include "inspection.h"
#include "libcommon_version.h"
#include "mcache.h"
#include "process.h"
#include "qv_mtrace.h"
#include "sighandler.h"
#include "threads.h"

#include <chrono>
#include <cstddef>
#include <cstdlib>
#include <cstring>
#include <elf.h>
#include <mutex>
#include <random>
#include <thread>
#include <unistd.h>
#include <vector>

using namespace qvstat;
using namespace support;

namespace {

#define SKIP_WITHOUT_COUNTS()                                                                                          \
    if (under_sanitizer())                                                                                             \
    GTEST_SKIP() << "the sanitizer's allocator serves the process, so that the library counts nothing"

void *use(void *block)
{
    asm volatile("" : "+r"(block)::"memory");
    return block;
}

class Inspection : public testing::Test {
protected:
    Inspection() : self_(getpid()) {}

    const inspection &record() const { return self_.record(); }

    target self_;
};

TEST_F(Inspection, FindsTheRecordOfALoadedLibrary)
{
    ASSERT_EQ(access_result::readable, self_.access()) << self_.refusal();
    EXPECT_EQ(LIBCOMMON_VERSION, record().library_version());
    EXPECT_THAT(self_.library(), testing::HasSubstr("libcommon.so"));
}

TEST_F(Inspection, HeapIsWhatTheLibraryReports)
{
    SKIP_WITHOUT_COUNTS();
    std::vector<void *> blocks(100);
    for (void *&block : blocks)
        block = use(std::malloc(5000));
    auto heap = record().read_heap();
    mtrace_stat_record expected = {};
    ASSERT_EQ(MTRACE_SIZE_CLASSES, qv_mtrace_stat(&expected, 0));
    ASSERT_TRUE(heap);
    ASSERT_EQ(std::size_t{MTRACE_ROWS}, heap->classes.size());
    constexpr std::size_t kClass = 12; // 4096 to 8191 bytes
    const mtrace_class_row &row = expected.row.classes[kClass];
    EXPECT_EQ(row.lower_bound, heap->classes[kClass].lower_bound);
    EXPECT_EQ(row.blocks, heap->classes[kClass].blocks);
    EXPECT_EQ(row.bytes, heap->classes[kClass].bytes);
    EXPECT_EQ(row.allocs, heap->classes[kClass].calls.allocs);
    EXPECT_LE(100U, heap->classes[kClass].blocks);
    for (void *block : blocks)
        std::free(block);
}

TEST_F(Inspection, HeapAboveFourGibibytesIsExact)
{
    SKIP_WITHOUT_COUNTS();
    // Not touched, so that they take no memory. Sizes of blocks are counted in 32 bits; those of four together are
    // more.
    constexpr std::size_t kSize = std::size_t{3} << 29;
    std::vector<void *> blocks;
    for (int i = 0; i < 4; i++)
        blocks.push_back(use(std::malloc(kSize)));
    bool has_all = std::count(blocks.begin(), blocks.end(), nullptr) == 0;
    auto heap = record().read_heap();
    for (void *block : blocks)
        std::free(block);
    if (!has_all)
        GTEST_SKIP() << "this machine does not allow so much memory";
    ASSERT_TRUE(heap);
    EXPECT_LE(4 * kSize, heap->bytes);
    EXPECT_GT(4 * kSize + (64 << 20), heap->bytes);
}

TEST_F(Inspection, CachesAreListedWithWhatTheyHold)
{
    mcache *cache = mcache_create("inspected", 100, nullptr, 0, 2);
    std::vector<void *> objects(10);
    for (void *&object : objects)
        object = mcache_alloc(cache);
    auto caches = record().read_caches();
    ASSERT_TRUE(caches);
    ASSERT_FALSE(caches->empty());
    const object_cache &found = caches->front();
    EXPECT_EQ("inspected", found.name);
    EXPECT_EQ(104U, found.object_size);
    EXPECT_EQ(10U, found.in_use);
    EXPECT_EQ(16384U, found.page_size);
    EXPECT_EQ(cache->page_count, found.pages);
    EXPECT_EQ(std::uint64_t{cache->page_count} * cache->objs_per_slab, found.capacity);
    EXPECT_EQ(found.pages * 16384 - 1040, found.waste());
    for (void *object : objects)
        mcache_free(cache, object);
}

TEST_F(Inspection, SaysWhichHooksAreInstalled)
{
    SKIP_WITHOUT_COUNTS();
    auto trace = [this] { return record().read_hooks().value_or(hook_state()).trace; };
    EXPECT_EQ(trace_state::light, trace());
    EXPECT_TRUE(record().read_hooks()->counts);
    qv_mtrace_start();
    EXPECT_EQ(trace_state::full, trace());
    EXPECT_TRUE(record().read_hooks()->is_fully_traced);
    qv_mtrace_stop();
    EXPECT_EQ(trace_state::none, trace());
    EXPECT_FALSE(record().read_hooks()->is_fully_traced);
}

TEST_F(Inspection, SaysWhoArmedTheSignals)
{
    EXPECT_EQ(QV_ARMED_BY_NOBODY, record().read_hooks()->armed_by);
    install_sighandler2(SIGVTALRM);
    EXPECT_EQ(QV_ARMED_FOR_CRASHES, record().read_hooks()->armed_by);
    EXPECT_EQ(SIGVTALRM, record().read_hooks()->attach_signal);
    pstrace_terminate_signal();
    EXPECT_EQ(QV_ARMED_FOR_TERMINATION, record().read_hooks()->armed_by);
}

TEST_F(Inspection, LiveBlocksAreGroupedByCallChain)
{
    SKIP_WITHOUT_COUNTS();
    EXPECT_FALSE(record().read_tracing()->has_table);
    qv_mtrace_start();
    void *blocks[7];
    for (void *&block : blocks)
        block = use(std::malloc(100000));
    qv_mtrace_stop();
    auto now = static_cast<std::uint64_t>(std::time(nullptr));
    auto leaks = record().read_leaks(now);
    auto none_so_old = record().read_leaks(now - 3600);
    EXPECT_TRUE(record().read_tracing()->has_table);
    EXPECT_EQ(time_wait, record().read_tracing()->wait_seconds);
    ASSERT_TRUE(leaks);
    ASSERT_FALSE(leaks->empty());
    EXPECT_EQ(700000U, leaks->front().bytes);
    EXPECT_EQ(7U, leaks->front().blocks);
    EXPECT_FALSE(leaks->front().chain.empty());
    ASSERT_TRUE(none_so_old);
    EXPECT_TRUE(none_so_old->empty());
    for (void *block : blocks)
        std::free(block);
}

TEST_F(Inspection, ReadsWhileThreadsAllocate)
{
    SKIP_WITHOUT_COUNTS();
    std::atomic<bool> ends = false;
    std::vector<std::thread> threads;
    for (int i = 0; i < 2; i++)
        threads.emplace_back([&ends] {
            while (!ends)
                std::free(use(std::malloc(100000)));
        });
    for (int i = 0; i < 50; i++) {
        auto heap = record().read_heap();
        ASSERT_TRUE(heap);
        // Never the wrapped difference of a free without its allocation.
        EXPECT_GT(1U << 30, heap->bytes);
    }
    ends = true;
    for (std::thread &thread : threads)
        thread.join();
}

TEST_F(Inspection, AWaitingThreadNamesTheOwnerOfItsLock)
{
    std::mutex lock;
    std::unique_lock<std::mutex> held(lock);
    std::thread waiter([&lock] {
        pthread_setname_np(pthread_self(), "the waiter");
        std::scoped_lock<std::mutex> wait(lock);
    });
    std::optional<thread_view> found;
    for (int i = 0; i < 1000 && !found; i++) {
        for (const thread_view &thread : read_threads(getpid(), self_.memory())) {
            if (thread.name == "the waiter" && thread.waits && thread.waits->owner != 0)
                found = thread;
        }
        std::this_thread::sleep_for(std::chrono::milliseconds(5));
    }
    held.unlock();
    waiter.join();
    ASSERT_TRUE(found);
    EXPECT_EQ('S', found->state);
    EXPECT_EQ(getpid(), found->waits->owner);
    EXPECT_EQ(reinterpret_cast<std::uint64_t>(&lock), found->waits->address);
    EXPECT_TRUE(found->sp && found->pc);
    EXPECT_EQ("futex", system_call_name(found->system_call.value_or(-1)));
}

thread_view waiting(pid_t id, pid_t owner)
{
    thread_view thread;
    thread.id = id;
    thread.waits = {0x1000, 2, owner};
    return thread;
}

TEST(Deadlocks, EachCircleIsFoundOnce)
{
    std::vector<thread_view> threads = {waiting(1, 4), waiting(2, 3), waiting(3, 5),
                                        waiting(4, 0), waiting(5, 2), waiting(6, 6)};
    EXPECT_THAT(find_deadlocks(threads), testing::ElementsAre(testing::ElementsAre(2, 3, 5), testing::ElementsAre(6)));
}

TEST(Processes, AProcessWithoutTheLibraryIsSaidToBe)
{
    std::optional<Stranger> stranger(std::in_place);
    pid_t process = stranger->pid();
    EXPECT_EQ(access_result::no_library, target(process).access());
    stranger.reset();
    EXPECT_EQ(access_result::vanished, target(process).access());
}

// ---- the note ----

std::uint64_t library_base()
{
    auto mappings = read_mappings(getpid()).value_or(std::vector<mapping>());
    for (const mapping &each : mappings) {
        if (each.offset == 0 && each.path.find("/libcommon.so") != std::string::npos)
            return each.start;
    }
    return 0;
}

TEST(Note, LeadsToTheRecord)
{
    process_memory memory(getpid());
    auto record = find_noted(memory, library_base(), "libcommon", QV_INSPECT_NOTE);
    ASSERT_TRUE(record);
    EXPECT_EQ(find_variable(memory, library_base(), "qv_inspect"), record);
}

// The library gives hosts a note too, and the linker may place it first.
TEST(Note, OfAHostIsAnotherOne)
{
    struct note {
        Elf64_Nhdr head;
        char owner[12];
        std::int64_t distance;
    };
    struct {
        Elf64_Ehdr header;
        Elf64_Phdr segments[2];
        note notes[2];
    } image = {};
    std::memcpy(image.header.e_ident, ELFMAG, SELFMAG);
    image.header.e_ident[EI_CLASS] = ELFCLASS64;
    image.header.e_phoff = offsetof(decltype(image), segments);
    image.header.e_phentsize = sizeof(Elf64_Phdr);
    image.header.e_phnum = 2;
    image.segments[0].p_type = PT_LOAD;
    image.segments[1].p_type = PT_NOTE;
    image.segments[1].p_vaddr = offsetof(decltype(image), notes);
    image.segments[1].p_memsz = sizeof image.notes;
    for (Elf64_Word type : {Elf64_Word{1}, Elf64_Word{QV_INSPECT_NOTE}})
        image.notes[type - 1] = {{10, 8, type}, "libcommon", type};
    auto base = reinterpret_cast<std::uint64_t>(&image);
    auto content = reinterpret_cast<std::uint64_t>(&image.notes[1].distance);
    EXPECT_EQ(content + QV_INSPECT_NOTE, find_noted(process_memory(getpid()), base, "libcommon", QV_INSPECT_NOTE));
}

// ---- hostile memory ----

// The memory of this process, with wrong bytes in places.
class damaged_memory final : public memory_source {
public:
    explicit damaged_memory(unsigned seed) : random_(seed), one_in_(1U << (3 + seed % 12)) {}

    bool read(std::uint64_t address, void *to, std::size_t size) const override
    {
        if (!honest_.read(address, to, size))
            return false;
        auto *bytes = static_cast<unsigned char *>(to);
        for (std::size_t i = random_() % one_in_; i < size; i += 1 + random_() % one_in_)
            bytes[i] = kBytes[random_() % std::size(kBytes)];
        return true;
    }

private:
    static constexpr unsigned char kBytes[] = {0, 1, 2, 7, 0x7f, 0x80, 0xff, 0x55};
    process_memory honest_{getpid()};
    mutable std::minstd_rand random_;
    unsigned one_in_;
};

void read_everything(const inspection &record)
{
    if (record.state() != record_state::valid)
        return;
    record.read_heap();
    record.read_hooks();
    record.read_tracing();
    record.read_leaks(UINT64_MAX);
    for (const object_cache &cache : record.read_caches().value_or(std::vector<object_cache>()))
        EXPECT_LE(cache.waste(), cache.held());
}

TEST(DamagedMemory, OfTheStatisticsIsReadWithinBounds)
{
    for (int i = 0; i < 3; i++)
        mcache_create("one of several", 64, nullptr, 0, 1);
    for (unsigned seed = 0; seed < effort(60); seed++) {
        damaged_memory memory(seed);
        read_everything(inspection(memory, reinterpret_cast<std::uint64_t>(&qv_inspect)));
    }
}

TEST(DamagedMemory, OfTheLoadedObjectIsReadWithinBounds)
{
    std::uint64_t base = library_base();
    ASSERT_NE(0U, base);
    process_memory honest(getpid());
    EXPECT_EQ(record_state::valid, inspection(honest, find_variable(honest, base, "qv_inspect").value_or(0)).state());
    EXPECT_FALSE(find_variable(honest, base, "mcache_create")) << "a function is no variable";
    EXPECT_FALSE(find_variable(honest, base, "no such name"));
    for (unsigned seed = 0; seed < effort(2000); seed++)
        find_variable(damaged_memory(seed), base, "qv_inspect");
}

// A record with one wrong word, behind which everything is as it should be.
class memory_with_record final : public memory_source {
public:
    explicit memory_with_record(const qv_inspect_record &record) : record_(record) {}

    bool read(std::uint64_t address, void *to, std::size_t size) const override
    {
        if (address != kAddress)
            return honest_.read(address, to, size);
        if (size > sizeof record_)
            return false;
        std::memcpy(to, &record_, size);
        return true;
    }

    static constexpr std::uint64_t kAddress = 0x1000;

private:
    process_memory honest_{getpid()};
    qv_inspect_record record_;
};

TEST(DamagedRecord, EachWordMayHoldAnything)
{
    constexpr std::uint32_t kValues[] = {3, 0xffffffff};
    const std::size_t step = under_sanitizer() || under_emulation() ? 7 : 1;
    for (std::size_t word = 0; word < sizeof(qv_inspect_record) / sizeof(std::uint32_t); word += step) {
        for (std::uint32_t value : kValues) {
            qv_inspect_record record = qv_inspect;
            std::memcpy(reinterpret_cast<char *>(&record) + word * sizeof value, &value, sizeof value);
            memory_with_record memory(record);
            read_everything(inspection(memory, memory_with_record::kAddress));
        }
    }
}

TEST(DamagedRecord, AnotherVersionIsNotRead)
{
    qv_inspect_record record = qv_inspect;
    record.version++;
    memory_with_record newer(record);
    EXPECT_EQ(record_state::other_version, inspection(newer, memory_with_record::kAddress).state());
    record = qv_inspect;
    record.magic++;
    memory_with_record other(record);
    EXPECT_EQ(record_state::other_version, inspection(other, memory_with_record::kAddress).state());
    EXPECT_EQ(record_state::unreadable, inspection(other, 16).state());
}

// A list of caches that leads back to itself, and one that leads nowhere.
TEST(DamagedRecord, ACircleOfCachesEnds)
{
    mcache *last = mcache_create("last", 8, nullptr, 0, 1);
    mcache *first = mcache_create("first", 8, nullptr, 0, 1);
    process_memory memory(getpid());
    inspection record(memory, reinterpret_cast<std::uint64_t>(&qv_inspect));
    mcache *rest = last->next_cache;
    last->next_cache = first;
    auto circle = record.read_caches();
    last->next_cache = reinterpret_cast<mcache *>(16);
    auto wild = record.read_caches();
    last->next_cache = rest;
    ASSERT_TRUE(circle && wild);
    EXPECT_LE(2U, circle->size());
    EXPECT_EQ(2U, wild->size());
}

} // namespace
