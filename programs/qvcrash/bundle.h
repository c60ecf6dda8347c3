// SPDX-License-Identifier: Apache-2.0
// bundle.h - all that support needs of one process or crash, in one archive.
#ifndef QVCRASH_BUNDLE_H
#define QVCRASH_BUNDLE_H

#include <string>
#include <vector>

namespace qvcrash {

struct bundle_result {
    std::string path;                  // of the archive; empty when there is none
    std::vector<std::string> files;    // its members
    std::vector<std::string> problems; // what could not be read, and why there is no archive
};

/**
 * Writes an archive (tar, compressed by zstd) of a log, or of all logs of a running process: the logs, the last of the
 * console's text, traces of allocations, mappings, limits and state of the process while it lives, and the build ids of
 * its modules. Symbolic links that lead out of the log folders are not followed.
 * @param subject  path of a log, or a process id
 * @param output   path of the archive, which must not exist; empty for a name made of process and time
 */
bundle_result write_bundle(const std::string &subject, const std::string &output);

} // namespace qvcrash

#endif
