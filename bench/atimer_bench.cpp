// SPDX-License-Identifier: Apache-2.0
// The wheel of tick timers against sorted timers of other kinds and a plain list, and what a tick costs.
#include "bench/timer_peers.h"
#include "hashtbl.h"

#include <benchmark/benchmark.h>
#include <random>

namespace {

using namespace bench;

constexpr unsigned kMostTicks = 1000000;

// The minimum of starting and stopping: a link in one unsorted list.
class List {
public:
    explicit List(std::size_t timers) : timers_(timers) { head_.next = head_.prev = &head_; }
    void start(std::size_t i, std::int64_t)
    {
        node *n = &timers_[i];
        n->prev = head_.prev;
        n->next = &head_;
        head_.prev->next = n;
        head_.prev = n;
    }
    void stop(std::size_t i)
    {
        timers_[i].prev->next = timers_[i].next;
        timers_[i].next->prev = timers_[i].prev;
    }

private:
    struct node {
        node *next, *prev;
        void *rest[5]; // as large as the library's
    };
    node head_;
    std::vector<node> timers_;
};

std::int64_t some_ticks(std::mt19937 &random)
{
    return 1 + random() % kMostTicks;
}

template <typename Timers>
void start_stop(benchmark::State &state)
{
    auto pending = static_cast<std::size_t>(state.range(0));
    std::mt19937 random(1);
    Timers timers(pending + 1);
    for (std::size_t i = 0; i < pending; i++)
        timers.start(i, some_ticks(random) * 1000000);
    for (auto _ : state) {
        timers.start(pending, some_ticks(random) * 1000000);
        timers.stop(pending);
    }
}

template <>
void start_stop<Wheel>(benchmark::State &state)
{
    auto pending = static_cast<std::size_t>(state.range(0));
    std::mt19937 random(1);
    Wheel timers(pending + 1);
    for (std::size_t i = 0; i < pending; i++)
        timers.start(i, some_ticks(random));
    for (auto _ : state) {
        timers.start(pending, some_ticks(random));
        timers.stop(pending);
    }
}

void idle_tick(benchmark::State &state)
{
    Wheel timers(1);
    timers.start(0, 1000 * 1000 * 1000);
    for (auto _ : state)
        timers.run();
}
BENCHMARK(idle_tick);

// The minimum of an idle tick: a call into the library, here of a function that does nothing, and two counters in
// memory. Each tick loads what the one before it stored.
void call_and_two_counters(benchmark::State &state)
{
    volatile unsigned tick = 0;
    volatile unsigned current = 0;
    for (auto _ : state) {
        hashtbl_grow(nullptr);
        tick = tick + 1;
        current = (current + 1) & 1023;
    }
}
BENCHMARK(call_and_two_counters);

// A stall of 100,000 seconds with `pending` timers that all expire later. The time is per tick.
void stall(benchmark::State &state)
{
    constexpr std::uint32_t kStall = 100000;
    auto pending = static_cast<std::size_t>(state.range(0));
    std::mt19937 random(1);
    Wheel timers(pending);
    atimer_context &wheel = timers.wheel();
    for (auto _ : state) {
        state.PauseTiming();
        for (std::size_t i = 0; i < pending; i++) {
            timers.stop(i);
            timers.start(i, 200000 + some_ticks(random));
        }
        wheel.last_second -= kStall;
        state.ResumeTiming();
        process_atimer(&wheel);
    }
    state.SetItemsProcessed(state.iterations() * std::int64_t{kStall});
}
BENCHMARK(stall)->Arg(0)->Arg(100);

// 100,000 timers fire, spread over as many ticks, and all of them cascade. The time is per timer.
constexpr std::size_t kDrained = 100000;

void drain_wheel(benchmark::State &state)
{
    std::mt19937 random(1);
    Wheel timers(kDrained);
    for (auto _ : state) {
        state.PauseTiming();
        for (std::size_t i = 0; i < kDrained; i++)
            timers.start(i, 1 + random() % kDrained);
        unsigned long before = fired;
        state.ResumeTiming();
        while (fired - before < kDrained) {
            timers.wheel().last_second -= 1000;
            process_atimer(&timers.wheel());
        }
    }
    state.SetItemsProcessed(state.iterations() * static_cast<std::int64_t>(kDrained));
}
BENCHMARK(drain_wheel);

// The peers' clocks do not wait: all timers are due when the draining starts, in no particular order.
template <typename Timers>
void drain(benchmark::State &state)
{
    std::mt19937 random(1);
    Timers timers(kDrained);
    for (auto _ : state) {
        state.PauseTiming();
        for (std::size_t i = 0; i < kDrained; i++)
            timers.start(i, random() % 1000);
        timespec nap = {0, 3000000};
        ::nanosleep(&nap, nullptr);
        unsigned long before = fired;
        state.ResumeTiming();
        while (fired - before < kDrained)
            timers.run();
    }
    state.SetItemsProcessed(state.iterations() * static_cast<std::int64_t>(kDrained));
}

template <typename Timers>
void all(const char *name)
{
    std::string prefix = name;
    benchmark::RegisterBenchmark((prefix + "/start_stop").c_str(), start_stop<Timers>)
        ->RangeMultiplier(10)
        ->Range(1000, std::is_same_v<Timers, Wheel> ? 10000000 : 1000000);
    if constexpr (!std::is_same_v<Timers, Wheel> && !std::is_same_v<Timers, List>)
        benchmark::RegisterBenchmark((prefix + "/drain").c_str(), drain<Timers>);
}

const bool registered = [] {
    all<Wheel>("ours");
    all<List>("plain_list");
    bench::with_each_peer([]<typename Timers>(const char *name, Timers *) { all<Timers>(name); });
    return true;
}();

} // namespace
