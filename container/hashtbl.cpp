// SPDX-License-Identifier: Apache-2.0
// The intrusive hash table.
#include "hashtbl.h"

#include "console_print.h"

#include <cstddef>
#include <cstdint>
#include <cstdlib>
#include <cstring>

static_assert(offsetof(hashtbl_link, prev) == 0);
static_assert(offsetof(hashtbl_link, next) == 8);
static_assert(offsetof(hashtbl_link, hash) == 16);
static_assert(sizeof(hashtbl_link) == 24);

static_assert(offsetof(hashtbl, log_size) == 0);
static_assert(offsetof(hashtbl, flag) == 1);
static_assert(offsetof(hashtbl, link_offset) == 2);
static_assert(offsetof(hashtbl, count) == 4);
static_assert(offsetof(hashtbl, buckets) == 8);
static_assert(sizeof(hashtbl) == 16);

namespace {

constexpr unsigned kMaxLogSize = 20;
constexpr unsigned kMaxLinkOffset = 65535;

// A link as the table reads and writes it: callers pack objects, so a link may lie at any alignment. The attribute
// costs nothing on machines with unaligned loads.
struct [[gnu::packed, gnu::may_alias]] link_record
{
    hashtbl_link *prev;
    hashtbl_link *next;
    std::uint32_t hash;
};
static_assert(offsetof(link_record, hash) == offsetof(hashtbl_link, hash));

link_record &at(hashtbl_link *link)
{
    return *reinterpret_cast<link_record *>(link);
}

hashtbl_link *link_of(const hashtbl *table, void *object)
{
    return reinterpret_cast<hashtbl_link *>(static_cast<char *>(object) + table->link_offset);
}

void *object_of(const hashtbl *table, hashtbl_link *link)
{
    return reinterpret_cast<char *>(link) - table->link_offset;
}

std::size_t bucket_count(const hashtbl *table)
{
    return std::size_t{1} << table->log_size;
}

hashtbl_link *&bucket_of(const hashtbl *table, unsigned hash)
{
    return table->buckets[hash & (bucket_count(table) - 1)];
}

hashtbl_link *next_with(unsigned hash, hashtbl_link *link)
{
    while (link != nullptr && at(link).hash != hash)
        link = at(link).next;
    return link;
}

template <typename IsSought>
[[gnu::noinline]] void *sought_from(hashtbl_link *link, const hashtbl *table, unsigned hash, IsSought is_sought)
{
    do {
        void *object = object_of(table, link);
        if (is_sought(object))
            return object;
        // The link is computed again instead of kept over the call: one callee-saved register fewer.
        link = next_with(hash, at(link_of(table, object)).next);
    } while (link != nullptr);
    return nullptr;
}

// Two functions, so that most misses end in the one that calls nothing and therefore saves no registers.
template <typename IsSought>
void *find(const hashtbl *table, unsigned hash, IsSought is_sought)
{
    hashtbl_link *link = next_with(hash, bucket_of(table, hash));
    return link != nullptr ? sought_from(link, table, hash, is_sought) : nullptr;
}

} // namespace

extern "C" {

hashtbl *hashtbl_init(unsigned log_size, unsigned link_offset, int flag)
{
    if (log_size > kMaxLogSize) {
        console_print("log size of the table must be between 1 and 2^20\n");
        return nullptr;
    }
    if (link_offset > kMaxLinkOffset) {
        console_print("offset of hash table link must be between 0 and 65535\n");
        return nullptr;
    }

    auto *table = static_cast<hashtbl *>(std::malloc(sizeof(hashtbl)));
    if (table == nullptr) {
        console_print("memory allocation error, size=%lu\r\n", sizeof(hashtbl));
        return nullptr;
    }
    table->buckets = static_cast<hashtbl_link **>(std::calloc(sizeof(hashtbl_link *) << log_size, 1));
    if (table->buckets == nullptr) {
        // Contract: the size of one slot, not of the table. Log readers compute the rest from log_size.
        console_print("memory allocation error,tbl size=%lu,log_size=%d\n", sizeof(hashtbl_link *),
                      static_cast<int>(log_size));
        std::free(table);
        return nullptr;
    }
    table->log_size = static_cast<std::uint8_t>(log_size);
    table->flag = flag != 0;
    table->link_offset = static_cast<std::uint16_t>(link_offset);
    table->count = 0;
    return table;
}

int hashtbl_destroy(hashtbl *table)
{
    std::free(table->buckets);
    std::free(table);
    return 0;
}

int hashtbl_reset(hashtbl *table)
{
    std::memset(table->buckets, 0, bucket_count(table) * sizeof(hashtbl_link *));
    table->count = 0;
    return 0;
}

int hashtbl_grow(hashtbl *)
{
    return 0;
}

int hashtbl_free_all_objects(hashtbl *table, void (*release)(void *object, void *arg), void *arg)
{
    if (table == nullptr || table->count == 0)
        return 0;
    for (std::size_t i = 0; i < bucket_count(table); i++) {
        hashtbl_link *link = table->buckets[i];
        if (link == nullptr)
            continue;
        while (link != nullptr) {
            hashtbl_link *next = at(link).next;
            if (release != nullptr)
                release(object_of(table, link), arg);
            link = next;
        }
        table->buckets[i] = nullptr;
    }
    table->count = 0;
    return 0;
}

int hashtbl_insert(hashtbl *table, unsigned hash, void *object)
{
    hashtbl_link *link = link_of(table, object);
    hashtbl_link *&head = bucket_of(table, hash);
    if (head != nullptr)
        at(head).prev = link;
    at(link) = {nullptr, head, hash};
    head = link;
    table->count++;
    return 0;
}

int hashtbl_remove(hashtbl *table, unsigned hash, void *object)
{
    hashtbl_link *link = link_of(table, object);
    hashtbl_link *&head = bucket_of(table, hash);

    // Callers remove objects that may have been removed before, so the link's own pointers are trusted only once it has
    // been found in the chain.
    hashtbl_link *cursor = head;
    while (cursor != link) {
        if (cursor == nullptr)
            return 0;
        cursor = at(cursor).next;
    }

    link_record &record = at(link);
    if (record.next != nullptr)
        at(record.next).prev = record.prev;
    if (record.prev != nullptr)
        at(record.prev).next = record.next;
    if (head == link)
        head = record.next;
    record.prev = nullptr;
    record.next = nullptr;
    table->count--;
    return 0;
}

void *hashtbl_find(hashtbl *table, void *key, unsigned hash, int (*match)(void *object, void *key))
{
    return find(table, hash, [=](void *object) { return match(object, key) != 0; });
}

void *hashtbl_find2(hashtbl *table, void *key, unsigned hash, int (*compare)(void *object, void *key, void *arg),
                    void *arg)
{
    return find(table, hash, [=](void *object) { return compare(object, key, arg) == 0; });
}

int hashtbl_traverse_each(hashtbl *table, int (*visit)(void *object, void *arg), void *arg)
{
    if (table == nullptr || visit == nullptr || table->count == 0)
        return 0;
    for (std::size_t i = 0; i < bucket_count(table); i++) {
        for (hashtbl_link *link = table->buckets[i]; link != nullptr; link = at(link).next) {
            if (visit(object_of(table, link), arg) != 0)
                return -1;
        }
    }
    return 0;
}

int hashtbl_traverse_each_safe(hashtbl *table, int (*visit)(void *object, void *arg), void *arg)
{
    if (table == nullptr || visit == nullptr || table->count == 0)
        return 0;
    for (std::size_t i = 0; i < bucket_count(table); i++) {
        for (hashtbl_link *link = table->buckets[i], *next; link != nullptr; link = next) {
            next = at(link).next;
            visit(object_of(table, link), arg);
        }
    }
    return 0;
}

} // extern "C"
