// SPDX-License-Identifier: Apache-2.0
// Sorted timers against those of event loops and against plain containers, with 1,000 to 1,000,000 timers pending.
//
// What no change of the heap can save: ours read the clock at each start, since expiries are exact to the microsecond
// ("clock", about 28 ns, which is more than all of libev's start and stop), and they are called through two shared
// libraries ("binary_heap" is compiled into this program). "libev_and_clock" is libev with the first of the two.
#include "bench/timer_peers.h"

#include <benchmark/benchmark.h>
#include <random>
#include <string>

namespace {

using namespace bench;

constexpr std::int64_t kHour = 3600 * std::int64_t{1000000};

#ifdef HAVE_EV
// libev starts timers from the time that its loop has kept.
class EvAndClock : public Ev {
public:
    using Ev::Ev;
    void start(std::size_t i, std::int64_t us)
    {
        benchmark::DoNotOptimize(now_us());
        Ev::start(i, us);
    }
};
#endif

std::int64_t some_time(std::mt19937 &random)
{
    return kHour + static_cast<std::int64_t>(random() % 1000000) * 10000;
}

template <typename Timers>
void fill(Timers &timers, std::size_t pending, std::mt19937 &random)
{
    for (std::size_t i = 0; i < pending; i++)
        timers.start(i, some_time(random));
}

// What a start costs that only reads the clock.
void clock_alone(benchmark::State &state)
{
    std::mt19937 random(1);
    for (auto _ : state)
        benchmark::DoNotOptimize(now_us() + some_time(random));
}

// A timer beside those pending is started and stopped. One that sorts late has nothing to sort here.
template <typename Timers>
void start_stop(benchmark::State &state)
{
    auto pending = static_cast<std::size_t>(state.range(0));
    std::mt19937 random(1);
    Timers timers(pending + 1);
    fill(timers, pending, random);
    for (auto _ : state) {
        timers.start(pending, some_time(random));
        timers.stop(pending);
    }
}

// One of those pending is stopped and started again, as every packet of a session does.
template <typename Timers>
void rearm(benchmark::State &state)
{
    auto pending = static_cast<std::size_t>(state.range(0));
    std::mt19937 random(1);
    Timers timers(pending);
    fill(timers, pending, random);
    for (auto _ : state) {
        std::size_t i = random() % pending;
        timers.stop(i);
        timers.start(i, some_time(random));
    }
}

template <typename Timers>
void start_fire(benchmark::State &state)
{
    auto pending = static_cast<std::size_t>(state.range(0));
    std::mt19937 random(1);
    Timers timers(pending + kDue);
    fill(timers, pending, random);
    start_and_fire(state, timers, pending);
}

template <typename Timers>
void all(const std::string &name)
{
    auto add = [&](const char *what, void (*function)(benchmark::State &)) {
        benchmark::RegisterBenchmark((name + what).c_str(), function)->RangeMultiplier(10)->Range(1000, 1000000);
    };
    add("/start_stop", start_stop<Timers>);
    add("/rearm", rearm<Timers>);
    add("/start_fire", start_fire<Timers>);
}

const bool registered = [] {
    all<Ours>("ours");
    all<Binary>("binary_heap");
#ifdef HAVE_EV
    all<EvAndClock>("libev_and_clock");
#endif
    benchmark::RegisterBenchmark("clock", clock_alone);
    bench::with_each_peer([]<typename Timers>(const char *name, Timers *) { all<Timers>(name); });
    return true;
}();

} // namespace
