// SPDX-License-Identifier: Apache-2.0
// The object cache against general and fixed-size allocators: 64-byte objects, 100,000 of them live, or as many as an
// argument says.
#include "mcache.h"

#include <algorithm>
#include <benchmark/benchmark.h>
#include <boost/pool/pool.hpp>
#include <cstdlib>
#include <numeric>
#include <pthread.h>
#include <random>
#include <string>
#include <utility>
#include <vector>
#ifdef HAVE_GLIB
#include <glib.h>
#endif
#ifdef HAVE_MIMALLOC
#include <mimalloc.h>
#endif

namespace {

constexpr std::size_t kSize = 64;
constexpr std::size_t kLive = 100000;

struct Ours {
    mcache *cache = mcache_create("bench", kSize, nullptr, 0, 1);
    void *allocate() { return mcache_alloc(cache); }
    void release(void *object) { mcache_free(cache, object); }
};

struct Malloc {
    void *allocate() { return std::malloc(kSize); }
    void release(void *object) { std::free(object); }
};

struct BoostPool {
    boost::pool<> pool{kSize};
    void *allocate() { return pool.malloc(); }
    void release(void *object) { pool.free(object); }
};

#ifdef HAVE_GLIB
struct Slice {
    void *allocate() { return g_slice_alloc(kSize); }
    void release(void *object) { g_slice_free1(kSize, object); }
};
#endif

#ifdef HAVE_MIMALLOC
struct Mimalloc {
    void *allocate() { return mi_malloc(kSize); }
    void release(void *object) { mi_free(object); }
};
#endif

enum class Order { lifo, fifo, random };

// A live object is freed and another one allocated, in the order of allocation.
template <typename Allocator>
void replace(benchmark::State &state, Order order, std::size_t count)
{
    static Allocator allocator; // a cache lives as long as the process
    std::vector<void *> live(count);
    for (void *&object : live)
        object = allocator.allocate();
    std::vector<std::size_t> turns(count);
    std::iota(turns.begin(), turns.end(), 0);
    if (order == Order::random)
        std::shuffle(turns.begin(), turns.end(), std::mt19937(1));
    std::size_t i = 0;
    for (auto _ : state) {
        void *&object = live[order == Order::lifo ? count - 1 : turns[i]];
        i = i + 1 == count ? 0 : i + 1;
        allocator.release(object);
        object = allocator.allocate();
    }
    for (void *object : live)
        allocator.release(object);
}

template <typename Allocator>
void add(const std::string &name)
{
    const std::pair<const char *, Order> orders[] = {
        {"/lifo", Order::lifo}, {"/fifo", Order::fifo}, {"/random", Order::random}};
    for (const auto &[suffix, order] : orders)
        benchmark::RegisterBenchmark((name + suffix).c_str(),
                                     [order = order](auto &state) { replace<Allocator>(state, order, kLive); });
    benchmark::RegisterBenchmark((name + "/random").c_str(),
                                 [](benchmark::State &state) {
                                     replace<Allocator>(state, Order::random, static_cast<std::size_t>(state.range(0)));
                                 })
        ->RangeMultiplier(10)
        ->Range(1000, 10000000);
}

// One and two threads on one cache, against the two pairs of lock and unlock that they need at least.
void shared_ours(benchmark::State &state)
{
    static Ours cache;
    static void *const kept = cache.allocate(); // keeps the page
    benchmark::DoNotOptimize(kept);
    for (auto _ : state)
        cache.release(cache.allocate());
}
BENCHMARK(shared_ours)->Threads(1)->Threads(2)->UseRealTime();

void shared_locks(benchmark::State &state)
{
    static pthread_spinlock_t lock = [] {
        pthread_spinlock_t fresh;
        pthread_spin_init(&fresh, PTHREAD_PROCESS_SHARED);
        return fresh;
    }();
    for (auto _ : state) {
        for (int i = 0; i < 2; i++) {
            pthread_spin_lock(&lock);
            benchmark::ClobberMemory();
            pthread_spin_unlock(&lock);
        }
    }
}
BENCHMARK(shared_locks)->Threads(1)->Threads(2)->UseRealTime();

const bool registered = [] {
    add<Ours>("ours");
    add<Malloc>("malloc");
    add<BoostPool>("boost_pool");
#ifdef HAVE_GLIB
    add<Slice>("glib_slice");
#endif
#ifdef HAVE_MIMALLOC
    add<Mimalloc>("mimalloc");
#endif
    return true;
}();

} // namespace
