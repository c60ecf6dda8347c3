// SPDX-License-Identifier: Apache-2.0
// The saved registers on x86-64, the development port: the table keeps the target's shape of 32 slots.
#include "fault/machine_context.h"

#if defined(__x86_64__)

namespace qv::fault {
namespace {

constexpr int kNoRegister = -1;

struct register_slot {
    const char *name;
    int saved; // index into the saved registers
};

constexpr register_slot kSlots[kRegisterSlots] = {
    {"x0", kNoRegister},   {"x1(RBX)", REG_RBX},  {"x2(RCX)", REG_RCX},  {"x3(RDX)", REG_RDX},  {"x4(RSI)", REG_RSI},
    {"x5(RDI)", REG_RDI},  {"x6(RAX)", REG_RAX},  {"x7", kNoRegister},   {"x8(R8)", REG_R8},    {"x9(R9)", REG_R9},
    {"x10(R10)", REG_R10}, {"x11(R11)", REG_R11}, {"x12(R12)", REG_R12}, {"x13(R13)", REG_R13}, {"x14(R14)", REG_R14},
    {"x15(R15)", REG_R15}, {"x16", kNoRegister},  {"x17", kNoRegister},  {"x18", kNoRegister},  {"x19", kNoRegister},
    {"x20", kNoRegister},  {"x21", kNoRegister},  {"x22", kNoRegister},  {"x23", kNoRegister},  {"x24", kNoRegister},
    {"x25", kNoRegister},  {"x26", kNoRegister},  {"x27", kNoRegister},  {"x28", kNoRegister},  {"x29(RBP)", REG_RBP},
    {"x30(RIP)", REG_RIP}, {"x31(RSP)", REG_RSP},
};

unsigned long saved(const mcontext_t &machine, int index)
{
    return static_cast<unsigned long>(machine.gregs[index]);
}

} // namespace

unsigned long machine_context::program_counter() const
{
    return saved(machine_, REG_RIP);
}

unsigned long machine_context::stack_pointer() const
{
    return saved(machine_, REG_RSP);
}

unsigned long machine_context::frame_pointer() const
{
    return saved(machine_, REG_RBP);
}

unsigned long machine_context::fault_address() const
{
    return saved(machine_, REG_CR2);
}

unsigned long machine_context::state_word() const
{
    return saved(machine_, REG_EFL);
}

unsigned long machine_context::slot(unsigned index) const
{
    int reg = kSlots[index].saved;
    return reg == kNoRegister ? 0 : saved(machine_, reg);
}

const char *machine_context::slot_name(unsigned index)
{
    return kSlots[index].name;
}

unsigned long machine_context::first_argument() const
{
    return saved(machine_, REG_RDI);
}

// CALL with a displacement, or through a register or memory (FF /2), whose second byte says how long it is.
bool ends_in_call(const unsigned char *end)
{
    constexpr unsigned char kCall = 0xE8, kGroup5 = 0xFF;
    constexpr int kCallSize = 5;
    if (end[-kCallSize] == kCall)
        return true;
    for (int size = 2; size <= 7; size++) {
        if (end[-size] != kGroup5)
            continue;
        unsigned mode = end[1 - size] >> 6, operation = end[1 - size] >> 3 & 7, base = end[1 - size] & 7;
        int expected = 2;
        if (mode != 3 && base == 4)
            expected++; // a second byte for the address
        if (mode == 1)
            expected++;
        else if (mode == 2 || (mode == 0 && base == 5))
            expected += 4;
        if (operation == 2 && expected == size)
            return true;
    }
    return false;
}

unsigned long strip_signature(unsigned long return_address)
{
    return return_address;
}

} // namespace qv::fault

#endif
