// SPDX-License-Identifier: Apache-2.0
#include "simphash.h"

#include "debug_trace.h"
#include "support/random.h"
#include "support/scarce_memory.h"
#include "support/support.h"

#include <deque>
#include <map>
#include <sys/resource.h>

using namespace support;

namespace {

int same(std::uintptr_t value, void *key)
{
    return value == *static_cast<const std::uintptr_t *>(key) ? 0 : 1;
}

// Matches all values with the same tens. Only 0 is a match, not a positive or negative result.
int same_tens(std::uintptr_t value, void *key)
{
    return static_cast<int>(value / 10) - static_cast<int>(*static_cast<const std::uintptr_t *>(key) / 10);
}

std::uintptr_t find(simphash *table, unsigned hash, std::uintptr_t key, simphash_cmp_fn cmp = same)
{
    return simphash_find(table, hash, cmp, &key);
}

std::uintptr_t take(simphash *table, unsigned hash, std::uintptr_t key, simphash_cmp_fn cmp = same)
{
    return simphash_remove(table, hash, &key, cmp);
}

void destroy(simphash *table)
{
    for (std::size_t i = 0; i <= table->mask; i++) {
        while (simphash_entry *entry = table->buckets[i]) {
            table->buckets[i] = entry->next;
            free(entry);
        }
    }
    free(table->buckets);
    free(table);
}

} // namespace

TEST(Simphash, SizeIsReducedModulo32)
{
    for (auto [log_size, mask] :
         {std::pair{0U, 0U}, {1U, 1U}, {10U, 1023U}, {32U, 0U}, {33U, 1U}, {0xFFFFFFE4U, 15U}}) {
        simphash *table = simphash_create(log_size);
        ASSERT_NE(nullptr, table);
        EXPECT_EQ(log_size, table->log_size);
        EXPECT_EQ(mask, table->mask);
        for (std::size_t i = 0; i <= mask; i++)
            EXPECT_EQ(nullptr, table->buckets[i]);
        destroy(table);
    }
}

TEST(Simphash, TheLargestSizeFailsCleanlyWhereMemoryIsShort)
{
    if (under_sanitizer())
        GTEST_SKIP() << "the sanitizer needs the address space";
    ChildResult result = run_child([] {
        rlimit limit = {std::size_t{1} << 32, std::size_t{1} << 32};
        ::setrlimit(RLIMIT_AS, &limit);
        EXPECT_EQ(nullptr, simphash_create(31));
        ::_exit(testing::Test::HasFailure());
    });
    EXPECT_TRUE(result.exited(0));
    EXPECT_THAT(result.err, testing::EndsWith("] Error: simphash:47: Can not allocate simple hash table pointers\n"));
}

TEST(Simphash, AFailedCreationIsReported)
{
    constexpr const char *kMessages[] = {
        "\\[..:..:..\\] Error: simphash:41: Can not allocate simple hash table\n",
        "\\[..:..:..\\] Error: simphash:47: Can not allocate simple hash table pointers\n"};
    for (int allowed : {0, 1}) {
        std::string said = capture_stderr([&] {
            allocations_left = allowed;
            simphash *made = simphash_create(2);
            allocations_left = -1;
            EXPECT_EQ(nullptr, made);
        });
        EXPECT_THAT(said, testing::MatchesRegex(kMessages[allowed]));
    }
}

TEST(Simphash, AFailedInsertionIsReportedAndChangesNothing)
{
    simphash *table = simphash_create(2);
    std::string said = capture_stderr([&] {
        allocations_left = 0;
        int result = simphash_insert(table, 0, 1);
        allocations_left = -1;
        EXPECT_EQ(-1, result);
    });
    EXPECT_THAT(said,
                testing::MatchesRegex("\\[..:..:..\\] Error: simphash:69: insert_simphash: can not allocate memory\n"));
    EXPECT_EQ(0U, find(table, 0, 1));
    destroy(table);
}

TEST(Simphash, RemovingAnAbsentValueIsReported)
{
    simphash *table = simphash_create(2);
    __qv_print_val = 7;
    EXPECT_THAT(capture_stderr([&] { EXPECT_EQ(0U, take(table, 3, 1)); }),
                testing::MatchesRegex("\\[..:..:..\\] Error: simphash:99: remove_simphash: not found\n"));
    EXPECT_EQ(0, __qv_print_val);
    destroy(table);
}

TEST(Simphash, ReportsNeedTheErrorLevel)
{
    simphash *table = simphash_create(2);
    __qv_debug_level = QV_TRACE_FATAL;
    __qv_print_val = 7;
    EXPECT_EQ("", capture_stderr([&] { EXPECT_EQ(0U, take(table, 3, 1)); }));
    EXPECT_EQ(7, __qv_print_val);
    __qv_debug_level = QV_TRACE_ERROR;
    EXPECT_EQ("", capture_stderr([&] { EXPECT_EQ(0U, find(table, 3, 1)); })) << "a failed find is silent";
    destroy(table);
}

TEST(Simphash, FindsWhatWasInserted)
{
    simphash *table = simphash_create(4);
    for (std::uintptr_t value = 1; value <= 100; value++)
        EXPECT_EQ(0, simphash_insert(table, static_cast<unsigned>(value * 7), value));
    for (std::uintptr_t value = 1; value <= 100; value++)
        EXPECT_EQ(value, find(table, static_cast<unsigned>(value * 7), value));
    EXPECT_EQ(0U, find(table, 8, 1)) << "another bucket";
    EXPECT_EQ(1U, find(table, 7 + 16, 1)) << "the same bucket by another hash";
    destroy(table);
}

TEST(Simphash, TheLastOfSeveralMatchesComesFirst)
{
    simphash *table = simphash_create(0);
    for (std::uintptr_t value : {11U, 12U, 20U, 13U})
        simphash_insert(table, 5, value);
    EXPECT_EQ(13U, find(table, 0, 10, same_tens));
    EXPECT_EQ(13U, take(table, 0, 10, same_tens));
    EXPECT_EQ(12U, take(table, 0, 10, same_tens)) << "from the middle";
    EXPECT_EQ(11U, take(table, 0, 10, same_tens));
    EXPECT_EQ(0U, find(table, 0, 10, same_tens));
    EXPECT_EQ(20U, find(table, 0, 20, same_tens));
    destroy(table);
}

TEST(Simphash, LinksPointBack)
{
    simphash *table = simphash_create(0);
    for (std::uintptr_t value : {1U, 2U, 3U})
        simphash_insert(table, 0, value);
    take(table, 0, 2);
    simphash_entry *first = table->buckets[0];
    EXPECT_EQ(3U, first->value);
    EXPECT_EQ(&table->buckets[0], first->pprev);
    EXPECT_EQ(1U, first->next->value);
    EXPECT_EQ(&first->next, first->next->pprev);
    EXPECT_EQ(nullptr, first->next->next);
    destroy(table);
}

TEST(SimphashModel, RandomWorkAgreesWithLists)
{
    for (unsigned seed = 1; seed <= 3; seed++) {
        Random random(seed);
        simphash *table = simphash_create(static_cast<unsigned>(random() % 10));
        __qv_debug_level = 0;
        std::map<unsigned, std::deque<std::uintptr_t>> model; // by bucket, the newest first
        for (std::size_t step = 0; step < effort(1000000); step++) {
            auto hash = static_cast<unsigned>(random() % 2000);
            std::uintptr_t value = 1 + random() % 300;
            auto &bucket = model[hash & table->mask];
            auto place = std::find_if(bucket.begin(), bucket.end(), [&](auto v) { return v / 10 == value / 10; });
            std::uintptr_t expected = place != bucket.end() ? *place : 0;
            random.doing("hash, value", hash, value);
            switch (random() % (bucket.size() > 20 ? 8 : 3)) {
            case 0:
                ASSERT_EQ(0, simphash_insert(table, hash, value));
                bucket.push_front(value);
                break;
            case 1:
                ASSERT_EQ(expected, find(table, hash, value, same_tens));
                break;
            default:
                ASSERT_EQ(expected, take(table, hash, value, same_tens));
                if (expected != 0)
                    bucket.erase(place);
            }
        }
        destroy(table);
    }
}
