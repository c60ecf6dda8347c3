// SPDX-License-Identifier: Apache-2.0
// A walk of 20 frames: the library's, which probes for readable memory, and the C library's.
#include "backtrace.h"
#include "bench/frame_chain.h"

#include <benchmark/benchmark.h>
#include <execinfo.h>

namespace {

void frame_walk(benchmark::State &state)
{
    procps_read_maps();
    bench::below_frames(bench::kFrames, [&] {
        unsigned long addrs[bench::kFrames], frames[bench::kFrames], bottom;
        auto fp = reinterpret_cast<unsigned long>(__builtin_frame_address(0));
        for (auto _ : state) {
            int depth = qv_backtrace_spec(fp, 0, 0, addrs, frames, bench::kFrames, &bottom);
            if (depth != bench::kFrames)
                state.SkipWithError("the walk is short");
            benchmark::DoNotOptimize(addrs);
        }
    });
}
BENCHMARK(frame_walk);

void libc_backtrace(benchmark::State &state)
{
    bench::below_frames(bench::kFrames, [&] {
        void *addrs[bench::kFrames];
        for (auto _ : state) {
            if (::backtrace(addrs, bench::kFrames) != bench::kFrames)
                state.SkipWithError("the walk is short");
            benchmark::DoNotOptimize(addrs);
        }
    });
}
BENCHMARK(libc_backtrace);

} // namespace
