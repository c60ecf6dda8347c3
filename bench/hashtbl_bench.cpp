// SPDX-License-Identifier: Apache-2.0
// Lookups that hit, in random order: the hash table, its C++ view and peers, at one object a bucket.
#include "cxx/hashtbl.hpp"

#include <algorithm>
#include <benchmark/benchmark.h>
#if __has_include(<boost/intrusive/unordered_set.hpp>)
#include <boost/intrusive/unordered_set.hpp>
#define HAVE_BOOST 1
#endif
#include <bit>
#include <random>
#include <unordered_map>
#include <vector>

namespace {

#ifdef HAVE_BOOST
namespace bi = boost::intrusive;
using Hook = bi::unordered_set_base_hook<bi::store_hash<true>, bi::link_mode<bi::normal_link>>;
#else
struct Hook {};
#endif

struct Object : Hook {
    unsigned id = 0;
    hashtbl_link link{};
};

unsigned hash_of(unsigned id)
{
    return qv_hash_uint32(id, 0);
}

struct Workload {
    std::vector<Object> objects;
    std::vector<unsigned> order;
    explicit Workload(std::size_t n) : objects(n), order(n)
    {
        for (std::size_t i = 0; i < n; i++)
            order[i] = objects[i].id = static_cast<unsigned>(i);
        std::shuffle(order.begin(), order.end(), std::mt19937(1));
    }
    unsigned log_size() const { return static_cast<unsigned>(std::bit_width(objects.size() - 1)); }
};

template <typename Find>
void run(benchmark::State &state, const Workload &work, Find find)
{
    std::size_t i = 0;
    for (auto _ : state) {
        benchmark::DoNotOptimize(find(work.order[i]));
        if (++i == work.order.size())
            i = 0;
    }
}

using View = qv::intrusive_table<Object, &Object::link>;

View filled(Workload &work)
{
    View table(work.log_size());
    for (Object &object : work.objects)
        table.insert(hash_of(object.id), object);
    return table;
}

void find_hit_c(benchmark::State &state)
{
    Workload work(static_cast<std::size_t>(state.range(0)));
    View table = filled(work);
    auto match = [](void *object, void *key) -> int {
        return static_cast<Object *>(object)->id == *static_cast<unsigned *>(key);
    };
    run(state, work, [&](unsigned id) { return hashtbl_find(table.get(), &id, hash_of(id), match); });
}
BENCHMARK(find_hit_c)->RangeMultiplier(10)->Range(1000, 1000000);

void find_hit_view(benchmark::State &state)
{
    Workload work(static_cast<std::size_t>(state.range(0)));
    View table = filled(work);
    run(state, work,
        [&](unsigned id) { return table.find(hash_of(id), [id](const Object &object) { return object.id == id; }); });
}
BENCHMARK(find_hit_view)->RangeMultiplier(10)->Range(1000, 1000000);

#ifdef HAVE_BOOST
struct Hash {
    std::size_t operator()(unsigned id) const { return hash_of(id); }
    std::size_t operator()(const Object &object) const { return hash_of(object.id); }
};
struct Equal {
    bool operator()(unsigned id, const Object &object) const { return id == object.id; }
    bool operator()(const Object &a, const Object &b) const { return a.id == b.id; }
};

void find_hit_boost_intrusive(benchmark::State &state)
{
    using Set = bi::unordered_set<Object, bi::base_hook<Hook>, bi::hash<Hash>, bi::equal<Equal>,
                                  bi::power_2_buckets<true>, bi::compare_hash<true>>;
    Workload work(static_cast<std::size_t>(state.range(0)));
    std::vector<Set::bucket_type> buckets(std::size_t{1} << work.log_size());
    Set set(Set::bucket_traits(buckets.data(), buckets.size()));
    for (Object &object : work.objects)
        set.insert(object);
    run(state, work, [&](unsigned id) { return &*set.find(id, Hash(), Equal()); });
}
BENCHMARK(find_hit_boost_intrusive)->RangeMultiplier(10)->Range(1000, 1000000);
#endif

void find_hit_std(benchmark::State &state)
{
    Workload work(static_cast<std::size_t>(state.range(0)));
    struct SameHash {
        std::size_t operator()(unsigned id) const { return hash_of(id); }
    };
    std::unordered_map<unsigned, Object *, SameHash> map;
    for (Object &object : work.objects)
        map.emplace(object.id, &object);
    run(state, work, [&](unsigned id) { return map.find(id)->second; });
}
BENCHMARK(find_hit_std)->RangeMultiplier(10)->Range(1000, 1000000);

} // namespace
