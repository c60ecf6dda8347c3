// SPDX-License-Identifier: Apache-2.0
// Tables of sessions keyed by number: lookups that hit, lookups that miss, and removal with reinsertion, in random
// order. Every side computes the same hash by the same call; every session fills a cache line and holds its links in
// it.
#include "cxx/hashtbl.hpp"

#include "bench/hashtbl_peer.h"

#include <algorithm>
#include <benchmark/benchmark.h>
#include <bit>
#include <memory>
#include <random>
#include <string>
#include <unordered_map>
#include <vector>
#if __has_include(<uthash.h>)
#define HAVE_UTHASH
#define HASH_FUNCTION(key, length, hash) ((hash) = hash_of(*(key)))
#include <uthash.h>
#endif
#ifdef HAVE_GLIB
#include <glib.h>
#endif
#ifdef HAVE_ABSL
#include <absl/container/flat_hash_map.h>
#endif

namespace {

constexpr unsigned kMaxLogSize = 20;

unsigned hash_of(unsigned id)
{
    return qv_hash_uint32(id, 0);
}

// Buckets for n sessions at the given load, at most as many as a table supports.
unsigned log_size_for(std::size_t n, unsigned load)
{
    return std::min(static_cast<unsigned>(std::bit_width(n / load - 1)), kMaxLogSize);
}

/* ---- the tables ---- */

struct alignas(64) Session {
    unsigned id;
    hashtbl_link link;
};

struct ByCall {
    using Object = Session;
    hashtbl *table;
    ByCall(std::size_t n, unsigned load) : table(hashtbl_init(log_size_for(n, load), offsetof(Session, link), 0)) {}
    ~ByCall() { hashtbl_destroy(table); }
    void insert(Object &object) { hashtbl_insert(table, hash_of(object.id), &object); }
    void remove(Object &object) { hashtbl_remove(table, object.link.hash, &object); }
    void *find(unsigned id)
    {
        return hashtbl_find(table, &id, hash_of(id), [](void *object, void *key) -> int {
            return static_cast<Object *>(object)->id == *static_cast<unsigned *>(key);
        });
    }
};

struct ByView {
    using Object = Session;
    qv::intrusive_table<Session, &Session::link> table;
    ByView(std::size_t n, unsigned load) : table(log_size_for(n, load)) {}
    void insert(Object &object) { table.insert(hash_of(object.id), object); }
    void remove(Object &object) { table.remove(object.link.hash, object); }
    void *find(unsigned id)
    {
        return table.find(hash_of(id), [id](const Object &object) { return object.id == id; });
    }
};

#ifdef HAVE_BOOST
struct Boost {
    using Object = bench::HookedSession;
    using Set = bench::HookedSet;
    std::vector<Set::bucket_type> buckets;
    Set set;
    Boost(std::size_t n, unsigned load)
        : buckets(std::size_t{1} << log_size_for(n, load)), set(Set::bucket_traits(buckets.data(), buckets.size()))
    {}
    ~Boost() { set.clear(); }
    void insert(Object &object) { set.insert(object); }
    void remove(Object &object) { set.erase(set.iterator_to(object)); }
    void *find(unsigned id)
    {
        const auto found = set.find(id, bench::Hash(), bench::Equal());
        return found == set.end() ? nullptr : &*found;
    }
};

// The same with the cost of a library boundary: a call into another shared object, and a comparison through a pointer.
struct BoostByCall : Boost {
    using Boost::Boost;
    void *find(unsigned id)
    {
        return bench::find_by_call(set, &id, hash_of(id), [](void *object, void *key) -> int {
            return static_cast<Object *>(object)->id == *static_cast<unsigned *>(key);
        });
    }
};
#endif

#ifdef HAVE_UTHASH
struct alignas(64) HandledSession {
    UT_hash_handle hh; // 56 bytes
    unsigned id;
};

struct Uthash {
    using Object = HandledSession;
    Object *head = nullptr;
    Uthash(std::size_t, unsigned) {}
    ~Uthash() { HASH_CLEAR(hh, head); }
    void insert(Object &object) { HASH_ADD(hh, head, id, sizeof object.id, &object); }
    void remove(Object &object) { HASH_DEL(head, &object); }
    void *find(unsigned id)
    {
        Object *found;
        HASH_FIND(hh, head, &id, sizeof id, found);
        return found;
    }
};
#endif

struct alignas(64) PlainSession {
    unsigned id;
};

#ifdef HAVE_GLIB
struct Glib {
    using Object = PlainSession;
    GHashTable *table;
    Glib(std::size_t, unsigned)
        : table(g_hash_table_new([](const void *key) { return hash_of(*static_cast<const unsigned *>(key)); },
                                 g_int_equal))
    {}
    ~Glib() { g_hash_table_destroy(table); }
    void insert(Object &object) { g_hash_table_insert(table, &object.id, &object); }
    void remove(Object &object) { g_hash_table_remove(table, &object.id); }
    void *find(unsigned id) { return g_hash_table_lookup(table, &id); }
};
#endif

struct HashOfId {
    std::size_t operator()(unsigned id) const { return hash_of(id); }
};

template <typename Map>
struct Mapped {
    using Object = PlainSession;
    Map map;
    Mapped(std::size_t, unsigned) {}
    void insert(Object &object) { map.emplace(object.id, &object); }
    void remove(Object &object) { map.erase(object.id); }
    void *find(unsigned id)
    {
        const auto found = map.find(id);
        return found == map.end() ? nullptr : found->second;
    }
};

using Std = Mapped<std::unordered_map<unsigned, PlainSession *, HashOfId>>;
#ifdef HAVE_ABSL
using Flat = Mapped<absl::flat_hash_map<unsigned, PlainSession *, HashOfId>>;
#endif

/* ---- the work ---- */

// Too long for a branch predictor to learn.
constexpr std::size_t kMinOrder = std::size_t{1} << 20;

const std::vector<unsigned> &random_order(std::size_t n)
{
    static std::vector<unsigned> order;
    static std::size_t order_n;
    if (order_n != n) {
        order_n = n;
        order.resize(std::max(n, kMinOrder) / n * n);
        for (std::size_t i = 0; i < order.size(); i++)
            order[i] = static_cast<unsigned>(i % n);
        std::shuffle(order.begin(), order.end(), std::mt19937(1));
    }
    return order;
}

template <typename Table>
struct Filled {
    std::vector<typename Table::Object> objects;
    Table table;

    Filled(std::size_t n, unsigned load) : objects(n), table(n, load)
    {
        for (unsigned id = 0; id < n; id++) {
            objects[id].id = id;
            table.insert(objects[id]);
        }
    }
};

// The table is kept from call to call: one of ten million takes seconds to fill.
std::shared_ptr<void> kept;
std::string kept_name;

template <typename Table>
Filled<Table> &filled(const std::string &name, std::size_t n, unsigned load)
{
    if (kept_name != name) {
        kept.reset();
        kept = std::make_shared<Filled<Table>>(n, load);
        kept_name = name;
    }
    return *static_cast<Filled<Table> *>(kept.get());
}

template <typename Table>
void add(const std::string &name, std::size_t n, unsigned load)
{
    const std::string table_name = "/load:" + std::to_string(load) + "/" + name + "/" + std::to_string(n);
    auto add_work = [=](const char *work, auto step) {
        benchmark::RegisterBenchmark((work + table_name).c_str(), [=](benchmark::State &state) {
            auto &[objects, table] = filled<Table>(table_name, n, load);
            const std::vector<unsigned> &order = random_order(n);
            std::size_t i = 0;
            for (auto _ : state) {
                step(table, objects, order[i]);
                i = i + 1 == order.size() ? 0 : i + 1;
            }
        });
    };
    add_work("hit", [](auto &table, auto &, unsigned id) { benchmark::DoNotOptimize(table.find(id)); });
    add_work("miss", [n](auto &table, auto &, unsigned id) {
        benchmark::DoNotOptimize(table.find(id + static_cast<unsigned>(n)));
    });
    add_work("leave_and_return", [](auto &table, auto &objects, unsigned id) {
        table.remove(objects[id]);
        table.insert(objects[id]);
    });
}

const bool registered = [] {
    for (std::size_t n = 1000; n <= 10000000; n *= 10) {
        for (unsigned load : {1U, 4U}) {
            add<ByCall>("ours", n, load);
            add<ByView>("ours_view", n, load);
#ifdef HAVE_BOOST
            add<Boost>("boost_intrusive", n, load);
            add<BoostByCall>("boost_intrusive_by_call", n, load);
#endif
        }
#ifdef HAVE_UTHASH
        add<Uthash>("uthash", n, 1);
#endif
#ifdef HAVE_GLIB
        add<Glib>("glib", n, 1);
#endif
        add<Std>("std", n, 1);
#ifdef HAVE_ABSL
        add<Flat>("absl_flat", n, 1);
#endif
    }
    return true;
}();

} // namespace
