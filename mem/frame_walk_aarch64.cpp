// SPDX-License-Identifier: Apache-2.0
// Walks with kept unwind rules. A frame record may be anywhere in its frame, so the walk starts at an instruction of
// its own function.
#include "mem/frame_walk.h"

#if defined(__aarch64__)

#include "mem/frame_rules.h"

#include <cstdint>

namespace qv::frame_walk {
namespace {

constexpr frame_rules::architecture kMachine = {.stack_pointer = 31, .frame_pointer = 29, .return_address = 30};

// A function may sign the return address that it saves, with a key that only the kernel knows. XPACLRI, written as a
// hint, removes the signature; a processor without signatures ignores it.
std::uintptr_t without_signature(std::uintptr_t return_address)
{
    register std::uintptr_t link asm("x30") = return_address;
    asm("hint #7" : "+r"(link));
    return link;
}

} // namespace

[[gnu::noinline]] int read(void **frames, int max)
{
    frame_rules::frame at;
    asm volatile("adr %0, .\n\t"
                 "mov %1, sp\n\t"
                 "mov %2, x29"
                 : "=&r"(at.return_address), "=&r"(at.stack_pointer), "=&r"(at.frame_pointer));
    at.return_address++; // a rule is that of the byte before
    frame_rules::finder rules(kMachine);
    for (int depth = 0; depth < max; depth++) {
        frame_rules::step reached = at.leave(rules);
        if (reached != frame_rules::step::to_caller)
            return reached == frame_rules::step::at_end ? depth : -1;
        at.return_address = without_signature(at.return_address);
        frames[depth] = reinterpret_cast<void *>(at.return_address);
    }
    return max;
}

} // namespace qv::frame_walk

#endif
