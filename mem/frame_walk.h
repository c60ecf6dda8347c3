// SPDX-License-Identifier: Apache-2.0
// frame_walk.h - the return addresses above a call, as backtrace() gives them, in a fraction of its time.
#ifndef LIBCOMMON_MEM_FRAME_WALK_H
#define LIBCOMMON_MEM_FRAME_WALK_H

namespace qv::frame_walk {

// Stores up to `max` return addresses; the first one is this call's own. Returns their number, which is smaller where
// the stack ends before, or -1 if a frame needs the C library's unwinder: then the caller uses backtrace().
// Signal-safe.
int read(void **frames, int max);

} // namespace qv::frame_walk

#endif
