// SPDX-License-Identifier: Apache-2.0
// trace_variable.h - MALLOC_TRACE in the environment, set and unset without the C library, whose functions allocate and
// wait for a lock.
#ifndef LIBCOMMON_MEM_TRACE_VARIABLE_H
#define LIBCOMMON_MEM_TRACE_VARIABLE_H

namespace trace_file {

// Signal-safe, but not against another thread that changes the environment at the same time: one of the two may be
// lost.
void set_trace_variable(const char *path);
void unset_trace_variable();

} // namespace trace_file

#endif
