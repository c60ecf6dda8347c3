// SPDX-License-Identifier: Apache-2.0
// group.h - logs counted by their signature.
#ifndef QVCRASH_GROUP_H
#define QVCRASH_GROUP_H

#include "log_source.h"
#include "signature.h"

#include <cstdint>
#include <ctime>
#include <map>
#include <string>
#include <vector>

namespace qvcrash {

struct log_group {
    std::string signature; // readable
    std::uint64_t count = 0;
    std::time_t first = 0;
    std::time_t last = 0;
    std::string example;                // the newest log
    std::map<long, std::uint64_t> days; // days since 1970-01-01 UTC, to the number of logs
};

struct group_result {
    std::vector<log_group> groups; // most logs first
    std::uint64_t logs = 0;        // crash logs that were counted
    std::uint64_t others = 0;      // dump requests, terminations, and files that are no logs
    std::uint64_t unreadable = 0;
};

/** Groups the crash logs that the paths name, with as many threads. */
group_result group_logs(const std::vector<std::string> &paths, const signature_maker &make_signature, unsigned threads,
                        read_progress *progress);

std::string groups_text(const group_result &result);

/** One object a group, one to a line. Its form is documented in qvcrash(1) and named by its member "format". */
std::string groups_json(const group_result &result);

/** A complete page, without references to other files. */
std::string groups_html(const group_result &result);

} // namespace qvcrash

#endif
