// SPDX-License-Identifier: Apache-2.0
// The database of records with several keys.
#include "database.h"

#include "base/tail_queue.h"

#include <cstddef>
#include <cstdint>
#include <cstdlib>

using namespace qv;

static_assert(offsetof(database_node, next) == 8 && offsetof(database_node, prev) == 16);
static_assert(offsetof(database_bucket, last) == 8 && sizeof(database_bucket) == 16);
static_assert(offsetof(database_index, hash_fn) == 8 && offsetof(database_index, buckets) == 16);
static_assert(offsetof(database_index, log_size) == 24 && offsetof(database_index, mask) == 28);
static_assert(offsetof(database_index, next_index) == 32 && sizeof(database) == 8);

namespace {

constexpr std::uint32_t kLogSize = 10;
constexpr std::uint32_t kBuckets = 1U << kLogSize;

// Contract: the result of emptying an index, also of success.
constexpr int kEmptied = -1;

database_bucket &bucket_of(database_index *index, std::uint32_t hash)
{
    return index->buckets[hash & index->mask];
}

void drop(database_bucket &bucket, database_node *node)
{
    base::tail_queue_unlink(bucket, *node);
    std::free(node);
}

// Removes the newest node of the record from each index before `end`. A record may be in the database more than once;
// its older nodes stay.
void undo_insert(database *db, const database_index *end, void *record)
{
    for (database_index *index = db->indexes; index != end; index = index->next_index) {
        database_bucket &bucket = bucket_of(index, index->hash_fn(record));
        database_node *newest = nullptr;
        for (database_node *node = bucket.first; node != nullptr; node = node->next) {
            if (node->record == record)
                newest = node;
        }
        if (newest != nullptr)
            drop(bucket, newest);
    }
}

} // namespace

extern "C" {

struct database *db_create_database(void)
{
    auto *db = static_cast<database *>(std::malloc(sizeof(database)));
    if (db != nullptr)
        db->indexes = nullptr;
    return db;
}

struct database_index *db_create_database_index(struct database *db, uint32_t (*hash_fn)(void *record))
{
    auto *index = static_cast<database_index *>(std::malloc(sizeof(database_index)));
    if (index == nullptr)
        return nullptr;
    auto *buckets = static_cast<database_bucket *>(std::malloc(kBuckets * sizeof(database_bucket)));
    if (buckets == nullptr) {
        std::free(index);
        return nullptr;
    }
    for (std::uint32_t i = 0; i < kBuckets; i++)
        base::tail_queue_init(buckets[i]);
    *index = {db, hash_fn, buckets, kLogSize, kBuckets - 1, db->indexes};
    db->indexes = index;
    return index;
}

int db_destroy_database(struct database *db)
{
    if (db == nullptr)
        return -1;
    while (database_index *index = db->indexes) {
        db->indexes = index->next_index;
        std::free(index->buckets);
        std::free(index);
    }
    std::free(db);
    return 0;
}

int database_insert(struct database *db, void *record)
{
    for (database_index *index = db->indexes; index != nullptr; index = index->next_index) {
        int result = database_index_insert(index, record, index->hash_fn(record));
        if (result != 0) {
            undo_insert(db, index, record);
            return result;
        }
    }
    return 0;
}

int database_remove(struct database *db, void *record)
{
    int result = 0;
    for (database_index *index = db->indexes; index != nullptr; index = index->next_index)
        result |= database_index_remove(index, record, index->hash_fn(record));
    return result;
}

void *database_find(struct database_index *index, uint32_t hash, int (*match)(void *record, void *key), void *key)
{
    for (database_node *node = bucket_of(index, hash).first; node != nullptr; node = node->next) {
        if (match(node->record, key) != 0)
            return node->record;
    }
    return nullptr;
}

int database_remove_all(struct database *db, void (*release)(void *record))
{
    int result = 0;
    for (database_index *index = db->indexes; index != nullptr; index = index->next_index)
        result |= database_index_remove_all(index, release);
    return result;
}

int database_index_insert(struct database_index *index, void *record, uint32_t hash)
{
    auto *node = static_cast<database_node *>(std::malloc(sizeof(database_node)));
    if (node == nullptr)
        return -1;
    node->record = record;
    base::tail_queue_append(bucket_of(index, hash), *node);
    return 0;
}

int database_index_remove(struct database_index *index, void *record, uint32_t hash)
{
    database_bucket &bucket = bucket_of(index, hash);
    for (database_node *node = bucket.first; node != nullptr; node = node->next) {
        if (node->record != record)
            continue;
        drop(bucket, node);
        return 0;
    }
    return -1;
}

int database_index_remove_all(struct database_index *index, void (*release)(void *record))
{
    for (std::uint32_t i = 0; i < kBuckets; i++) {
        database_bucket &bucket = index->buckets[i];
        // Read again each time: release() may remove other records.
        while (database_node *node = bucket.first) {
            // NOLINTNEXTLINE(clang-analyzer-unix.Malloc): moves `first`, through the node's `prev`
            base::tail_queue_unlink(bucket, *node);
            if (release != nullptr)
                release(node->record);
            std::free(node);
        }
    }
    return kEmptied;
}

int database_index_walk_all(struct database_index *index, void (*visit)(void *record))
{
    for (std::uint32_t i = 0; i < kBuckets; i++) {
        for (const database_node *node = index->buckets[i].first; node != nullptr; node = node->next) {
            if (visit != nullptr)
                visit(node->record);
        }
    }
    return 0;
}

} // extern "C"
