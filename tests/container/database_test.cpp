// SPDX-License-Identifier: Apache-2.0
#include "database.h"

#include "support/random.h"
#include "support/scarce_memory.h"
#include "support/support.h"

#include <algorithm>
#include <deque>
#include <map>

using namespace support;

namespace {

struct item {
    std::uint32_t a = 0, b = 0;
};

std::uint32_t hash_a(void *record)
{
    return static_cast<const item *>(record)->a;
}

std::uint32_t hash_b(void *record)
{
    return static_cast<const item *>(record)->b * 1025;
}

int has_b(void *record, void *key)
{
    return static_cast<item *>(record)->b == *static_cast<const std::uint32_t *>(key) ? -5 : 0;
}

int any(void *, void *)
{
    return 1;
}

std::vector<void *> visited;

void visit(void *record)
{
    visited.push_back(record);
}

std::vector<void *> records(database_index *index)
{
    visited.clear();
    EXPECT_EQ(0, database_index_walk_all(index, visit));
    return visited;
}

struct Database : testing::Test {
    database *db = db_create_database();
    database_index *by_a = db_create_database_index(db, hash_a);
    database_index *by_b = db_create_database_index(db, hash_b);
    void TearDown() override
    {
        database_remove_all(db, nullptr);
        db_destroy_database(db);
    }
};

} // namespace

TEST_F(Database, Layout)
{
    EXPECT_EQ(by_b, db->indexes) << "the newest index comes first";
    EXPECT_EQ(by_a, by_b->next_index);
    EXPECT_EQ(nullptr, by_a->next_index);
    EXPECT_EQ(db, by_a->db);
    EXPECT_EQ(hash_a, by_a->hash_fn);
    EXPECT_EQ(10U, by_a->log_size);
    EXPECT_EQ(1023U, by_a->mask);
    for (unsigned i = 0; i < 1024; i++) {
        EXPECT_EQ(nullptr, by_a->buckets[i].first);
        EXPECT_EQ(&by_a->buckets[i].first, by_a->buckets[i].last);
    }
}

TEST_F(Database, ARecordIsInEveryIndex)
{
    item x{7, 9};
    EXPECT_EQ(0, database_insert(db, &x));
    EXPECT_EQ(&x, database_find(by_a, 7, any, nullptr));
    EXPECT_EQ(&x, database_find(by_a, 7 + 1024, any, nullptr)) << "the bucket is compared, not the hash";
    EXPECT_EQ(nullptr, database_find(by_a, 8, any, nullptr));
    EXPECT_EQ(&x, database_find(by_b, 9, any, nullptr));
    EXPECT_EQ(&x, by_a->buckets[7].first->record);
    EXPECT_EQ(&by_a->buckets[7].first->next, by_a->buckets[7].last);
    EXPECT_EQ(0, database_remove(db, &x));
    EXPECT_EQ(0U, records(by_a).size() + records(by_b).size());
}

TEST_F(Database, TheFirstMatchIsFound)
{
    item items[] = {{1, 10}, {1, 20}, {1025, 20}, {1, 30}};
    for (item &x : items)
        database_insert(db, &x);
    std::uint32_t b = 20;
    EXPECT_EQ(&items[1], database_find(by_a, 1, has_b, &b));
    b = 30;
    EXPECT_EQ(&items[3], database_find(by_a, 1, has_b, &b));
    b = 40;
    EXPECT_EQ(nullptr, database_find(by_a, 1, has_b, &b));
}

TEST_F(Database, BucketsKeepTheOrderOfInsertion)
{
    item items[] = {{5, 1}, {3, 2}, {5, 3}, {1029, 4}, {3, 5}};
    for (item &x : items)
        database_insert(db, &x);
    EXPECT_EQ((std::vector<void *>{&items[1], &items[4], &items[0], &items[2], &items[3]}), records(by_a));
    database_remove(db, &items[2]);
    EXPECT_EQ((std::vector<void *>{&items[1], &items[4], &items[0], &items[3]}), records(by_a));
    EXPECT_EQ(0, database_index_walk_all(by_a, nullptr));
}

TEST_F(Database, RemovingAnAbsentRecordFails)
{
    item x{1, 1}, y{1, 1};
    EXPECT_EQ(-1, database_remove(db, &x));
    database_insert(db, &x);
    EXPECT_EQ(-1, database_remove(db, &y)) << "pointers are compared, not contents";
    EXPECT_EQ(-1, database_index_remove(by_a, &x, 2)) << "another bucket";
    EXPECT_EQ(0, database_index_remove(by_a, &x, 1025));
    EXPECT_EQ(-1, database_remove(db, &x)) << "one index did not hold it";
    EXPECT_EQ(0U, records(by_b).size()) << "the other did, and has released it";
}

TEST_F(Database, ALaterIndexHoldsNoEarlierRecords)
{
    item x{1, 1};
    database_insert(db, &x);
    database_index *late = db_create_database_index(db, hash_a);
    EXPECT_EQ(0U, records(late).size());
    EXPECT_EQ(-1, database_remove(db, &x));
    EXPECT_EQ(0U, records(by_a).size());
}

TEST_F(Database, ARecordCanBeInTwice)
{
    item x{1, 1};
    database_insert(db, &x);
    database_insert(db, &x);
    EXPECT_EQ(2U, records(by_a).size());
    EXPECT_EQ(0, database_remove(db, &x));
    EXPECT_EQ(1U, records(by_a).size());
}

TEST_F(Database, RemoveAllReleasesEachRecordOncePerIndex)
{
    item x{1, 1}, y{2, 1};
    database_insert(db, &x);
    database_insert(db, &y);
    visited.clear();
    EXPECT_EQ(-1, database_remove_all(db, visit));
    EXPECT_EQ((std::vector<void *>{&x, &y, &x, &y}), visited) << "the newest index first, each bucket by bucket";
    EXPECT_EQ(0U, records(by_a).size() + records(by_b).size());
    EXPECT_EQ(-1, database_remove_all(db, visit)) << "although it was empty";
    EXPECT_EQ(-1, database_index_remove_all(by_a, nullptr));
}

TEST_F(Database, ReleaseMayRemoveOtherRecords)
{
    static item x, y, z;
    static database_index *index;
    x = y = z = {1, 1};
    index = by_a;
    for (item *each : {&x, &y, &z})
        database_index_insert(by_a, each, 1);
    visited.clear();
    EXPECT_EQ(-1, database_index_remove_all(by_a, [](void *record) {
        visit(record);
        if (record == &x)
            database_index_remove(index, &y, 1);
    }));
    EXPECT_EQ((std::vector<void *>{&x, &z}), visited);
}

TEST(DatabaseWithoutIndex, EveryCallSucceeds)
{
    database *db = db_create_database();
    ASSERT_NE(nullptr, db);
    EXPECT_EQ(nullptr, db->indexes);
    item x;
    EXPECT_EQ(0, database_insert(db, &x));
    EXPECT_EQ(0, database_remove(db, &x));
    EXPECT_EQ(0, database_remove_all(db, nullptr));
    EXPECT_EQ(0, db_destroy_database(db));
    EXPECT_EQ(-1, db_destroy_database(nullptr));
}

TEST_F(Database, FailedAllocationsReturnNull)
{
    item x{1, 1};
    allocations_left = 0;
    database *no_database = db_create_database();
    database_index *no_index = db_create_database_index(db, hash_a);
    int no_node = database_index_insert(by_a, &x, 1);
    allocations_left = 1;
    database_index *no_buckets = db_create_database_index(db, hash_a);
    allocations_left = -1;
    EXPECT_EQ(nullptr, no_database);
    EXPECT_EQ(nullptr, no_index);
    EXPECT_EQ(nullptr, no_buckets);
    EXPECT_EQ(-1, no_node);
    EXPECT_EQ(by_b, db->indexes);
}

TEST_F(Database, AFailedInsertionIsUndone)
{
    item x{1, 1}, y{1, 1};
    database_insert(db, &x);
    allocations_left = 1;
    int result = database_insert(db, &y);
    allocations_left = -1;
    EXPECT_EQ(-1, result);
    EXPECT_EQ(std::vector<void *>{&x}, records(by_b));
    EXPECT_EQ(std::vector<void *>{&x}, records(by_a));
}

TEST_F(Database, AFailedInsertionIsUndoneInEveryIndexBeforeTheFailingOne)
{
    database_index *third = db_create_database_index(db, hash_a);
    database_index *fourth = db_create_database_index(db, hash_b);
    item x{1, 1}, y{1, 1};
    database_insert(db, &x);
    for (int nodes = 0; nodes < 4; nodes++) {
        allocations_left = nodes;
        int result = database_insert(db, &y);
        allocations_left = -1;
        EXPECT_EQ(-1, result);
        for (database_index *index : {by_a, by_b, third, fourth})
            EXPECT_EQ(std::vector<void *>{&x}, records(index)) << nodes;
    }
    EXPECT_EQ(0, database_insert(db, &y));
    for (database_index *index : {by_a, by_b, third, fourth})
        EXPECT_EQ((std::vector<void *>{&x, &y}), records(index));
}

TEST_F(Database, UndoingRemovesTheNewEntryOfAPresentRecord)
{
    item x{1, 1}, y{1, 1};
    database_insert(db, &x);
    database_insert(db, &y);
    database_node *oldest = by_b->buckets[hash_b(&x) & 1023].first;
    allocations_left = 1;
    int result = database_insert(db, &x);
    allocations_left = -1;
    EXPECT_EQ(-1, result);
    EXPECT_EQ((std::vector<void *>{&x, &y}), records(by_b)) << "in the order of insertion";
    EXPECT_EQ(oldest, by_b->buckets[hash_b(&x) & 1023].first);
    EXPECT_EQ((std::vector<void *>{&x, &y}), records(by_a));
    item z{1, 1};
    database_insert(db, &z);
    EXPECT_EQ((std::vector<void *>{&x, &y, &z}), records(by_b));
}

TEST_F(Database, EveryBucketIsWalkedAndEmptied)
{
    std::vector<item> items(1024);
    std::vector<void *> all;
    for (std::uint32_t i = 0; i < items.size(); i++) {
        items[i].a = i;
        database_index_insert(by_a, &items[i], i);
        all.push_back(&items[i]);
    }
    EXPECT_EQ(all, records(by_a)) << "bucket 0 first, bucket 1023 last";
    visited.clear();
    EXPECT_EQ(-1, database_index_remove_all(by_a, visit));
    EXPECT_EQ(all, visited);
    EXPECT_EQ(std::vector<void *>{}, records(by_a));
}

TEST_F(Database, ARecordIsOutOfItsIndexWhenItIsReleased)
{
    static database_index *index;
    static std::vector<std::size_t> left;
    left.clear();
    index = by_a;
    item items[3] = {{7, 0}, {7, 1}, {7, 2}};
    for (item &x : items)
        database_insert(db, &x);
    database_index_remove_all(by_a, [](void *record) {
        std::size_t count = 0;
        for (database_node *node = index->buckets[7].first; node != nullptr; node = node->next) {
            EXPECT_NE(record, node->record);
            count++;
        }
        EXPECT_EQ(-1, database_index_remove(index, record, 7));
        left.push_back(count);
    });
    EXPECT_EQ((std::vector<std::size_t>{2, 1, 0}), left);
}

TEST(DatabaseModel, RandomWorkAgreesWithLists)
{
    for (unsigned seed = 1; seed <= 3; seed++) {
        Random random(seed);
        database *db = db_create_database();
        database_index *by_a = db_create_database_index(db, hash_a);
        database_index *by_b = db_create_database_index(db, hash_b);
        std::vector<item> items(500);
        for (item &x : items)
            x = {static_cast<std::uint32_t>(random() % 3000), static_cast<std::uint32_t>(random() % 20)};
        std::map<std::uint32_t, std::deque<item *>> model_a, model_b; // by bucket
        auto drop = [](std::deque<item *> &bucket, item *x) {
            auto place = std::find(bucket.begin(), bucket.end(), x);
            bool held = place != bucket.end();
            if (held)
                bucket.erase(place);
            return held;
        };
        for (std::size_t step = 0; step < effort(1000000); step++) {
            item *x = &items[random() % items.size()];
            auto &in_a = model_a[x->a & 1023];
            auto &in_b = model_b[hash_b(x) & 1023];
            unsigned operation = random() % 8;
            random.doing("operation, a, b", operation, x->a, x->b);
            switch (operation) {
            case 0:
                ASSERT_EQ(0, database_insert(db, x));
                in_a.push_back(x);
                in_b.push_back(x);
                break;
            case 1: {
                bool of_a = drop(in_a, x);
                bool of_b = drop(in_b, x);
                ASSERT_EQ(of_a && of_b ? 0 : -1, database_remove(db, x));
                break;
            }
            case 2:
                ASSERT_EQ(drop(in_a, x) ? 0 : -1, database_index_remove(by_a, x, x->a));
                break;
            default: {
                auto place = std::find_if(in_a.begin(), in_a.end(), [&](item *y) { return y->b == x->b; });
                ASSERT_EQ(place != in_a.end() ? *place : nullptr, database_find(by_a, x->a, has_b, &x->b));
            }
            }
            if (in_a.size() + in_b.size() > 60) {
                database_remove_all(db, nullptr);
                model_a.clear();
                model_b.clear();
            }
        }
        database_remove_all(db, nullptr);
        ASSERT_EQ(0U, records(by_a).size() + records(by_b).size());
        db_destroy_database(db);
    }
}
