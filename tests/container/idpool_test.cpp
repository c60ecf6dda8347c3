// SPDX-License-Identifier: Apache-2.0
#include "idpool.h"

#include "cxx/idpool.hpp"
#include "support/random.h"
#include "support/scarce_memory.h"
#include "support/support.h"

#include <algorithm>
#include <climits>
#include <cstdlib>
#include <cstring>

using namespace support;

namespace {

// The identifier that a call stored, or -1 for a failed call, which returns -1 and stores nothing.
int id_of(int result, int id)
{
    constexpr int kUntouched = -7;
    if (result == 0)
        return id;
    EXPECT_EQ(-1, result);
    EXPECT_EQ(kUntouched, id);
    return -1;
}

int take(idpool *pool)
{
    int id = -7;
    int result = idpool_alloc_id(pool, &id);
    return id_of(result, id);
}

int take_lowest(idpool *pool)
{
    int id = -7;
    int result = idpool_alloc_id_slow(pool, &id);
    return id_of(result, id);
}

int next_taken(const idpool *pool, int from)
{
    int id = -7;
    int result = idpool_get_next_allocated_id(pool, from, &id);
    return id_of(result, id);
}

void fill(idpool *pool)
{
    for (int id = pool->min_id; id <= pool->max_id; id++)
        idpool_alloc_specific_id(pool, id);
}

// What a call that is allowed this many allocations writes to standard output.
template <typename Call>
std::string said_with(int allowed, Call call)
{
    return capture_stdout([&] {
        allocations_left = allowed;
        call();
        allocations_left = -1;
    });
}

} // namespace

TEST(IdPool, SizeOfACallerProvidedPool)
{
    EXPECT_EQ(60, idpool_get_pool_size(0, 0));
    EXPECT_EQ(60, idpool_get_pool_size(0, 31));
    EXPECT_EQ(64, idpool_get_pool_size(0, 32));
    EXPECT_EQ(60, idpool_get_pool_size(5, 36));
    EXPECT_EQ(56 + (1 << 28), idpool_get_pool_size(0, INT_MAX));
    EXPECT_EQ(60, idpool_get_pool_size(INT_MAX, INT_MAX));
    EXPECT_EQ(0, idpool_get_pool_size(-1, 5));
    EXPECT_EQ(0, idpool_get_pool_size(6, 5));
}

TEST(IdPool, CreateSetsItsFields)
{
    idpool *pool = idpool_create("a name of more than 31 characters", 10, 42);
    ASSERT_NE(nullptr, pool);
    EXPECT_STREQ("a name of more than 31 characte", pool->name);
    EXPECT_EQ(10, pool->min_id);
    EXPECT_EQ(42, pool->max_id);
    EXPECT_EQ(2, pool->words);
    EXPECT_EQ(0, pool->next);
    EXPECT_EQ(0U, pool->bitmap[0]);
    EXPECT_EQ(0xFFFFFFFE, pool->bitmap[1]) << "31 unused bits";
    idpool_destroy(pool);

    pool = idpool_create("full words", 0, 31);
    EXPECT_EQ(1, pool->words);
    EXPECT_EQ(0U, pool->bitmap[0]);
    idpool_destroy(pool);
    idpool_destroy(nullptr);
}

TEST(IdPool, InvalidRangesAreRefusedInSilence)
{
    EXPECT_EQ("", capture_stdout([] {
                  EXPECT_EQ(nullptr, idpool_create("bad", -1, 5));
                  EXPECT_EQ(nullptr, idpool_create("bad", 6, 5));
                  EXPECT_EQ(nullptr, idpool_create("bad", INT_MIN, INT_MIN));
              }));
    idpool block;
    std::memset(static_cast<void *>(&block), '#', sizeof block);
    idpool_init(&block, "bad", 6, 5);
    EXPECT_EQ('#', block.name[0]);
}

TEST(IdPool, FailedAllocationsAreReportedOnStandardOutput)
{
    EXPECT_EQ("Malloc failed for pool red\n", said_with(0, [] { EXPECT_EQ(nullptr, idpool_create("red", 0, 9)); }));
    EXPECT_EQ("Malloc bitmap failed for pool red\n",
              said_with(1, [] { EXPECT_EQ(nullptr, idpool_create("red", 0, 9)); }));
}

TEST(IdPool, ACallerProvidedPoolUsesItsBlockOnly)
{
    auto size = static_cast<std::size_t>(idpool_get_pool_size(3, 40));
    std::vector<std::uint64_t> storage(size / 8 + 2, 0x2323232323232323);
    auto *pool = reinterpret_cast<idpool *>(storage.data());
    idpool_init(pool, "laid", 3, 40);
    EXPECT_EQ(reinterpret_cast<std::uint32_t *>(pool + 1), pool->bitmap);
    EXPECT_STREQ("laid", pool->name);
    for (int id = 3; id <= 40; id++)
        EXPECT_EQ(id, take_lowest(pool));
    for (int i = 0; i < 100; i++) {
        EXPECT_EQ(-1, take_lowest(pool));
        EXPECT_EQ(-1, take(pool));
    }
    auto *behind = reinterpret_cast<unsigned char *>(storage.data()) + size;
    EXPECT_EQ(8, std::count(behind, behind + 8, 0x23)) << "written beyond the block";
}

TEST(IdPool, AllocationContinuesAfterTheLastIdentifierAndWraps)
{
    idpool *pool = idpool_create("p", 10, 12);
    EXPECT_EQ(10, take(pool));
    EXPECT_EQ(1, pool->next);
    EXPECT_EQ(11, take(pool));
    EXPECT_EQ(12, take(pool));
    EXPECT_EQ(0, pool->next) << "wrapped";
    EXPECT_EQ(-1, take(pool));
    EXPECT_EQ(0, idpool_free_id(pool, 11));
    EXPECT_EQ(11, take(pool)) << "by the scan";
    EXPECT_EQ(2, pool->next);
    EXPECT_EQ(0, idpool_free_id(pool, 10));
    EXPECT_EQ(10, take(pool)) << "the scan returns to the start of the cursor's word";
    idpool_destroy(pool);
}

TEST(IdPool, AFreedIdentifierIsReusedAfterTheCursorWraps)
{
    idpool *pool = idpool_create("p", 0, 99);
    for (int id = 0; id < 50; id++)
        EXPECT_EQ(id, take(pool));
    for (int id = 0; id < 50; id++)
        EXPECT_EQ(0, idpool_free_id(pool, id));
    EXPECT_EQ(50, pool->next) << "freeing does not move the cursor";
    for (int id = 50; id < 100; id++)
        EXPECT_EQ(id, take(pool));
    EXPECT_EQ(0, take(pool));
    idpool_destroy(pool);
}

TEST(IdPool, AllocatingTheLowestLeavesTheCursor)
{
    idpool *pool = idpool_create("p", 5, 100);
    for (int i = 0; i < 40; i++)
        take(pool);
    idpool_free_id(pool, 7);
    idpool_free_id(pool, 40);
    EXPECT_EQ(7, take_lowest(pool));
    EXPECT_EQ(40, take_lowest(pool));
    EXPECT_EQ(45, take_lowest(pool));
    EXPECT_EQ(40, pool->next);
    idpool_destroy(pool);
}

TEST(IdPool, AFullPoolFailsAndStoresNothing)
{
    idpool *pool = idpool_create("p", 5, 100);
    fill(pool);
    int id = -7;
    EXPECT_EQ(-1, idpool_alloc_id_slow(pool, &id));
    EXPECT_EQ(-1, idpool_alloc_id(pool, &id));
    EXPECT_EQ(-7, id);
    idpool_destroy(pool);
}

TEST(IdPool, AllocatingTheLowestScansOneWordMore)
{
    idpool *pool = idpool_create("p", 5, 100);
    fill(pool);
    idpool_free_id(pool, 5);
    pool->words = -1;
    EXPECT_EQ(-1, take_lowest(pool));
    pool->words = 0;
    EXPECT_EQ(5, take_lowest(pool));
    pool->words = 3;
    idpool_destroy(pool);
}

TEST(IdPool, DestroyFreesEverything)
{
    auto make_and_destroy = [] { idpool_destroy(idpool_create("p", 0, 1000)); };
    make_and_destroy(); // the heap keeps its blocks for the next ones
    std::size_t before = ::mallinfo2().uordblks;
    for (int i = 0; i < 100; i++)
        make_and_destroy();
    EXPECT_EQ(before, ::mallinfo2().uordblks);
}

TEST(IdPool, ASpecificIdentifierIsAllocatedOnce)
{
    idpool *pool = idpool_create("p", 10, 75);
    for (int id : {10, 41, 42, 75}) {
        EXPECT_EQ(0, idpool_is_id_allocated(pool, id));
        EXPECT_EQ(-1, idpool_free_id(pool, id));
        EXPECT_EQ(0, idpool_alloc_specific_id(pool, id));
        EXPECT_EQ(-1, idpool_alloc_specific_id(pool, id));
        EXPECT_EQ(1, idpool_is_id_allocated(pool, id));
    }
    EXPECT_EQ(0, pool->next);
    EXPECT_EQ(0, idpool_free_id(pool, 42));
    EXPECT_EQ(-1, idpool_free_id(pool, 42));
    idpool_destroy(pool);
}

TEST(IdPool, IdentifiersOutsideTheRangeAreRefused)
{
    idpool *pool = idpool_create("p", 10, 75);
    for (int id : {9, 76, -1, INT_MIN, INT_MAX}) {
        EXPECT_EQ(-1, idpool_alloc_specific_id(pool, id));
        EXPECT_EQ(-1, idpool_free_id(pool, id));
        EXPECT_EQ(-1, idpool_is_id_allocated(pool, id));
        EXPECT_EQ(-1, next_taken(pool, id));
    }
    idpool_destroy(pool);
}

TEST(IdPool, NextAllocatedFindsTheGivenIdentifierOrALaterOne)
{
    idpool *pool = idpool_create("p", 10, 2000);
    EXPECT_EQ(-1, next_taken(pool, 10)) << "an unused bit is no identifier";
    for (int id : {10, 41, 42, 1500, 2000})
        idpool_alloc_specific_id(pool, id);
    std::vector<int> walked;
    for (int id = 10; id <= 2000 && (id = next_taken(pool, id)) >= 0; id++)
        walked.push_back(id);
    EXPECT_EQ((std::vector<int>{10, 41, 42, 1500, 2000}), walked);
    EXPECT_EQ(41, next_taken(pool, 11));
    EXPECT_EQ(1500, next_taken(pool, 43));
    idpool_free_id(pool, 2000);
    EXPECT_EQ(-1, next_taken(pool, 1501));
    idpool_destroy(pool);
}

TEST(IdPool, ARangeMayEndAtIntMax)
{
    idpool *pool = idpool_create("p", INT_MAX - 2, INT_MAX);
    EXPECT_EQ(INT_MAX - 2, take(pool));
    EXPECT_EQ(INT_MAX - 1, take(pool));
    EXPECT_EQ(INT_MAX, take(pool));
    EXPECT_EQ(-1, take(pool));
    EXPECT_EQ(INT_MAX, next_taken(pool, INT_MAX));
    EXPECT_EQ(-1, take_lowest(pool));
    EXPECT_EQ(0, idpool_resize(pool, 4)) << "beyond INT_MAX";
    EXPECT_EQ(1, idpool_resize(pool, 3));
    EXPECT_EQ(0, idpool_resize(pool, INT_MAX));
    idpool_destroy(pool);
}

TEST(IdPool, APoolMayHoldAllNonNegativeNumbers)
{
    if (under_emulation() || under_sanitizer())
        GTEST_SKIP() << "256 MiB are too much for a sanitizer or the emulator";
    idpool *pool = idpool_create("all", 0, INT_MAX);
    ASSERT_NE(nullptr, pool);
    EXPECT_EQ(1 << 26, pool->words);
    pool->next = INT_MAX;
    EXPECT_EQ(INT_MAX, take(pool));
    EXPECT_EQ(0, pool->next);
    EXPECT_EQ(0, take(pool));
    EXPECT_EQ(INT_MAX, next_taken(pool, 1));
    idpool_destroy(pool);
}

// ---- another size ----

TEST(IdPoolResize, ANullPoolAndCountsBelow1AreRefused)
{
    EXPECT_EQ(0, idpool_resize(nullptr, 5));
    idpool *pool = idpool_create("p", 10, 41);
    EXPECT_EQ(0, idpool_resize(pool, 0));
    EXPECT_EQ(0, idpool_resize(pool, -5));
    EXPECT_EQ(41, pool->max_id);
    idpool_destroy(pool);
}

TEST(IdPoolResize, TheSameCountChangesNothing)
{
    idpool *pool = idpool_create("p", 10, 41);
    fill(pool);
    const std::uint32_t *bitmap = pool->bitmap;
    EXPECT_EQ(1, idpool_resize(pool, 32));
    EXPECT_EQ(bitmap, pool->bitmap);
    EXPECT_EQ(UINT32_MAX, pool->bitmap[0]);
    idpool_destroy(pool);
}

TEST(IdPoolResize, APoolGrowsToAllNumbersAndShrinksAgain)
{
    if (under_emulation() || under_sanitizer())
        GTEST_SKIP() << "256 MiB are too much for a sanitizer or the emulator";
    idpool *pool = idpool_create("p", 0, 9);
    EXPECT_EQ(0, take(pool));
    EXPECT_EQ(1, idpool_resize(pool, INT_MAX));
    EXPECT_EQ(INT_MAX - 1, pool->max_id);
    EXPECT_EQ(1, pool->words);
    EXPECT_EQ(1, idpool_is_id_allocated(pool, 0));
    EXPECT_EQ(0, idpool_alloc_specific_id(pool, INT_MAX - 1));
    EXPECT_EQ(-1, idpool_alloc_specific_id(pool, INT_MAX));
    EXPECT_EQ(0xC0000000U, pool->bitmap[(1 << 26) - 1]) << "the last identifier and one unused bit";
    EXPECT_EQ(1, take(pool));
    EXPECT_EQ(1, idpool_resize(pool, 10));
    EXPECT_EQ(9, pool->max_id);
    idpool_destroy(pool);
}

TEST(IdPoolResize, TheLargestIdentifierIsIntMax)
{
    if (under_emulation() || under_sanitizer())
        GTEST_SKIP() << "256 MiB are too much for a sanitizer or the emulator";
    idpool *pool = idpool_create("p", 1, 9);
    EXPECT_EQ(1, idpool_resize(pool, INT_MAX));
    EXPECT_EQ(INT_MAX, pool->max_id);
    idpool_destroy(pool);
    pool = idpool_create("p", 2, 9);
    EXPECT_EQ(0, idpool_resize(pool, INT_MAX));
    EXPECT_EQ(9, pool->max_id);
    idpool_destroy(pool);
}

TEST(IdPoolResize, WithoutMemoryNothingChangesAndItIsLogged)
{
    idpool *pool = idpool_create("blue", 0, 9);
    take(pool);
    allocations_left = 0;
    int result = idpool_resize(pool, 500);
    allocations_left = -1;
    EXPECT_EQ(0, result);
    EXPECT_EQ(9, pool->max_id);
    EXPECT_EQ(1, idpool_is_id_allocated(pool, 0));
    EXPECT_THAT(read_file("/etc/consolelog"), testing::EndsWith("Malloc bitmap failed when resize pool blue\n"));
    idpool_destroy(pool);
}

TEST(IdPoolResize, OnlyAsManyBytesAsWordsSurvive)
{
    idpool *pool = idpool_create("p", 0, 63);
    fill(pool);
    EXPECT_EQ(1, idpool_resize(pool, 96));
    EXPECT_EQ(95, pool->max_id);
    EXPECT_EQ(2, pool->words) << "the number of words does not change";
    for (int id = 0; id < 96; id++)
        EXPECT_EQ(id < 16 ? 1 : 0, idpool_is_id_allocated(pool, id)) << id;
    idpool_destroy(pool);
}

TEST(IdPoolResize, AGrownPoolIsScannedAsFarAsBefore)
{
    idpool *pool = idpool_create("p", 0, 31);
    EXPECT_EQ(1, idpool_resize(pool, 100));
    EXPECT_EQ(0xFFFFFFF0, pool->bitmap[3]) << "the new unused bits";
    for (int id = 0; id < 32; id++)
        EXPECT_EQ(id, take(pool));
    EXPECT_EQ(32, pool->next);
    EXPECT_EQ(32, take(pool)) << "the cursor may lie beyond the original words";
    EXPECT_EQ(0, idpool_alloc_specific_id(pool, 33));
    EXPECT_EQ(-1, take(pool)) << "but the scan ends at the original words";
    EXPECT_EQ(0, idpool_free_id(pool, 5));
    EXPECT_EQ(5, take(pool));
    EXPECT_EQ(6 + 28, take_lowest(pool)) << "the scan for the lowest reads one word more";
    for (int id = 35; id < 64; id++)
        EXPECT_EQ(id, take_lowest(pool));
    EXPECT_EQ(-1, take_lowest(pool));
    EXPECT_EQ(31, next_taken(pool, 31));
    EXPECT_EQ(-1, next_taken(pool, 32)) << "after the original words";
    EXPECT_EQ(1, idpool_is_id_allocated(pool, 32));
    idpool_destroy(pool);
}

TEST(IdPoolResize, AShrunkPoolAllocatesAllThatIsFree)
{
    idpool *pool = idpool_create("p", 0, 255);
    EXPECT_EQ(1, idpool_resize(pool, 40));
    EXPECT_EQ(8, pool->words);
    for (int word = 2; word < 8; word++)
        EXPECT_EQ(0xFFFFFFFFU, pool->bitmap[word]) << word;
    for (int id = 0; id < 40; id++)
        EXPECT_EQ(id, take(pool));
    EXPECT_EQ(0, pool->next);
    EXPECT_EQ(-1, take(pool));
    EXPECT_EQ(-1, take_lowest(pool));

    // The free identifier lies before the cursor: the scan wraps at the end of the bitmap.
    EXPECT_EQ(0, idpool_free_id(pool, 39));
    EXPECT_EQ(39, take(pool));
    EXPECT_EQ(0, idpool_free_id(pool, 38));
    EXPECT_EQ(38, take(pool));
    EXPECT_EQ(39, pool->next);
    EXPECT_EQ(0, idpool_free_id(pool, 9));
    EXPECT_EQ(9, take(pool));
    EXPECT_EQ(-1, take(pool));
    EXPECT_EQ(39, next_taken(pool, 39));
    idpool_destroy(pool);
}

TEST(IdPoolResize, IdentifiersThatAShrinkRemovedAreFreeAfterAGrowth)
{
    idpool *pool = idpool_create("p", 0, 2047);
    EXPECT_EQ(1, idpool_resize(pool, 32));
    for (int id = 0; id < 8; id++)
        EXPECT_EQ(id, take(pool));
    EXPECT_EQ(1, idpool_resize(pool, 2048));
    for (int id = 0; id < 8; id++)
        EXPECT_EQ(1, idpool_is_id_allocated(pool, id)) << id;
    for (int id = 8; id < 2048; id++)
        EXPECT_EQ(0, idpool_is_id_allocated(pool, id)) << id;
    idpool_destroy(pool);
}

TEST(IdPoolResize, ToOneIdentifierAndBack)
{
    idpool *pool = idpool_create("p", 5, 200);
    EXPECT_EQ(5, take(pool));
    EXPECT_EQ(1, idpool_resize(pool, 1));
    EXPECT_EQ(5, pool->max_id);
    EXPECT_EQ(-1, take(pool));
    EXPECT_EQ(0, idpool_free_id(pool, 5));
    EXPECT_EQ(5, take(pool));
    EXPECT_EQ(0, idpool_free_id(pool, 5));
    EXPECT_EQ(5, take_lowest(pool));
    EXPECT_EQ(-1, idpool_alloc_specific_id(pool, 6));
    EXPECT_EQ(1, idpool_resize(pool, 196));
    EXPECT_EQ(1, idpool_is_id_allocated(pool, 5));
    EXPECT_EQ(13, take(pool)) << "the copied byte has seven unused bits";
    idpool_destroy(pool);
}

// An allocation never fails while an identifier within the scanned words is free.
TEST(IdPoolResize, AnAllocationFailsOnlyWhenAllWithinReachAreAllocated)
{
    Random random(1);
    for (int round = 0; round < 200; round++) {
        int first = 1 + static_cast<int>(random() % 700), count = 1 + static_cast<int>(random() % 700);
        idpool *pool = idpool_create("p", 0, first - 1);
        ASSERT_EQ(1, idpool_resize(pool, count));
        int reach = std::min(count, pool->words * 32);
        for (int step = 0; step < 300; step++) {
            int id = static_cast<int>(random() % static_cast<unsigned>(reach));
            random.doing("one change, then an allocation: words, identifiers, changed", pool->words, count, id);
            random() % 3 == 0 ? idpool_free_id(pool, id) : idpool_alloc_specific_id(pool, id);
            bool has_free = false;
            for (int other = 0; other < reach; other++)
                has_free |= idpool_is_id_allocated(pool, other) == 0;
            int taken = take(pool);
            // After a growth the cursor itself may be at an identifier beyond the scan.
            ASSERT_TRUE(taken >= reach || (taken >= 0) == has_free) << first << " resized to " << count;
        }
        idpool_destroy(pool);
    }
}

TEST(IdPoolResize, ACursorThatIsCutOffStartsAgain)
{
    idpool *pool = idpool_create("p", 100, 199);
    for (int i = 0; i < 50; i++)
        take(pool);
    EXPECT_EQ(1, idpool_resize(pool, 51));
    EXPECT_EQ(50, pool->next) << "still within the range";
    EXPECT_EQ(1, idpool_resize(pool, 50));
    EXPECT_EQ(0, pool->next);
    idpool_destroy(pool);
}

// ---- models ----

namespace {

// The reference: a plain walk over single bits, in a bitmap long enough for every size.
struct Model {
    int min, max, words, next = 0;
    std::vector<bool> bits;

    Model(int low, int high) : min(low), max(high), words((high - low) / 32 + 1), bits(100000) { spare(); }
    int size() const { return max - min + 1; }
    int present() const { return (size() + 31) / 32; }
    void spare()
    {
        for (int o = size(); o % 32 != 0 || o < words * 32; o++)
            bits[static_cast<std::size_t>(o)] = true;
    }
    auto bit(int offset) { return bits[static_cast<std::size_t>(offset)]; }
    int hand_out(int offset) { return min + offset > max ? -1 : min + offset; }
    int take_at(int offset)
    {
        bit(offset) = true;
        next = offset + 1 > max - min ? 0 : offset + 1;
        return hand_out(offset);
    }
    int take()
    {
        int w = next / 32, b = next % 32;
        if (!bit(next))
            return take_at(next);
        for (int i = 0; i <= words; i++)
            for (int k = i == 0 ? b : 0; k < 32; k++)
                if (!bit((w + i) % words * 32 + k))
                    return take_at((w + i) % words * 32 + k);
        return -1;
    }
    int take_lowest()
    {
        for (int offset = 0; offset < std::max(words, std::min(words + 1, present())) * 32; offset++) {
            if (!bit(offset)) {
                bit(offset) = true;
                return hand_out(offset);
            }
        }
        return -1;
    }
    int next_taken(int id)
    {
        if (id < min || id > max)
            return -1;
        for (int offset = id - min; offset < words * 32; offset++)
            if (bit(offset))
                return hand_out(offset);
        return -1;
    }
    void resize(int count)
    {
        if (min + count - 1 == max)
            return;
        int kept = std::min((count + 31) / 32, present()) * 8;
        for (std::size_t i = static_cast<std::size_t>(kept); i < bits.size(); i++)
            bits[i] = false;
        max = min + count - 1;
        spare();
        if (next > max - min)
            next = 0;
    }
};

} // namespace

TEST(IdPoolModel, RandomWorkAgreesWithAPlainWalk)
{
    for (unsigned seed = 1; seed <= 3; seed++) {
        Random random(seed);
        idpool *pool = nullptr;
        Model model(0, 0);
        for (std::size_t step = 0; step < effort(1000000); step++) {
            if (step % 20000 == 0) {
                idpool_destroy(pool);
                int min = static_cast<int>(random() % 1000), max = min + static_cast<int>(random() % 1500);
                pool = idpool_create("model", min, max);
                model = Model(min, max);
            }
            int id = model.min - 2 + static_cast<int>(random() % static_cast<unsigned>(model.size() + 4));
            bool inside = id >= model.min && id <= model.max;
            switch (random() % 9) {
            case 0:
            case 1:
            case 2:
                random.doing("allocate");
                ASSERT_EQ(model.take(), take(pool));
                break;
            case 3:
                random.doing("allocate the lowest");
                ASSERT_EQ(model.take_lowest(), take_lowest(pool));
                break;
            case 4:
            case 5: {
                random.doing("free", id);
                bool taken = inside && model.bit(id - model.min);
                ASSERT_EQ(taken ? 0 : -1, idpool_free_id(pool, id));
                if (taken)
                    model.bit(id - model.min) = false;
                break;
            }
            case 6: {
                random.doing("allocate the identifier", id);
                bool free = inside && !model.bit(id - model.min);
                ASSERT_EQ(free ? 0 : -1, idpool_alloc_specific_id(pool, id));
                if (free)
                    model.bit(id - model.min) = true;
                break;
            }
            case 7:
                random.doing("look up", id);
                ASSERT_EQ(model.next_taken(id), next_taken(pool, id));
                ASSERT_EQ(inside ? static_cast<int>(model.bit(id - model.min)) : -1, idpool_is_id_allocated(pool, id));
                break;
            default:
                if (random() % 200 == 0) { // shrink, grow, shrink again
                    int count = 1 + static_cast<int>(random() % 3000);
                    random.doing("resize", count);
                    ASSERT_EQ(1, idpool_resize(pool, count));
                    model.resize(count);
                }
            }
            ASSERT_EQ(model.next, pool->next);
        }
        idpool_destroy(pool);
    }
}

// ---- the typed view ----

TEST(IdPoolView, AllocatesFreesAndWalks)
{
    qv::id_pool pool("view", 5, 104);
    ASSERT_TRUE(pool);
    EXPECT_TRUE(pool.begin() == pool.end());
    EXPECT_EQ(5, pool.allocate());
    EXPECT_EQ(6, pool.allocate());
    EXPECT_TRUE(pool.allocate(104));
    EXPECT_FALSE(pool.allocate(104));
    EXPECT_TRUE(pool.free(5));
    EXPECT_EQ(5, pool.allocate_lowest());
    EXPECT_TRUE(pool.contains(6));
    EXPECT_FALSE(pool.contains(7));
    std::vector<int> ids(pool.begin(), pool.end());
    EXPECT_EQ((std::vector<int>{5, 6, 104}), ids);
    for (int id : pool)
        pool.free(id);
    EXPECT_TRUE(pool.begin() == pool.end());

    qv::id_pool moved = std::move(pool);
    EXPECT_FALSE(pool);
    EXPECT_TRUE(moved);
    EXPECT_FALSE(qv::id_pool("bad", 2, 1));

    qv::id_pool last("last", INT_MAX, INT_MAX);
    last.allocate();
    EXPECT_EQ(1, std::distance(last.begin(), last.end()));
}
