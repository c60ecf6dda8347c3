// SPDX-License-Identifier: Apache-2.0
// analysis.h - what a log says about its crash: the cause in a sentence, and each frame as function and line.
#ifndef QVCRASH_ANALYSIS_H
#define QVCRASH_ANALYSIS_H

#include "crash_log.h"
#include "symbolizer.h"

#include <string>
#include <vector>

namespace qvcrash {

enum class frame_origin {
    program_counter, // where the thread was
    frame_record,    // a return address of the walk
    link_register,   // the register that holds a return address; the walk does not see it
    stack_top,       // the word at the stack pointer follows a call: a function that has no frame yet was called there
    stack_scan,      // another word of the stack that follows a call; it may be left over from an earlier call
};

struct explained_frame {
    frame_origin origin = frame_origin::frame_record;
    logged_frame logged;
    resolved_address where;
    int repeats = 1; // how often the frame follows itself
    // Where a cycle of several frames begins: how many they are, and how often they follow one another in this order.
    std::size_t cycle_frames = 0;
    std::size_t cycle_times = 0;
};

struct explained_register {
    std::string name;
    std::uint64_t value = 0;
    resolved_address where;
};

struct explained_group { // of a trace of allocations
    code_reference caller;
    resolved_address where;
    std::uint64_t blocks = 0;
    std::uint64_t bytes = 0;
};

struct explained_thread {
    detailed_thread thread;
    resolved_address at;
    std::vector<resolved_address> calls; // as found on its stack
};

struct explained_line { // of a text with code references
    std::string text;
    std::vector<resolved_address> where;
};

struct analysis {
    std::string file_name;
    crash_log log;
    std::string headline;            // who, and by which signal
    std::vector<std::string> causes; // what happened, the surest first
    std::vector<explained_frame> frames;
    std::vector<explained_register> registers; // those that point into a module
    std::vector<explained_thread> threads;     // all of the process, where the log has details
    std::vector<explained_group> groups;
    std::vector<explained_line> lines;
    std::vector<std::string> remarks; // what the reader should know of the log and the files
    module_map modules;
};

/** Explains a log. The result refers to the symbolizer's files. */
analysis explain(std::string_view text, const std::string &file_name, symbolizer *symbols);

/** "function at file:line", or as much of it as is known. */
std::string describe(const source_frame &frame);

/** The same of the innermost function there. */
std::string describe(const resolved_address &where);

/** "SIGSEGV (Segmentation fault)". */
std::string describe_signal(int signal);

} // namespace qvcrash

#endif
