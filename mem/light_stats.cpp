// SPDX-License-Identifier: Apache-2.0
// The shards of the light statistics: who has which, and their sum.
#include "mem/light_stats.h"

#include <algorithm>
#include <iterator>
#include <pthread.h>

namespace light {

namespace {

constexpr unsigned kShards = 128;

shard shards[kShards];
shard common_shard;

// What had been counted at the last clear(): shards are written by their threads alone, so clearing is subtracting.
statistics cleared;

pthread_key_t thread_end;
bool thread_end_is_watched;

bool take(shard &free)
{
    bool taken = false;
    return __atomic_compare_exchange_n(&free.taken, &taken, true, false, __ATOMIC_ACQUIRE, __ATOMIC_RELAXED);
}

void give_back(void *own)
{
    hooks::self.counters = nullptr;
    hooks::self.is_ending = true; // what it still allocates and frees, it counts in the common one
    __atomic_store_n(&static_cast<shard *>(own)->taken, false, __ATOMIC_RELEASE);
}

template <typename Function>
void for_each_counter(statistics &to, const statistics &from, Function function)
{
    static constexpr counter kCounters[] = {&class_counters::allocs,        &class_counters::frees,
                                            &class_counters::releases,      &class_counters::products,
                                            &class_counters::failures,      &class_counters::bytes_taken,
                                            &class_counters::bytes_returned};
    for (unsigned k = 0; k < kClasses; k++)
        for (counter c : kCounters)
            function(to[k].*c, __atomic_load_n(&(from[k].*c), __ATOMIC_RELAXED));
}

statistics sum_of_shards()
{
    statistics sum{};
    auto add_all = [&](const shard &from) {
        for_each_counter(sum, from.classes, [](std::uint32_t &to, std::uint32_t more) { to += more; });
    };
    std::for_each(std::begin(shards), std::end(shards), add_all);
    add_all(common_shard);
    return sum;
}

bool claim()
{
    shard *own = hooks::self.is_ending ? std::end(shards) : std::find_if(std::begin(shards), std::end(shards), take);
    if (own == std::end(shards))
        return false;
    // Before anything that may itself allocate.
    hooks::self.counters = own;
    if (thread_end_is_watched)
        pthread_setspecific(thread_end, own);
    return true;
}

} // namespace

void *count_without_shard(counter what, std::uint32_t size, counter bytes, void *block)
{
    if (claim()) {
        count(*hooks::self.counters, what, size, bytes);
        return block;
    }
    class_counters &counters = common_shard.classes[class_of(size)];
    __atomic_fetch_add(&(counters.*what), 1, __ATOMIC_RELAXED);
    __atomic_fetch_add(&(counters.*bytes), size, __ATOMIC_RELAXED);
    return block;
}

void *count_failure(std::size_t requested)
{
    class_counters &counters = common_shard.classes[class_of(static_cast<std::uint32_t>(requested))];
    __atomic_fetch_add(&counters.failures, 1, __ATOMIC_RELAXED);
    return nullptr;
}

statistics read()
{
    statistics sum = sum_of_shards();
    for_each_counter(sum, cleared, [](std::uint32_t &to, std::uint32_t from) { to -= from; });
    return sum;
}

void clear()
{
    cleared = sum_of_shards();
}

void watch_threads()
{
    if (!thread_end_is_watched)
        thread_end_is_watched = pthread_key_create(&thread_end, give_back) == 0;
}

void after_fork_in_child()
{
    for (shard &each : shards)
        if (&each != hooks::self.counters)
            each.taken = false;
}

} // namespace light
