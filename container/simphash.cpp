// SPDX-License-Identifier: Apache-2.0
// The simple hash table.
#include "simphash.h"

#include "container/zeroed_malloc.h"
#include "log/trace_error.h"

#include <cstddef>
#include <cstdint>
#include <cstdlib>

using namespace qv;

static_assert(offsetof(simphash_entry, pprev) == 8 && offsetof(simphash_entry, value) == 16);
static_assert(offsetof(simphash, log_size) == 8 && offsetof(simphash, mask) == 12 && sizeof(simphash) == 16);

namespace {

// Contract: the line numbers by which log readers identify the failures. They are not those of this file.
enum report_line { kBadSize = 34, kNoTable = 41, kNoBuckets = 47, kNoEntry = 69, kNotFound = 99 };

constexpr unsigned kLogSizeMask = 31;

void report(report_line line, const char *text)
{
    trace::error("simphash", line, text);
}

// The link that points at the first matching entry; null when none matches.
simphash_entry **find(simphash *table, unsigned hash, simphash_cmp_fn cmp, void *key)
{
    for (simphash_entry **link = &table->buckets[hash & table->mask]; *link != nullptr; link = &(*link)->next) {
        if (cmp((*link)->value, key) == 0)
            return link;
    }
    return nullptr;
}

} // namespace

extern "C" {

struct simphash *simphash_create(unsigned log_size)
{
    std::uint32_t count = std::uint32_t{1} << (log_size & kLogSizeMask);
    if (count == 0) { // impossible while the size is reduced modulo 32
        report(kBadSize, "invalid logsize when creating simple hash table\n");
        return nullptr;
    }
    auto *table = static_cast<simphash *>(std::malloc(sizeof(simphash)));
    if (table == nullptr) {
        report(kNoTable, "Can not allocate simple hash table\n");
        return nullptr;
    }
    auto *buckets = container::zeroed_malloc(std::size_t{count} * sizeof(simphash_entry *));
    *table = {static_cast<simphash_entry **>(buckets), log_size, count - 1};
    if (buckets == nullptr) {
        report(kNoBuckets, "Can not allocate simple hash table pointers\n");
        std::free(table);
        return nullptr;
    }
    return table;
}

int simphash_insert(struct simphash *table, unsigned hash, uintptr_t value)
{
    auto *entry = static_cast<simphash_entry *>(std::malloc(sizeof(simphash_entry)));
    if (entry == nullptr) {
        report(kNoEntry, "insert_simphash: can not allocate memory\n");
        return -1;
    }
    simphash_entry **bucket = &table->buckets[hash & table->mask];
    *entry = {*bucket, bucket, value};
    if (entry->next != nullptr)
        entry->next->pprev = &entry->next;
    *bucket = entry;
    return 0;
}

uintptr_t simphash_remove(struct simphash *table, unsigned hash, void *key, simphash_cmp_fn cmp)
{
    simphash_entry **link = find(table, hash, cmp, key);
    if (link == nullptr) {
        report(kNotFound, "remove_simphash: not found\n");
        return 0;
    }
    simphash_entry *entry = *link;
    if (entry->next != nullptr)
        entry->next->pprev = entry->pprev;
    *entry->pprev = entry->next;
    uintptr_t value = entry->value;
    std::free(entry);
    return value;
}

uintptr_t simphash_find(struct simphash *table, unsigned hash, simphash_cmp_fn cmp, void *key)
{
    simphash_entry **link = find(table, hash, cmp, key);
    return link != nullptr ? (*link)->value : 0;
}

} // extern "C"
