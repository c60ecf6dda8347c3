// SPDX-License-Identifier: Apache-2.0
// stack_scan.h - return addresses on a stack, found without frame records. Signal-safe.
#ifndef LIBCOMMON_FAULT_STACK_SCAN_H
#define LIBCOMMON_FAULT_STACK_SCAN_H

#include "fault/safe_memory.h"

namespace qv::fault {

// Whether the word is an address in an executable mapping, directly after a call instruction. Words that earlier calls
// left on the stack count too.
bool follows_call(safe_memory *code, unsigned long address);

// Calls `visit(place, address)` for each such word in [from, to), lowest first, until it returns false.
template <typename Visit>
void scan_stack(safe_memory *stack, safe_memory *code, unsigned long from, unsigned long to, Visit visit)
{
    for (unsigned long place = from & ~(sizeof from - 1); place < to; place += sizeof place) {
        unsigned long word;
        if (!stack->load(place, &word))
            return;
        if (follows_call(code, word) && !visit(place, word))
            return;
    }
}

} // namespace qv::fault

#endif
