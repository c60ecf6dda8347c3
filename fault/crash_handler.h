// SPDX-License-Identifier: Apache-2.0
// crash_handler.h - the signals of the crash handler, for the code that arms it.
#ifndef LIBCOMMON_FAULT_CRASH_HANDLER_H
#define LIBCOMMON_FAULT_CRASH_HANDLER_H

#include "base/log_names.h"

#include <atomic>
#include <csignal>
#include <cstddef>
#include <span>

namespace qv::fault {

using base::kBacktraceSignal;
using base::kDumpFileSignal;

// In the order in which they are reset. The handler takes the first four; the others when a host asks for them.
inline constexpr int kFaultSignals[] = {SIGBUS, SIGABRT, SIGSEGV, SIGILL, SIGFPE, SIGTRAP, SIGSYS};
inline constexpr std::size_t kDefaultFaultSignals = 4;

// How many of them the handler takes.
extern std::atomic<std::size_t> g_fault_signal_count;

inline std::span<const int> fault_signals()
{
    return {kFaultSignals, g_fault_signal_count.load(std::memory_order_relaxed)};
}

// A dump request even before any handler is armed. Written once the handler of another signal is in place.
extern int g_attach_signal;

// Which handlers were armed last: an enum qv_inspect_armed, for other processes.
extern int g_signals_armed_by;

// The sa_flags to arm the crash handler with: SA_ONSTACK is among them once a thread has asked for a stack.
extern std::atomic<int> g_crash_action_flags;

} // namespace qv::fault

#endif
