// SPDX-License-Identifier: Apache-2.0
// log_source.h - the logs below folders and in archives, read by several threads.
#ifndef QVCRASH_LOG_SOURCE_H
#define QVCRASH_LOG_SOURCE_H

#include <atomic>
#include <cstdint>
#include <ctime>
#include <functional>
#include <string>
#include <string_view>
#include <vector>

namespace qvcrash {

struct source_log {
    std::string_view name; // its path; for one in an archive the archive's, a colon, and its own
    std::string_view text;
    std::time_t when = 0; // last change
};

struct read_progress {
    std::atomic<std::uint64_t> logs{0};
    std::atomic<std::uint64_t> unreadable{0};
};

// Called by several threads at once, each with its own number below `threads`.
using log_visitor = std::function<void(unsigned thread, const source_log &log)>;

/**
 * Reads every log that the paths name: files, the files below folders, and the members of archives (tar, plain or
 * compressed, zip and others). Files whose names have no ".log" in them are left out below folders and in archives.
 * Memory does not grow with the number of logs.
 */
void read_logs(const std::vector<std::string> &paths, unsigned threads, const log_visitor &visit,
               read_progress *progress);

} // namespace qvcrash

#endif
