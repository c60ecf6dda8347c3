// SPDX-License-Identifier: Apache-2.0
// What a library costs a process that does not use it: starting and ending an empty program that is linked with
// it, with its relocations and memory as counters. The program "plain" uses only the C library.
//
// All programs search the folder of this build first, so that the loader's search costs the same for each.
#include <benchmark/benchmark.h>

#include <cstdio>
#include <cstdlib>
#include <spawn.h>
#include <string>
#include <sys/wait.h>
#include <unistd.h>

namespace {

char library_path[] = "LD_LIBRARY_PATH=" LOAD_LIBRARY_PATH;
char *const environment[] = {library_path, nullptr};

std::string program(const std::string &library)
{
    return std::string(LOAD_PROGRAMS) + "/load_" + library;
}

// The numbers that a program prints for an argument.
int read_report(const std::string &library, const char *argument, double (&numbers)[4])
{
    std::FILE *out = ::popen((std::string(library_path) + " " + program(library) + " " + argument).c_str(), "r");
    int count = std::fscanf(out, "%lf %lf %lf %lf", &numbers[0], &numbers[1], &numbers[2], &numbers[3]);
    ::pclose(out);
    return count;
}

void start(benchmark::State &state, const std::string &library)
{
    std::string path = program(library);
    char *argv[] = {path.data(), nullptr};
    for (auto _ : state) {
        pid_t pid;
        int status = -1;
        if (::posix_spawn(&pid, path.c_str(), nullptr, nullptr, argv, environment) == 0)
            ::waitpid(pid, &status, 0);
        if (status != 0) {
            state.SkipWithError("the program failed");
            break;
        }
    }
    double numbers[4];
    if (read_report(library, "memory", numbers) == 4) {
        state.counters["relocations"] = numbers[0];
        state.counters["symbolic"] = numbers[1];
        state.counters["dirty_KiB"] = numbers[2];
        state.counters["resident_KiB"] = numbers[3];
    }
    if (read_report(library, "threads", numbers) == 2) {
        state.counters["bytes_a_thread"] = numbers[0];
        state.counters["thread_local"] = numbers[1];
    }
}

const bool registered = [] {
    ::sync(); // pages of a newly written file count as dirty
    for (const char *library : {LOAD_LIBRARIES}) {
        benchmark::RegisterBenchmark((std::string("start/") + library).c_str(),
                                     [library](benchmark::State &state) { start(state, library); })
            ->Unit(benchmark::kMicrosecond)
            ->UseRealTime();
    }
    return true;
}();

} // namespace
