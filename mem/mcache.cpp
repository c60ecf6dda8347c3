// SPDX-License-Identifier: Apache-2.0
// Object caches: pages of equal slots, a free list in each page, a list of pages with free slots and one of full pages.
//
//     page: | mcache_page | slot | slot | ...      slot: | slot_header | object | guard |
//
// The cache's lock protects its fields and its pages. zlist and last_id are atomic.
#include "mcache.h"

#include "fault/crash_notes.h"
#include "strutil.h"
#include "util/exported_variable.h"

#include <algorithm>
#include <cstddef>
#include <cstdint>
#include <cstdlib>
#include <pthread.h>
#include <type_traits>

using namespace qv;

struct mcache_page {
    std::uint64_t magic;
    std::uint32_t free_count;
    std::uint32_t owner; // the id of its cache
    mcache_page *prev;
    mcache_page *next;
    void *free_head; // the object of the first free slot
};

namespace {

// Lies before each object.
struct slot_header {
    std::uint32_t offset; // of the object from its page
    std::uint32_t flags;
};

constexpr std::uint64_t kMagic = 0xa68f25e04b37d14c;
constexpr std::uint32_t kUnit = 8192; // bytes
constexpr int kMaxUnits = 16;
constexpr std::uint32_t kSlotOverhead = sizeof(slot_header) + sizeof(std::uint64_t); // the guard follows
constexpr std::uint32_t kPageOverhead = sizeof(mcache_page) + sizeof(slot_header);
constexpr std::uint32_t kKeepSpare = 0x40;  // a flag of a cache
constexpr std::uint32_t kSpareLimit = 8144; // from this slot size on a cache keeps no spare page
constexpr std::uint32_t kAllocated = 1;     // a flag of a slot

static_assert(std::is_same_v<pthread_spinlock_t, volatile int>);
static_assert(sizeof(mcache_page) == 40 && offsetof(mcache_page, prev) == 16 && offsetof(mcache_page, free_head) == 32);
static_assert(sizeof(slot_header) == 8);
static_assert(sizeof(mcache) == 144 && offsetof(mcache, next_cache) == 8 && offsetof(mcache, name) == 48 &&
              offsetof(mcache, objs_per_slab) == 136 && offsetof(mcache, id) == 140);

// The id of the newest cache; 0 before the first.
std::uint32_t last_id;

slot_header *header_of(void *object)
{
    return static_cast<slot_header *>(object) - 1;
}

std::uint64_t *guard_of(const mcache *cache, void *object)
{
    return reinterpret_cast<std::uint64_t *>(static_cast<char *>(object) + cache->obj_size);
}

// The next free object, in the first word of a free one. In a cache of objects of 0 bytes that word is the guard's: it
// holds the guard only while the object is allocated.
void *&link_of(void *object)
{
    return *static_cast<void **>(object);
}

// Notes what was found for the crash log and crashes. The empty statement prevents a tail call: this function and its
// caller stay in the backtrace.
void fail(mcache_error_code code, const mcache *cache, void *object)
{
    bool has_guard = code == MCACHE_BAD_OBJECT && cache != nullptr;
    fault::note_cache_misuse({cache != nullptr ? cache->name : nullptr, code, reinterpret_cast<unsigned long>(object),
                              has_guard ? *guard_of(cache, object) : 0});
    mcache_error(code);
    asm volatile("" ::: "memory");
}

void init_page(mcache *cache, mcache_page *page)
{
    const std::size_t stride = std::size_t{cache->obj_size} + kSlotOverhead;
    char *object = reinterpret_cast<char *>(page + 1) + sizeof(slot_header);
    *page = {kMagic, cache->objs_per_page, cache->id, nullptr, nullptr, object};
    for (std::uint32_t left = cache->objs_per_page; left != 0; left--, object += stride) {
        *header_of(object) = {static_cast<std::uint32_t>(object - reinterpret_cast<char *>(page)), 0};
        *guard_of(cache, object) = MCACHE_GUARD;
        link_of(object) = left == 1 ? nullptr : object + stride;
    }
}

mcache_page *new_page(mcache *cache)
{
    auto *page = static_cast<mcache_page *>(std::malloc(std::size_t{cache->page_units} * kUnit));
    if (page != nullptr) {
        cache->page_count++;
        init_page(cache, page);
    }
    return page;
}

// Gives a cache without free slots a page. False without memory.
bool refill(mcache *cache)
{
    mcache_page *page = new_page(cache);
    if (page != nullptr && (cache->flags & kKeepSpare) != 0 && cache->spare_page == nullptr)
        cache->spare_page = new_page(cache);
    if (page == nullptr) {
        page = cache->spare_page;
        cache->spare_page = nullptr;
    }
    cache->partial_head = cache->partial_tail = page;
    return page != nullptr;
}

void unlink_page(mcache *cache, mcache_page *page)
{
    if (page->prev != nullptr)
        page->prev->next = page->next;
    if (page->next != nullptr)
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
    if (page->next != nullptr)
        page->next->prev = page;
    cache->full_pages = page;
}

void append_partial(mcache *cache, mcache_page *page)
{
    page->prev = cache->partial_tail;
    (page->prev != nullptr ? page->prev->next : cache->partial_head) = page;
    cache->partial_tail = page;
}

} // namespace

extern "C" {
mcache *zlist = nullptr;
[[gnu::visibility("hidden"), gnu::alias("zlist")]] extern mcache *own_zlist;
} // extern "C"

namespace {

constinit exported_variable<mcache *> newest_cache{own_zlist};

[[gnu::constructor]] void choose_zlist()
{
    newest_cache.choose(zlist);
}

} // namespace

extern "C" {

mcache *mcache_create(const char *name, unsigned size, void *, unsigned flags, int page_units)
{
    if (page_units < 0)
        return nullptr;
    const auto units = static_cast<std::uint32_t>(std::clamp(page_units, 1, kMaxUnits));
    const std::uint64_t obj_size =
        (std::uint64_t{size} + 7) & ~std::uint64_t{7}; // 64 bits: sizes near 2^32 must not wrap
    const std::uint64_t slot_size = obj_size + sizeof(slot_header);
    if (slot_size > std::uint64_t{units} * kUnit - kPageOverhead)
        return nullptr;
    auto *cache = static_cast<mcache *>(std::malloc(sizeof(mcache)));
    if (cache == nullptr) {
        mcache_error(MCACHE_NO_MEMORY);
        return nullptr;
    }
    *cache = {};
    cache->flags = slot_size < kSpareLimit ? flags | kKeepSpare : flags & ~kKeepSpare;
    cache->obj_size = static_cast<std::uint32_t>(obj_size);
    cache->slot_size = static_cast<std::uint32_t>(slot_size);
    cache->page_units = units;
    cache->objs_per_page = cache->objs_per_slab =
        static_cast<std::uint32_t>((std::size_t{units} * kUnit - sizeof(mcache_page)) / (obj_size + kSlotOverhead));
    cache->id = __atomic_add_fetch(&last_id, 1, __ATOMIC_RELAXED);
    pthread_spin_init(&cache->lock, PTHREAD_PROCESS_SHARED);
    strlcpy(cache->name, name, sizeof cache->name);
    cache->next_cache = __atomic_load_n(&*newest_cache, __ATOMIC_RELAXED);
    while (!__atomic_compare_exchange_n(&*newest_cache, &cache->next_cache, cache, true, __ATOMIC_RELEASE,
                                        __ATOMIC_RELAXED)) {
    }
    return cache;
}

void *mcache_alloc(mcache *cache)
{
    if (cache == nullptr)
        fail(MCACHE_NULL_CACHE, nullptr, nullptr);
    pthread_spin_lock(&cache->lock);
    while (cache->partial_head == nullptr) {
        const bool refilled = refill(cache);
        pthread_spin_unlock(&cache->lock);
        if (!refilled)
            return nullptr;
        pthread_spin_lock(&cache->lock);
    }
    mcache_page *page = cache->partial_head;
    void *object = page->free_head;
    if (object == nullptr)
        fail(MCACHE_LOST_FREE_LIST, cache, nullptr);
    slot_header *header = header_of(object);
    if ((header->flags & kAllocated) != 0)
        fail(MCACHE_SLOT_IN_USE, cache, object);
    header->flags |= kAllocated;
    page->free_head = link_of(object);
    if (cache->obj_size == 0)
        *guard_of(cache, object) = MCACHE_GUARD;
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
    if (object == nullptr)
        return;
    if (cache == nullptr)
        fail(MCACHE_NULL_CACHE, nullptr, object);
    pthread_spin_lock(&cache->lock);
    slot_header *header = header_of(object);
    auto *page = reinterpret_cast<mcache_page *>(static_cast<char *>(object) - header->offset);
    if (page->magic != kMagic || page->owner != cache->id)
        fail(MCACHE_FOREIGN_OBJECT, cache, object);
    if ((header->flags & kAllocated) == 0 || *guard_of(cache, object) != MCACHE_GUARD)
        fail(MCACHE_BAD_OBJECT, cache, object);
    cache->in_use--;
    if (page->free_count + 1 == cache->objs_per_slab) {
        // Volatile, so that the store is not dropped because the page is freed next: a stale pointer into the page must
        // not be accepted.
        *const_cast<volatile std::uint64_t *>(&page->magic) = 0;
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
    if (code < MCACHE_NULL_CACHE || code > MCACHE_BAD_OBJECT)
        return code - 1;
    // Forces a frame record: a leaf function has none, and the backtrace would lose the caller.
    asm volatile("" : : "r"(__builtin_frame_address(0)));
    volatile int *target = nullptr;
    asm volatile("" : "+r"(target)); // hides the null: the compiler drops a write that it knows to be undefined
    *target = code;
    __builtin_trap();
}

} // extern "C"
