// SPDX-License-Identifier: Apache-2.0
// The call chain of a log on AArch64: the frame records, as they are linked.
#include "fault/log_walk.h"

#if defined(__aarch64__)

#include "fault/backtrace_internal.h"
#include "fault/safe_memory.h"

namespace qv::fault {

int walk_for_log(const machine_context &machine, unsigned long *addrs, unsigned long *frames, int max,
                 unsigned long *bottom)
{
    safe_memory memory(safe_memory::subject::module); // as on x86-64: a damaged link may lead anywhere
    return walk_frames(&memory, machine.frame_pointer(), machine.program_counter(), 0, addrs, frames, max, bottom);
}

} // namespace qv::fault

#endif
