// SPDX-License-Identifier: Apache-2.0
// Name-to-identifier tables. Both families are one table; they differ in how a key is hashed and compared.
#include "name2id.h"

#include "base/tail_queue.h"
#include "strutil.h"

#include <cstddef>
#include <cstdint>
#include <cstdlib>
#include <cstring>

using namespace qv;

static_assert(offsetof(name2id_entry, name) == 0);
static_assert(offsetof(name2id_entry, id) == 256);
static_assert(offsetof(name2id_entry, id2) == 260);
static_assert(offsetof(name2id_entry, data) == 264);
static_assert(offsetof(name2id_entry, data_free) == 272);
static_assert(offsetof(name2id_entry, next) == 280);
static_assert(offsetof(name2id_entry, prev) == 288);
static_assert(offsetof(name2id_entry, link) == 296);
static_assert(sizeof(name2id_entry) == 320);

static_assert(offsetof(name2id_tbl, first) == 0);
static_assert(offsetof(name2id_tbl, last) == 8);
static_assert(offsetof(name2id_tbl, hashtbl) == 16);
static_assert(sizeof(name2id_tbl) == 24);

static_assert(offsetof(name2id_key2, name) == 0);
static_assert(offsetof(name2id_key2, scope) == 8);

namespace {

constexpr int kNotFound = -1;

unsigned hash_of(const char *name)
{
    return qv_string_hash(name, static_cast<int>(std::strlen(name)));
}

name2id_entry *create_entry(const char *name, unsigned id, unsigned id2)
{
    if (name == nullptr)
        return nullptr;
    auto *entry = static_cast<name2id_entry *>(std::calloc(1, sizeof(name2id_entry)));
    if (entry == nullptr)
        return nullptr;
    entry->data_free = std::free;
    strlcpy(entry->name, name, sizeof entry->name);
    entry->id = id;
    entry->id2 = id2;
    return entry;
}

bool is_usable(const name2id_tbl *table, const name2id_entry *entry)
{
    return table != nullptr && table->hashtbl != nullptr && entry != nullptr;
}

void insert(name2id_tbl *table, name2id_entry *entry, unsigned hash)
{
    hashtbl_insert(table->hashtbl, hash, entry);
    base::tail_queue_append(*table, *entry);
}

// Uses the hash of the insertion, not that of the current key: an entry whose name a caller has changed would stay in
// its old chain after it is freed.
bool unlink_from_hashtbl(hashtbl *index, name2id_entry *entry)
{
    std::uint32_t count = index->count;
    hashtbl_remove(index, entry->link.hash, entry);
    return index->count != count;
}

// Unlinks the entry before the data's function runs, which may search the table.
void release(name2id_tbl *table, name2id_entry *entry)
{
    void *data = entry->data;
    auto *data_free = entry->data_free != nullptr ? entry->data_free : std::free;
    base::tail_queue_unlink(*table, *entry);
    if (data != nullptr)
        data_free(data);
    std::free(entry);
}

bool is_listed(const name2id_tbl *table, const name2id_entry *entry)
{
    const name2id_entry *cursor = table->first;
    while (cursor != nullptr && cursor != entry)
        cursor = cursor->next;
    return cursor != nullptr;
}

// A caller may have emptied the hash table directly. Only then the list is searched: an entry of another table must not
// be unlinked and freed here, or that table would keep a dangling pointer.
int remove(name2id_tbl *table, name2id_entry *entry)
{
    if (!is_usable(table, entry))
        return -1;
    if (unlink_from_hashtbl(table->hashtbl, entry) || is_listed(table, entry))
        release(table, entry);
    return 0;
}

} // namespace

extern "C" {

hashtbl *create_name2id_hash_tbl(unsigned log_size, int flag)
{
    return hashtbl_init(log_size, offsetof(name2id_entry, link), flag);
}

name2id_tbl *name2id_tbl_create(unsigned log_size, int flag)
{
    auto *table = static_cast<name2id_tbl *>(std::malloc(sizeof(name2id_tbl)));
    if (table == nullptr)
        return nullptr;
    table->hashtbl = create_name2id_hash_tbl(log_size, flag);
    if (table->hashtbl == nullptr) {
        std::free(table);
        return nullptr;
    }
    base::tail_queue_init(*table);
    return table;
}

void name2id_tbl_destory(name2id_tbl *table)
{
    if (table == nullptr)
        return;
    // Emptied at once: removing entry by entry would walk every chain to its end. A data function that looks a name up
    // meanwhile finds nothing.
    if (table->hashtbl != nullptr)
        hashtbl_reset(table->hashtbl);
    while (table->first != nullptr)
        release(table, table->first); // NOLINT(clang-analyzer-unix.Malloc): moves `first`, through the entry's `prev`
    if (table->hashtbl != nullptr)
        hashtbl_destroy(table->hashtbl);
    std::free(table);
}

name2id_entry *name2id_entry_create(const char *name, unsigned id)
{
    return create_entry(name, id, 0);
}

int name2id_entry_insert(name2id_tbl *table, name2id_entry *entry)
{
    if (!is_usable(table, entry))
        return -1;
    insert(table, entry, hash_of(entry->name));
    return 0;
}

name2id_entry *name2id_entry_find(hashtbl *index, const char *name)
{
    if (name == nullptr)
        return nullptr;
    auto match = [](void *entry, void *key) -> int {
        return std::strcmp(static_cast<name2id_entry *>(entry)->name, static_cast<const char *>(key)) == 0;
    };
    return static_cast<name2id_entry *>(hashtbl_find(index, const_cast<char *>(name), hash_of(name), match));
}

int name2id(hashtbl *index, const char *name)
{
    const name2id_entry *entry = name2id_entry_find(index, name);
    return entry != nullptr ? static_cast<int>(entry->id) : kNotFound;
}

int name2id_entry_remove(name2id_tbl *table, name2id_entry *entry)
{
    return remove(table, entry);
}

unsigned name2id_string_hash(const char *data, int len)
{
    return qv_string_hash(data, len);
}

int name2id_comp(const char *entry_name, const char *name)
{
    return entry_name != nullptr && name != nullptr && std::strcmp(entry_name, name) == 0;
}

hashtbl *create_name2id_hash_tbl2(unsigned log_size, int flag)
{
    return create_name2id_hash_tbl(log_size, flag);
}

name2id_tbl *name2id_tbl_create2(unsigned log_size, int flag)
{
    return name2id_tbl_create(log_size, flag);
}

void name2id_tbl_destory2(name2id_tbl *table)
{
    name2id_tbl_destory(table);
}

name2id_entry *name2id_entry_create2(const char *name, unsigned scope, unsigned id)
{
    return create_entry(name, scope, id);
}

int name2id_entry_insert2(name2id_tbl *table, name2id_entry *entry)
{
    if (!is_usable(table, entry))
        return -1;
    insert(table, entry, hash_of(entry->name) ^ entry->id);
    return 0;
}

name2id_entry *name2id_entry_find2(hashtbl *index, const char *name, unsigned scope)
{
    if (name == nullptr)
        return nullptr;
    name2id_key2 key = {name, scope};
    auto match = [](void *entry, void *wanted) {
        return name2id_comp2(static_cast<name2id_entry *>(entry)->name, wanted);
    };
    return static_cast<name2id_entry *>(hashtbl_find(index, &key, hash_of(name) ^ scope, match));
}

int name2id2(hashtbl *index, const char *name, unsigned scope)
{
    const name2id_entry *entry = name2id_entry_find2(index, name, scope);
    return entry != nullptr ? static_cast<int>(entry->id2) : kNotFound;
}

int name2id_entry_remove2(name2id_tbl *table, name2id_entry *entry)
{
    return remove(table, entry);
}

int name2id_comp2(const char *entry_name, const void *key)
{
    if (entry_name == nullptr || key == nullptr)
        return 0;
    auto *entry = reinterpret_cast<const name2id_entry *>(entry_name);
    auto *wanted = static_cast<const name2id_key2 *>(key);
    return name2id_comp(entry_name, wanted->name) != 0 && entry->id == wanted->scope;
}

} // extern "C"
