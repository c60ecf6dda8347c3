// SPDX-License-Identifier: Apache-2.0
// Sorted timers from 1,000 to 10,000,000 pending. Each set is filled once and kept for all that is measured on it,
// since filling the largest takes seconds.
#include "bench/timer_peers.h"

#include <benchmark/benchmark.h>
#include <cstdint>
#include <memory>
#include <random>
#include <string>
#include <type_traits>

namespace {

using namespace bench;

constexpr std::size_t kMost = 10000000;
constexpr std::size_t kMostOfLarge = 1000000; // where a timer takes 128 bytes and more

template <typename Timers>
constexpr bool is_small = std::is_same_v<Timers, BoostHeap>;
#ifdef HAVE_EV
template <>
constexpr bool is_small<Ev> = true;
#endif

std::mt19937 random_numbers(1);

// An hour away and more, so that none is due.
std::int64_t some_time()
{
    return 3600 * std::int64_t{1000000} + static_cast<std::int64_t>(random_numbers() % 1000000) * 10000;
}

std::shared_ptr<void> kept;
std::string kept_name;

template <typename Timers>
Timers &filled(const std::string &name, std::size_t pending)
{
    if (kept_name != name) {
        kept.reset();
        auto timers = std::make_shared<Timers>(pending + kDue);
        for (std::size_t i = 0; i < pending; i++)
            timers->start(i, some_time());
        kept = timers;
        kept_name = name;
    }
    return *static_cast<Timers *>(kept.get());
}

template <typename Timers>
void add(const std::string &name, std::size_t pending)
{
    const std::string suffix = "/" + name + "/" + std::to_string(pending);
    benchmark::RegisterBenchmark(("start_stop" + suffix).c_str(), [=](benchmark::State &state) {
        auto &timers = filled<Timers>(suffix, pending);
        for (auto _ : state) {
            timers.start(pending, some_time());
            timers.stop(pending);
        }
    });
    benchmark::RegisterBenchmark(("rearm" + suffix).c_str(), [=](benchmark::State &state) {
        auto &timers = filled<Timers>(suffix, pending);
        for (auto _ : state) {
            std::size_t i = random_numbers() % pending;
            timers.stop(i);
            timers.start(i, some_time());
        }
    });
    benchmark::RegisterBenchmark(("start_fire" + suffix).c_str(), [=](benchmark::State &state) {
        auto &timers = filled<Timers>(suffix, pending);
        start_and_fire(state, timers, pending);
    });
}

const bool registered = [] {
    for (std::size_t pending = 1000; pending <= kMost; pending *= 10) {
        add<Ours>("ours", pending);
        add<Binary>("binary_heap", pending);
        with_each_peer([=]<typename Timers>(const char *name, Timers *) {
            if (pending <= kMostOfLarge || is_small<Timers>)
                add<Timers>(name, pending);
        });
    }
    return true;
}();

} // namespace
