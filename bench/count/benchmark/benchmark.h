// SPDX-License-Identifier: Apache-2.0
// benchmark.h - what the benchmark programs use of Google Benchmark, for counting instructions instead of time.
//
// Found before the real header, it makes a program that runs each benchmark that its arguments name, a fixed number of
// times between marks for the emulator's plug-in, and prints the name and that number. The first report is that of an
// empty pair of marks.
#ifndef LIBCOMMON_BENCH_COUNT_BENCHMARK_H
#define LIBCOMMON_BENCH_COUNT_BENCHMARK_H

#include "bench/count/marks.h"

#include <algorithm>
#include <cstdint>
#include <cstdio>
#include <cstring>
#include <ctime>
#include <functional>
#include <map>
#include <memory>
#include <string>
#include <unistd.h>
#include <utility>
#include <vector>

namespace benchmark {

enum TimeUnit { kNanosecond, kMicrosecond, kMillisecond, kSecond };

struct Counter {
    enum Flags { kDefaults = 0, kIsIterationInvariantRate = 1, kInvert = 2 };
    double value = 0;
    Counter() = default;
    Counter(double v, int = kDefaults) : value(v) {}
};
constexpr Counter::Flags operator|(Counter::Flags a, Counter::Flags b)
{
    return static_cast<Counter::Flags>(static_cast<int>(a) | static_cast<int>(b));
}

template <typename T>
inline void DoNotOptimize(const T &value)
{
    asm volatile("" : : "r,m"(value) : "memory");
}
template <typename T>
inline void DoNotOptimize(T &value)
{
    asm volatile("" : "+m,r"(value) : : "memory");
}
inline void ClobberMemory()
{
    asm volatile("" : : : "memory");
}

inline void mark(long number)
{
    ::syscall(number);
}

class State {
public:
    State(std::vector<std::int64_t> ranges, std::int64_t iterations)
        : ranges_(std::move(ranges)), iterations_(iterations)
    {}
    std::int64_t range(std::size_t i) const { return ranges_[i]; }
    std::int64_t iterations() const { return iterations_; }
    void ResumeTiming()
    {
        pairs_++;
        mark(MARK_BEGIN);
    }
    void PauseTiming() { mark(MARK_END); }
    void SkipWithError(const char *) { failed_ = true; }
    void SetItemsProcessed(std::int64_t items) { items_ = items; }
    void SetBytesProcessed(std::int64_t) {}
    void SetIterationTime(double) {}

    // Each iteration is for (auto _ : state).
    struct [[maybe_unused]] Nothing {};
    struct Iterator {
        State *state;
        std::int64_t left;
        Nothing operator*() const { return {}; }
        Iterator &operator++()
        {
            left--;
            return *this;
        }
        bool operator!=(const Iterator &)
        {
            if (left > 0)
                return true;
            state->PauseTiming();
            state->ended_ = now();
            return false;
        }
    };
    Iterator begin()
    {
        began_ = now();
        ResumeTiming();
        return {this, failed_ ? 0 : iterations_};
    }
    Iterator end() { return {this, 0}; }

    std::int64_t divisor() const { return items_ != 0 ? items_ : iterations_; }
    std::int64_t pairs() const { return pairs_; }
    double loop_seconds() const { return ended_ - began_; }
    bool failed() const { return failed_; }
    std::map<std::string, Counter> counters;

private:
    static double now()
    {
        timespec time;
        ::clock_gettime(CLOCK_MONOTONIC, &time);
        return static_cast<double>(time.tv_sec) + static_cast<double>(time.tv_nsec) / 1e9;
    }
    std::vector<std::int64_t> ranges_;
    std::int64_t iterations_, items_ = 0, pairs_ = 0;
    double began_ = 0, ended_ = 0;
    bool failed_ = false;
};

class Benchmark {
public:
    Benchmark(std::string name, std::function<void(State &)> function)
        : name_(std::move(name)), function_(std::move(function))
    {}
    Benchmark *Name(const std::string &name) { return name_ = name, this; }
    Benchmark *Arg(std::int64_t arg) { return args_.push_back(arg), this; }
    Benchmark *RangeMultiplier(int multiplier) { return multiplier_ = multiplier, this; }
    Benchmark *Range(std::int64_t low, std::int64_t high)
    {
        for (; low < high; low *= multiplier_)
            args_.push_back(low);
        return Arg(high);
    }
    Benchmark *Unit(TimeUnit) { return this; }
    Benchmark *UseRealTime() { return suffix_ += "/real_time", this; }
    Benchmark *UseManualTime() { return suffix_ += "/manual_time", this; }
    Benchmark *Iterations(std::int64_t) { return this; }
    Benchmark *Threads(int threads)
    {
        one_thread_ = one_thread_ || threads == 1;
        return this;
    }

    void run(int argc, char **argv) const
    {
        const std::string suffix = suffix_ + (one_thread_ ? "/threads:1" : "");
        if (args_.empty())
            run_if_named(argc, argv, name_ + suffix, {});
        for (std::int64_t arg : args_)
            run_if_named(argc, argv, name_ + "/" + std::to_string(arg) + suffix, {arg});
    }

private:
    void run_if_named(int argc, char **argv, const std::string &name, const std::vector<std::int64_t> &ranges) const
    {
        for (int i = 1; i < argc; i++) {
            if (name != argv[i])
                continue;
            State first(ranges, 1); // caches and lazy binding are filled by it
            function_(first);
            State state(ranges, iterations_for(first.loop_seconds()));
            mark(MARK_REPORT);
            function_(state);
            mark(MARK_REPORT);
            if (!state.failed())
                std::printf("%s %lld %lld\n", name.c_str(), static_cast<long long>(state.divisor()),
                            static_cast<long long>(state.pairs()));
            else
                std::printf("%s 0 0\n", name.c_str());
            std::fflush(stdout);
            return;
        }
    }
    static std::int64_t iterations_for(double seconds_of_one)
    {
        constexpr double kSeconds = 0.2;
        constexpr double kMost = 2000;
        return static_cast<std::int64_t>(std::clamp(kSeconds / seconds_of_one, 1.0, kMost));
    }

    std::string name_, suffix_;
    std::function<void(State &)> function_;
    std::vector<std::int64_t> args_;
    int multiplier_ = 8;
    bool one_thread_ = false;
};

inline std::vector<std::unique_ptr<Benchmark>> &all()
{
    static std::vector<std::unique_ptr<Benchmark>> benchmarks;
    return benchmarks;
}

inline Benchmark *RegisterBenchmark(const char *name, std::function<void(State &)> function)
{
    return all().emplace_back(std::make_unique<Benchmark>(name, std::move(function))).get();
}

inline int run_all(int argc, char **argv)
{
    mark(MARK_REPORT);
    mark(MARK_BEGIN);
    mark(MARK_END);
    mark(MARK_REPORT);
    for (const auto &each : all())
        each->run(argc, argv);
    return 0;
}

} // namespace benchmark

#define BENCHMARK_NAME_2(line) registered_benchmark_##line
#define BENCHMARK_NAME(line) BENCHMARK_NAME_2(line)
#define BENCHMARK(function)                                                                                            \
    [[maybe_unused]] static auto *BENCHMARK_NAME(__LINE__) = ::benchmark::RegisterBenchmark(#function, function)
#define BENCHMARK_TEMPLATE(function, type)                                                                             \
    [[maybe_unused]] static auto *BENCHMARK_NAME(__LINE__) = ::benchmark::RegisterBenchmark(#function, function<type>)
#define BENCHMARK_CAPTURE(function, title, ...)                                                                        \
    [[maybe_unused]] static auto *BENCHMARK_NAME(__LINE__) = ::benchmark::RegisterBenchmark(                           \
        #function "/" #title, [](::benchmark::State &state) { function(state, __VA_ARGS__); })

#endif
