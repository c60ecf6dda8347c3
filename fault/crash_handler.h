// SPDX-License-Identifier: Apache-2.0
// crash_handler.h - what arming the handlers needs to know of them.
#ifndef LIBCOMMON_FAULT_CRASH_HANDLER_H
#define LIBCOMMON_FAULT_CRASH_HANDLER_H

#include <atomic>
#include <csignal>

namespace fault {

// Raw numbers: they are an agreement with the tools that send them, wherever the C library lets real-time signals
// begin.
inline constexpr int kDumpFileSignal = 51;
inline constexpr int kBacktraceSignal = 52;

// In the order in which they are reset.
inline constexpr int kFaultSignals[] = {SIGBUS, SIGABRT, SIGSEGV, SIGILL};

// A dump request even before any handler is armed. Written once the handler of another signal is in place.
extern int g_attach_signal;

// The sa_flags to arm the crash handler with: SA_ONSTACK is among them once a thread has asked for a stack.
extern std::atomic<int> g_crash_action_flags;

} // namespace fault

#endif
