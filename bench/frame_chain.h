// SPDX-License-Identifier: Apache-2.0
// frame_chain.h - runs something below a known number of frames, for the walkers' benchmarks, and the library's walk.
#ifndef LIBCOMMON_BENCH_FRAME_CHAIN_H
#define LIBCOMMON_BENCH_FRAME_CHAIN_H

#include "backtrace.h"

#include <benchmark/benchmark.h>

namespace bench {

template <typename Body>
[[gnu::noinline]] void below_frames(int frames, const Body &body)
{
    if (frames > 0)
        below_frames(frames - 1, body);
    else
        body();
    asm volatile("" ::: "memory"); // keeps the call from becoming a jump
}

inline constexpr int kFrames = 20; // what a crash log holds

// The library's walk, which each of the programs measures next to the others.
inline void frame_walk(benchmark::State &state)
{
    procps_read_maps();
    below_frames(kFrames, [&] {
        unsigned long addrs[kFrames], frames[kFrames], bottom;
        auto fp = reinterpret_cast<unsigned long>(__builtin_frame_address(0));
        for (auto _ : state) {
            int depth = qv_backtrace_spec(fp, 0, 0, addrs, frames, kFrames, &bottom);
            if (depth != kFrames)
                state.SkipWithError("the walk is short");
            benchmark::DoNotOptimize(addrs);
        }
    });
}

} // namespace bench

#endif
