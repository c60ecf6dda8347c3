// SPDX-License-Identifier: Apache-2.0
// debug_trace_file.h - the debug trace's file, for a caller that closes descriptors.
#ifndef LIBCOMMON_LOG_DEBUG_TRACE_FILE_H
#define LIBCOMMON_LOG_DEBUG_TRACE_FILE_H

namespace qv::trace {

// Closes the trace file if its descriptor is `first` or above; the next prefix opens it again. While a thread is in the
// middle of a trace, the file is closed at the end of that trace.
void close_file(int first);

} // namespace qv::trace

#endif
