// SPDX-License-Identifier: Apache-2.0
#include "leak.h"

#include "loop.h"

#include <backtrace.h>
#include <console_print.h>
#include <qv_mtrace.h>

#include <csignal>
#include <cstdint>
#include <cstdlib>
#include <cstring>
#include <sys/signalfd.h>
#include <unistd.h>

namespace sampled {
namespace {

std::size_t leaked_bytes; // at each sample

void report_chain(const leak_group &group)
{
    for (std::uint64_t address : group.trace) {
        if (address == 0)
            break;
        char name[256];
        get_function_name_by_ptr(reinterpret_cast<void *>(address), name, sizeof name);
        console_print("sampled:     from %s\n", name);
    }
}

void report(int fd)
{
    signalfd_siginfo signal;
    if (::read(fd, &signal, sizeof signal) != sizeof signal)
        return;
    mtrace_stat_record now;
    if (qv_mtrace_stat(&now, 0) != MTRACE_LEAK_GROUPS)
        return;
    for (std::uint32_t i = 0; i < now.rows; i++) {
        console_print("sampled: %u bytes in %u blocks stay allocated\n", now.row.groups[i].bytes,
                      now.row.groups[i].blocks);
        report_chain(now.row.groups[i]);
    }
}

int report_requests()
{
    sigset_t signals;
    ::sigemptyset(&signals);
    ::sigaddset(&signals, SIGUSR1);
    ::sigprocmask(SIG_BLOCK, &signals, nullptr);
    return ::signalfd(-1, &signals, SFD_CLOEXEC);
}

} // namespace

bool leak_start(std::size_t bytes)
{
    leaked_bytes = bytes;
    time_wait = 1;
    qv_mtrace_start();
    return loop_watch(report_requests(), report);
}

// Not inlined, so that it has a name in the report.
[[gnu::noinline]] void leak_some()
{
    if (leaked_bytes == 0)
        return;
    void *forgotten = std::malloc(leaked_bytes);
    if (forgotten != nullptr)
        std::memset(forgotten, 0xFF, leaked_bytes);
    asm volatile("" : : "r"(forgotten) : "memory"); // otherwise the compiler removes the unused block
}

} // namespace sampled
