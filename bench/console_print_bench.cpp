// SPDX-License-Identifier: Apache-2.0
// A short line into a log file, against the system calls that it needs. Run it with TZ unset and with
// TZ=:/etc/localtime: the check for a changed zone is a system call in the first case and nothing in the second.
#include "console_print.h"

#include <benchmark/benchmark.h>
#include <cstdio>
#include <cstring>
#include <ctime>
#include <fcntl.h>
#include <string>
#include <sys/stat.h>
#include <unistd.h>

namespace {

constexpr const char *kPath = "/tmp/console_print_bench.log";

int print(const char *format, ...)
{
    va_list ap;
    va_start(ap, format);
    int length = console_print_args(0, kPath, format, ap);
    va_end(ap);
    return length;
}

// The log must not reach its limit, or lines would be dropped: it is cut to `size` after so many lines.
void keep_short(benchmark::State &state, long &count, long lines = 4096, long size = 0)
{
    if (++count % lines != 0)
        return;
    state.PauseTiming();
    if (::truncate(kPath, size) != 0)
        state.SkipWithError("truncate");
    state.ResumeTiming();
}

void ours(benchmark::State &state)
{
    ::unlink(kPath);
    long count = 0;
    for (auto _ : state) {
        print("link %s is up, speed %d\n", "ethernet0/1", 1000);
        keep_short(state, count);
    }
    ::unlink(kPath);
}

void plain_calls(benchmark::State &state)
{
    ::unlink(kPath);
    long count = 0;
    for (auto _ : state) {
        char text[128];
        char stamp[64];
        int length = std::snprintf(text, sizeof text, "link %s is up, speed %d\n", "ethernet0/1", 1000);
        int fd = ::open(kPath, O_WRONLY | O_CREAT | O_APPEND, 0777);
        struct stat info;
        ::fstat(fd, &info);
        std::time_t now = std::time(nullptr);
        tm date;
        ::tzset();
        ::localtime_r(&now, &date);
        std::size_t stamp_length = std::strftime(stamp, sizeof stamp, "%Y-%m-%d %H:%M:%S ", &date);
        if (::write(fd, stamp, stamp_length) < 0 || ::write(fd, text, static_cast<std::size_t>(length)) < 0)
            state.SkipWithError("write");
        ::close(fd);
        keep_short(state, count);
    }
    ::unlink(kPath);
}

// A line at the end of a log of so many bytes, of which none is a hole.
void log_of_size(benchmark::State &state)
{
    constexpr long kLines = 64;
    const std::string text(static_cast<std::size_t>(state.range(0)), '.');
    int fd = ::open(kPath, O_WRONLY | O_CREAT | O_TRUNC, 0777);
    if (::write(fd, text.data(), text.size()) != state.range(0))
        state.SkipWithError("write");
    ::close(fd);
    long count = 0;
    for (auto _ : state) {
        print("link %s is up, speed %d\n", "ethernet0/1", 1000);
        keep_short(state, count, kLines, state.range(0));
    }
    ::unlink(kPath);
}
BENCHMARK(log_of_size)->Arg(1000)->Arg(10000)->Arg(100000)->Arg(500000);

BENCHMARK(ours);
BENCHMARK(plain_calls);

} // namespace
