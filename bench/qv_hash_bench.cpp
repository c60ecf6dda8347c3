// SPDX-License-Identifier: Apache-2.0
// Hash functions for keys against one of the fastest for any length.
#include "hashtbl.h"

#include <benchmark/benchmark.h>
#include <cstddef>
#if __has_include(<xxhash.h>)
#define XXH_INLINE_ALL
#include <xxhash.h>
#endif

namespace {

char data[256 + 16] = "The quick brown fox jumps over the lazy dog";

template <typename Hash>
void run(benchmark::State &state, Hash hash)
{
    const auto len = static_cast<int>(state.range(0));
    for (auto _ : state)
        benchmark::DoNotOptimize(hash(len));
    state.SetBytesProcessed(state.iterations() * len);
}

void string_hash(benchmark::State &state)
{
    run(state, [](int len) { return qv_string_hash(data, len); });
}
BENCHMARK(string_hash)->RangeMultiplier(2)->Range(8, 256);

void hash_data(benchmark::State &state)
{
    run(state, [](int len) { return qv_hash_data(data, len, 0); });
}
BENCHMARK(hash_data)->RangeMultiplier(2)->Range(8, 256);

#ifdef XXH_INLINE_ALL
void xxh32(benchmark::State &state)
{
    run(state, [](int len) { return XXH32(data, static_cast<std::size_t>(len), 0); });
}
BENCHMARK(xxh32)->RangeMultiplier(2)->Range(8, 256);

void xxh3(benchmark::State &state)
{
    run(state, [](int len) { return XXH3_64bits(data, static_cast<std::size_t>(len)); });
}
BENCHMARK(xxh3)->RangeMultiplier(2)->Range(8, 256);
#endif

void hash_uint32(benchmark::State &state)
{
    unsigned value = 1;
    for (auto _ : state)
        benchmark::DoNotOptimize(value = qv_hash_uint32(value, 0));
}
BENCHMARK(hash_uint32);

} // namespace
