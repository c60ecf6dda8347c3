// SPDX-License-Identifier: Apache-2.0
// A lookup in a settings file of 4 KiB, or of other sizes, against the system calls that any reader of the file makes.
#include "qv_env.h"

#include <benchmark/benchmark.h>
#include <cstdlib>
#include <cstring>
#include <fcntl.h>
#include <string>
#include <sys/stat.h>
#include <unistd.h>
#include <vector>

namespace {

constexpr const char *kFile = "/tmp/qv_env_bench";
constexpr const char *kLast = "the.last.setting";

constexpr std::size_t kUsualSize = 4096; // about 130 settings

// The setting that is read is the last.
void write_settings(std::size_t size)
{
    std::string text;
    for (int i = 0; text.size() < size - 64; i++)
        text += "interface." + std::to_string(i) + ".mode=automatic\n";
    text += std::string(kLast) + "=" + std::string(size - 2 - text.size() - std::string(kLast).size(), '1') + "\n";
    int fd = ::open(kFile, O_WRONLY | O_CREAT | O_TRUNC, 0644);
    if (::write(fd, text.data(), text.size()) != static_cast<ssize_t>(size))
        std::abort();
    ::close(fd);
}

void read_setting(benchmark::State &state, std::size_t size)
{
    write_settings(size);
    for (auto _ : state)
        benchmark::DoNotOptimize(qv_getenv_filename(kFile, kLast));
}

enum class search { no, yes };

void read_file(benchmark::State &state, std::size_t size, search wanted)
{
    write_settings(size);
    std::vector<char> text(size + 1);
    for (auto _ : state) {
        int fd = ::open(kFile, O_RDONLY | O_CLOEXEC);
        struct flock lock = {};
        lock.l_type = F_RDLCK;
        ::fcntl(fd, F_SETLKW, &lock);
        struct stat status;
        ::fstat(fd, &status);
        benchmark::DoNotOptimize(::read(fd, text.data(), static_cast<std::size_t>(status.st_size)));
        if (wanted == search::yes)
            benchmark::DoNotOptimize(std::strstr(text.data(), kLast));
        lock.l_type = F_UNLCK;
        ::fcntl(fd, F_SETLKW, &lock);
        ::close(fd);
    }
}

BENCHMARK_CAPTURE(read_setting, usual, kUsualSize)->Name("ours");
BENCHMARK_CAPTURE(read_file, usual, kUsualSize, search::no)->Name("bare");
BENCHMARK_CAPTURE(read_file, search, kUsualSize, search::yes)->Name("bare_and_search");

template <typename... More>
void of_size(benchmark::State &state, void (*read)(benchmark::State &state, std::size_t size, More...), More... more)
{
    read(state, static_cast<std::size_t>(state.range(0)), more...);
}
BENCHMARK_CAPTURE(of_size, ours, read_setting)->Name("ours")->RangeMultiplier(10)->Range(1000, 10000000);
BENCHMARK_CAPTURE(of_size, bare, read_file, search::no)->Name("bare")->RangeMultiplier(10)->Range(1000, 10000000);

} // namespace
