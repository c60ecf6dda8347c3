// SPDX-License-Identifier: Apache-2.0
// What heap accounting costs: the light statistics against the bare allocator, full tracing with few and with many live
// blocks, and a report of a full table. To measure another allocator, preload it: "ours" is whatever malloc() the
// process uses.
#include "qv_mtrace.h"

#include "bench/qv_mtrace_peer.h"

#include <benchmark/benchmark.h>
#include <climits>
#include <cstdio>
#include <cstdlib>
#include <string>
#include <unistd.h>
#include <utility>
#include <vector>

extern "C" {
void *__libc_malloc(std::size_t size);
void __libc_free(void *block);
}

namespace {

// malloc() and free() of whatever library the process uses.
struct allocator {
    void *(*allocate)(std::size_t size);
    void (*release)(void *block);
};

void pairs(benchmark::State &state, const allocator &which)
{
    std::size_t i = 0;
    for (auto _ : state) {
        void *block = which.allocate(16 + (i++ * 37 & 1023) % 1009);
        benchmark::DoNotOptimize(block);
        which.release(block);
    }
}

const bool registered = [] {
    const std::pair<const char *, allocator> all[] = {
        {"pair/ours", {std::malloc, std::free}},
        {"pair/bare", {__libc_malloc, __libc_free}},
        {"pair/counting", {bench::counting_malloc, bench::counting_free}},
    };
    for (const auto &[name, which] : all) {
        for (int threads : {1, 2})
            benchmark::RegisterBenchmark(name, [which = which](benchmark::State &state) { pairs(state, which); })
                ->Threads(threads)
                ->UseRealTime();
    }
    return true;
}();

// ---- full tracing ----

// An old block goes, a new one comes.
void replace_blocks(benchmark::State &state)
{
    std::vector<void *> live(static_cast<std::size_t>(state.range(0)));
    for (void *&block : live)
        block = std::malloc(32);
    std::size_t i = 0;
    for (auto _ : state) {
        void *&block = live[i++ * 7919 % live.size()];
        std::free(block);
        block = std::malloc(32);
    }
    for (void *block : live)
        std::free(block);
}
BENCHMARK(replace_blocks)->Arg(100); // in the process that another tracer is preloaded into

// That process, once for each sample: the samples alternate with those of full_pair, since the clock of a processor
// changes from one second to the next.
void heaptrack_pair(benchmark::State &state)
{
    constexpr const char *kTracer = "/usr/lib/heaptrack/libheaptrack_preload.so";
    char program[PATH_MAX] = {};
    if (::access(kTracer, R_OK) != 0 || ::readlink("/proc/self/exe", program, sizeof program - 1) < 0)
        return state.SkipWithError("heaptrack is not installed");
    std::string command = std::string("DUMP_HEAPTRACK_OUTPUT=/dev/null LD_PRELOAD=") + kTracer + " exec '" + program +
                          "' '--benchmark_filter=^replace_blocks/100$' --benchmark_min_time=0.05 "
                          "--benchmark_format=csv 2>/dev/null";
    for (auto _ : state) {
        double nanoseconds = 0;
        std::FILE *output = ::popen(command.c_str(), "r");
        char line[256];
        while (output != nullptr && std::fgets(line, sizeof line, output) != nullptr)
            std::sscanf(line, "\"replace_blocks/100\",%*d,%*f,%lf", &nanoseconds); // iterations, wall clock, processor
        if (output == nullptr || ::pclose(output) != 0 || nanoseconds <= 0)
            return state.SkipWithError("no result below heaptrack");
        state.SetIterationTime(nanoseconds / 1e9);
    }
}
BENCHMARK(heaptrack_pair)->Iterations(1)->UseManualTime();

void full_pair(benchmark::State &state)
{
    qv_mtrace_start();
    replace_blocks(state);
    qv_mtrace_reset();
    my_init_hook();
}
BENCHMARK(full_pair)->Arg(100)->Arg(1000)->Arg(10000)->Arg(30000)->Arg(60000)->Arg(100000)->Arg(1000000);

// The minimum that many live blocks add to such a pair: the blocks, and records of the table's size and number, of
// which one is read and cleared and one written, under a lock as the table is. Without a lock, the processor would load
// what the next pairs need meanwhile.
void record_pair(benchmark::State &state)
{
    struct record {
        void *block;
        std::uintptr_t rest[10];
    };
    struct live_block {
        void *block;
        unsigned slot;
    };
    std::vector<record> records(MTRACE_TABLE_SIZE);
    std::vector<live_block> live(static_cast<std::size_t>(state.range(0)));
    std::vector<unsigned> free_slots;
    for (unsigned slot = 0; slot < MTRACE_TABLE_SIZE; slot++) {
        if (slot >= live.size()) {
            free_slots.push_back(slot);
            continue;
        }
        records[slot].block = __libc_malloc(32);
        live[slot] = {records[slot].block, slot};
    }
    static pthread_mutex_t lock = PTHREAD_MUTEX_INITIALIZER;
    std::size_t i = 0, oldest = 0;
    for (auto _ : state) {
        live_block &each = live[i++ * 7919 % live.size()];
        pthread_mutex_lock(&lock);
        if (records[each.slot].block != each.block)
            state.SkipWithError("a record is another block's");
        records[each.slot].block = nullptr;
        __libc_free(each.block);
        std::swap(each.slot, free_slots[oldest]);
        oldest = oldest + 1 == free_slots.size() ? 0 : oldest + 1;
        pthread_mutex_unlock(&lock);
        pthread_mutex_lock(&lock);
        each.block = __libc_malloc(32);
        records[each.slot] = {each.block, {i, i, i, i, i, i, i, i, i, i}};
        pthread_mutex_unlock(&lock);
    }
    for (live_block &each : live)
        __libc_free(each.block);
}
BENCHMARK(record_pair)->Arg(100)->Arg(60000);

// Every call as a line in a file.
void file_pair(benchmark::State &state)
{
    ::setenv("MALLOC_TRACE", "/dev/null", 1);
    mtrace();
    for (auto _ : state) {
        void *block = std::malloc(32);
        benchmark::DoNotOptimize(block);
        std::free(block);
    }
    muntrace();
    ::unsetenv("MALLOC_TRACE");
}
BENCHMARK(file_pair);

// ---- reports ----

void report_of_a_full_table(benchmark::State &state)
{
    qv_mtrace_start();
    qv_mtrace_stop();
    time_wait = 0;
    for (std::uintptr_t i = 1; i <= MTRACE_TABLE_SIZE; i++)
        add_malloc_record(i % 100, nullptr, reinterpret_cast<void *>(i * 16));
    mtrace_stat_record record;
    for (auto _ : state)
        benchmark::DoNotOptimize(qv_mtrace_stat(&record, 0));
    qv_mtrace_reset();
    my_init_hook();
}
BENCHMARK(report_of_a_full_table)->Unit(benchmark::kMillisecond);

} // namespace
