// SPDX-License-Identifier: Apache-2.0
// Walks with kept unwind rules. A frame record is the last thing in its frame, before the return address.
#include "mem/frame_walk.h"

#if defined(__x86_64__)

#include "mem/frame_rules.h"

#include <cstdint>

namespace qv::frame_walk {
namespace {

constexpr frame_rules::architecture kMachine = {.stack_pointer = 7, .frame_pointer = 6, .return_address = 16};

} // namespace

// Not inline: its own frame record is where the walk starts.
[[gnu::noinline]] int read(void **frames, int max)
{
    const auto *record = static_cast<const std::uintptr_t *>(__builtin_frame_address(0));
    frame_rules::frame at = {.return_address = record[1],
                             .stack_pointer = reinterpret_cast<std::uintptr_t>(record + 2),
                             .frame_pointer = record[0]};
    frame_rules::finder rules(kMachine);
    auto reached = frame_rules::step::to_caller;
    int depth = 0;
    while (reached == frame_rules::step::to_caller) {
        frames[depth++] = reinterpret_cast<void *>(at.return_address);
        if (depth == max)
            return max;
        reached = at.leave(rules);
    }
    return reached == frame_rules::step::at_end ? depth : -1;
}

} // namespace qv::frame_walk

#endif
