// SPDX-License-Identifier: Apache-2.0
// Which thread owns which shard of the light statistics. Linked with its own copy of the source, since none of this is
// visible from outside.
#include "mem/light_stats.h"

#include "support/support.h"

#include <algorithm>
#include <pthread.h>
#include <vector>

using namespace qv;

namespace {

std::ptrdiff_t taken()
{
    return std::count_if(std::begin(light::slots), std::end(light::slots),
                         [](const light::slot &slot) { return slot.owner != 0; });
}

void count_one()
{
    light::count_in_searched_shard(&light::class_counters::allocs, 32, &light::class_counters::bytes_taken, nullptr);
}

// Runs threads that all count before the first one ends.
void run_at_once(unsigned threads, void *(*work)(void *))
{
    std::vector<pthread_t> started(threads);
    pthread_barrier_t all_there;
    pthread_barrier_init(&all_there, nullptr, threads);
    for (pthread_t &thread : started)
        ASSERT_EQ(0, pthread_create(&thread, nullptr, work, &all_there));
    for (pthread_t thread : started)
        pthread_join(thread, nullptr);
    pthread_barrier_destroy(&all_there);
}

void *count_together(void *all_there)
{
    count_one();
    pthread_barrier_wait(static_cast<pthread_barrier_t *>(all_there));
    return nullptr;
}

pthread_key_t later_key;

void *count_at_the_end(void *all_there)
{
    pthread_setspecific(later_key, all_there);
    return count_together(all_there);
}

} // namespace

TEST(LightShards, AreReleasedAtAThreadsEnd)
{
    light::watch_threads();
    count_one();
    EXPECT_EQ(1, taken());
    run_at_once(40, count_together);
    EXPECT_EQ(1, taken());
    run_at_once(300, count_together); // more than there are shards
    EXPECT_EQ(1, taken());
    EXPECT_EQ(341U, light::read()[5].allocs);
    EXPECT_EQ(341U * 32, light::read()[5].bytes_taken);
}

TEST(LightShards, AThreadThatCountsWhileItEndsGetsNone)
{
    light::watch_threads();
    // A destructor that runs after the library's, and runs again while it sets its key again.
    pthread_key_create(&later_key, [](void *value) {
        count_one();
        pthread_setspecific(later_key, value);
    });
    run_at_once(20, count_at_the_end);
    EXPECT_EQ(0, taken());
    EXPECT_GE(light::read()[5].allocs, 40U);
}

// A process with few threads writes to few pages.
TEST(LightShards, AreGivenOutInTheirOrder)
{
    light::watch_threads();
    run_at_once(10, count_together);
    run_at_once(10, count_together);
    auto is_used = [](const light::statistics &shard) { return shard[5].allocs != 0; };
    const light::statistics *end = std::end(light::shards);
    const light::statistics *unused = std::find_if_not(std::cbegin(light::shards), end, is_used);
    EXPECT_NE(std::begin(light::shards), unused);
    EXPECT_EQ(0, std::count_if(unused, end, is_used));
}

// A handler may interrupt the claim of its thread between the two steps.
TEST(LightShards, AHandlerGetsNoSecondOneDuringAClaim)
{
    light::watch_threads();
    light::slot &home = light::slots[threads::hash_of(threads::self(), light::kShardBits)];
    home.owner = threads::self() | light::kBeingClaimed;
    count_one();
    EXPECT_EQ(1, taken());
    EXPECT_EQ(1U, light::read()[5].allocs);
}

TEST(LightShards, AThreadKeepsItsShard)
{
    light::watch_threads();
    for (int i = 0; i < 10; i++)
        count_one();
    EXPECT_EQ(1, taken());
    EXPECT_EQ(1, std::count_if(std::begin(light::shards), std::end(light::shards),
                               [](const light::statistics &shard) { return shard[5].allocs == 10; }));
}
