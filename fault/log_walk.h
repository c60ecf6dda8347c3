// SPDX-License-Identifier: Apache-2.0
// log_walk.h - the call chain that a log shows. Signal-safe. One file per architecture.
//
// On AArch64 the platform's rules make every function keep a frame record, and the log shows the chain of records as
// qv_backtrace_spec() walks it.
//
// On x86-64 the C library keeps none, and the frame pointer may hold any value inside it. A chain that starts at a
// sound record is shown up to a record that is linked to itself or to a lower address. If the frame pointer leads to no
// record, the stack is searched for the next one, from the stack pointer upwards; a chain found so ends before a return
// address that is no code. The return addresses passed in that search are shown too, with the frame 1: most are
// callers, some may be left over from earlier calls.
#ifndef LIBCOMMON_FAULT_LOG_WALK_H
#define LIBCOMMON_FAULT_LOG_WALK_H

#include "fault/machine_context.h"

namespace qv::fault {

// Parameters and result as those of qv_backtrace_spec(); neither array nor `bottom` is null.
int walk_for_log(const machine_context &machine, unsigned long *addrs, unsigned long *frames, int max,
                 unsigned long *bottom);

} // namespace qv::fault

#endif
