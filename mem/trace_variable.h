// SPDX-License-Identifier: Apache-2.0
// trace_variable.h - sets and unsets MALLOC_TRACE in the environment, without the C library's functions, which allocate
// and wait for a lock.
#ifndef LIBCOMMON_MEM_TRACE_VARIABLE_H
#define LIBCOMMON_MEM_TRACE_VARIABLE_H

namespace qv::trace_file {

// Signal-safe. If another thread changes the environment at the same time, one of the two changes may be lost.
void set_trace_variable(const char *path);
void unset_trace_variable();

} // namespace qv::trace_file

#endif
