// SPDX-License-Identifier: Apache-2.0
// process.h - running processes, and whether they have the library loaded.
#ifndef QVSTAT_PROCESS_H
#define QVSTAT_PROCESS_H

#include "inspection.h"
#include "memory_source.h"

#include <cstdint>
#include <memory>
#include <optional>
#include <string>
#include <sys/types.h>
#include <vector>

namespace qvstat {

// A line of /proc/PID/maps.
struct mapping {
    std::uint64_t start = 0;
    std::uint64_t end = 0;
    std::uint64_t offset = 0; // in the file
    std::uint64_t inode = 0;  // 0 for memory that is of no file
    std::string path;         // without the mark of a file that was replaced
    bool is_deleted = false;
};

/** The processes of this machine, or of the container. */
std::vector<pid_t> all_processes();

/** The mappings of a process. Nothing when they cannot be read; errno says why. */
std::optional<std::vector<mapping>> read_mappings(pid_t process);

/** The text of a file below /proc/PID; empty when it cannot be read. */
std::string read_process_file(pid_t process, const std::string &name);

/** The name of a process or, as "task/TID/comm", of a thread, fit for a terminal. */
std::string read_name(pid_t process, const std::string &file = "comm");

enum class access_result {
    readable,
    no_library,
    no_permission,
    vanished,
    other_version, // of the library, without a record that we know
    damaged,       // its record makes no sense
};

// A process, as far as it could be looked into.
class target {
public:
    explicit target(pid_t process);
    target(const target &) = delete;
    target &operator=(const target &) = delete;

    pid_t process() const { return process_; }
    const std::string &name() const { return name_; }
    access_result access() const { return access_; }
    const std::vector<mapping> &mappings() const { return mappings_; }
    const process_memory &memory() const { return memory_; }

    // The path of the library; empty when the process has none.
    const std::string &library() const { return library_; }

    // Only of a readable process.
    const inspection &record() const { return *record_; }

    /** A sentence for a process that cannot be read. */
    std::string refusal() const;

private:
    access_result look();
    access_result look_at_program();
    access_result look_at_record(std::uint64_t address);

    pid_t process_;
    process_memory memory_;
    std::string name_;
    std::vector<mapping> mappings_;
    std::string library_;
    std::optional<inspection> record_;
    access_result access_;
};

} // namespace qvstat

#endif
