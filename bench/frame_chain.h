// SPDX-License-Identifier: Apache-2.0
// frame_chain.h - runs something below a known number of frames, for the walkers' benchmarks.
#ifndef LIBCOMMON_BENCH_FRAME_CHAIN_H
#define LIBCOMMON_BENCH_FRAME_CHAIN_H

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

} // namespace bench

#endif
