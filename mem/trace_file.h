// SPDX-License-Identifier: Apache-2.0
// trace_file.h - the trace file of every allocation, for the rest of the library.
//
// mtrace(), muntrace() and signal_mtrace() start and end a trace.
#ifndef LIBCOMMON_MEM_TRACE_FILE_H
#define LIBCOMMON_MEM_TRACE_FILE_H

#include "mem/hook_table.h"

namespace qv::trace_file {

extern const hooks::own_set kHooks;

extern int file;              // the trace file; -1 while there is no trace
extern hooks::hook_set below; // the hooks that the trace replaced

// Ends a trace if the descriptor of its file is `first` or above, for a caller that closes those descriptors. Does not
// write a last line: in a child the parent's trace continues.
void close_file(int first);

void after_fork_in_child();

} // namespace qv::trace_file

#endif
