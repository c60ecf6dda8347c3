// SPDX-License-Identifier: Apache-2.0
// inspection.h - reads what the library's inspection record (libcommon_inspect.h) leads to.
//
// The memory is read while its process changes it, and may be damaged or hostile: every count and offset is checked,
// every read is bounded, and what does not fit together is read again.
#ifndef QVSTAT_INSPECTION_H
#define QVSTAT_INSPECTION_H

#include "libcommon_inspect.h"
#include "memory_source.h"

#include <array>
#include <cstdint>
#include <optional>
#include <string>
#include <vector>

namespace qvstat {

// Numbers of calls. The library counts in 32 bits, so that only differences of two readings are exact.
struct call_counts {
    std::uint32_t allocs = 0;
    std::uint32_t frees = 0;
    std::uint32_t releases = 0; // blocks that a reallocation gave up
    std::uint32_t products = 0; // blocks that a reallocation gave
    std::uint32_t failures = 0;
};

struct size_class {
    std::uint64_t lower_bound = 0;
    std::uint64_t bytes = 0;  // held
    std::uint64_t blocks = 0; // held
    call_counts calls;
};

struct heap_statistics {
    std::uint64_t bytes = 0;
    std::uint64_t blocks = 0;
    call_counts calls;
    std::vector<size_class> classes;
};

struct object_cache {
    std::string name;
    std::uint64_t object_size = 0; // bytes
    std::uint64_t in_use = 0;      // objects
    std::uint64_t capacity = 0;    // objects that the pages have room for
    std::uint64_t pages = 0;
    std::uint64_t page_size = 0; // bytes

    std::uint64_t held() const { return pages * page_size; }
    // What the pages hold besides objects in use: free slots, headers, guards.
    std::uint64_t waste() const { return held() - in_use * object_size; }
};

enum class trace_state {
    none,  // no hooks
    light, // light statistics alone
    full,  // full tracing
    file,  // a trace file
    host,  // the host's hooks
};

struct hook_state {
    bool counts = false; // light statistics see the process's calls
    trace_state trace = trace_state::none;
    bool is_fully_traced = false; // perhaps below a trace file
    int armed_by = QV_ARMED_BY_NOBODY;
    int attach_signal = 0;
};

struct tracing_counts {
    bool has_table = false;
    std::uint64_t wait_seconds = 0;
    std::uint32_t blocks = 0;
    std::uint32_t bytes = 0;
    std::uint32_t allocs = 0;
    std::uint32_t frees = 0;
    std::uint32_t reallocs = 0;
    std::uint32_t unmatched_frees = 0;
    std::uint32_t unmatched_reallocs = 0;
};

// The live blocks of one call chain.
struct leak_group {
    std::uint64_t bytes = 0;
    std::uint64_t blocks = 0;
    std::uint64_t oldest = 0;         // seconds of the wall clock
    std::vector<std::uint64_t> chain; // return addresses, innermost first
};

enum class record_state {
    valid,
    unreadable,    // no memory there
    other_version, // of the record, or no record at all
    damaged,
};

class inspection {
public:
    /** Reads and checks a record. The memory outlives the result. */
    inspection(const memory_source &memory, std::uint64_t record_address);

    record_state state() const { return state_; }

    /** What the library says of itself, such as "1.0.0". */
    const std::string &library_version() const { return version_; }

    // The following need a valid record. Nothing when the memory could not be read.
    std::optional<heap_statistics> read_heap() const;
    std::optional<std::vector<object_cache>> read_caches() const;
    std::optional<hook_state> read_hooks() const;
    std::optional<tracing_counts> read_tracing() const;

    /**
     * The blocks that full tracing knows, by call chain, the most bytes first.
     * @param latest  only blocks that were allocated at this second of the wall clock or before
     */
    std::optional<std::vector<leak_group>> read_leaks(std::uint64_t latest) const;

private:
    record_state check();
    std::uint64_t table_address() const;

    const memory_source &memory_;
    qv_inspect_record record_ = {};
    std::string version_;
    record_state state_;
};

} // namespace qvstat

#endif
