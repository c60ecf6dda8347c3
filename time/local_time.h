// SPDX-License-Identifier: Apache-2.0
// local_time.h - local time for the library's own lines.
#ifndef LIBCOMMON_TIME_LOCAL_TIME_H
#define LIBCOMMON_TIME_LOCAL_TIME_H

#include <ctime>

namespace qv::local_time {

// tzset() and localtime_r(), as qv_localtime_r() does them, and leaves the zone's offset for signal handlers.
bool convert_for_log(std::time_t now, tm *out);

// The same without localtime_mutex and without the offset: for traces, which a caller that keeps the mutex may print.
bool convert_for_trace(std::time_t now, tm *out);

// Leaves the offset of the moment for signal handlers that are about to be installed.
void prepare_handlers();

} // namespace qv::local_time

#endif
