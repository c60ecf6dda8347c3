// SPDX-License-Identifier: Apache-2.0
#include "hashtbl.h"

#include "support/random.h"
#include "support/scarce_memory.h"
#include "support/support.h"

#include <array>
#include <cstddef>
#include <cstring>
#include <list>
#include <map>

namespace {

struct Object {
    int key = 0;
    int number = 0;
    hashtbl_link link{};
};
constexpr unsigned kOffset = offsetof(Object, link);

int same_key(void *object, void *key)
{
    return static_cast<Object *>(object)->key == *static_cast<int *>(key);
}

Object *find(hashtbl *table, int key, unsigned hash)
{
    return static_cast<Object *>(hashtbl_find(table, &key, hash, same_key));
}

int append_number(void *object, void *arg)
{
    static_cast<std::vector<int> *>(arg)->push_back(static_cast<Object *>(object)->number);
    return 0;
}

std::vector<int> numbers(hashtbl *table)
{
    std::vector<int> result;
    EXPECT_EQ(0, hashtbl_traverse_each(table, append_number, &result));
    return result;
}

// The links of every chain agree in both directions, and each object is in the bucket of its hash.
void check_links(const hashtbl *table)
{
    std::size_t met = 0;
    for (unsigned b = 0; b < 1U << table->log_size; b++) {
        const hashtbl_link *prev = nullptr;
        for (const hashtbl_link *link = table->buckets[b]; link != nullptr; prev = link, link = link->next) {
            ASSERT_EQ(prev, link->prev);
            ASSERT_EQ(b, link->hash & ((1U << table->log_size) - 1));
            met++;
        }
    }
    ASSERT_EQ(table->count, met);
}

// What the body writes to the console.
template <typename Body>
std::string console_text(Body body)
{
    std::size_t before = support::read_file(support::kConsole).size();
    body();
    return support::read_file(support::kConsole).substr(before);
}

struct Table {
    hashtbl *table;
    explicit Table(unsigned log_size) : table(hashtbl_init(log_size, kOffset, 0)) {}
    ~Table() { hashtbl_destroy(table); }
    operator hashtbl *() const { return table; }
};

} // namespace

TEST(HashtblInit, SetsItsFields)
{
    hashtbl *table = hashtbl_init(3, 65535, -5);
    ASSERT_NE(nullptr, table);
    EXPECT_EQ(3, table->log_size);
    EXPECT_EQ(1, table->flag);
    EXPECT_EQ(65535, table->link_offset);
    EXPECT_EQ(0U, table->count);
    for (int b = 0; b < 8; b++)
        EXPECT_EQ(nullptr, table->buckets[b]);
    EXPECT_EQ(0, hashtbl_grow(table));
    EXPECT_EQ(3, table->log_size);
    EXPECT_EQ(0, hashtbl_destroy(table));
}

TEST(HashtblInit, SizesAndOffsetsAreLimited)
{
    for (unsigned log_size : {0U, 20U}) {
        hashtbl *table = hashtbl_init(log_size, 0, 0);
        ASSERT_NE(nullptr, table);
        EXPECT_EQ(0, table->flag);
        hashtbl_destroy(table);
    }
    std::string text = console_text([] {
        EXPECT_EQ(nullptr, hashtbl_init(21, 65536, 0));
        EXPECT_EQ(nullptr, hashtbl_init(0xFFFFFFFF, 0, 0));
        EXPECT_EQ(nullptr, hashtbl_init(20, 65536, 0));
    });
    EXPECT_EQ("log size of the table must be between 1 and 2^20\n"
              "log size of the table must be between 1 and 2^20\n"
              "offset of hash table link must be between 0 and 65535\n",
              text);
}

TEST(HashtblInit, FailsWithoutMemory)
{
    auto said_with = [](int allowed) {
        return console_text([&] {
            support::allocations_left = allowed;
            hashtbl *table = hashtbl_init(20, 0, 0);
            support::allocations_left = -1;
            EXPECT_EQ(nullptr, table);
        });
    };
    EXPECT_EQ("memory allocation error, size=16\r\n", said_with(0));
    EXPECT_EQ("memory allocation error,tbl size=8,log_size=20\n", said_with(1));
}

TEST(Hashtbl, NewestOfEqualKeysIsFound)
{
    Table table(2);
    Object first{1, 1, {}}, second{1, 2, {}}, other{2, 3, {}};
    EXPECT_EQ(0, hashtbl_insert(table, 100, &first));
    EXPECT_EQ(0, hashtbl_insert(table, 100, &second));
    EXPECT_EQ(0, hashtbl_insert(table, 104, &other)); // the same bucket
    EXPECT_EQ(&second, find(table, 1, 100));
    EXPECT_EQ(&other, find(table, 2, 104));
    EXPECT_EQ(nullptr, find(table, 2, 100));
    EXPECT_EQ((std::vector<int>{3, 2, 1}), numbers(table));
    EXPECT_EQ(&other.link, table.table->buckets[0]);
    EXPECT_EQ(nullptr, other.link.prev);
    EXPECT_EQ(100U, first.link.hash);
    check_links(table);
}

TEST(Hashtbl, CallbackSeesOnlyItsHash)
{
    Table table(0);
    std::array<Object, 5> objects;
    for (unsigned i = 0; i < objects.size(); i++)
        hashtbl_insert(table, i << 16, &objects[i]);
    static int calls = 0;
    auto never = [](void *, void *) { return calls++, 0; };
    EXPECT_EQ(nullptr, hashtbl_find(table, nullptr, 3U << 16, never));
    EXPECT_EQ(1, calls);
    EXPECT_EQ(nullptr, hashtbl_find(table, nullptr, 3, never));
    EXPECT_EQ(1, calls);
}

TEST(Hashtbl, Find2TreatsZeroAsAMatch)
{
    Table table(1);
    Object one{1, 1, {}}, two{2, 2, {}};
    hashtbl_insert(table, 8, &one);
    hashtbl_insert(table, 8, &two);
    int key = 1, offset = 1;
    auto compare = [](void *object, void *sought, void *arg) {
        return static_cast<Object *>(object)->key - *static_cast<int *>(sought) - *static_cast<int *>(arg);
    };
    EXPECT_EQ(&two, hashtbl_find2(table, &key, 8, compare, &offset));
    offset = 0;
    EXPECT_EQ(&one, hashtbl_find2(table, &key, 8, compare, &offset));
    offset = 5;
    EXPECT_EQ(nullptr, hashtbl_find2(table, &key, 8, compare, &offset));
}

TEST(Hashtbl, RemoveWorksAtEveryPlaceOfAChain)
{
    for (int removed : {0, 1, 2}) {
        Table table(0);
        std::array<Object, 3> objects;
        for (auto &object : objects)
            hashtbl_insert(table, 1, &object);
        auto &object = objects[static_cast<std::size_t>(removed)];
        EXPECT_EQ(0, hashtbl_remove(table, 1, &object));
        EXPECT_EQ(nullptr, object.link.prev);
        EXPECT_EQ(nullptr, object.link.next);
        EXPECT_EQ(2U, table.table->count);
        check_links(table);
        EXPECT_EQ(0, hashtbl_remove(table, 1, &object)); // again
        EXPECT_EQ(2U, table.table->count);
    }
}

TEST(Hashtbl, RemovingAnObjectInsertedTwiceLeavesTheOthers)
{
    Table table(0);
    Object twice{1, 1, {}}, other{2, 2, {}};
    hashtbl_insert(table, 1, &twice);
    hashtbl_insert(table, 1, &other);
    hashtbl_insert(table, 1, &twice);
    hashtbl_remove(table, 1, &twice);
    EXPECT_EQ(&other.link, table.table->buckets[0]);
    hashtbl_remove(table, 1, &twice);
    EXPECT_EQ(&other.link, table.table->buckets[0]) << "it is not the head, though its prev is null";
    EXPECT_EQ(1U, table.table->count);
    EXPECT_EQ(&other, find(table, 2, 1));
}

TEST(Hashtbl, RemoveUsesTheGivenHash)
{
    Table table(4);
    Object object{1, 1, {}};
    hashtbl_insert(table, 5, &object);
    EXPECT_EQ(0, hashtbl_remove(table, 6, &object));
    EXPECT_EQ(1U, table.table->count);
    EXPECT_EQ(&object, find(table, 1, 5));
    EXPECT_EQ(0, hashtbl_remove(table, 5 + 16, &object)); // another hash, the same bucket
    EXPECT_EQ(0U, table.table->count);
}

TEST(Hashtbl, FreeAllCallsBackBucketByBucket)
{
    Table table(2);
    std::array<Object, 6> objects;
    for (unsigned i = 0; i < objects.size(); i++) {
        objects[i].number = static_cast<int>(i);
        hashtbl_insert(table, i % 3, &objects[i]);
    }
    std::vector<int> seen;
    auto release = [](void *object, void *arg) { append_number(object, arg); };
    EXPECT_EQ(0, hashtbl_free_all_objects(table, release, &seen));
    EXPECT_EQ((std::vector<int>{3, 0, 4, 1, 5, 2}), seen);
    EXPECT_EQ(0U, table.table->count);
    EXPECT_EQ(&objects[0].link, objects[3].link.next); // unchanged
    check_links(table);

    hashtbl_insert(table, 0, &objects[0]);
    EXPECT_EQ(0, hashtbl_free_all_objects(table, nullptr, nullptr));
    EXPECT_EQ(nullptr, table.table->buckets[0]);
    EXPECT_EQ(0, hashtbl_free_all_objects(nullptr, release, &seen));
}

TEST(Hashtbl, ACountOfZeroEndsBeforeTheBuckets)
{
    Table table(2);
    Object object;
    hashtbl_insert(table, 1, &object);
    table.table->count = 0;
    std::vector<int> seen;
    EXPECT_EQ(0, hashtbl_free_all_objects(table, nullptr, nullptr));
    EXPECT_EQ(0, hashtbl_traverse_each(table, append_number, &seen));
    EXPECT_EQ(0, hashtbl_traverse_each_safe(table, append_number, &seen));
    EXPECT_TRUE(seen.empty());
    EXPECT_EQ(&object.link, table.table->buckets[1]);
}

TEST(Hashtbl, ResetForgetsTheObjects)
{
    Table table(2);
    Object one, two;
    hashtbl_insert(table, 1, &one);
    hashtbl_insert(table, 1, &two);
    EXPECT_EQ(0, hashtbl_reset(table));
    EXPECT_EQ(0U, table.table->count);
    EXPECT_EQ(&one.link, two.link.next);
    check_links(table);
}

namespace {

// A table with two objects in each bucket.
struct FullTable : Table {
    std::vector<Object> objects;
    std::vector<int> expected; // bucket by bucket, the newest first

    explicit FullTable(unsigned log_size) : Table(log_size), objects(std::size_t{2} << log_size)
    {
        const int buckets = 1 << log_size;
        for (int i = 0; i < 2 * buckets; i++)
            objects[static_cast<unsigned>(i)].number = i;
        for (int b = 0; b < buckets; b++)
            expected.insert(expected.end(), {buckets + b, b});
        insert_all();
    }
    void insert_all()
    {
        for (unsigned i = 0; i < objects.size(); i++)
            hashtbl_insert(table, i, &objects[i]);
    }
    void expect_empty() const
    {
        EXPECT_EQ(0U, table->count);
        for (unsigned b = 0; b < objects.size() / 2; b++)
            EXPECT_EQ(nullptr, table->buckets[b]) << b;
    }
};

constexpr unsigned kLogSizes[] = {0, 1, 4};

} // namespace

TEST(Hashtbl, EveryBucketIsWalked)
{
    for (unsigned log_size : kLogSizes) {
        FullTable full(log_size);
        EXPECT_EQ(full.expected, numbers(full));
        std::vector<int> seen;
        EXPECT_EQ(0, hashtbl_traverse_each_safe(full, append_number, &seen));
        EXPECT_EQ(full.expected, seen);
    }
}

TEST(Hashtbl, FreeAllEmptiesEveryBucket)
{
    for (unsigned log_size : kLogSizes) {
        FullTable full(log_size);
        std::vector<int> seen;
        auto release = [](void *object, void *arg) { append_number(object, arg); };
        EXPECT_EQ(0, hashtbl_free_all_objects(full, release, &seen));
        EXPECT_EQ(full.expected, seen);
        full.expect_empty();
        full.insert_all();
        EXPECT_EQ(0, hashtbl_free_all_objects(full, nullptr, nullptr));
        full.expect_empty();
    }
}

TEST(Hashtbl, ResetEmptiesEveryBucket)
{
    for (unsigned log_size : kLogSizes) {
        FullTable full(log_size);
        EXPECT_EQ(0, hashtbl_reset(full));
        full.expect_empty();
    }
}

namespace {

// Removes the object after the visited one in the chain, once.
struct RemovesTheNext {
    hashtbl *table;
    std::vector<int> seen;
    bool removed = false;
};

int remove_next(void *object, void *arg)
{
    auto *work = static_cast<RemovesTheNext *>(arg);
    auto *visited = static_cast<Object *>(object);
    work->seen.push_back(visited->number);
    if (!work->removed && visited->link.next != nullptr) {
        work->removed = true;
        hashtbl_remove(work->table, 0, reinterpret_cast<char *>(visited->link.next) - kOffset);
    }
    return 0;
}

} // namespace

TEST(Hashtbl, TraverseReadsTheNextAfterTheVisitAndTheSafeOneBefore)
{
    std::array<Object, 4> objects;
    Table table(0);
    auto fill = [&] {
        hashtbl_reset(table);
        for (unsigned i = 0; i < objects.size(); i++) {
            objects[i].number = static_cast<int>(i);
            hashtbl_insert(table, 0, &objects[i]);
        }
    };
    fill();
    RemovesTheNext work{table, {}};
    EXPECT_EQ(0, hashtbl_traverse_each(table, remove_next, &work));
    EXPECT_EQ((std::vector<int>{3, 1, 0}), work.seen);

    // The safe walk has already read the link to the removed object, whose links are null by then.
    fill();
    RemovesTheNext safe{table, {}};
    EXPECT_EQ(0, hashtbl_traverse_each_safe(table, remove_next, &safe));
    EXPECT_EQ((std::vector<int>{3, 2}), safe.seen);
}

TEST(Hashtbl, FreeAllReadsTheNextBeforeTheCall)
{
    Table table(0);
    std::array<Object, 4> objects;
    for (unsigned i = 0; i < objects.size(); i++) {
        objects[i].number = static_cast<int>(i);
        hashtbl_insert(table, 0, &objects[i]);
    }
    std::vector<int> seen;
    auto release = [](void *object, void *arg) {
        append_number(object, arg);
        std::memset(&static_cast<Object *>(object)->link, 0, sizeof(hashtbl_link));
    };
    EXPECT_EQ(0, hashtbl_free_all_objects(table, release, &seen));
    EXPECT_EQ((std::vector<int>{3, 2, 1, 0}), seen);
}

TEST(Hashtbl, TraverseStopsAtTheFirstNonZero)
{
    Table table(1);
    std::array<Object, 4> objects;
    for (auto &object : objects)
        hashtbl_insert(table, 0, &object);
    int left = 2;
    auto visit = [](void *, void *arg) { return --*static_cast<int *>(arg) == 0 ? 7 : 0; };
    EXPECT_EQ(-1, hashtbl_traverse_each(table, visit, &left));
    EXPECT_EQ(0, left);
    left = 2;
    EXPECT_EQ(0, hashtbl_traverse_each_safe(table, visit, &left));
    EXPECT_EQ(-2, left);
}

TEST(Hashtbl, TraverseAcceptsANullTableOrVisitor)
{
    Table table(1);
    Object object;
    hashtbl_insert(table, 0, &object);
    int left = 2;
    auto visit = [](void *, void *arg) { return --*static_cast<int *>(arg) == 0 ? 7 : 0; };
    EXPECT_EQ(0, hashtbl_traverse_each(table, nullptr, nullptr));
    EXPECT_EQ(0, hashtbl_traverse_each_safe(table, nullptr, nullptr));
    EXPECT_EQ(0, hashtbl_traverse_each(nullptr, visit, &left));
    EXPECT_EQ(0, hashtbl_traverse_each_safe(nullptr, visit, &left));
}

TEST(Hashtbl, SafeTraversalAllowsFreeingTheVisited)
{
    Table table(1);
    for (unsigned i = 0; i < 10; i++)
        hashtbl_insert(table, i, new Object);
    auto free_it = [](void *object, void *arg) {
        hashtbl_remove(static_cast<hashtbl *>(arg), static_cast<Object *>(object)->link.hash, object);
        delete static_cast<Object *>(object);
        return 1;
    };
    EXPECT_EQ(0, hashtbl_traverse_each_safe(table, free_it, table.table));
    EXPECT_EQ(0U, table.table->count);
    check_links(table);
}

TEST(Hashtbl, ObjectsAtOddAddresses)
{
    constexpr std::size_t kStride = sizeof(Object) + 3;
    alignas(8) std::array<char, 4 * kStride> room{};
    Table table(0);
    for (std::size_t i = 0; i < 3; i++)
        hashtbl_insert(table, 9, room.data() + 1 + i * kStride);
    auto itself = [](void *object, void *key) { return object == key ? 1 : 0; };
    char *middle = room.data() + 1 + kStride;
    EXPECT_EQ(middle, hashtbl_find(table, middle, 9, itself));
    EXPECT_EQ(0, hashtbl_remove(table, 9, middle));
    EXPECT_EQ(nullptr, hashtbl_find(table, middle, 9, itself));
    EXPECT_EQ(2U, table.table->count);
}

TEST(Hashtbl, RandomWorkAgreesWithLists)
{
    for (unsigned seed = 1; seed <= 3; seed++) {
        support::Random random(seed);
        Table table(6);
        std::vector<Object> objects(500);
        std::vector<unsigned> hash(objects.size());
        std::vector<bool> linked(objects.size());
        std::map<std::pair<unsigned, int>, std::list<Object *>> model; // newest first
        std::size_t count = 0;
        for (std::size_t step = 0, n = support::effort(1000000); step < n; step++) {
            std::size_t i = random() % objects.size();
            random.doing(linked[i] ? "remove" : "insert", i);
            if (linked[i]) {
                unsigned wrong = hash[i] ^ 1;
                hashtbl_remove(table, wrong, &objects[i]);
                ASSERT_EQ(count, table.table->count);
                hashtbl_remove(table, hash[i], &objects[i]);
                model[{hash[i], objects[i].key}].remove(&objects[i]);
                count--;
            } else {
                objects[i].key = static_cast<int>(random() % 3);
                hash[i] = static_cast<unsigned>(random() % 200) * 0x01000001U;
                hashtbl_insert(table, hash[i], &objects[i]);
                model[{hash[i], objects[i].key}].push_front(&objects[i]);
                count++;
            }
            linked[i] = !linked[i];
            ASSERT_EQ(count, table.table->count);
            unsigned sought = static_cast<unsigned>(random() % 200) * 0x01000001U;
            int key = static_cast<int>(random() % 3);
            random.doing("find: hash, key", sought, key);
            auto &same = model[{sought, key}];
            ASSERT_EQ(same.empty() ? nullptr : same.front(), find(table, key, sought));
        }
        check_links(table);
    }
}
