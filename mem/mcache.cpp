// SPDX-License-Identifier: Apache-2.0
// Object caches: pages of equal slots, a free list per page, a list of pages with free slots and one of full pages.
#include "mcache.h"

#include "fault/crash_notes.h"
#include "strutil.h"

#include <algorithm>
#include <cstddef>
#include <cstdlib>
#include <pthread.h>
#include <type_traits>

struct mcache_page {
    uint64_t magic;
    uint32_t free_count;
    uint32_t owner; // the cache's id
    mcache_page *prev;
    mcache_page *next;
    void *free_head; // an object, not its slot
};

namespace {

constexpr uint64_t kMagic = 0xa68f25e04b37d14c;
constexpr uint64_t kGuard = 0xdeaddeaddeaddead;
constexpr uint32_t kUnit = 8192;
constexpr int kMaxUnits = 16;
constexpr uint32_t kPageOverhead = 48;
constexpr uint32_t kKeepSpare = 0x40;
constexpr uint32_t kSpareLimit = 8144;
constexpr uint32_t kAllocated = 1;

struct slot_header {
    uint32_t offset; // of the object from its page
    uint32_t flags;
};

static_assert(std::is_same_v<pthread_spinlock_t, volatile int>);
static_assert(sizeof(mcache_page) == 40 && offsetof(mcache_page, prev) == 16 && offsetof(mcache_page, free_head) == 32);
static_assert(sizeof(slot_header) == 8);
static_assert(sizeof(mcache) == 144 && offsetof(mcache, next_cache) == 8 && offsetof(mcache, name) == 48 &&
              offsetof(mcache, objs_per_slab) == 136 && offsetof(mcache, id) == 140);

// The id of the cache made last. No cache has the id 0.
uint32_t last_id;

slot_header *header_of(void *object)
{
    return static_cast<slot_header *>(object) - 1;
}

uint64_t *guard_of(const mcache *cache, void *object)
{
    return reinterpret_cast<uint64_t *>(static_cast<char *>(object) + cache->obj_size);
}

// In a cache of objects of no bytes link and guard are one word: the guard stands there only while allocated.
void *&link_of(void *object)
{
    return *static_cast<void **>(object);
}

// The empty statement keeps the call from becoming a jump, so that the caller is in the backtrace.
void fail(int code, const mcache *cache, void *object)
{
    bool has_guard = code == 5 && cache != nullptr;
    fault::note_cache_misuse({cache != nullptr ? cache->name : nullptr, code, reinterpret_cast<unsigned long>(object),
                              has_guard ? *guard_of(cache, object) : 0});
    mcache_error(code);
    asm volatile("" ::: "memory");
}

void mcache_init_page(mcache *cache, mcache_page *page)
{
    const size_t stride = size_t{cache->obj_size} + 16;
    char *object = reinterpret_cast<char *>(page + 1) + sizeof(slot_header);
    *page = {kMagic, cache->objs_per_page, cache->id, nullptr, nullptr, object};
    for (uint32_t left = cache->objs_per_page; left != 0; left--, object += stride) {
        *header_of(object) = {static_cast<uint32_t>(object - reinterpret_cast<char *>(page)), 0};
        *guard_of(cache, object) = kGuard;
        link_of(object) = left == 1 ? nullptr : object + stride;
    }
}

mcache_page *new_page(mcache *cache)
{
    auto *page = static_cast<mcache_page *>(std::malloc(size_t{cache->page_units} * kUnit));
    if (page) {
        cache->page_count++;
        mcache_init_page(cache, page);
    }
    return page;
}

// Gives the cache a page with free slots.
bool refill(mcache *cache)
{
    mcache_page *page = new_page(cache);
    if (page && (cache->flags & kKeepSpare) && !cache->spare_page)
        cache->spare_page = new_page(cache);
    if (!page) {
        page = cache->spare_page;
        cache->spare_page = nullptr;
    }
    cache->partial_head = cache->partial_tail = page;
    return page != nullptr;
}

void unlink_page(mcache *cache, mcache_page *page)
{
    if (page->prev)
        page->prev->next = page->next;
    if (page->next)
        page->next->prev = page->prev;
    if (page == cache->full_pages)
        cache->full_pages = page->next;
    if (page == cache->partial_head)
        cache->partial_head = page->next;
    if (page == cache->partial_tail)
        cache->partial_tail = page->prev;
    page->prev = page->next = nullptr;
}

void push_full(mcache *cache, mcache_page *page)
{
    page->next = cache->full_pages;
    if (page->next)
        page->next->prev = page;
    cache->full_pages = page;
}

void append_partial(mcache *cache, mcache_page *page)
{
    page->prev = cache->partial_tail;
    (page->prev ? page->prev->next : cache->partial_head) = page;
    cache->partial_tail = page;
}

} // namespace

extern "C" {

mcache *zlist;

mcache *mcache_create(const char *name, unsigned size, void *, unsigned flags, int page_units)
{
    if (page_units < 0)
        return nullptr;
    const auto units = static_cast<uint32_t>(std::clamp(page_units, 1, kMaxUnits));
    const uint64_t obj_size = (uint64_t{size} + 7) & ~uint64_t{7}; // 64 bits: sizes near 2^32 must not wrap
    const uint64_t slot_size = obj_size + 8;
    if (slot_size > uint64_t{units} * kUnit - kPageOverhead)
        return nullptr;
    auto *cache = static_cast<mcache *>(std::malloc(sizeof(mcache)));
    if (!cache) {
        mcache_error(6);
        return nullptr;
    }
    *cache = {};
    cache->flags = slot_size < kSpareLimit ? flags | kKeepSpare : flags & ~kKeepSpare;
    cache->obj_size = static_cast<uint32_t>(obj_size);
    cache->slot_size = static_cast<uint32_t>(slot_size);
    cache->page_units = units;
    cache->objs_per_page = cache->objs_per_slab =
        static_cast<uint32_t>((size_t{units} * kUnit - sizeof(mcache_page)) / (obj_size + 16));
    cache->id = __atomic_add_fetch(&last_id, 1, __ATOMIC_RELAXED);
    pthread_spin_init(&cache->lock, PTHREAD_PROCESS_SHARED);
    strlcpy(cache->name, name, sizeof cache->name);
    cache->next_cache = __atomic_load_n(&zlist, __ATOMIC_RELAXED);
    while (!__atomic_compare_exchange_n(&zlist, &cache->next_cache, cache, true, __ATOMIC_RELEASE, __ATOMIC_RELAXED)) {
    }
    return cache;
}

void *mcache_alloc(mcache *cache)
{
    if (!cache)
        fail(1, nullptr, nullptr);
    pthread_spin_lock(&cache->lock);
    while (!cache->partial_head) {
        const bool refilled = refill(cache);
        pthread_spin_unlock(&cache->lock);
        if (!refilled)
            return nullptr;
        pthread_spin_lock(&cache->lock);
    }
    mcache_page *page = cache->partial_head;
    void *object = page->free_head;
    if (!object)
        fail(2, cache, nullptr);
    slot_header *header = header_of(object);
    if (header->flags & kAllocated)
        fail(3, cache, object);
    header->flags |= kAllocated;
    page->free_head = link_of(object);
    if (cache->obj_size == 0)
        *guard_of(cache, object) = kGuard;
    cache->in_use++;
    if (--page->free_count == 0) {
        unlink_page(cache, page);
        push_full(cache, page);
    }
    pthread_spin_unlock(&cache->lock);
    return object;
}

void mcache_free(mcache *cache, void *object)
{
    if (!object)
        return;
    if (!cache)
        fail(1, nullptr, object);
    pthread_spin_lock(&cache->lock);
    slot_header *header = header_of(object);
    auto *page = reinterpret_cast<mcache_page *>(static_cast<char *>(object) - header->offset);
    if (page->magic != kMagic || page->owner != cache->id)
        fail(4, cache, object);
    if (!(header->flags & kAllocated) || *guard_of(cache, object) != kGuard)
        fail(5, cache, object);
    cache->in_use--;
    if (page->free_count + 1 == cache->objs_per_slab) {
        // Volatile: the store must reach memory although the block is freed next, or a stale pointer passes for good.
        *const_cast<volatile uint64_t *>(&page->magic) = 0;
        unlink_page(cache, page);
        cache->page_count--;
        std::free(page);
    } else {
        header->flags &= ~kAllocated;
        link_of(object) = page->free_head;
        page->free_head = object;
        if (++page->free_count == 1) {
            unlink_page(cache, page);
            append_partial(cache, page);
        }
    }
    pthread_spin_unlock(&cache->lock);
}

int mcache_error(int code)
{
    if (code < 1 || code > 5)
        return code - 1;
    // The frame keeps the function that found the misuse in the backtrace; a leaf would have none of its own.
    asm volatile("" : : "r"(__builtin_frame_address(0)));
    volatile int *target = nullptr;
    asm volatile("" : "+r"(target)); // hides the null, or the write is taken for impossible and left out
    *target = code;
    __builtin_trap();
}

} // extern "C"
