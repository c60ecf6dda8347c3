// SPDX-License-Identifier: Apache-2.0
#include "mcache.h"

#include "fault/crash_support.h"
#include "qv_mtrace.h"
#include "support/random.h"
#include "support/scarce_memory.h"
#include "support/support.h"

#include <algorithm>
#include <csignal>
#include <cstring>
#include <deque>
#include <list>
#include <pthread.h>
#include <set>
#include <sys/mman.h>
#include <sys/wait.h>
#include <thread>
#include <unistd.h>

using namespace support;

namespace {

// ---- the memory format, as others read it ----

constexpr std::uint64_t kMagic = 0xa68f25e04b37d14c;

struct page_record {
    std::uint64_t magic;
    std::uint32_t free_count;
    std::uint32_t owner;
    page_record *prev, *next;
    char *free_head;
};

page_record *as_page(mcache_page *page)
{
    return reinterpret_cast<page_record *>(page);
}

std::uint32_t offset_of(void *object)
{
    std::uint32_t offset;
    std::memcpy(&offset, static_cast<char *>(object) - 8, sizeof offset);
    return offset;
}

std::uint32_t &flags_of(void *object)
{
    return *reinterpret_cast<std::uint32_t *>(static_cast<char *>(object) - 4);
}

page_record *page_of(void *object)
{
    return reinterpret_cast<page_record *>(static_cast<char *>(object) - offset_of(object));
}

std::uint64_t guard_of(const mcache *cache, void *object)
{
    std::uint64_t guard;
    std::memcpy(&guard, static_cast<char *>(object) + cache->obj_size, sizeof guard);
    return guard;
}

std::vector<page_record *> pages(mcache_page *first)
{
    std::vector<page_record *> result;
    for (page_record *page = as_page(first), *before = nullptr; page != nullptr; before = page, page = page->next) {
        EXPECT_EQ(before, page->prev);
        result.push_back(page);
    }
    return result;
}

} // namespace

// ---- creation ----

TEST(McacheCreate, SetsItsFields)
{
    mcache *cache = mcache_create("a name that is very much longer than the sixty-three characters it gets", 20,
                                  reinterpret_cast<void *>(1), 0x81, 3);
    ASSERT_NE(nullptr, cache);
    EXPECT_STREQ("a name that is very much longer than the sixty-three characters", cache->name);
    EXPECT_EQ(24U, cache->obj_size);
    EXPECT_EQ(32U, cache->slot_size);
    EXPECT_EQ(3U, cache->page_units);
    EXPECT_EQ((3U * 8192 - 40) / 40, cache->objs_per_page);
    EXPECT_EQ(cache->objs_per_page, cache->objs_per_slab);
    EXPECT_EQ(0xC1U, cache->flags);
    EXPECT_EQ(0U, cache->in_use);
    EXPECT_EQ(0U, cache->page_count);
    EXPECT_EQ(nullptr, cache->full_pages);
    EXPECT_EQ(nullptr, cache->partial_head);
    EXPECT_EQ(nullptr, cache->partial_tail);
    EXPECT_EQ(nullptr, cache->spare_page);
}

TEST(McacheCreate, SizesOnBothSidesOfTheLimits)
{
    mcache *one = mcache_create("one", 1, nullptr, 0, 1);
    ASSERT_NE(nullptr, one);
    EXPECT_EQ(8U, one->obj_size);
    EXPECT_EQ(339U, one->objs_per_page);
    struct {
        unsigned size;
        int units;
        bool good;
    } cases[] = {{8136, 0, true},       {8137, 0, false},    {8136, 1, true},           {8137, 1, false},
                 {16328, 2, true},      {16329, 2, false},   {131016, 16, true},        {131017, 16, false},
                 {131016, 17, true},    {131017, 17, false}, {131016, INT32_MAX, true}, {8, -1, false},
                 {8, INT32_MIN, false}, {0, 1, true}};
    for (const auto &c : cases)
        EXPECT_EQ(c.good, mcache_create("x", c.size, nullptr, 0, c.units) != nullptr) << c.size << " in " << c.units;
    EXPECT_EQ(16U, mcache_create("x", 8, nullptr, 0, 17)->page_units);
    EXPECT_EQ(1U, mcache_create("x", 8, nullptr, 0, 0)->page_units);
}

TEST(McacheCreate, SizesNearTheEndOf32BitsAreRefused)
{
    for (unsigned size = 0xFFFFFFF0; size != 0; size++)
        EXPECT_EQ(nullptr, mcache_create("x", size, nullptr, 0, 16)) << size;
}

TEST(McacheCreate, TheSlotSizeDecidesTheSpareFlag)
{
    EXPECT_EQ(0x40U, mcache_create("x", 8128, nullptr, 0, 1)->flags) << "a slot of 8136";
    EXPECT_EQ(0x03U, mcache_create("x", 8136, nullptr, 0x43, 1)->flags) << "a slot of 8144";
    EXPECT_EQ(0U, mcache_create("x", 8136, nullptr, 0x40, 2)->flags);
}

TEST(McacheCreate, TheListHoldsAllCachesNewestFirst)
{
    mcache *before = zlist;
    mcache *a = mcache_create("a", 8, nullptr, 0, 1);
    mcache *b = mcache_create("b", 8, nullptr, 0, 1);
    EXPECT_EQ(b, zlist);
    EXPECT_EQ(a, b->next_cache);
    EXPECT_EQ(before, a->next_cache);
    EXPECT_EQ(nullptr, mcache_create("x", 8, nullptr, 0, -1));
    EXPECT_EQ(b, zlist) << "a refused cache is in no list";
}

TEST(McacheCreate, CachesMadeByManyThreadsAreAllListed)
{
    std::vector<std::thread> threads;
    for (int i = 0; i < 8; i++)
        threads.emplace_back([] {
            for (int k = 0; k < 100; k++)
                mcache_create("many", 8, nullptr, 0, 1);
        });
    for (std::thread &thread : threads)
        thread.join();
    int count = 0;
    for (mcache *cache = zlist; cache != nullptr; cache = cache->next_cache)
        count++;
    EXPECT_EQ(800, count);
}

TEST(McacheCreate, FailsWithoutMemory)
{
    allocations_left = 0;
    mcache *cache = mcache_create("x", 8, nullptr, 0, 1);
    allocations_left = -1;
    EXPECT_EQ(nullptr, cache);
}

// ---- pages ----

TEST(McachePages, AFreshPageAllocatesItsSlotsInOrder)
{
    mcache *cache = mcache_create("layout", 20, nullptr, 0, 2);
    auto *first = static_cast<char *>(mcache_alloc(cache));
    page_record *page = page_of(first);
    EXPECT_EQ(kMagic, page->magic);
    EXPECT_EQ(cache->objs_per_page - 1, page->free_count);
    EXPECT_EQ(48U, offset_of(first));
    EXPECT_EQ(1U, flags_of(first));
    EXPECT_EQ(MCACHE_GUARD, guard_of(cache, first));
    char *object = page->free_head;
    for (std::uint32_t i = 1; i < cache->objs_per_page; i++) {
        ASSERT_EQ(first + i * 40, object);
        ASSERT_EQ(48 + i * 40, offset_of(object));
        ASSERT_EQ(0U, flags_of(object));
        ASSERT_EQ(MCACHE_GUARD, guard_of(cache, object));
        object = *reinterpret_cast<char **>(object);
    }
    EXPECT_EQ(nullptr, object);
}

TEST(McachePages, OnlyBit0OfASlotsFlagsIsChanged)
{
    mcache *cache = mcache_create("flags", 16, nullptr, 0, 1);
    void *keeper = mcache_alloc(cache), *object = mcache_alloc(cache);
    EXPECT_EQ(1U, flags_of(object));
    flags_of(object) |= 0x80000006;
    mcache_free(cache, object);
    EXPECT_EQ(0x80000006U, flags_of(object)) << "only the allocated bit is cleared";
    EXPECT_EQ(object, mcache_alloc(cache));
    EXPECT_EQ(0x80000007U, flags_of(object)) << "and set again";
    mcache_free(cache, object);
    mcache_free(cache, keeper);
    EXPECT_EQ(0U, cache->in_use);
}

TEST(McachePages, PagesNameTheirCache)
{
    mcache *a = mcache_create("a", 16, nullptr, 0, 1), *b = mcache_create("b", 16, nullptr, 0, 1);
    EXPECT_NE(a->id, b->id);
    EXPECT_NE(0U, a->id);
    void *of_a = mcache_alloc(a), *of_b = mcache_alloc(b);
    EXPECT_EQ(a->id, page_of(of_a)->owner);
    EXPECT_EQ(b->id, page_of(of_b)->owner);
    EXPECT_EQ(a->id, as_page(a->spare_page)->owner);
    mcache_free(a, of_a);
    mcache_free(b, of_b);
}

TEST(McachePages, MoveBetweenTheLists)
{
    mcache *cache = mcache_create("move", 2000, nullptr, 0, 1); // four objects a page
    ASSERT_EQ(4U, cache->objs_per_page);
    std::vector<void *> objects;
    for (int i = 0; i < 12; i++)
        objects.push_back(mcache_alloc(cache));
    page_record *a = page_of(objects[0]), *b = page_of(objects[4]), *c = page_of(objects[8]);
    EXPECT_EQ((std::vector<page_record *>{c, b, a}), pages(cache->full_pages)) << "the last one filled comes first";
    EXPECT_EQ(nullptr, cache->partial_head);
    EXPECT_EQ(nullptr, cache->partial_tail);
    EXPECT_EQ(4U, cache->page_count) << "the spare included";
    EXPECT_EQ(12U, cache->in_use);

    mcache_free(cache, objects[5]); // from the middle of the full pages
    EXPECT_EQ((std::vector<page_record *>{c, a}), pages(cache->full_pages));
    mcache_free(cache, objects[0]); // from the end of the list
    mcache_free(cache, objects[9]); // from its start
    EXPECT_EQ(nullptr, cache->full_pages);
    EXPECT_EQ((std::vector<page_record *>{b, a, c}), pages(cache->partial_head)) << "in the order of their first frees";
    EXPECT_EQ(c, as_page(cache->partial_tail));

    EXPECT_EQ(objects[5], mcache_alloc(cache)) << "objects are allocated from the first page";
    EXPECT_EQ((std::vector<page_record *>{a, c}), pages(cache->partial_head));
    EXPECT_EQ(b, as_page(cache->full_pages));

    for (int i : {1, 2, 3})
        mcache_free(cache, objects[static_cast<std::size_t>(i)]);
    EXPECT_EQ(std::vector<page_record *>{c}, pages(cache->partial_head)) << "an empty page is freed at once";
    EXPECT_EQ(3U, cache->page_count);
    for (int i : {8, 10, 11})
        mcache_free(cache, objects[static_cast<std::size_t>(i)]);
    EXPECT_EQ(nullptr, cache->partial_head);
    EXPECT_EQ(nullptr, cache->partial_tail);
    for (int i : {4, 5, 6, 7})
        mcache_free(cache, objects[static_cast<std::size_t>(i)]);
    EXPECT_EQ(1U, cache->page_count) << "the spare remains";
    EXPECT_EQ(0U, cache->in_use);
}

TEST(McachePages, FreedObjectsAreReusedFirst)
{
    mcache *cache = mcache_create("lifo", 64, nullptr, 0, 1);
    void *a = mcache_alloc(cache), *b = mcache_alloc(cache), *c = mcache_alloc(cache);
    mcache_free(cache, a);
    mcache_free(cache, c);
    EXPECT_EQ(c, mcache_alloc(cache));
    EXPECT_EQ(a, mcache_alloc(cache));
    mcache_free(cache, nullptr);
    EXPECT_EQ(3U, cache->in_use);
    mcache_free(cache, b);
}

TEST(McachePages, OneObjectAPage)
{
    mcache *cache = mcache_create("large", 8136, nullptr, 0, 0);
    void *a = mcache_alloc(cache), *b = mcache_alloc(cache);
    EXPECT_EQ(2U, cache->page_count) << "without a spare";
    EXPECT_EQ(nullptr, cache->spare_page);
    EXPECT_EQ((std::vector<page_record *>{page_of(b), page_of(a)}), pages(cache->full_pages));
    page_record *left = page_of(b);
    mcache_free(cache, a); // not the head of the full pages
    EXPECT_EQ(std::vector<page_record *>{left}, pages(cache->full_pages));
    EXPECT_EQ(nullptr, cache->partial_head);
    mcache_free(cache, b);
    EXPECT_EQ(nullptr, cache->full_pages);
    EXPECT_EQ(0U, cache->page_count);
}

TEST(McachePages, TheSpareIsUsedWhenMemoryRunsOut)
{
    mcache *cache = mcache_create("spare", 4000, nullptr, 0, 1); // two objects a page
    mcache_alloc(cache);
    mcache_alloc(cache);
    page_record *spare = as_page(cache->spare_page);
    ASSERT_NE(nullptr, spare);
    allocations_left = 0;
    void *c = mcache_alloc(cache), *d = mcache_alloc(cache), *none = mcache_alloc(cache);
    allocations_left = -1;
    EXPECT_EQ(spare, page_of(c));
    EXPECT_EQ(spare, page_of(d));
    EXPECT_EQ(nullptr, none);
    EXPECT_EQ(nullptr, cache->spare_page);
    EXPECT_EQ(2U, cache->page_count);
    EXPECT_EQ(4U, cache->in_use);
    EXPECT_NE(nullptr, mcache_alloc(cache)) << "the lock is released";
    EXPECT_NE(nullptr, cache->spare_page) << "and there is a spare again";
    EXPECT_EQ(4U, cache->page_count);
}

TEST(McachePages, WorksWhenThereIsNoMemoryForASpare)
{
    mcache *cache = mcache_create("one", 64, nullptr, 0, 1);
    allocations_left = 1;
    void *object = mcache_alloc(cache);
    allocations_left = -1;
    EXPECT_NE(nullptr, object);
    EXPECT_EQ(nullptr, cache->spare_page);
    EXPECT_EQ(1U, cache->page_count);
}

namespace {

std::uint64_t first_word_freed = 1;

void look_and_free(void *block, const void *)
{
    std::memcpy(&first_word_freed, block, sizeof first_word_freed);
    __free_hook = nullptr;
    std::free(block);
}

} // namespace

TEST(McachePages, TheMagicIsClearedBeforeThePageIsFreed)
{
    if (under_sanitizer())
        GTEST_SKIP() << "interposition is off in this build: the sanitizer interposes the allocator";
    mcache *cache = mcache_create("magic", 64, nullptr, 0, 1);
    void *object = mcache_alloc(cache);
    __free_hook = look_and_free;
    mcache_free(cache, object);
    EXPECT_EQ(0U, first_word_freed);
}

TEST(McachePages, ObjectsOf0BytesStayWithinTheirSlots)
{
    mcache *cache = mcache_create("empty", 0, nullptr, 0, 1);
    EXPECT_EQ((8192U - 40) / 16, cache->objs_per_page);
    std::vector<char *> objects(cache->objs_per_page);
    for (char *&object : objects)
        object = static_cast<char *>(mcache_alloc(cache));
    for (std::size_t i = 1; i < objects.size(); i++)
        ASSERT_EQ(16, objects[i] - objects[i - 1]);
    for (char *object : objects)
        mcache_free(cache, object);
    EXPECT_EQ(0U, cache->in_use);
}

TEST(Mcache, TheLockIsSharedBetweenProcesses)
{
    void *shared = ::mmap(nullptr, 4096, PROT_READ | PROT_WRITE, MAP_SHARED | MAP_ANONYMOUS, -1, 0);
    auto *cache = static_cast<mcache *>(shared);
    *cache = *mcache_create("shared", 64, nullptr, 0, 1);
    pthread_spin_lock(&cache->lock);
    pid_t child = ::fork();
    if (child == 0) {
        pthread_spin_lock(&cache->lock); // until the parent releases it
        cache->in_use = 77;
        pthread_spin_unlock(&cache->lock);
        ::_exit(0);
    }
    ::usleep(20000);
    EXPECT_EQ(0U, cache->in_use);
    pthread_spin_unlock(&cache->lock);
    ::waitpid(child, nullptr, 0);
    EXPECT_EQ(77U, cache->in_use);
}

TEST(Mcache, ThreadsShareACache)
{
    mcache *cache = mcache_create("threads", 40, nullptr, 0, 1);
    const std::size_t rounds = effort(50000);
    std::vector<std::thread> threads;
    for (unsigned seed = 1; seed <= 4; seed++)
        threads.emplace_back([=] {
            std::mt19937 random(seed);
            std::vector<unsigned char *> own(100);
            for (std::size_t i = 0; i < rounds; i++) {
                unsigned char *&object = own[random() % own.size()];
                if (object != nullptr) {
                    EXPECT_EQ(seed, object[0]);
                    EXPECT_EQ(seed, object[39]);
                    mcache_free(cache, object);
                    object = nullptr;
                } else {
                    object = static_cast<unsigned char *>(mcache_alloc(cache));
                    std::memset(object, static_cast<int>(seed), 40);
                }
            }
            for (unsigned char *object : own)
                mcache_free(cache, object);
        });
    for (std::thread &thread : threads)
        thread.join();
    EXPECT_EQ(0U, cache->in_use);
    EXPECT_LE(cache->page_count, 1U);
}

// ---- misuse crashes in the function that finds it, with the caller in the log ----

namespace {

[[gnu::noinline]] void misuse_null_alloc(mcache *)
{
    mcache_alloc(nullptr);
    asm volatile("" ::: "memory");
}

[[gnu::noinline]] void misuse_null_free(mcache *cache)
{
    mcache_free(nullptr, mcache_alloc(cache));
    asm volatile("" ::: "memory");
}

[[gnu::noinline]] void misuse_lost_free_list(mcache *cache)
{
    page_of(mcache_alloc(cache))->free_head = nullptr;
    mcache_alloc(cache);
    asm volatile("" ::: "memory");
}

[[gnu::noinline]] void misuse_marked_slot(mcache *cache)
{
    flags_of(page_of(mcache_alloc(cache))->free_head) |= 1;
    mcache_alloc(cache);
    asm volatile("" ::: "memory");
}

[[gnu::noinline]] void misuse_foreign_pointer(mcache *cache)
{
    static std::uint64_t foreign[64];
    mcache_free(cache, foreign + 32);
    asm volatile("" ::: "memory");
}

[[gnu::noinline]] void misuse_other_cache(mcache *cache)
{
    mcache *twin = mcache_create("twin", cache->obj_size, nullptr, cache->flags, 1);
    mcache_alloc(twin);
    mcache_free(twin, mcache_alloc(cache));
    asm volatile("" ::: "memory");
}

[[gnu::noinline]] void misuse_empty_other_cache(mcache *cache)
{
    mcache *twin = mcache_create("twin", cache->obj_size, nullptr, cache->flags, 1);
    mcache_free(twin, mcache_alloc(cache));
    asm volatile("" ::: "memory");
}

[[gnu::noinline]] void misuse_stale_page(mcache *cache)
{
    void *object = mcache_alloc(cache);
    page_of(object)->magic = 0;
    mcache_free(cache, object);
    asm volatile("" ::: "memory");
}

[[gnu::noinline]] void misuse_double_free(mcache *cache)
{
    mcache_alloc(cache);
    void *object = mcache_alloc(cache);
    mcache_free(cache, object);
    mcache_free(cache, object);
    asm volatile("" ::: "memory");
}

[[gnu::noinline]] void misuse_overrun(mcache *cache)
{
    auto *object = static_cast<char *>(mcache_alloc(cache));
    std::memset(object, 0, cache->obj_size + 1);
    mcache_free(cache, object);
    asm volatile("" ::: "memory");
}

struct Misuse {
    const char *name;
    void (*run)(mcache *cache);
    const char *function; // that detects the misuse
};

std::ostream &operator<<(std::ostream &out, const Misuse &misuse)
{
    return out << misuse.name;
}

class McacheMisuse : public testing::TestWithParam<Misuse> {};

bool lies_in(const std::string &address, const void *function, unsigned long size)
{
    unsigned long at = std::strtoul(address.c_str(), nullptr, 16), begin = reinterpret_cast<unsigned long>(function);
    return at > begin && at < begin + size;
}

// The code addresses of a log's backtrace: the bracketed text at the end of each line.
std::vector<std::string> addresses(const crash::Log &log)
{
    std::vector<std::string> result;
    for (const auto &entry : log.entries)
        if (std::size_t bracket = entry.text.rfind("[0x"); bracket != std::string::npos)
            result.push_back(entry.text.substr(bracket + 1));
    return result;
}

} // namespace

TEST_P(McacheMisuse, CrashesWithItsCallerInTheLog)
{
    if (under_sanitizer())
        GTEST_SKIP() << "the sanitizer reports the crash itself";
    ChildResult result = run_child([] {
        mcache *cache = mcache_create("misused", 16, nullptr, 0, 1);
        install_sighandler();
        GetParam().run(cache);
    });
    EXPECT_TRUE(result.killed_by(SIGSEGV)) << result.status;
    std::string text;
    for (const std::string &name : list_dir("/etc/core"))
        text = read_file("/etc/core/" + name);
    crash::Log log = crash::LogReader(text).read();
    EXPECT_EQ("", log.error);
    EXPECT_EQ(SIGSEGV, log.sig);
    EXPECT_EQ(0U, log.fault) << "a write to address 0";
    std::vector<std::string> at = addresses(log);
    EXPECT_TRUE(std::any_of(at.begin(), at.end(), [](const std::string &a) {
        return lies_in(a, reinterpret_cast<const void *>(GetParam().run), 256);
    })) << text;
    EXPECT_THAT(text, testing::HasSubstr(std::string("(") + GetParam().function + "+0x"));
}

INSTANTIATE_TEST_SUITE_P(All, McacheMisuse,
                         testing::Values(Misuse{"NullAlloc", misuse_null_alloc, "mcache_alloc"},
                                         Misuse{"NullFree", misuse_null_free, "mcache_free"},
                                         Misuse{"LostFreeList", misuse_lost_free_list, "mcache_alloc"},
                                         Misuse{"MarkedSlot", misuse_marked_slot, "mcache_alloc"},
                                         Misuse{"ForeignPointer", misuse_foreign_pointer, "mcache_free"},
                                         Misuse{"OtherCache", misuse_other_cache, "mcache_free"},
                                         Misuse{"EmptyOtherCache", misuse_empty_other_cache, "mcache_free"},
                                         Misuse{"StalePage", misuse_stale_page, "mcache_free"},
                                         Misuse{"DoubleFree", misuse_double_free, "mcache_free"},
                                         Misuse{"Overrun", misuse_overrun, "mcache_free"}),
                         [](const auto &misuse) { return std::string(misuse.param.name); });

TEST(McacheError, CodesThatCrash)
{
    if (under_sanitizer())
        GTEST_SKIP() << "the sanitizer reports the crash itself";
    for (int code = MCACHE_NULL_CACHE; code <= MCACHE_BAD_OBJECT; code++)
        EXPECT_TRUE(run_child([=] { mcache_error(code); }).killed_by(SIGSEGV)) << code;
}

TEST(McacheError, ReturnsOtherCodesMinusOne)
{
    for (int code : {0, int{MCACHE_NO_MEMORY}, 7, -1, -100, 1000})
        EXPECT_EQ(code - 1, mcache_error(code));
}

// ---- a model: which object comes next, and where the pages are ----

namespace {

struct Model {
    struct page {
        page_record *address;
        std::deque<void *> free; // in the order of allocation
        std::size_t used = 0;
    };
    std::list<page> partial, full;

    std::list<page> *list_of(page_record *address, std::list<page>::iterator *at)
    {
        for (auto *list : {&partial, &full})
            for (*at = list->begin(); *at != list->end(); ++*at)
                if ((*at)->address == address)
                    return list;
        return nullptr;
    }
    void allocated(mcache *cache, void *object)
    {
        if (partial.empty()) {
            page fresh{page_of(object), {}, 0};
            for (std::uint32_t i = 0; i < cache->objs_per_page; i++)
                fresh.free.push_back(reinterpret_cast<char *>(fresh.address) + 48 + i * (cache->obj_size + 16));
            partial.push_back(fresh);
        }
        page &head = partial.front();
        ASSERT_EQ(head.free.front(), object);
        head.free.pop_front();
        head.used++;
        if (head.free.empty())
            full.splice(full.begin(), partial, partial.begin());
    }
    void released(void *object, page_record *address)
    {
        std::list<page>::iterator at;
        auto *list = list_of(address, &at);
        ASSERT_NE(nullptr, list);
        at->used--;
        at->free.push_front(object);
        if (at->used == 0)
            list->erase(at);
        else if (list == &full)
            partial.splice(partial.end(), full, at);
    }
    static std::vector<page_record *> addresses(const std::list<page> &list)
    {
        std::vector<page_record *> result;
        for (const page &p : list)
            result.push_back(p.address);
        return result;
    }
};

} // namespace

TEST(McacheModel, RandomWorkAgreesWithLists)
{
    for (unsigned seed = 1; seed <= 6; seed++) {
        Random random(seed);
        unsigned size = 1 + static_cast<unsigned>(random() % (seed % 2 == 0 ? 2000 : 200));
        mcache *cache = mcache_create("model", size, nullptr, 0, 1 + static_cast<int>(random() % 2));
        Model model;
        std::vector<void *> objects;
        for (std::size_t step = 0; step < effort(40000); step++) {
            bool grow = objects.empty() || random() % 100 < (step / 2000 % 2 == 0 ? 55 : 45);
            random.doing(grow ? "allocate after" : "free one of", objects.size());
            if (grow) {
                void *object = mcache_alloc(cache);
                model.allocated(cache, object);
                std::memset(object, 0xAA, size);
                objects.push_back(object);
            } else {
                std::swap(objects[random() % objects.size()], objects.back());
                page_record *page = page_of(objects.back());
                mcache_free(cache, objects.back());
                model.released(objects.back(), page);
                objects.pop_back();
            }
            ASSERT_FALSE(testing::Test::HasFatalFailure());
            ASSERT_EQ(objects.size(), cache->in_use);
            if (step % 50 == 0) {
                ASSERT_EQ(Model::addresses(model.partial), pages(cache->partial_head));
                ASSERT_EQ(Model::addresses(model.full), pages(cache->full_pages));
                ASSERT_EQ(model.partial.size() + model.full.size() + (cache->spare_page != nullptr), cache->page_count);
            }
        }
        for (void *object : objects)
            mcache_free(cache, object);
    }
}
