// SPDX-License-Identifier: Apache-2.0
// backtrace_internal.h - what the sources of this folder share beyond the public headers. All of it is signal-safe.
#ifndef LIBCOMMON_FAULT_BACKTRACE_INTERNAL_H
#define LIBCOMMON_FAULT_BACKTRACE_INTERNAL_H

#include "backtrace.h"

#include <cstddef>
#include <sys/syscall.h>
#include <sys/types.h>
#include <unistd.h>

inline constexpr std::size_t kSymbolTextSize = 1024;
inline constexpr int kMaxFrames = 20;
inline constexpr std::size_t kCommandNameSize = 128;

extern "C" {

// Set once by qv_set_handle_thread_trace(): logs, file names and /proc look-ups are then the thread's.
extern int qv_handle_thread;

// Writes "file(symbol+0x10) [0x...]" for an address into `out` (kSymbolTextSize bytes).
void backtrace_symbol_to_buffer(unsigned long addr, char *out);

} // extern "C"

namespace qv::fault {

class safe_memory;

// The process's (or, with thread traces, the thread's) name for logs: the kernel's, in `buffer`, or the program's where
// the kernel's cannot be read.
const char *process_name(char (&buffer)[kCommandNameSize]);

// Code by the host's text range and by the calling thread's table, without which every address is.
bool is_code(unsigned long addr);

// The same, except that without a table only addresses in a loaded module are.
bool is_known_code(unsigned long addr);

// The frame address of an entry that has no frame record.
inline constexpr unsigned long kNoFrameMark = 1;

constexpr unsigned long round_up_to_word(unsigned long address)
{
    return (address + sizeof(unsigned long) - 1) & ~(sizeof(unsigned long) - 1);
}

// Follows the chain from the record at `record`, 0 for none. Return addresses are not compared with the code ranges,
// nor records with the stack: a sound chain may lie anywhere, and a broken chain ends at unreadable memory.
// @param frames  receives the frame addresses, or null
// @param bottom  receives the last link read, or 0
// @return number of entries, at most `max`
int walk_records(safe_memory *memory, unsigned long record, unsigned long *addrs, unsigned long *frames, int max,
                 unsigned long *bottom);

// What qv_backtrace_spec() does, with the given way to read memory; addrs is not null.
int walk_frames(safe_memory *memory, unsigned long fp, unsigned long pc, unsigned long lr, unsigned long *addrs,
                unsigned long *frames, int max, unsigned long *bottom);

inline pid_t thread_id()
{
    return static_cast<pid_t>(::syscall(SYS_gettid));
}

// The id that logs and file names carry.
inline pid_t traced_id()
{
    return qv_handle_thread != 0 ? thread_id() : ::getpid();
}

} // namespace qv::fault

#endif
