// SPDX-License-Identifier: Apache-2.0
// report.h - what qvstat shows, as text for a person, as JSON or as metrics.
#ifndef QVSTAT_REPORT_H
#define QVSTAT_REPORT_H

#include "code_places.h"
#include "inspection.h"
#include "sample.h"
#include "threads.h"

#include <cstdint>
#include <optional>
#include <string>
#include <vector>

namespace qvstat {

// A leak group with its places.
struct placed_leak {
    leak_group group;
    std::vector<code_place> chain;
};

struct placed_thread {
    thread_view thread;
    std::optional<code_place> at;
};

// What is known of one process; what was not asked for is absent.
struct process_report {
    const process_sample *sample = nullptr;
    std::uint64_t now = 0; // seconds of the wall clock
    std::optional<std::vector<placed_leak>> leaks;
    std::optional<std::vector<placed_thread>> threads;
};

/** A table with a line for each process. */
std::string list_text(const machine_sample &machine);

std::string process_text(const process_report &report);
std::string leaks_text(const process_report &report);
std::string threads_text(const process_report &report);

/** One object on one line for each process. Their form is documented in qvstat(1) and named by the member "format". */
std::string list_json(const machine_sample &machine);
std::string process_json(const process_report &report);

/** All processes in the OpenMetrics text format. */
std::string openmetrics_text(const machine_sample &machine);

/** A number of bytes in few characters, such as "1.2M". */
std::string short_bytes(std::uint64_t bytes);

} // namespace qvstat

#endif
