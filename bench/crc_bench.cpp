// SPDX-License-Identifier: Apache-2.0
// The checksums against well-known libraries, and against a plain loop over one table.
#include "encoding.h"

#include <benchmark/benchmark.h>
#include <vector>
#ifdef HAVE_LIBDEFLATE
#include <libdeflate.h>
#endif
#ifdef HAVE_ZLIB
#include <zlib.h>
#endif
#ifdef HAVE_ISAL
#include <isa-l/crc.h>
#endif

namespace {

template <typename Function>
void over_buffer(benchmark::State &state, Function sum)
{
    std::vector<unsigned char> data(static_cast<std::size_t>(state.range(0)));
    for (std::size_t i = 0; i < data.size(); i++)
        data[i] = static_cast<unsigned char>(i * 131 + (i >> 8));
    for (auto _ : state) {
        benchmark::DoNotOptimize(data.data());
        benchmark::DoNotOptimize(sum(data.data(), data.size()));
    }
    state.SetBytesProcessed(state.iterations() * state.range(0));
}

void crc32_ours(benchmark::State &state)
{
    over_buffer(state, [](const unsigned char *data, std::size_t size) { return qv_crc32(0, data, size); });
}
BENCHMARK(crc32_ours)->RangeMultiplier(8)->Range(64, 1 << 20);

#ifdef HAVE_LIBDEFLATE
void crc32_libdeflate(benchmark::State &state)
{
    over_buffer(state, [](const unsigned char *data, std::size_t size) { return libdeflate_crc32(0, data, size); });
}
BENCHMARK(crc32_libdeflate)->RangeMultiplier(8)->Range(64, 1 << 20);
#endif

#ifdef HAVE_ZLIB
void crc32_zlib(benchmark::State &state)
{
    over_buffer(state, [](const unsigned char *data, std::size_t size) { return crc32_z(0, data, size); });
}
BENCHMARK(crc32_zlib)->RangeMultiplier(8)->Range(64, 1 << 20);
#endif

#ifdef HAVE_ISAL
void crc32_isal(benchmark::State &state)
{
    over_buffer(state, [](const unsigned char *data, std::size_t size) { return crc32_gzip_refl(0, data, size); });
}
BENCHMARK(crc32_isal)->RangeMultiplier(8)->Range(64, 1 << 20);
#endif

void crc16_ours(benchmark::State &state)
{
    over_buffer(state, [](const unsigned char *data, std::size_t size) {
        return qv_crc16(0, data, static_cast<unsigned>(size));
    });
}
BENCHMARK(crc16_ours)->RangeMultiplier(8)->Range(64, 1 << 20);

void crc16_plain_table(benchmark::State &state)
{
    over_buffer(state, [](const unsigned char *data, std::size_t size) {
        unsigned sum = 0;
        for (std::size_t i = 0; i < size; i++)
            sum = crc16_table[(sum ^ data[i]) & 0xFF] ^ (sum >> 8);
        return sum;
    });
}
BENCHMARK(crc16_plain_table)->RangeMultiplier(8)->Range(64, 1 << 20);

} // namespace
