// SPDX-License-Identifier: Apache-2.0
// module_file.h - one ELF file with its debug information: what lies at an address.
//
// Addresses here are the file's own (the load bias taken off). Files may be hostile: a damaged one answers with less,
// never with an error.
#ifndef QVCRASH_MODULE_FILE_H
#define QVCRASH_MODULE_FILE_H

#include "base/unique_fd.h"
#include "crash_log.h"

#include <cstdint>
#include <memory>
#include <optional>
#include <string>
#include <vector>

namespace qvcrash {

// A function at an address, with the line in it.
struct source_frame {
    std::string function; // demangled; empty when unknown
    std::string file;     // empty when unknown
    int line = 0;         // 0 when unknown
    bool is_inlined = false;
};

// What is asked for when a file's debug information lies elsewhere.
struct debug_request {
    std::string build_id;    // hexadecimal, lower case; empty when the file has none
    std::string link;        // the name in .gnu_debuglink; empty when there is none
    std::uint32_t crc = 0;   // of the linked file
    std::string module_path; // of the file whose debug information is wanted, on its own machine
};

class debug_finder {
public:
    virtual ~debug_finder() = default;

    /** Opens the separate debug file; an empty handle when there is none. */
    virtual qv::base::unique_fd find(const debug_request &request) = 0;
};

class module_file {
public:
    /**
     * Reads a file.
     * @param path    its path on its own machine
     * @param finder  asked for separate debug files; outlives the result
     * @return null when it is no ELF file
     */
    static std::unique_ptr<module_file> open(qv::base::unique_fd file, const std::string &path, debug_finder *finder);

    virtual ~module_file() = default;

    virtual machine built_for() const = 0;
    virtual const std::string &build_id() const = 0; // hexadecimal, lower case; empty when there is none
    virtual bool has_lines() const = 0;

    /** The functions at an address, the innermost inlined one first. Empty when nothing is known. */
    virtual std::vector<source_frame> look_up(std::uint64_t address) = 0;

    /** The addresses of a global symbol; several where it has several versions. */
    virtual std::vector<std::uint64_t> symbol_addresses(const std::string &name) = 0;

    /** Whether the address lies in an executable segment. */
    virtual bool is_code(std::uint64_t address) = 0;

    /** Whether the instruction before the address is a call; nothing when the bytes cannot be read. */
    virtual std::optional<bool> follows_call(std::uint64_t address) = 0;

    /** Whether a return instruction is at the address; nothing when the bytes cannot be read. */
    virtual std::optional<bool> is_return(std::uint64_t address) = 0;

    /** Whether a function begins at the address, by the symbol table. */
    virtual bool is_function_start(std::uint64_t address) = 0;

    /**
     * Whether the register that calls put their return address in still holds it when the program counter is at the
     * address. Nothing when the file does not say so, or is for a machine without such a register.
     */
    virtual std::optional<bool> keeps_link_register(std::uint64_t address) = 0;

    /** The start of the file's first loaded segment, and the end of its last one. */
    virtual std::uint64_t image_start() const = 0;
    virtual std::uint64_t image_end() const = 0;
};

/** The build id of an open ELF file in hexadecimal; empty when there is none. */
std::string build_id_of(const qv::base::unique_fd &file);

} // namespace qvcrash

#endif
