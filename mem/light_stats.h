// SPDX-License-Identifier: Apache-2.0
// light_stats.h - the light statistics: counters by size class, and the hooks that keep them.
//
// Every allocation of the process is counted here, so no two threads write to one cache line. Each thread owns a slot
// and with it a shard of counters. When it ends it gives the slot back, and reports sum over all shards. Threads that
// find no free slot, and those that allocate while they end, count in one common shard by atomic additions.
#ifndef LIBCOMMON_MEM_LIGHT_STATS_H
#define LIBCOMMON_MEM_LIGHT_STATS_H

#include "mem/hook_table.h"

#include <array>
#include <bit>
#include <cstdint>

// Declared hidden, so that malloc() and free() address them directly: a compiler that only sees a declaration expects
// them in another object and loads each address from memory.
#pragma GCC visibility push(hidden)

namespace qv::light {

inline constexpr unsigned kClasses = 32;

struct class_counters {
    std::uint32_t allocs = 0;
    std::uint32_t frees = 0;
    std::uint32_t releases = 0; // blocks that a reallocation gave up
    std::uint32_t products = 0; // blocks that a reallocation gave
    std::uint32_t failures = 0;
    // Bytes held are the difference. Two counters instead of one, so that a free does not wait for the store of the
    // allocation before it.
    std::uint32_t bytes_taken = 0;
    std::uint32_t bytes_returned = 0;
    std::uint32_t padding = 0; // to a power of two: a multiplication by the size is a shift
};

struct alignas(64) statistics : std::array<class_counters, kClasses> {};

inline constexpr unsigned kShardBits = 7;
inline constexpr unsigned kShards = 1U << kShardBits;
static_assert(sizeof(statistics) % 64 == 0, "shards share no cache line");

// A thread finds its slot by a hash of its thread pointer. A slot keeps the shard that its first owner got, and shards
// are given out in their order: a process with few threads writes to few pages of them.
struct slot {
    // The owner's thread pointer, with kBeingClaimed while the shard is not set; 0 for none. Accessed atomically.
    std::uintptr_t owner;
    statistics *shard; // null until the first claim. Written before `owner`, by the thread that claims
};
inline constexpr std::uintptr_t kBeingClaimed = 1; // thread pointers are even

extern slot slots[kShards];
extern statistics shards[kShards];
extern statistics common_shard;

// The sum at the last clear(), which reports subtract: only its owner writes to a shard, so clear() cannot.
extern statistics cleared;

// The thread's shard if its slot is the first one of its probe sequence; else null.
inline statistics *shard_at_home()
{
    std::uintptr_t thread = threads::self();
    const slot &home = slots[threads::hash_of(thread, kShardBits)];
    if (__atomic_load_n(&home.owner, __ATOMIC_RELAXED) != thread) [[unlikely]]
        return nullptr;
    if (home.shard == nullptr)
        __builtin_unreachable(); // an owned slot has one: spares the callers' test
    return home.shard;
}

// The k with 2^k <= size < 2^(k+1); sizes 0 and 1 are in class 0.
inline unsigned class_of(std::uint32_t size)
{
    return static_cast<unsigned>(std::bit_width(size | 1)) - 1;
}

using counter = std::uint32_t class_counters::*;

inline void add(std::uint32_t &own, std::uint32_t value)
{
    __atomic_store_n(&own, own + value, __ATOMIC_RELAXED); // only this thread writes it; every thread reads it
}

// Adds one to `what`, and the size to `bytes`.
inline void count(statistics &own, counter what, std::uint32_t size, counter bytes)
{
    class_counters &counters = own[class_of(size)];
    add(counters.*what, 1);
    add(counters.*bytes, size);
}

// Counts for a thread whose slot is not at home: in the shard of the slot that its probe sequence holds or can get,
// else in the common one. Returns the block, so that the caller can end in a tail call.
void *count_in_searched_shard(counter what, std::uint32_t size, counter bytes, void *block);

// Counts in the common shard. Returns null.
void *count_failure(std::size_t requested);

// ---- the hooks ----

// The light hooks under their exported names.
extern const hooks::own_set kHooks;

// In these two, `size_of` returns what a block takes in the heap.

// Called before the block is freed. Null counts nothing. Returns false if the thread's slot is not at home and nothing
// was counted.
template <auto size_of = hooks::chunk_size>
[[gnu::always_inline]] inline bool count_given_up_at_home(counter what, void *block)
{
    if (block == nullptr)
        return true;
    statistics *own = shard_at_home();
    if (own == nullptr) [[unlikely]]
        return false;
    count(*own, what, size_of(block), &class_counters::bytes_returned);
    return true;
}

template <auto size_of = hooks::chunk_size>
[[gnu::always_inline]] inline void count_given_up(counter what, void *block)
{
    if (!count_given_up_at_home<size_of>(what, block))
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
    // Contract: the block counts as released even if the call fails and the block still exists.
    count_given_up(&class_counters::releases, ptr);
    return counted(&class_counters::products, hooks::old_realloc(ptr, size, caller), size);
}

// ---- reading, load and fork ----

statistics read();
void clear();

void watch_threads(); // once, at load
void after_fork_in_child();

} // namespace qv::light

#pragma GCC visibility pop

#endif
