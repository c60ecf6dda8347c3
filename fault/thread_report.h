// SPDX-License-Identifier: Apache-2.0
// thread_report.h - reports every thread of the process and what it waits for. Signal-safe.
#ifndef LIBCOMMON_FAULT_THREAD_REPORT_H
#define LIBCOMMON_FAULT_THREAD_REPORT_H

namespace qv::fault {

// Writes lines for each thread of the process, and a line for each circle of threads that wait for one another.
// @param asks_threads  each thread walks its own stack, where the host wants that (see qv_crash_walk_threads())
void report_threads(int fd, bool asks_threads);

} // namespace qv::fault

#endif
