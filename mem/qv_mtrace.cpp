// SPDX-License-Identifier: Apache-2.0
// Light heap statistics. The counting functions run the C library's allocator themselves; nothing is interposed yet, so
// they count what is allocated through them.
#include "qv_mtrace.h"

#include <algorithm>
#include <bit>
#include <cstdlib>

namespace {

constexpr int kClasses = 32;

struct size_class {
    uint32_t allocs, frees, releases, products, failures, bytes;
};

// Touched by atomic additions only.
size_class malloc_free_realloc_stat[kClasses];

size_class &class_of(uint32_t size)
{
    return malloc_free_realloc_stat[size < 2 ? 0 : std::bit_width(size) - 1];
}

void add(uint32_t &counter, uint32_t value)
{
    __atomic_fetch_add(&counter, value, __ATOMIC_RELAXED);
}
uint32_t get(const uint32_t &counter)
{
    return __atomic_load_n(&counter, __ATOMIC_RELAXED);
}

// What the block takes in the heap: the allocator's header word before it, without its three flag bits.
uint32_t chunk_size(void *ptr)
{
    asm volatile("" : "+r"(ptr)); // the compiler knows malloc's blocks and takes the header for out of bounds
    return static_cast<uint32_t>(static_cast<const size_t *>(ptr)[-1] & ~size_t{7});
}

void count(uint32_t size_class::*what, uint32_t size, uint32_t bytes)
{
    size_class &entry = class_of(size);
    add(entry.*what, 1);
    add(entry.bytes, bytes);
}

mtrace_class_row row_of(int k)
{
    const size_class &c = malloc_free_realloc_stat[k];
    mtrace_class_row row = {1U << k,         get(c.bytes),   0, get(c.allocs), get(c.frees), get(c.releases),
                            get(c.products), get(c.failures)};
    row.blocks = row.allocs + row.realloc_products - row.frees - row.realloc_releases;
    return row;
}

} // namespace

static_assert(sizeof(leak_group) == 72 && offsetof(mtrace_stat_record, rows) == 64 &&
              offsetof(mtrace_stat_record, row) == 72);

extern "C" {

void *my_malloc_light_hook(size_t size, const void *)
{
    void *ptr = std::malloc(size);
    if (ptr)
        count(&size_class::allocs, chunk_size(ptr), chunk_size(ptr));
    else
        count(&size_class::failures, static_cast<uint32_t>(size), 0);
    return ptr;
}

void my_free_light_hook(void *ptr, const void *)
{
    if (!ptr)
        return;
    count(&size_class::frees, chunk_size(ptr), 0U - chunk_size(ptr));
    std::free(ptr);
}

// A failed call counts the old block as released although it lives.
void *my_realloc_light_hook(void *ptr, size_t size, const void *)
{
    if (ptr)
        count(&size_class::releases, chunk_size(ptr), 0U - chunk_size(ptr));
    void *moved = std::realloc(ptr, size);
    if (moved)
        count(&size_class::products, chunk_size(moved), chunk_size(moved));
    else
        count(&size_class::failures, static_cast<uint32_t>(size), 0);
    return moved;
}

int qv_mtrace_stat_min(mtrace_stat_record *rec)
{
    mtrace_class_row sum = {};
    for (int k = 0; k < kClasses; k++) {
        const mtrace_class_row row = row_of(k);
        sum.bytes += row.bytes;
        sum.blocks += row.blocks;
        sum.allocs += row.allocs;
        sum.frees += row.frees;
        sum.realloc_releases += row.realloc_releases;
        sum.realloc_products += row.realloc_products;
        sum.failures += row.failures;
    }
    rec->light_bytes = sum.bytes;
    rec->light_blocks = sum.blocks;
    rec->light_allocs = sum.allocs;
    rec->light_frees = sum.frees;
    rec->light_releases = sum.realloc_releases;
    rec->light_products = sum.realloc_products;
    rec->light_failures = sum.failures;
    rec->rows = 1;
    return 1;
}

int qv_mtrace_stat(mtrace_stat_record *rec, int mode)
{
    qv_mtrace_stat_min(rec);
    if (mode == 7)
        return 8;
    for (int k = 0; k < kClasses; k++)
        rec->row.classes[k] = row_of(k);
    rec->rows = kClasses;
    return 6;
}

void signal_mtrace(int) {}

} // extern "C"
