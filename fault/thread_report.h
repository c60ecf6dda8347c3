// SPDX-License-Identifier: Apache-2.0
// thread_report.h - reports every thread of the process and what it waits for. Signal-safe.
#ifndef LIBCOMMON_FAULT_THREAD_REPORT_H
#define LIBCOMMON_FAULT_THREAD_REPORT_H

namespace qv::fault {

// Writes lines for each thread of the process, and a line for each circle of threads that wait for one another.
void report_threads(int fd);

} // namespace qv::fault

#endif
