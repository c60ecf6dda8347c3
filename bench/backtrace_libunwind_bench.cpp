// SPDX-License-Identifier: Apache-2.0
// A walk of 20 frames: the library's and libunwind's. A separate program, because libunwind defines a backtrace() that
// would replace the C library's.
#include "bench/frame_chain.h"

#include <benchmark/benchmark.h>

#ifdef HAVE_LIBUNWIND
#define UNW_LOCAL_ONLY
#include <libunwind.h>
#endif

namespace {

using bench::frame_walk;
BENCHMARK(frame_walk);

#ifdef HAVE_LIBUNWIND
void libunwind_step(benchmark::State &state)
{
    bench::below_frames(bench::kFrames, [&] {
        unw_word_t addrs[bench::kFrames];
        for (auto _ : state) {
            unw_context_t context;
            unw_cursor_t cursor;
            unw_getcontext(&context);
            unw_init_local(&cursor, &context);
            for (int i = 0; i < bench::kFrames && unw_step(&cursor) > 0; i++)
                unw_get_reg(&cursor, UNW_REG_IP, &addrs[i]);
            benchmark::DoNotOptimize(addrs);
        }
    });
}
BENCHMARK(libunwind_step);

void libunwind_backtrace(benchmark::State &state)
{
    bench::below_frames(bench::kFrames, [&] {
        void *addrs[bench::kFrames];
        for (auto _ : state) {
            unw_backtrace(addrs, bench::kFrames);
            benchmark::DoNotOptimize(addrs);
        }
    });
}
BENCHMARK(libunwind_backtrace);
#endif

} // namespace
