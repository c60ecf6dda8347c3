// SPDX-License-Identifier: Apache-2.0
// A lookup in a settings file of 4 KiB, against the system calls that any reader of the file makes.
#include "qv_env.h"

#include <benchmark/benchmark.h>
#include <cstdlib>
#include <fcntl.h>
#include <string>
#include <sys/stat.h>
#include <unistd.h>

namespace {

constexpr const char *kFile = "/tmp/qv_env_bench";
constexpr const char *kLast = "the.last.setting";

// About 130 settings; the one that is read is the last.
void write_settings()
{
    std::string text;
    for (int i = 0; text.size() < 4096 - 64; i++)
        text += "interface." + std::to_string(i) + ".mode=automatic\n";
    text += std::string(kLast) + "=" + std::string(4096 - 2 - text.size() - std::string(kLast).size(), '1') + "\n";
    int fd = ::open(kFile, O_WRONLY | O_CREAT | O_TRUNC, 0644);
    if (::write(fd, text.data(), text.size()) != 4096)
        std::abort();
    ::close(fd);
}

void ours(benchmark::State &state)
{
    write_settings();
    for (auto _ : state)
        benchmark::DoNotOptimize(qv_getenv_filename(kFile, kLast));
}

void bare(benchmark::State &state)
{
    write_settings();
    char text[8192];
    for (auto _ : state) {
        int fd = ::open(kFile, O_RDONLY | O_CLOEXEC);
        struct flock lock = {};
        lock.l_type = F_RDLCK;
        ::fcntl(fd, F_SETLKW, &lock);
        struct stat status;
        ::fstat(fd, &status);
        benchmark::DoNotOptimize(::read(fd, text, static_cast<std::size_t>(status.st_size)));
        lock.l_type = F_UNLCK;
        ::fcntl(fd, F_SETLKW, &lock);
        ::close(fd);
    }
}

BENCHMARK(ours);
BENCHMARK(bare);

} // namespace
