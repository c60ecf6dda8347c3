// SPDX-License-Identifier: Apache-2.0
// sample.h - processes as they are now, with rates over a short time.
#ifndef QVSTAT_SAMPLE_H
#define QVSTAT_SAMPLE_H

#include "inspection.h"
#include "process.h"

#include <chrono>
#include <memory>
#include <optional>
#include <string>
#include <vector>

namespace qvstat {

struct process_sample {
    std::unique_ptr<target> process;
    std::chrono::steady_clock::time_point at;
    heap_statistics heap;
    hook_state hooks;
    tracing_counts tracing;
    std::vector<object_cache> caches;

    // Calls a second since the earlier sample; nothing without one.
    std::optional<double> alloc_rate, free_rate;

    std::uint64_t objects() const;     // in use in all caches
    std::uint64_t cache_bytes() const; // that the pages of all caches take
};

/** Reads a process. Nothing if it ended meanwhile. */
std::optional<process_sample> read_sample(std::unique_ptr<target> process);

/** Sets the rates of a sample from an earlier one of the same process. */
void set_rates(process_sample *now, const process_sample &before);

// A round through the machine.
struct machine_sample {
    std::vector<process_sample> processes; // with the library, in the order of their ids
    std::vector<std::string> refused;      // a line for each process whose library could not be read
    std::size_t hidden = 0;                // processes that could not be looked into at all
};

machine_sample read_machine();

/** Sets the rates from an earlier round. */
void set_rates(machine_sample *now, const machine_sample &before);

// What traces a process.
struct trace_description {
    const char *word; // "light", "full", "file", "file+full", "host" or "off"
    const char *sentence;
};

trace_description describe_trace(const hook_state &hooks);

} // namespace qvstat

#endif
