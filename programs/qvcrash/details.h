// SPDX-License-Identifier: Apache-2.0
// details.h - the details that a host lets the library append to its logs (crash_details.h), taken apart.
#ifndef QVCRASH_DETAILS_H
#define QVCRASH_DETAILS_H

#include <cstdint>
#include <optional>
#include <string>
#include <string_view>
#include <utility>
#include <vector>

namespace qvcrash {

struct detailed_module {
    std::uint64_t bias = 0;
    std::uint64_t end = 0;
    std::string build_id; // empty when it had none
    std::string path;
    bool is_gone = false; // unloaded before the crash
};

/** A module's path without what the kernel adds for a file that was deleted or replaced while it ran. */
std::string_view without_deleted_mark(std::string_view path);

// A word of a stack that follows a call instruction.
struct found_word {
    std::uint64_t place = 0;
    std::uint64_t address = 0;
};

struct detailed_thread {
    int id = 0;
    char state = '?';
    std::string name;
    std::optional<long> system_call;
    std::optional<std::uint64_t> waits_at; // the futex word
    std::uint64_t wait_value = 0;
    std::optional<int> owner; // of what it waits for
    std::optional<std::uint64_t> sp, pc;
    std::vector<found_word> found;
    std::vector<found_word> walk; // of the thread itself: the program counter first, then return addresses
    std::string walk_problem;     // why it was asked and has none
};

// What an object cache found before it ended the process.
struct cache_misuse {
    int code = 0;
    std::uint64_t object = 0;
    std::uint64_t guard = 0;
    std::string cache;
};

struct log_details {
    int version = 0;
    bool is_complete = false;
    std::optional<int> code; // of the signal
    std::optional<int> sender, sender_uid;
    std::optional<std::uint64_t> address;
    std::optional<std::int64_t> time; // seconds since 1970
    std::optional<int> pid, tid;
    std::string thread_name;
    std::string abort_message;
    std::optional<cache_misuse> misuse;
    std::vector<std::pair<int, std::string>> notes; // by thread
    std::optional<std::uint64_t> first_argument;
    std::optional<std::uint64_t> stack_start, stack_end;
    std::string program;
    std::vector<detailed_module> modules;
    std::vector<found_word> found;
    std::vector<detailed_thread> threads;
    std::vector<std::string> deadlocks;
    std::vector<std::string> stack;      // words from the stack pointer up, as the log has them
    std::vector<std::string> code_bytes; // bytes around the program counter, likewise
    std::vector<std::string> lines;      // memory, limits and versions, likewise
};

/** How much of a log is read: a signature needs no registers, threads, stack words and figures. */
enum class log_extent { everything, signature };

/**
 * Takes the details out of what follows a log's backtrace.
 * @param text  receives what is left: the host's own text
 * @param tail  receives the end of an older log's details that this log lies over
 * @param extent  with log_extent::signature only what a signature is made of is filled in
 * @return nothing when there are none
 */
std::optional<log_details> take_details(std::string *text, std::string *tail, log_extent extent);

} // namespace qvcrash

#endif
