// SPDX-License-Identifier: Apache-2.0
// signal_format.h - the mark that the fatal-signal handler runs.
#ifndef LIBCOMMON_FAULT_SIGNAL_FORMAT_H
#define LIBCOMMON_FAULT_SIGNAL_FORMAT_H

// Raised and lowered by signal handlers that print, read by console output through in_signal_context(). One for the
// whole process: while one thread dies, all threads print the signal-safe way.
extern int signal_context_flag;

#endif
