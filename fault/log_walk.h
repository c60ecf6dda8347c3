// SPDX-License-Identifier: Apache-2.0
// log_walk.h - the call chain that a log shows. Signal-safe. One file per architecture.
//
// On AArch64 every function keeps a frame record, by the platform's rules, and the log shows the chain of records as
// qv_backtrace_spec() walks it.
//
// On x86-64 the C library keeps none: where it was interrupted, the frame pointer holds whatever it likes. A chain that
// starts well is shown as it is, up to a record that is linked to itself or to one below. Where the frame pointer leads
// to no record, the stack is searched for the next one, from the stack pointer upwards. The return addresses on the way
// there are shown too, with the frame 1: most are callers, some may be left over from earlier calls.
#ifndef LIBCOMMON_FAULT_LOG_WALK_H
#define LIBCOMMON_FAULT_LOG_WALK_H

#include "fault/machine_context.h"

namespace fault {

// Parameters and result as those of qv_backtrace_spec(); neither array nor `bottom` is null.
int walk_for_log(const machine_context &machine, unsigned long *addrs, unsigned long *frames, int max,
                 unsigned long *bottom);

} // namespace fault

#endif
