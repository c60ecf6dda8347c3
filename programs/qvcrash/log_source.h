// SPDX-License-Identifier: Apache-2.0
// log_source.h - the logs below folders and in archives, read by several threads.
#ifndef QVCRASH_LOG_SOURCE_H
#define QVCRASH_LOG_SOURCE_H

#include "log_file.h"

#include <atomic>
#include <cstdint>
#include <functional>
#include <mutex>
#include <string>
#include <vector>

namespace qvcrash {

inline constexpr std::size_t kMaxProblems = 20; // with a message each; the others are counted

struct read_progress {
    std::atomic<std::uint64_t> logs{0};
    std::atomic<std::uint64_t> unreadable{0}; // files, also those of which a part could be read
    std::mutex mutex;                         // protects `problems`
    std::vector<std::string> problems;        // the first of them, as "PATH: what is wrong"
};

// Called by several threads at once, each with its own number below `threads`.
using log_visitor = std::function<void(unsigned thread, const source_log &log)>;

/**
 * Reads every log that the paths name: files, the files below folders, and the members of archives, in the forms of
 * log_file.h. Files whose names have no ".log" in them are left out below folders and in archives. Memory
 * does not grow with the number of logs.
 */
void read_logs(const std::vector<std::string> &paths, unsigned threads, const log_visitor &visit,
               read_progress *progress);

} // namespace qvcrash

#endif
