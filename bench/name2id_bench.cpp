// SPDX-License-Identifier: Apache-2.0
// Names looked up in random order: interface-like ones, all of them known, at less than one a bucket.
#include "name2id.h"

#include <algorithm>
#include <benchmark/benchmark.h>
#include <bit>
#include <cstddef>
#include <random>
#include <string>
#include <unordered_map>
#include <vector>
#ifdef HAVE_GLIB
#include <glib.h>
#endif

namespace {

struct Ours {
    name2id_tbl *table;
    explicit Ours(std::size_t n) : table(name2id_tbl_create(static_cast<unsigned>(std::bit_width(n)), 0)) {}
    ~Ours() { name2id_tbl_destory(table); }
    void insert(const char *name, unsigned id) { name2id_entry_insert(table, name2id_entry_create(name, id)); }
    unsigned find(const char *name) { return static_cast<unsigned>(name2id(table->hashtbl, name)); }
};

struct Std {
    std::unordered_map<std::string, unsigned> map;
    explicit Std(std::size_t) {}
    void insert(const char *name, unsigned id) { map.emplace(name, id); }
    unsigned find(const char *name) { return map.find(name)->second; }
};

#ifdef HAVE_GLIB
struct Glib {
    GHashTable *table;
    explicit Glib(std::size_t) : table(g_hash_table_new_full(g_str_hash, g_str_equal, g_free, nullptr)) {}
    ~Glib() { g_hash_table_destroy(table); }
    void insert(const char *name, unsigned id) { g_hash_table_insert(table, g_strdup(name), GUINT_TO_POINTER(id)); }
    unsigned find(const char *name) { return GPOINTER_TO_UINT(g_hash_table_lookup(table, name)); }
};
#endif

template <typename Table>
void find(benchmark::State &state)
{
    const auto n = static_cast<std::size_t>(state.range(0));
    std::vector<std::string> names(n);
    Table table(n);
    for (std::size_t i = 0; i < n; i++) {
        names[i] = "ethernet" + std::to_string(i / 1000) + "/" + std::to_string(i % 1000);
        table.insert(names[i].c_str(), static_cast<unsigned>(i));
    }
    std::shuffle(names.begin(), names.end(), std::mt19937(1));
    std::size_t i = 0;
    for (auto _ : state) {
        benchmark::DoNotOptimize(table.find(names[i].c_str()));
        i = i + 1 == n ? 0 : i + 1;
    }
}
BENCHMARK_TEMPLATE(find, Ours)->Name("find/ours")->RangeMultiplier(10)->Range(100, 1000000);
BENCHMARK_TEMPLATE(find, Std)->Name("find/std")->RangeMultiplier(10)->Range(100, 1000000);
#ifdef HAVE_GLIB
BENCHMARK_TEMPLATE(find, Glib)->Name("find/glib")->RangeMultiplier(10)->Range(100, 1000000);
#endif

} // namespace
