// SPDX-License-Identifier: Apache-2.0
// frame_rules.h - how to find a caller's frame: the unwind table entry of a return address, evaluated for three
// registers.
//
// The C library's unwinder evaluates the entry at every step of every walk. Here the result is kept by return address.
// Entries that need more than the stack pointer, the frame pointer and one offset have no rule; a walk that meets one
// is left to that unwinder.
#ifndef LIBCOMMON_MEM_FRAME_RULES_H
#define LIBCOMMON_MEM_FRAME_RULES_H

#include <cstdint>

namespace qv::frame_rules {

// The numbers of the registers in unwind tables, and where a call leaves the return address.
struct architecture {
    std::uint64_t stack_pointer;
    std::uint64_t frame_pointer;
    std::uint64_t return_address;
    std::int64_t return_address_offset; // from the frame's end
};

// The end of a frame is the value of the stack pointer before the call.
struct rule {
    bool is_known = false;
    bool from_frame_pointer = false;  // the end is at an offset from the frame pointer; else the stack pointer
    bool saves_frame_pointer = false; // the caller's frame pointer is on the stack; else it is still in the register
    std::int32_t end_offset = 0;      // from that register
    std::int16_t frame_pointer_words = 0; // where the frame pointer is saved, from the frame's end, in words
};

// The rule for the function that a call returns to. Uses no lock and allocates nothing. Signal-safe. The code must be
// running, which keeps its module loaded.
rule find(std::uintptr_t return_address, const architecture &machine);

} // namespace qv::frame_rules

#endif
