// SPDX-License-Identifier: Apache-2.0
// code_places.h - code addresses of a running process as module, function and line.
#ifndef QVSTAT_CODE_PLACES_H
#define QVSTAT_CODE_PLACES_H

#include "debug_files.h"
#include "module_file.h"
#include "process.h"
#include "root_folder.h"

#include <cstdint>
#include <map>
#include <memory>
#include <optional>
#include <string>
#include <vector>

namespace qvstat {

// What is known of a code address.
struct code_place {
    std::uint64_t address = 0;
    std::string module;                           // the path of the file; empty when it lies in none
    std::optional<std::uint64_t> offset;          // in the module: an address of the file's own
    std::vector<qvcrash::source_frame> functions; // innermost first; empty when unknown
};

// Opens the files of a process as it sees them itself, so that one in a container gets its own.
class code_places {
public:
    /** The process outlives this. @param debug_folders  with separate debug files */
    code_places(const target &process, const std::vector<std::string> &debug_folders);

    /** What lies at an address. @param is_return_address  look up the call before it */
    code_place find(std::uint64_t address, bool is_return_address);

private:
    struct module {
        std::uint64_t bias = 0;
        std::unique_ptr<qvcrash::module_file> file; // null when the file is not the one that runs
    };

    const module &module_of(const mapping &where);
    std::unique_ptr<qvcrash::module_file> open(const mapping &where);

    const target &process_;
    std::vector<qvcrash::root_folder> roots_;
    std::vector<qvcrash::root_folder> debug_folders_;
    qvcrash::debug_files debug_;
    std::map<std::string, module> modules_; // by path
};

/** "function at file:line", with inlined functions first; else "module+0xOFFSET". */
std::string describe(const code_place &place);

} // namespace qvstat

#endif
