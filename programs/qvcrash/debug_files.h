// SPDX-License-Identifier: Apache-2.0
// debug_files.h - where separate debug files are looked for.
#ifndef QVCRASH_DEBUG_FILES_H
#define QVCRASH_DEBUG_FILES_H

#include "module_file.h"
#include "root_folder.h"

#include <vector>

struct debuginfod_client;

namespace qvcrash {

// Looks in the roots as the distribution lays debug files out, then in the debug folders in any usual arrangement,
// then, when asked for, at the servers that DEBUGINFOD_URLS names. A file counts only with the right build id, or, for
// modules without one, with the check sum that the module names.
class debug_files final : public debug_finder {
public:
    /** The roots and folders outlive this. */
    debug_files(const std::vector<root_folder> &roots, const std::vector<root_folder> &folders, bool use_servers);
    ~debug_files() override;

    debug_files(const debug_files &) = delete;
    debug_files &operator=(const debug_files &) = delete;

    qv::base::unique_fd find(const debug_request &request) override;

private:
    qv::base::unique_fd find_at_servers(const std::string &build_id);

    const std::vector<root_folder> &roots_;
    const std::vector<root_folder> &folders_;
    debuginfod_client *servers_ = nullptr;
};

} // namespace qvcrash

#endif
