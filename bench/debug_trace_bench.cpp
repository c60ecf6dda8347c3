// SPDX-License-Identifier: Apache-2.0
// A trace whose level is off, against a bare comparison, which is all that it should cost.
#include "debug_trace.h"

#include <benchmark/benchmark.h>

namespace {

void ours(benchmark::State &state)
{
    int i = 0;
    for (auto _ : state) {
        QV_TRACE(QV_TRACE_DEBUG, "pass %d\n", i);
        benchmark::DoNotOptimize(i++);
    }
}

[[gnu::noinline, gnu::cold]] void never(int i)
{
    benchmark::DoNotOptimize(i);
}

void comparison(benchmark::State &state)
{
    int i = 0;
    for (auto _ : state) {
        if (__qv_debug_level >= QV_TRACE_DEBUG)
            never(i);
        benchmark::DoNotOptimize(i++);
    }
}

BENCHMARK(ours);
BENCHMARK(comparison);

} // namespace
