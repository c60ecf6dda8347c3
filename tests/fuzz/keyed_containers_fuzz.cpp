// SPDX-License-Identifier: Apache-2.0
// Sequences of operations on keyed containers, compared with lists: the hash table and the tree with their views,
// names, the simple hash table and the database. The first byte picks one; the bytes that follow are its operations.
#include "cxx/hashtbl.hpp"
#include "cxx/rbtree.hpp"
#include "database.h"
#include "name2id.h"
#include "simphash.h"

#include "tests/fuzz/input.h"

#include <algorithm>
#include <array>
#include <deque>
#include <string>
#include <vector>

namespace {

using fuzz::Input;
using fuzz::require;

constexpr unsigned kObjects = 24;

template <typename List, typename Value>
bool drop(List &list, const Value &value)
{
    auto at = std::find(list.begin(), list.end(), value);
    bool held = at != list.end();
    if (held)
        list.erase(at);
    return held;
}

// ---- the hash table ----

struct Item {
    unsigned key = 0;
    hashtbl_link link{};
};
using Table = qv::intrusive_table<Item, &Item::link>;

struct TableModel {
    std::vector<std::deque<Item *>> buckets; // each the newest first

    std::deque<Item *> &of(unsigned hash) { return buckets[hash % buckets.size()]; }
    std::vector<Item *> all() const
    {
        std::vector<Item *> result;
        for (const auto &bucket : buckets)
            result.insert(result.end(), bucket.begin(), bucket.end());
        return result;
    }
};

std::vector<Item *> walk(Table &table)
{
    std::vector<Item *> result;
    require(table.for_each([&](Item &item) { return result.push_back(&item), true; }));
    std::vector<Item *> by_call;
    auto visit = [](void *object, void *arg) {
        static_cast<std::vector<Item *> *>(arg)->push_back(static_cast<Item *>(object));
        return 0;
    };
    require(hashtbl_traverse_each(table.get(), visit, &by_call) == 0 && by_call == result);
    return result;
}

void run_hashtbl(Input &input)
{
    const unsigned log_size = input.below(4);
    Table table(log_size);
    TableModel model{std::vector<std::deque<Item *>>(std::size_t{1} << log_size)};
    std::array<Item, kObjects> items;
    auto is_in = [&](Item &item) {
        auto all = model.all();
        return std::find(all.begin(), all.end(), &item) != all.end();
    };
    while (!input.empty()) {
        Item &item = items[input.below(kObjects)];
        switch (input.below(8)) {
        case 0:
        case 1:
        case 2:
            if (!is_in(item)) {
                item.key = input.byte() % 16;
                table.insert(item.key * 3, item);
                model.of(item.key * 3).push_front(&item);
            }
            break;
        case 3: {
            unsigned hash = input.below(2) == 0 ? item.key * 3 : input.byte();
            require(table.remove(hash, item) == drop(model.of(hash), &item));
            break;
        }
        case 4: {
            unsigned key = input.byte() % 16;
            auto &bucket = model.of(key * 3);
            auto at = std::find_if(bucket.begin(), bucket.end(), [&](Item *other) { return other->key == key; });
            Item *expected = at != bucket.end() ? *at : nullptr;
            require(table.find(key * 3, [&](const Item &other) { return other.key == key; }) == expected);
            auto match = [](void *object, void *wanted) -> int {
                return static_cast<Item *>(object)->key == *static_cast<unsigned *>(wanted);
            };
            require(hashtbl_find(table.get(), &key, key * 3, match) == expected);
            break;
        }
        case 5: // some are removed during the walk
            table.for_each_safe([&](Item &met) {
                if (met.key % 4 == 0) {
                    require(table.remove(met.link.hash, met) && drop(model.of(met.link.hash), &met));
                    met = {};
                }
            });
            break;
        case 6: { // all are removed, some are inserted again
            std::vector<Item *> expected = model.all(), seen;
            for (auto &bucket : model.buckets)
                bucket.clear();
            table.clear([&](Item &met) {
                seen.push_back(&met);
                if (met.key % 4 == 1) {
                    table.insert(met.key * 3, met);
                    model.of(met.key * 3).push_front(&met);
                }
            });
            require(seen == expected);
            break;
        }
        default:
            if (input.below(8) == 0) {
                hashtbl_reset(table.get());
                for (auto &bucket : model.buckets)
                    bucket.clear();
            }
        }
        require(walk(table) == model.all() && table.size() == model.all().size());
    }
}

// ---- the tree ----

struct Leaf {
    int key = 0;
    bool in = false;
    rb_node node{};
};
using Tree = qv::rb_tree<Leaf, &Leaf::node, &Leaf::key>;

// The number of black nodes on each path down. Checks the tree's rules.
int black_height(const rb_node *node, bool parent_is_red)
{
    if (node == nullptr)
        return 1;
    bool is_red = (node->parent_color & 1) == 0;
    require(!(is_red && parent_is_red));
    int left = black_height(node->left, is_red), right = black_height(node->right, is_red);
    require(left == right);
    return left + (is_red ? 0 : 1);
}

void run_rbtree(Input &input)
{
    Tree tree;
    std::vector<Leaf *> model; // in order
    std::array<Leaf, kObjects> leaves;
    auto less = [](const Leaf *leaf, int key) { return leaf->key < key; };
    auto more = [](int key, const Leaf *leaf) { return key < leaf->key; };
    while (!input.empty()) {
        Leaf &leaf = leaves[input.below(kObjects)];
        int key = input.byte() % 12;
        auto from = std::lower_bound(model.begin(), model.end(), key, less);
        switch (input.below(5)) {
        case 0:
        case 1:
            if (!leaf.in) {
                leaf.key = key;
                leaf.in = true;
                tree.insert(leaf);
                model.insert(std::upper_bound(model.begin(), model.end(), key, more), &leaf);
            }
            break;
        case 2:
            if (leaf.in) {
                auto at = std::find(model.begin(), model.end(), &leaf);
                auto next = model.erase(at);
                auto reached = tree.erase(tree.iterator_to(leaf));
                require(next == model.end() ? reached == tree.end() : &*reached == *next);
                leaf.in = false;
            }
            break;
        case 3: {
            require(tree.lower_bound(key) == (from != model.end() ? *from : nullptr));
            Leaf *found = tree.find(key);
            require((found != nullptr) == (from != model.end() && (*from)->key == key));
            require(found == nullptr || found->key == key);
            break;
        }
        default:
            if (input.below(8) == 0) {
                std::size_t released = 0;
                tree.clear([&](Leaf &met) { released++, met.in = false; });
                require(released == model.size());
                model.clear();
            }
        }
        std::vector<Leaf *> forward, backward;
        for (Leaf &met : tree)
            forward.push_back(&met);
        for (auto at = tree.end(); at != tree.begin();)
            backward.push_back(&*--at);
        require(forward == model);
        std::reverse(backward.begin(), backward.end());
        require(backward == model);
        std::size_t met = 0;
        for (rb_node *node = rb_first_postorder(tree.get()); node != nullptr; node = rb_next_postorder(node))
            met++;
        require(met == model.size());
        black_height(tree.get()->node, true);
    }
}

// ---- names ----

int released;

void count_release(void *)
{
    released++;
}

void run_name2id(Input &input)
{
    static const char *const kNames[] = {"", "a", "b", "ab", "trust", "untrust", "eth0", "eth0-1"};
    name2id_tbl *table = name2id_tbl_create2(input.below(4), 0);
    std::vector<name2id_entry *> model; // in order of insertion
    auto newest = [&](const std::string &name, unsigned scope) -> name2id_entry * {
        for (auto at = model.rbegin(); at != model.rend(); ++at)
            if ((*at)->name == name && (*at)->id == scope)
                return *at;
        return nullptr;
    };
    while (!input.empty()) {
        const char *name = kNames[input.below(std::size(kNames))];
        unsigned scope = input.below(3);
        name2id_entry *known = newest(name, scope);
        switch (input.below(4)) {
        case 0: {
            name2id_entry *entry = name2id_entry_create2(name, scope, input.byte());
            entry->data = &released;
            entry->data_free = count_release;
            require(name2id_entry_insert2(table, entry) == 0);
            model.push_back(entry);
            break;
        }
        case 1:
            if (known != nullptr) {
                released = 0;
                require(name2id_entry_remove2(table, known) == 0 && released == 1);
                drop(model, known);
            }
            break;
        default:
            require(name2id_entry_find2(table->hashtbl, name, scope) == known);
            require(name2id2(table->hashtbl, name, scope) == (known != nullptr ? static_cast<int>(known->id2) : -1));
        }
        std::vector<name2id_entry *> listed;
        for (name2id_entry *entry = table->first; entry != nullptr; entry = entry->next)
            listed.push_back(entry);
        require(listed == model && table->hashtbl->count == model.size());
    }
    released = 0;
    name2id_tbl_destory2(table);
    require(released == static_cast<int>(model.size()));
}

// ---- the simple hash table ----

int differs(std::uintptr_t value, void *key)
{
    return value % 16 != *static_cast<std::uintptr_t *>(key);
}

void run_simphash(Input &input)
{
    simphash *table = simphash_create(input.below(4));
    std::vector<std::deque<std::uintptr_t>> model(table->mask + 1); // each the newest first
    while (!input.empty()) {
        unsigned hash = input.byte();
        std::uintptr_t key = 1 + input.below(15), value = key + 16 * input.below(4);
        auto &bucket = model[hash & table->mask];
        auto at = std::find_if(bucket.begin(), bucket.end(), [&](std::uintptr_t v) { return v % 16 == key; });
        std::uintptr_t expected = at != bucket.end() ? *at : 0;
        switch (input.below(3)) {
        case 0:
            require(simphash_insert(table, hash, value) == 0);
            bucket.push_front(value);
            break;
        case 1:
            require(simphash_remove(table, hash, &key, differs) == expected);
            if (at != bucket.end())
                bucket.erase(at);
            break;
        default:
            require(simphash_find(table, hash, differs, &key) == expected);
        }
    }
    // The interface has no call that destroys a table.
    for (std::uint32_t b = 0; b <= table->mask; b++) {
        while (simphash_entry *entry = table->buckets[b]) {
            table->buckets[b] = entry->next;
            std::free(entry);
        }
    }
    std::free(table->buckets);
    std::free(table);
}

// ---- the database ----

struct Record {
    unsigned a = 0, b = 0;
};

std::uint32_t hash_a(void *record)
{
    return static_cast<Record *>(record)->a;
}

std::uint32_t hash_b(void *record)
{
    return static_cast<Record *>(record)->b * 1025;
}

std::vector<void *> visited;

void visit(void *record)
{
    visited.push_back(record);
}

void run_database(Input &input)
{
    database *db = db_create_database();
    struct Index {
        database_index *index;
        std::uint32_t (*hash)(void *);
        std::array<std::deque<Record *>, 8> buckets; // for the hashes below 8, each the oldest first
        std::deque<Record *> &of(Record *record) { return buckets[hash(record) % 1024]; }
    };
    std::vector<Index> indexes;
    for (unsigned i = input.below(4); i > 0; i--) {
        auto *hash = i % 2 == 0 ? hash_a : hash_b;
        indexes.push_back({db_create_database_index(db, hash), hash, {}});
    }
    std::array<Record, kObjects> records;
    for (Record &record : records)
        record = {input.below(8), input.below(8)};
    while (!input.empty()) {
        Record *record = &records[input.below(kObjects)];
        switch (input.below(4)) {
        case 0:
            require(database_insert(db, record) == 0);
            for (Index &index : indexes)
                index.of(record).push_back(record);
            break;
        case 1: {
            bool of_all = true;
            for (Index &index : indexes)
                of_all &= drop(index.of(record), record);
            require(database_remove(db, record) == (of_all ? 0 : -1));
            break;
        }
        case 2:
            for (Index &index : indexes) {
                auto match = [](void *met, void *key) -> int {
                    return static_cast<Record *>(met)->a == static_cast<Record *>(key)->a;
                };
                auto &bucket = index.of(record);
                auto at = std::find_if(bucket.begin(), bucket.end(), [&](Record *met) { return met->a == record->a; });
                require(database_find(index.index, index.hash(record), match, record) ==
                        (at != bucket.end() ? *at : nullptr));
            }
            break;
        default:
            if (!indexes.empty() && input.below(2) == 0) {
                Index &index = indexes[input.below(static_cast<unsigned>(indexes.size()))];
                bool held = drop(index.of(record), record);
                require(database_index_remove(index.index, record, index.hash(record)) == (held ? 0 : -1));
            }
        }
    }
    for (Index &index : indexes) {
        std::vector<void *> expected;
        for (auto &bucket : index.buckets)
            expected.insert(expected.end(), bucket.begin(), bucket.end());
        visited.clear();
        require(database_index_walk_all(index.index, visit) == 0 && visited == expected);
        visited.clear();
        require(database_index_remove_all(index.index, visit) == -1 && visited == expected);
    }
    require(db_destroy_database(db) == 0);
}

} // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t *data, std::size_t size)
{
    if (size > 4096)
        return 0;
    Input input(data, size);
    constexpr void (*kRuns[])(Input &) = {run_hashtbl, run_rbtree, run_name2id, run_simphash, run_database};
    kRuns[input.below(std::size(kRuns))](input);
    return 0;
}
