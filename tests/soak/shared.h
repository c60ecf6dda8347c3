// SPDX-License-Identifier: Apache-2.0
// shared.h - what the processes of a long run share: one record in shared memory, which every process counts into and
// the driver (living.cpp) reads. A process may be killed at any moment, so nothing here is locked.
#ifndef LIBCOMMON_TESTS_SOAK_SHARED_H
#define LIBCOMMON_TESTS_SOAK_SHARED_H

#include <algorithm>
#include <array>
#include <atomic>
#include <bit>
#include <chrono>
#include <cstdint>
#include <string>

namespace living {

using steady = std::chrono::steady_clock;

// ---- what is counted ----

enum Activity : unsigned {
    kAllocations,
    kCacheObjects,
    kTableOperations,
    kTimersFired,
    kTicks,
    kForks,
    kCommands,
    kLogLines,
    kTraceLines,
    kFullTraces,
    kTraceFiles,
    kDumps,
    kInspections,
    kSettingWrites,
    kSettingReads,
    kSettingKills,
    kSettingCuts, // kills that left the file shorter: the records after the replaced one are lost, as documented
    kVrRequests,
    kVrTables,
    kCrashes,
    kCrashRounds,
    kActivities
};

inline constexpr std::array<const char *, kActivities> kActivityNames = {
    "allocations",   "cache_objects", "table_operations", "timers",      "ticks",     "forks",       "commands",
    "log_lines",     "trace_lines",   "full_traces",      "trace_files", "dumps",     "inspections", "setting_writes",
    "setting_reads", "setting_kills", "setting_cuts",     "vr_requests", "vr_tables", "crashes",     "crash_rounds",
};

// ---- what is timed ----

enum Timing : unsigned {
    kTimerLateness,
    kForkTime,
    kLogTime,
    kLeakReportTime,
    kDumpTime,
    kCrashTime,
    kSettingWriteTime,
    kVrTime,
    kInspectionTime,
    kTimings
};

inline constexpr std::array<const char *, kTimings> kTimingNames = {
    "timer_lateness", "fork",          "log_line",   "leak_report", "dump",
    "crash_log",      "setting_write", "vr_request", "inspection",
};

// A histogram of microseconds: 16 buckets for each doubling, so that a percentile is at most a sixteenth too high.
class Series {
public:
    static constexpr unsigned kSteps = 16;
    static constexpr unsigned kBuckets = kSteps * 29;
    using Counts = std::array<std::uint32_t, kBuckets>;

    void add(std::uint64_t microseconds)
    {
        auto value = static_cast<std::uint32_t>(std::min<std::uint64_t>(microseconds, UINT32_MAX));
        counts_[bucket_of(value)].fetch_add(1, std::memory_order_relaxed);
        std::uint32_t most = most_.load(std::memory_order_relaxed);
        while (value > most && !most_.compare_exchange_weak(most, value, std::memory_order_relaxed))
            continue;
    }

    Counts counts() const
    {
        Counts copy;
        for (unsigned i = 0; i < kBuckets; i++)
            copy[i] = counts_[i].load(std::memory_order_relaxed);
        return copy;
    }

    // The highest value since the last call.
    std::uint32_t take_most() { return most_.exchange(0); }

    // The highest value of a bucket.
    static std::uint32_t value_of(unsigned bucket)
    {
        if (bucket < kSteps)
            return bucket;
        unsigned shift = bucket / kSteps - 1;
        return static_cast<std::uint32_t>(((std::uint64_t{bucket % kSteps} + kSteps + 1) << shift) - 1);
    }

private:
    static unsigned bucket_of(std::uint32_t value)
    {
        if (value < kSteps)
            return value;
        unsigned shift = static_cast<unsigned>(std::bit_width(value)) - 5;
        return (shift + 1) * kSteps + (value >> shift) - kSteps;
    }

    std::array<std::atomic<std::uint32_t>, kBuckets> counts_;
    std::atomic<std::uint32_t> most_;
};

// ---- who works ----

enum Worker : unsigned {
    kTimerLoop,
    kAllocator1,
    kAllocator2,
    kCacheUser,
    kTableUser,
    kForker,
    kLogger,
    kSettingReader,
    kVrServer,
    kTracer,
    kWorkers
};

inline constexpr std::array<const char *, kWorkers> kWorkerNames = {
    "timers", "allocator 1", "allocator 2", "object caches", "tables",
    "forks",  "log",         "settings",    "VR server",     "tracing",
};

// Two daemons do the same work. One traces its allocations; the light statistics of the other one count all the time.
inline constexpr unsigned kDaemons = 2;
inline constexpr unsigned kTracedDaemon = 0;
inline constexpr std::array<const char *, kDaemons> kDaemonNames = {"traced", "light"};

inline constexpr std::array<int, kDaemons> kDaemonVrs = {7, 8};
inline constexpr int kVrPort = 5007;
inline constexpr const char *kVrConfiguration = "/tmp/soak.conf";

struct DaemonState {
    std::array<std::atomic<std::uint64_t>, kWorkers> beats; // each worker counts its rounds
    std::atomic<std::uint64_t> heap;                        // bytes that the C library's allocator has given out
};

// ---- what went wrong ----

struct Failure {
    std::atomic<bool> complete;
    char text[500];
};

struct Shared {
    std::atomic<bool> stop;
    std::array<std::atomic<std::uint64_t>, kActivities> activities;
    std::array<Series, kTimings> timings;
    std::array<DaemonState, kDaemons> daemons;
    std::atomic<std::uint64_t> crash_started; // microseconds of the monotonic clock, at a crash host's fault
    std::atomic<unsigned> failures;
    std::array<Failure, 200> failure; // the first ones

    void count(Activity activity, unsigned n = 1) { activities[activity].fetch_add(n, std::memory_order_relaxed); }
    void fail(const std::string &text);
};

std::uint64_t now_us();

// Times a call into a series.
template <typename Function>
auto timed(Series &series, Function function)
{
    std::uint64_t start = now_us();
    auto result = function();
    series.add(now_us() - start);
    return result;
}

// Waits for the end of a child and reaps it; false when it does not end in time, and it is killed then.
bool reap(pid_t child, int *status);

// ---- settings: the values are derived from a number, so that a reader knows one that no writer wrote ----

inline constexpr unsigned kSettings = 6;
std::string setting_name(unsigned i);
std::string setting_value(unsigned n);
bool is_setting_value(const std::string &value);

// ---- the processes ----

int run_daemon(Shared *shared, unsigned index);
int run_vr_client(Shared *shared);
int run_crash_host(Shared *shared, unsigned seed);
[[noreturn]] void write_settings(Shared *shared, unsigned first);

inline constexpr char kEndOfLog[] = "soak: end of log";

} // namespace living

#endif
