// SPDX-License-Identifier: Apache-2.0
// Look-ups of interface-like names in random order, all of them present, with less than one name per bucket.
#include "name2id.h"

#include <algorithm>
#include <benchmark/benchmark.h>
#include <bit>
#include <cstddef>
#include <cstring>
#include <memory>
#include <numeric>
#include <random>
#include <string>
#include <type_traits>
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

// The least that entries of 320 bytes with the name at the front and the link at the end allow: the hash, the bucket,
// the link's cache line and the name's. The bucket's first entry is always the one.
struct Floor {
    std::vector<name2id_entry> entries;
    std::vector<name2id_entry *> buckets;
    explicit Floor(std::size_t n) : entries(n), buckets(n) {}
    void insert(const char *name, unsigned id)
    {
        name2id_entry &entry = entries[id];
        std::strcpy(entry.name, name);
        entry.id = id;
        entry.link.hash = hash_of(name);
        buckets[id] = &entry;
    }
    // The bucket is given: two names never share one.
    unsigned find(const char *name, std::size_t bucket)
    {
        const name2id_entry *entry = buckets[bucket];
        const bool same = entry->link.hash == hash_of(name) && std::strcmp(entry->name, name) == 0;
        return same ? entry->id : 0;
    }
    static unsigned hash_of(const char *name)
    {
        return static_cast<unsigned>(qv_string_hash(name, static_cast<int>(std::strlen(name))));
    }
};

// Distinct names with the places at which they are inserted, in random order.
struct Names {
    std::vector<std::string> names;
    std::vector<std::size_t> places;

    explicit Names(std::size_t n) : names(n), places(n)
    {
        std::iota(places.begin(), places.end(), 0);
        std::shuffle(places.begin(), places.end(), std::mt19937(1));
        for (std::size_t i = 0; i < n; i++)
            names[i] = "ethernet" + std::to_string(places[i] / 1000) + "/" + std::to_string(places[i] % 1000);
    }
};

template <typename Table>
struct Filled {
    Names names;
    Table table;

    explicit Filled(std::size_t n) : names(n), table(n)
    {
        std::vector<std::size_t> index(n); // of the name with each place
        for (std::size_t i = 0; i < n; i++)
            index[names.places[i]] = i;
        for (std::size_t place = 0; place < n; place++)
            table.insert(names.names[index[place]].c_str(), static_cast<unsigned>(place));
    }
};

// The table in use is kept from call to call: those of a million names take seconds to fill.
std::shared_ptr<void> kept;
std::string kept_name;

template <typename Table>
Filled<Table> &filled(const std::string &name, std::size_t n)
{
    if (kept_name != name) {
        kept.reset();
        kept = std::make_shared<Filled<Table>>(n);
        kept_name = name;
    }
    return *static_cast<Filled<Table> *>(kept.get());
}

template <typename Table>
void add(const std::string &name)
{
    for (std::size_t n = 100; n <= 1000000; n *= 10) {
        const std::string title = "find/" + name + "/" + std::to_string(n);
        benchmark::RegisterBenchmark(title.c_str(), [=](benchmark::State &state) {
            auto &[names, table] = filled<Table>(title, n);
            std::size_t i = 0;
            for (auto _ : state) {
                if constexpr (std::is_same_v<Table, Floor>)
                    benchmark::DoNotOptimize(table.find(names.names[i].c_str(), names.places[i]));
                else
                    benchmark::DoNotOptimize(table.find(names.names[i].c_str()));
                i = i + 1 == n ? 0 : i + 1;
            }
        });
    }
}

const bool registered = [] {
    add<Ours>("ours");
    add<Floor>("floor");
    add<Std>("std");
#ifdef HAVE_GLIB
    add<Glib>("glib");
#endif
    return true;
}();

} // namespace
