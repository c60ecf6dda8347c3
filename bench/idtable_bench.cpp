// SPDX-License-Identifier: Apache-2.0
// Sparse tables by identifier: lookups that hit, and filling. Keys are consecutive, in scattered clusters of 256, or
// scattered one by one. Times of filling are for the whole table.
#include "idtable.h"

#include <algorithm>
#include <benchmark/benchmark.h>
#include <cstddef>
#include <cstdint>
#include <memory>
#include <random>
#include <string>
#include <unordered_map>
#include <vector>
#ifdef HAVE_GLIB
#include <glib.h>
#endif
#ifdef HAVE_JUDY
#include <Judy.h>
#endif

namespace {

/* ---- the tables ---- */

struct Ours16 {
    idtable_node *root = idtable_alloc_table();
    ~Ours16() { idtable_free_table(root); }
    void insert(unsigned key, std::uintptr_t value) { idtable16_insert_entry(root, key, value); }
    std::uintptr_t find(unsigned key) { return idtable16_find_entry(root, key); }
};

struct Ours32 {
    idtable_node *root = idtable_alloc_table();
    std::vector<unsigned> keys; // the tables of the low halves are freed only with their last values
    ~Ours32()
    {
        for (unsigned key : keys)
            idtable32_remove_entry(root, key);
        idtable_free_table(root);
    }
    void insert(unsigned key, std::uintptr_t value) { idtable32_insert_entry(root, key, value); }
    std::uintptr_t find(unsigned key) { return idtable32_find_entry(root, key); }
};

// The minimum of a lookup in the public nodes, whose sizes are part of the contract: six loads that wait for one
// another.
struct Loads : Ours32 {
    static const idtable_node *at(const idtable_node *node, unsigned index)
    {
        return reinterpret_cast<const idtable_node *>(node->slots[index]);
    }
    static const idtable_node *walk(const idtable_node *node, unsigned half)
    {
        return at(at(at(node, half >> 12), half >> 6 & 63), half & 63);
    }
    std::uintptr_t find(unsigned key)
    {
        return reinterpret_cast<std::uintptr_t>(walk(walk(root, key >> 16), key & 65535));
    }
};

struct Std {
    std::unordered_map<unsigned, std::uintptr_t> map;
    void insert(unsigned key, std::uintptr_t value) { map.emplace(key, value); }
    std::uintptr_t find(unsigned key) { return map.find(key)->second; }
};

#ifdef HAVE_GLIB
struct Glib {
    GHashTable *table = g_hash_table_new(nullptr, nullptr);
    ~Glib() { g_hash_table_destroy(table); }
    void insert(unsigned key, std::uintptr_t value)
    {
        g_hash_table_insert(table, GUINT_TO_POINTER(key), reinterpret_cast<void *>(value));
    }
    std::uintptr_t find(unsigned key)
    {
        return reinterpret_cast<std::uintptr_t>(g_hash_table_lookup(table, GUINT_TO_POINTER(key)));
    }
};
#endif

#ifdef HAVE_JUDY
struct JudyL {
    void *array = nullptr;
    ~JudyL() { JudyLFreeArray(&array, nullptr); }
    void insert(unsigned key, std::uintptr_t value)
    {
        *reinterpret_cast<std::uintptr_t *>(JudyLIns(&array, key, nullptr)) = value;
    }
    std::uintptr_t find(unsigned key) { return *reinterpret_cast<std::uintptr_t *>(JudyLGet(array, key, nullptr)); }
};
#endif

/* ---- the keys ---- */

struct Keys {
    const char *name;
    std::vector<unsigned> values; // distinct, in random order
};

Keys shuffled(const char *name, std::vector<unsigned> values)
{
    std::shuffle(values.begin(), values.end(), std::mt19937(1));
    return {name, std::move(values)};
}

Keys dense(const char *name, unsigned n)
{
    std::vector<unsigned> values(n);
    for (unsigned i = 0; i < n; i++)
        values[i] = i;
    return shuffled(name, std::move(values));
}

// Clusters of cluster_size consecutive keys, all below limit.
Keys clustered(const char *name, std::size_t n, unsigned cluster_size, std::uint64_t limit)
{
    std::mt19937_64 random(2);
    std::vector<unsigned> values;
    while (values.size() < n) {
        while (values.size() < n) {
            const auto start = static_cast<unsigned>(random() % (limit / cluster_size)) * cluster_size;
            for (unsigned i = 0; i < cluster_size; i++)
                values.push_back(start + i);
        }
        std::sort(values.begin(), values.end());
        values.erase(std::unique(values.begin(), values.end()), values.end());
    }
    return shuffled(name, std::move(values));
}

/* ---- the work ---- */

template <typename Table>
void fill(Table &table, const Keys &keys)
{
    for (unsigned key : keys.values)
        table.insert(key, key + 1UL);
    if constexpr (requires { table.keys; })
        table.keys = keys.values;
}

// The table in use is kept from call to call: those of a million keys take long to fill.
std::shared_ptr<void> kept;
std::string kept_title;

template <typename Table>
Table &filled(const std::string &title, const Keys &keys)
{
    if (kept_title != title) {
        kept.reset();
        auto table = std::make_shared<Table>();
        fill(*table, keys);
        kept = table;
        kept_title = title;
    }
    return *static_cast<Table *>(kept.get());
}

template <typename Table>
void add(const std::string &name, const Keys &keys)
{
    const std::string title = std::string(keys.name).append("/").append(name);
    benchmark::RegisterBenchmark((title + "/find").c_str(), [title, &keys](benchmark::State &state) {
        auto &table = filled<Table>(title, keys);
        std::size_t i = 0;
        for (auto _ : state) {
            std::uintptr_t value = table.find(keys.values[i]);
            asm volatile("" : : "r"(value)); // not DoNotOptimize(): the compiler gives it a place in memory, unread
            i = i + 1 == keys.values.size() ? 0 : i + 1;
        }
    });
    benchmark::RegisterBenchmark((title + "/fill").c_str(), [&keys](benchmark::State &state) {
        std::unique_ptr<Table> table;
        for (auto _ : state) {
            state.PauseTiming();
            table = std::make_unique<Table>();
            state.ResumeTiming();
            fill(*table, keys);
        }
    })->Unit(benchmark::kMicrosecond);
}

template <typename Ours>
void add_all(const char *ours, const Keys &keys)
{
    add<Ours>(ours, keys);
#ifdef HAVE_JUDY
    add<JudyL>("judyl", keys);
#endif
#ifdef HAVE_GLIB
    add<Glib>("glib", keys);
#endif
    add<Std>("std", keys);
}

const bool registered = [] {
    static const Keys narrow[] = {dense("narrow_dense", 65536), clustered("narrow_clustered", 16384, 256, 65536),
                                  clustered("narrow_random", 16384, 1, 65536)};
    static const Keys wide[] = {dense("wide_dense", 1000000),
                                clustered("wide_clustered", 1000000, 256, std::uint64_t{1} << 32),
                                clustered("wide_random", 1000000, 1, std::uint64_t{1} << 32)};
    for (const Keys &keys : narrow)
        add_all<Ours16>("idtable16", keys);
    for (const Keys &keys : wide) {
        add_all<Ours32>("idtable32", keys);
        add<Loads>("loads", keys);
    }
    return true;
}();

} // namespace
