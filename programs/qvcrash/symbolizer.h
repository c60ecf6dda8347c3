// SPDX-License-Identifier: Apache-2.0
// symbolizer.h - from the addresses of a log to functions and lines.
#ifndef QVCRASH_SYMBOLIZER_H
#define QVCRASH_SYMBOLIZER_H

#include "crash_log.h"
#include "debug_files.h"
#include "module_file.h"
#include "root_folder.h"

#include <map>
#include <memory>
#include <optional>
#include <string>
#include <vector>

namespace qvcrash {

struct symbol_options {
    std::vector<std::string> roots;         // empty: this machine
    std::vector<std::string> debug_folders; // with separate debug files or programs that are not stripped
    bool use_servers = false;               // ask debuginfod
};

// How sure it is that a file is the one that crashed.
enum class identity {
    unknown, // the log has no build id and nothing speaks against the file
    same,    // by build id
    differs, // by build id, or the log's symbols lie elsewhere in the file
    missing, // there is no such file
};

// One object file as one log used it.
struct used_module {
    std::string logged_path;
    std::string found_path; // on this machine; empty when there is none
    module_file *file = nullptr;
    identity sameness = identity::missing;
    std::optional<std::uint64_t> bias;
    std::uint64_t end = 0; // in the process; 0 when only the file knows
    bool is_gone = false;  // it was unloaded before the crash

    // Whether an address of the process lies in it.
    bool contains(std::uint64_t address) const;
};

// What is known of an address of a process.
struct resolved_address {
    const used_module *module = nullptr;
    std::optional<std::uint64_t> offset; // in the module: an address of the file's own
    std::vector<source_frame> frames;    // innermost first
};

// The modules of one log. Refers to the symbolizer that made it.
class module_map {
public:
    const std::vector<std::unique_ptr<used_module>> &modules() const { return modules_; }

    /** What lies at a code address that the log names. @param is_return_address  look up the call before it */
    resolved_address resolve(const code_reference &code, bool is_return_address) const;

    /** The same for an address that the log does not name, such as a register's value. */
    resolved_address resolve(std::uint64_t address, bool is_return_address) const;

    /** The module in which an address lies, or null. */
    const used_module *module_at(std::uint64_t address) const;

private:
    friend class symbolizer;
    used_module *by_path(const std::string &path) const;
    static resolved_address look_up(const used_module *module, std::uint64_t address, bool is_return_address);

    std::vector<std::unique_ptr<used_module>> modules_;
};

// Opens module files once for all logs.
class symbolizer {
public:
    explicit symbolizer(const symbol_options &options);

    /** Folders that were given and do not exist. */
    const std::vector<std::string> &missing_folders() const { return missing_; }

    /** Finds the modules that a log's code references name. */
    module_map load(const crash_log &log, const std::vector<code_reference> &references);

    const std::vector<root_folder> &roots() const { return roots_; }

private:
    struct opened {
        std::unique_ptr<module_file> file;
        std::string found_path;
    };

    const opened &open(const std::string &path, const std::string &process);
    const opened &open_by_build_id(const detailed_module &listed);
    used_module *add_module(const std::string &path, const crash_log &log, module_map *map);
    void load_listed(const crash_log &log, module_map *map);
    void load_named(const crash_log &log, const std::vector<code_reference> &references, module_map *map);
    opened try_open(const root_folder &root, const std::string &path);
    opened search(const std::string &path, const std::string &process);

    bool is_own_machine_ = false;
    std::vector<root_folder> roots_;
    std::vector<root_folder> debug_folders_;
    std::vector<std::string> missing_;
    std::unique_ptr<debug_files> debug_;
    std::map<std::string, opened> cache_;
};

} // namespace qvcrash

#endif
