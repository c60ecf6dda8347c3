// SPDX-License-Identifier: Apache-2.0
// signal_format.h - the flag that is set while the fatal-signal handler runs.
#ifndef LIBCOMMON_FAULT_SIGNAL_FORMAT_H
#define LIBCOMMON_FAULT_SIGNAL_FORMAT_H

// Set and cleared by running_handlers.cpp, read by console output through in_signal_context(). One for the process:
// while one thread dies, all threads print on the signal-safe path.
extern int signal_context_flag;

#endif
