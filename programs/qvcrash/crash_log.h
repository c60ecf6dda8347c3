// SPDX-License-Identifier: Apache-2.0
// crash_log.h - a log that the library left, taken apart.
//
// The reader accepts whatever the crash handler, the termination logger and the host's callbacks write, from either
// machine: complete logs, logs cut short by a second fault, and logs that lie on top of a longer, older one. It never
// fails: what it cannot read is counted in `problems` and left out.
#ifndef QVCRASH_CRASH_LOG_H
#define QVCRASH_CRASH_LOG_H

#include "details.h"

#include <cstdint>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

namespace qvcrash {

enum class machine { unknown, aarch64, x86_64 };

enum class log_kind {
    coredump,   // a fatal signal
    attach,     // a dump request; the process went on
    term,       // a termination signal
    backtrace,  // a backtrace section without a head, as callbacks and hosts write
    allocation, // a trace of every allocation
    text,       // lines with code addresses in them, such as a saved leak report
    unknown,    // none of the library's text in it
};

// "FILE(SYMBOL+0xOFFSET) [0xADDRESS]" or the address alone.
struct code_reference {
    std::uint64_t address = 0;
    std::string file;                   // empty when the loader knew no object
    std::string symbol;                 // empty when the loader knew no symbol
    std::optional<std::int64_t> offset; // from the symbol, else from the object's load bias
};

struct logged_frame {
    std::uint64_t frame_address = 0;
    code_reference code;
};

inline constexpr std::size_t kRegisterCount = 32;

struct register_slot {
    std::string name;
    std::uint64_t value = 0;
};

struct crash_log {
    log_kind kind = log_kind::unknown;
    machine from = machine::unknown;
    std::string process; // by the file's name; empty when it does not say
    std::optional<int> id;
    bool is_thread_id = false;
    std::optional<int> signal;
    std::optional<int> sender; // of a termination signal

    std::vector<register_slot> registers; // in table order; fewer than 32 in a log cut short
    std::optional<std::uint64_t> fault, pc, sp, state;

    std::vector<logged_frame> frames;
    std::optional<std::uint64_t> stack_bottom; // absent in a log cut short

    std::string host_text; // what the host's callbacks appended
    std::optional<log_details> details;
    std::string tail;        // the rest of an older, longer log under this one, or of the other dumps of a mixture
    bool is_mixture = false; // several threads wrote their dumps into one file at the same time
    std::vector<std::string> problems;
};

/**
 * Reads a log.
 * @param text       its bytes, hostile ones included
 * @param file_name  its name or path, of which the process, the kind and the signal are read
 * @param extent     with log_extent::signature, registers and parts of the details are left out, and no problems are
 *                   counted in them
 */
crash_log parse_crash_log(std::string_view text, std::string_view file_name,
                          log_extent extent = log_extent::everything);

/** Finds the first code reference in a line, with its place; nothing when there is none. */
struct found_reference {
    code_reference code;
    std::size_t begin = 0; // of the whole reference in the line
    std::size_t end = 0;
};
std::optional<found_reference> find_reference(std::string_view line);

/** The value of a general register by its number in the table, when the log has it. */
std::optional<std::uint64_t> register_value(const crash_log &log, std::size_t slot);

const char *name_of(log_kind kind);
const char *name_of(machine from);

} // namespace qvcrash

#endif
