// SPDX-License-Identifier: Apache-2.0
// allocation_trace.h - the file of every allocation that SIGUSR2 switches on, and what it leaves unfreed.
#ifndef QVCRASH_ALLOCATION_TRACE_H
#define QVCRASH_ALLOCATION_TRACE_H

#include "crash_log.h"

#include <cstdint>
#include <string_view>
#include <vector>

namespace qvcrash {

// The blocks that one caller did not free. The caller's address is its file's own, so its load bias is 0.
struct live_group {
    code_reference caller;
    std::uint64_t blocks = 0;
    std::uint64_t bytes = 0;
};

struct allocation_trace {
    std::vector<live_group> groups; // most bytes first
    std::uint64_t calls = 0;
    std::uint64_t live_blocks = 0;
    std::uint64_t unknown_frees = 0; // of blocks from before the trace
};

/** Reads a trace; lines that are none are skipped. */
allocation_trace parse_allocation_trace(std::string_view text);

} // namespace qvcrash

#endif
