// SPDX-License-Identifier: Apache-2.0
// The signal-safe formatter against the C library's and fmt's, on typical lines of a crash log.
#include "signal_printf.h"

#include <benchmark/benchmark.h>
#include <cstdio>
#if __has_include(<fmt/format.h>)
#define FMT_HEADER_ONLY
#include <fmt/format.h>
#define HAVE_FMT 1
#endif

namespace {

char text[1024];
volatile int year = 2026, month = 1, day = 31, hour = 9, minute = 5, second = 59;
volatile unsigned long registers[4] = {0x7ffd3d47dbe0, 0x7fc4bc5cf230, 0xffffffff, 4};
void *volatile pointers[6] = {text, &text[64], text + 128, text + 256, nullptr, text + 1023};

void log_prefix_ours(benchmark::State &state)
{
    for (auto _ : state)
        benchmark::DoNotOptimize(signal_snprintf(text, sizeof text, "%04d-%02d-%02d %02d:%02d:%02d(UTC) ", year, month,
                                                 day, hour, minute, second));
}

void log_prefix_libc(benchmark::State &state)
{
    for (auto _ : state)
        benchmark::DoNotOptimize(std::snprintf(text, sizeof text, "%04d-%02d-%02d %02d:%02d:%02d(UTC) ", year, month,
                                               day, hour, minute, second));
}

void register_line_ours(benchmark::State &state)
{
    for (auto _ : state)
        benchmark::DoNotOptimize(signal_snprintf(text, sizeof text, "$%2d   : %016lx %016lx %016lx %016lx\n", 4,
                                                 registers[0], registers[1], registers[2], registers[3]));
}

void register_line_libc(benchmark::State &state)
{
    for (auto _ : state)
        benchmark::DoNotOptimize(std::snprintf(text, sizeof text, "$%2d   : %016lx %016lx %016lx %016lx\n", 4,
                                               registers[0], registers[1], registers[2], registers[3]));
}

void pointer_list_ours(benchmark::State &state)
{
    for (auto _ : state)
        benchmark::DoNotOptimize(signal_snprintf(text, sizeof text, "<%p> <%p> <%p> <%p> <%p> <%p>\n", pointers[0],
                                                 pointers[1], pointers[2], pointers[3], pointers[4], pointers[5]));
}

void pointer_list_libc(benchmark::State &state)
{
    for (auto _ : state)
        benchmark::DoNotOptimize(std::snprintf(text, sizeof text, "<%p> <%p> <%p> <%p> <%p> <%p>\n", pointers[0],
                                               pointers[1], pointers[2], pointers[3], pointers[4], pointers[5]));
}

#ifdef HAVE_FMT
void log_prefix_fmt(benchmark::State &state)
{
    for (auto _ : state)
        benchmark::DoNotOptimize(fmt::format_to_n(text, sizeof text, "{:04d}-{:02d}-{:02d} {:02d}:{:02d}:{:02d}(UTC) ",
                                                  int{year}, int{month}, int{day}, int{hour}, int{minute},
                                                  int{second}));
}

void register_line_fmt(benchmark::State &state)
{
    for (auto _ : state)
        benchmark::DoNotOptimize(
            fmt::format_to_n(text, sizeof text, "${:2d}   : {:016x} {:016x} {:016x} {:016x}\n", 4,
                             static_cast<unsigned long>(registers[0]), static_cast<unsigned long>(registers[1]),
                             static_cast<unsigned long>(registers[2]), static_cast<unsigned long>(registers[3])));
}

void pointer_list_fmt(benchmark::State &state)
{
    auto at = [](int i) { return static_cast<const void *>(pointers[i]); };
    for (auto _ : state)
        benchmark::DoNotOptimize(fmt::format_to_n(text, sizeof text, "<{}> <{}> <{}> <{}> <{}> <{}>\n", at(0), at(1),
                                                  at(2), at(3), at(4), at(5)));
}
#endif

BENCHMARK(log_prefix_ours);
BENCHMARK(log_prefix_libc);
BENCHMARK(register_line_ours);
BENCHMARK(register_line_libc);
BENCHMARK(pointer_list_ours);
BENCHMARK(pointer_list_libc);
#ifdef HAVE_FMT
BENCHMARK(log_prefix_fmt);
BENCHMARK(register_line_fmt);
BENCHMARK(pointer_list_fmt);
#endif

} // namespace
