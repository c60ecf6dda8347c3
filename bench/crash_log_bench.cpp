// SPDX-License-Identifier: Apache-2.0
// From a fault to its closed log file, 20 frames deep: the distribution over many real faults.
//
// The fault signal is armed as the attach signal, so that the process may survive each fault: all the work of a crash
// is done except the reset of the dispositions. Runs in a private mount namespace with a tmpfs for /etc and a console
// that takes all at once: a serial line would be a third of the time, and most of its scatter.
#include "bench/frame_chain.h"
#include "sighandler.h"

#include <algorithm>
#include <benchmark/benchmark.h>
#include <cerrno>
#include <chrono>
#include <csetjmp>
#include <cstdio>
#include <latch>
#include <pthread.h>
#include <sched.h>
#include <sys/mman.h>
#include <sys/mount.h>
#include <unistd.h>
#include <vector>

namespace {

using clock_type = std::chrono::steady_clock;

sigjmp_buf behind_fault;
clock_type::time_point log_closed;

void log_and_leave(int sig, siginfo_t *info, void *uctx)
{
    signal_err(sig, info, uctx);
    log_closed = clock_type::now();
    siglongjmp(behind_fault, 1);
}

double fault_once()
{
    clock_type::time_point start = clock_type::now();
    if (sigsetjmp(behind_fault, 1) == 0) {
        int *volatile nowhere = reinterpret_cast<int *>(0x10);
        *nowhere = 1;
    }
    return std::chrono::duration<double>(log_closed - start).count();
}

void fault_to_closed_log(benchmark::State &state)
{
    install_sighandler2(SIGSEGV);
    struct sigaction action = {};
    action.sa_sigaction = log_and_leave;
    action.sa_flags = SA_SIGINFO;
    ::sigaction(SIGSEGV, &action, nullptr);

    std::vector<double> times;
    bench::below_frames(bench::kFrames, [&] {
        for (auto _ : state) {
            times.push_back(fault_once());
            state.SetIterationTime(times.back());
        }
    });
    std::sort(times.begin(), times.end());
    auto microseconds_at = [&](double part) {
        return 1e6 * times[static_cast<std::size_t>(part * static_cast<double>(times.size() - 1))];
    };
    state.counters["us_p50"] = microseconds_at(0.5);
    state.counters["us_p90"] = microseconds_at(0.9);
    state.counters["us_p99"] = microseconds_at(0.99);
    state.counters["us_max"] = microseconds_at(1.0);
}
BENCHMARK(fault_to_closed_log)->UseManualTime()->Iterations(2000);

// The kernel joins neighbouring mappings of the same protection, so every second page gets another.
void many_mappings(benchmark::State &state)
{
    const auto page = static_cast<std::size_t>(::sysconf(_SC_PAGESIZE));
    const auto count = static_cast<std::size_t>(state.range(0));
    auto *pages = static_cast<char *>(
        ::mmap(nullptr, count * page, PROT_READ, MAP_PRIVATE | MAP_ANONYMOUS | MAP_NORESERVE, -1, 0));
    bool split = pages != MAP_FAILED;
    for (std::size_t i = 1; split && i < count; i += 2)
        split = ::mprotect(pages + i * page, page, PROT_NONE) == 0;
    if (split)
        fault_to_closed_log(state);
    else
        state.SkipWithError("the kernel allows fewer mappings");
    ::munmap(pages, count * page);
}
BENCHMARK(many_mappings)->Arg(10)->Arg(100)->Arg(1000)->Arg(10000)->Arg(60000)->UseManualTime()->Iterations(20);

// Threads that wait for the end.
class Waiting {
public:
    ~Waiting()
    {
        go_.count_down();
        for (pthread_t thread : threads_)
            ::pthread_join(thread, nullptr);
    }
    bool start(std::size_t count)
    {
        constexpr std::size_t kStack = 64 * 1024;
        pthread_attr_t attributes;
        ::pthread_attr_init(&attributes);
        ::pthread_attr_setstacksize(&attributes, kStack);
        pthread_t thread;
        while (threads_.size() < count && ::pthread_create(&thread, &attributes, wait, &go_) == 0)
            threads_.push_back(thread);
        return threads_.size() == count;
    }

private:
    static void *wait(void *go)
    {
        static_cast<std::latch *>(go)->wait();
        return nullptr;
    }
    std::latch go_{1};
    std::vector<pthread_t> threads_;
};

void many_threads(benchmark::State &state)
{
    Waiting others;
    if (others.start(static_cast<std::size_t>(state.range(0)) - 1))
        fault_to_closed_log(state);
    else
        state.SkipWithError("the kernel allows fewer threads");
}
BENCHMARK(many_threads)->Arg(1)->Arg(10)->Arg(100)->Arg(1000)->Arg(2000)->UseManualTime()->Iterations(20);

} // namespace

int main(int argc, char **argv)
{
    if (::unshare(CLONE_NEWNS) != 0 || ::mount(nullptr, "/", nullptr, MS_REC | MS_PRIVATE, nullptr) != 0 ||
        ::mount("tmpfs", "/etc", "tmpfs", 0, nullptr) != 0 ||
        (::mount("/dev/null", "/dev/console", nullptr, MS_BIND, nullptr) != 0 && errno != ENOENT)) {
        std::perror("crash_log_bench: a private mount namespace");
        return 1;
    }
    // Else the slowest log in a hundred is one that waited for a processor.
    sched_param first = {.sched_priority = 1};
    ::sched_setscheduler(0, SCHED_FIFO, &first);
    benchmark::Initialize(&argc, argv);
    benchmark::RunSpecifiedBenchmarks();
    return 0;
}
