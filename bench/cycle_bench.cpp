// SPDX-License-Identifier: Apache-2.0
// A chain of instructions that wait for each other: one takes a cycle on every processor that matters here, so the time
// is that of the clock at the moment.
#include <benchmark/benchmark.h>
#include <bit>
#include <cstdint>

namespace {

constexpr int kInstructions = 1000;

void dependent_instructions(benchmark::State &state)
{
    std::uint64_t value = 1;
    for (auto _ : state) {
#pragma GCC unroll 100
        for (int i = 0; i < kInstructions; i++) {
            value = std::rotl(value, 7);
            asm volatile("" : "+r"(value)); // else the compiler joins the rotations
        }
    }
    state.SetItemsProcessed(state.iterations() * kInstructions);
}
BENCHMARK(dependent_instructions);

} // namespace
