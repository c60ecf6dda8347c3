// SPDX-License-Identifier: Apache-2.0
// frame_walk.h - the return addresses above a call, as backtrace() gives them, in a fraction of its time.
#ifndef LIBCOMMON_MEM_FRAME_WALK_H
#define LIBCOMMON_MEM_FRAME_WALK_H

namespace qv::frame_walk {

// Fills `frames` with `max` return addresses; the first one is this call's own. Returns false if a frame needs the C
// library's unwinder, or the stack ends before: then the caller uses backtrace(). Signal-safe.
bool read(void **frames, int max);

} // namespace qv::frame_walk

#endif
