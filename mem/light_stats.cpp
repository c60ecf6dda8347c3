// SPDX-License-Identifier: Apache-2.0
// The shards of the light statistics: the slots of their owners, and their sum.
#include "mem/light_stats.h"

#include <algorithm>
#include <iterator>
#include <pthread.h>
#include <unistd.h>

namespace qv::light {

slot slots[kShards];
statistics shards[kShards];
statistics common_shard;
statistics cleared;

namespace {

constexpr unsigned kProbes = 8; // length of a probe sequence: the home of the thread and the slots after it

unsigned shards_in_use = 0; // the first ones

pthread_key_t thread_end;
bool thread_end_is_watched;

// The last threads that gave their slot back. Such a thread counts what it still does in the common shard, since it
// would never give back a second one. The kernel's thread id distinguishes it from a later thread with the same thread
// pointer.
std::uint64_t ending[64];
unsigned next_ending = 0;

std::uint64_t ending_mark()
{
    constexpr int kIdShift = 42;
    return threads::self() ^ static_cast<std::uint64_t>(::gettid()) << kIdShift;
}

bool is_ending()
{
    return std::any_of(std::begin(ending), std::end(ending), [mark = ending_mark()](std::uint64_t &each) {
        return __atomic_load_n(&each, __ATOMIC_RELAXED) == mark;
    });
}

void give_back(void *own)
{
    unsigned i = __atomic_fetch_add(&next_ending, 1, __ATOMIC_RELAXED) % std::size(ending);
    __atomic_store_n(&ending[i], ending_mark(), __ATOMIC_RELAXED);
    __atomic_store_n(&static_cast<slot *>(own)->owner, 0, __ATOMIC_RELEASE);
}

// The first slot in the thread's probe sequence with this owner (0 for a free slot); null if there is none.
slot *probe(std::uintptr_t thread, std::uintptr_t owner)
{
    for (unsigned i = 0; i < kProbes; i++) {
        slot &each = slots[(threads::hash_of(thread, kShardBits) + i) % kShards];
        if (__atomic_load_n(&each.owner, __ATOMIC_RELAXED) == owner)
            return &each;
    }
    return nullptr;
}

// Null when all shards are in use. Normally there is one for each slot; a fork during a claim loses one to the child.
statistics *next_shard()
{
    unsigned i = __atomic_load_n(&shards_in_use, __ATOMIC_RELAXED);
    while (i < kShards) {
        if (__atomic_compare_exchange_n(&shards_in_use, &i, i + 1, false, __ATOMIC_RELAXED, __ATOMIC_RELAXED))
            return &shards[i];
    }
    return nullptr;
}

// A signal handler that interrupts its thread's claim gets none: the thread would give back only one of two slots.
slot *claim(std::uintptr_t thread)
{
    if (probe(thread, thread | kBeingClaimed) != nullptr)
        return nullptr;
    for (slot *free = probe(thread, 0); free != nullptr; free = probe(thread, 0)) {
        if (is_ending())
            return nullptr;
        std::uintptr_t nobody = 0;
        if (!__atomic_compare_exchange_n(&free->owner, &nobody, thread | kBeingClaimed, false, __ATOMIC_ACQUIRE,
                                         __ATOMIC_RELAXED))
            continue;
        if (free->shard == nullptr)
            free->shard = next_shard();
        if (free->shard == nullptr) {
            __atomic_store_n(&free->owner, 0, __ATOMIC_RELEASE);
            return nullptr;
        }
        __atomic_store_n(&free->owner, thread, __ATOMIC_RELEASE);
        if (thread_end_is_watched)
            pthread_setspecific(thread_end, free);
        return free;
    }
    return nullptr;
}

// Null for a thread that counts in the common shard.
statistics *find_or_claim()
{
    std::uintptr_t thread = threads::self();
    slot *own = probe(thread, thread);
    if (own == nullptr)
        own = claim(thread);
    return own != nullptr ? own->shard : nullptr;
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
    auto add_all = [&](const statistics &from) {
        for_each_counter(sum, from, [](std::uint32_t &to, std::uint32_t more) { to += more; });
    };
    std::for_each_n(shards, __atomic_load_n(&shards_in_use, __ATOMIC_RELAXED), add_all);
    add_all(common_shard);
    return sum;
}

} // namespace

void *count_in_searched_shard(counter what, std::uint32_t size, counter bytes, void *block)
{
    if (statistics *own = find_or_claim(); own != nullptr) {
        count(*own, what, size, bytes);
        return block;
    }
    class_counters &counters = common_shard[class_of(size)];
    __atomic_fetch_add(&(counters.*what), 1, __ATOMIC_RELAXED);
    __atomic_fetch_add(&(counters.*bytes), size, __ATOMIC_RELAXED);
    return block;
}

void *count_failure(std::size_t requested)
{
    class_counters &counters = common_shard[class_of(static_cast<std::uint32_t>(requested))];
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
    for (slot &each : slots) {
        if ((each.owner & ~kBeingClaimed) != threads::self())
            each.owner = 0;
    }
}

} // namespace qv::light
