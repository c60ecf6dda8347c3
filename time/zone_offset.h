// SPDX-License-Identifier: Apache-2.0
// zone_offset.h - the local zone's offset from UTC, for signal handlers that stamp a line.
//
// A handler cannot call the C library: its zone code takes a lock and allocates. So ordinary code, which converts a
// time anyway, stores the offset here, with its next change:
//
//     ... offset ...|until ... next_offset ...
//
// A handler that runs later than the second change, with no ordinary line printed in between, is an hour off.
//
// The record is kept twice. A writer fills the copy that is not in use and then advances the generation, whose lowest
// bit selects the copy. A reader that finds the generation unchanged has read a whole record, even if it interrupted
// the writer on its own thread, or runs in a child that was forked in the middle of a write.
#ifndef LIBCOMMON_TIME_ZONE_OFFSET_H
#define LIBCOMMON_TIME_ZONE_OFFSET_H

#include <ctime>

namespace qv::zone {

struct offsets {
    long offset = 0; // seconds east of UTC
    std::time_t until = 0;
    long next_offset = 0;

    long at(std::time_t now) const { return now < until ? offset : next_offset; }
};

// Reads the record. False while none has been stored. Signal-safe.
bool load_offsets(offsets *out);

// Stores the record. One caller at a time.
void store_offsets(const offsets &record);

} // namespace qv::zone

#endif
