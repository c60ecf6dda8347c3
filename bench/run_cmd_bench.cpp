// SPDX-License-Identifier: Apache-2.0
// Starting a program with 1,000 descriptors open, against posix_spawn of the same.
#include "run_cmd.h"

#include <benchmark/benchmark.h>
#include <fcntl.h>
#include <spawn.h>
#include <sys/resource.h>
#include <sys/wait.h>
#include <unistd.h>

namespace {

char program[] = "/bin/true";
char *const arguments[] = {program, nullptr};

void open_descriptors()
{
    rlimit limit = {4096, 4096};
    ::setrlimit(RLIMIT_NOFILE, &limit);
    while (::open("/dev/null", O_RDONLY) < 1000)
        ;
}

void ours(benchmark::State &state)
{
    open_descriptors();
    for (auto _ : state)
        benchmark::DoNotOptimize(run_execv(program, arguments, 1, 0));
}

void spawn(benchmark::State &state)
{
    open_descriptors();
    for (auto _ : state) {
        pid_t pid = 0;
        int status = 0;
        if (::posix_spawn(&pid, program, nullptr, nullptr, arguments, environ) == 0)
            ::waitpid(pid, &status, 0);
        benchmark::DoNotOptimize(status);
    }
}

BENCHMARK(ours)->UseRealTime();
BENCHMARK(spawn)->UseRealTime();

} // namespace
