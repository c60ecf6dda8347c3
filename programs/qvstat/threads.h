// SPDX-License-Identifier: Apache-2.0
// threads.h - the kernel's view of each thread of a process: state, system call, and what it waits for.
//
// No thread is stopped, so that two of them are not seen at the same moment.
#ifndef QVSTAT_THREADS_H
#define QVSTAT_THREADS_H

#include "memory_source.h"

#include <array>
#include <cstdint>
#include <optional>
#include <string>
#include <sys/types.h>
#include <vector>

namespace qvstat {

struct futex_wait {
    std::uint64_t address = 0;
    std::uint32_t value = 0; // what the word holds
    pid_t owner = 0;         // the thread that holds the lock; 0 when it is no lock with a known owner
};

struct thread_view {
    pid_t id = 0;
    char state = '?'; // as the kernel abbreviates it
    std::string name;
    std::optional<long> system_call;
    std::array<std::uint64_t, 6> arguments = {}; // of the system call
    std::optional<std::uint64_t> sp, pc;         // unknown while the thread runs
    std::optional<futex_wait> waits;
};

std::vector<thread_view> read_threads(pid_t process, const memory_source &memory);

/** The circles of threads that wait for one another, each from its lowest thread on. */
std::vector<std::vector<pid_t>> find_deadlocks(const std::vector<thread_view> &threads);

/** The name of a system call of this machine, or its number. */
std::string system_call_name(long number);

} // namespace qvstat

#endif
