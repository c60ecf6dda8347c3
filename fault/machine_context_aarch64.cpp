// SPDX-License-Identifier: Apache-2.0
// The saved registers on AArch64: the frame pointer is x29, and the word after x30 is the stack pointer.
#include "fault/machine_context.h"

#if defined(__aarch64__)

#include <cstddef>
#include <cstring>

namespace qv::fault {
namespace {

constexpr unsigned kFramePointer = 29;
constexpr unsigned kStackPointerSlot = 31;

static_assert(sizeof(mcontext_t::regs) == kStackPointerSlot * sizeof(unsigned long));
static_assert(offsetof(mcontext_t, sp) == offsetof(mcontext_t, regs) + sizeof(mcontext_t::regs));

constexpr const char *kNames[kRegisterSlots] = {
    "x0",  "x1",  "x2",  "x3",  "x4",  "x5",       "x6",       "x7",      "x8",      "x9",  "x10",
    "x11", "x12", "x13", "x14", "x15", "x16(IP0)", "x17(IP1)", "x18",     "x19",     "x20", "x21",
    "x22", "x23", "x24", "x25", "x26", "x27",      "x28",      "x29(FP)", "x30(LR)", "x31",
};

} // namespace

unsigned long machine_context::program_counter() const
{
    return machine_.pc;
}

unsigned long machine_context::stack_pointer() const
{
    return machine_.sp;
}

unsigned long machine_context::frame_pointer() const
{
    return machine_.regs[kFramePointer];
}

unsigned long machine_context::fault_address() const
{
    return machine_.fault_address;
}

unsigned long machine_context::state_word() const
{
    return machine_.pstate;
}

unsigned long machine_context::slot(unsigned index) const
{
    if (index == 0)
        return 0; // always 0 instead of the saved x0, contract: readers of these logs expect it
    return index == kStackPointerSlot ? machine_.sp : machine_.regs[index];
}

const char *machine_context::slot_name(unsigned index)
{
    return kNames[index];
}

unsigned long machine_context::first_argument() const
{
    return machine_.regs[0];
}

// BL, BLR, and BLR with a signed target.
bool ends_in_call(const unsigned char *end)
{
    unsigned word;
    std::memcpy(&word, end - sizeof word, sizeof word);
    return (word & 0xFC000000u) == 0x94000000u || (word & 0xFFFFFC1Fu) == 0xD63F0000u ||
           (word & 0xFEFFF800u) == 0xD63F0800u;
}

// XPACLRI by its hint number: assemblers for every revision accept it, and processors without signatures ignore it.
unsigned long strip_signature(unsigned long return_address)
{
    asm("mov x30, %0\n\thint #7\n\tmov %0, x30" : "+r"(return_address) : : "x30");
    return return_address;
}

} // namespace qv::fault

#endif
