// SPDX-License-Identifier: Apache-2.0
// light_stats.h - the light statistics: counters by size class, and the hooks that keep them.
//
// Every allocation of the process comes by here, so no two threads write one cache line: each thread has a shard of
// counters to itself, which it gives back when it ends, with what it has counted; reports sum over all. Threads beyond
// the number of shards, and those that allocate while they end, share the first one by atomic additions.
#ifndef LIBCOMMON_MEM_LIGHT_STATS_H
#define LIBCOMMON_MEM_LIGHT_STATS_H

#include "mem/hook_table.h"

#include <array>
#include <bit>
#include <cstdint>

namespace light {

inline constexpr unsigned kClasses = 32;

struct class_counters {
    std::uint32_t allocs = 0;
    std::uint32_t frees = 0;
    std::uint32_t releases = 0; // blocks that a reallocation gave up
    std::uint32_t products = 0; // blocks that a reallocation gave
    std::uint32_t failures = 0;
    // Bytes held are the difference. They are kept apart so that an allocation and the next free need not wait for each
    // other's write.
    std::uint32_t bytes_taken = 0;
    std::uint32_t bytes_returned = 0;
    std::uint32_t padding = 0; // to a power of two
};

struct alignas(64) statistics : std::array<class_counters, kClasses> {};

inline constexpr unsigned kShardBits = 7;
inline constexpr unsigned kShards = 1U << kShardBits;
static_assert(sizeof(statistics) % 64 == 0, "shards share no cache line");

// A shard's owner is its thread's pointer; 0 for none. Apart from the counters, since every thread reads them, and
// written seldom: atomically.
extern std::uintptr_t owners[kShards];
extern statistics shards[kShards];

// The thread's shard if it is where it should be; else null, and the slow way finds or makes it.
inline statistics *shard_at_home()
{
    std::uintptr_t thread = threads::self();
    unsigned home = threads::hash_of(thread, kShardBits);
    return __atomic_load_n(&owners[home], __ATOMIC_RELAXED) == thread ? &shards[home] : nullptr;
}

// The class of 2^k and above, below 2^(k+1); 0 and 1 share the first.
inline unsigned class_of(std::uint32_t size)
{
    return static_cast<unsigned>(std::bit_width(size | 1)) - 1;
}

using counter = std::uint32_t class_counters::*;

inline void add(std::uint32_t &own, std::uint32_t value)
{
    __atomic_store_n(&own, own + value, __ATOMIC_RELAXED); // written by this thread alone; read by any
}

// One more of `what`, and the size to `bytes`.
inline void count(statistics &own, counter what, std::uint32_t size, counter bytes)
{
    class_counters &counters = own[class_of(size)];
    add(counters.*what, 1);
    add(counters.*bytes, size);
}

// For a thread whose shard is not at home: in the one that it has or gets, or in the common one. Returns the block, so
// that the caller has nothing left to do.
void *count_in_searched_shard(counter what, std::uint32_t size, counter bytes, void *block);

// Returns null. Any thread.
void *count_failure(std::size_t requested);

// ---- the hooks ----

// The light hooks under their exported names.
extern const hooks::own_set kHooks;

// In these two, `size_of` returns what a block takes in the heap.

// Before the block goes; nothing for null.
template <auto size_of = hooks::chunk_size>
[[gnu::always_inline]] inline void count_given_up(counter what, void *block)
{
    if (block == nullptr)
        return;
    statistics *own = shard_at_home();
    if (own != nullptr) [[likely]]
        count(*own, what, size_of(block), &class_counters::bytes_returned);
    else
        count_in_searched_shard(what, size_of(block), &class_counters::bytes_returned, block);
}

template <auto size_of = hooks::chunk_size>
[[gnu::always_inline]] inline void *counted(counter what, void *block, std::size_t requested)
{
    if (block == nullptr) [[unlikely]]
        return count_failure(requested);
    statistics *own = shard_at_home();
    if (own == nullptr) [[unlikely]]
        return count_in_searched_shard(what, size_of(block), &class_counters::bytes_taken, block);
    count(*own, what, size_of(block), &class_counters::bytes_taken);
    return block;
}

inline void *allocate(std::size_t size, const void *caller)
{
    return counted(&class_counters::allocs, hooks::old_malloc(size, caller), size);
}

inline void release(void *ptr, const void *caller)
{
    count_given_up(&class_counters::frees, ptr);
    hooks::old_free(ptr, caller);
}

inline void *reallocate(void *ptr, std::size_t size, const void *caller)
{
    // Counted as released even if the call fails and the block lives on; readers of the counters reckon with it.
    count_given_up(&class_counters::releases, ptr);
    return counted(&class_counters::products, hooks::old_realloc(ptr, size, caller), size);
}

// ---- reading and lifecycle ----

statistics read();
void clear();

void watch_threads(); // once, at load
void after_fork_in_child();

} // namespace light

#endif
