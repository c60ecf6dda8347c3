// SPDX-License-Identifier: Apache-2.0
// A walk of 20 frames: the library's, which probes for readable memory, and the C library's.
#include "bench/frame_chain.h"

#include <benchmark/benchmark.h>
#include <cerrno>
#include <execinfo.h>
#include <sys/syscall.h>
#include <unistd.h>

namespace {

using bench::frame_walk;
BENCHMARK(frame_walk);

// The system calls of such a walk and nothing else: whether the probe refuses an address of the kernel and accepts a
// known page, and which pages of the stack are readable.
void probes(benchmark::State &state)
{
    constexpr unsigned long kPage = 4096;
    auto probe = [](unsigned long page) {
        return ::syscall(SYS_rt_sigprocmask, -1, page, nullptr, 8) == -1 && errno == EINVAL;
    };
    auto top = reinterpret_cast<unsigned long>(__builtin_frame_address(0)) & ~(kPage - 1);
    bench::below_frames(bench::kFrames, [&] {
        auto fp = reinterpret_cast<unsigned long>(__builtin_frame_address(0)) & ~(kPage - 1);
        for (auto _ : state) {
            bool is_sound = !probe(0UL - kPage) && probe(fp);
            for (unsigned long page = fp; page <= top; page += kPage)
                is_sound = probe(page) && is_sound;
            if (!is_sound)
                state.SkipWithError("a probe is wrong");
        }
    });
}
BENCHMARK(probes);

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
