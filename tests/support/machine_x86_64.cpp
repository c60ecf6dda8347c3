// SPDX-License-Identifier: Apache-2.0
#include "support/machine.h"

#if defined(__x86_64__)

namespace support {

const bool kWalkScansTheStack = true;
const int kProgramCounterSlot = 30;

void set_program_counter(ucontext_t &context, unsigned long value)
{
    context.uc_mcontext.gregs[REG_RIP] = static_cast<greg_t>(value);
}

void set_frame_pointer(ucontext_t &context, unsigned long value)
{
    context.uc_mcontext.gregs[REG_RBP] = static_cast<greg_t>(value);
}

void set_stack_pointer(ucontext_t &context, unsigned long value)
{
    context.uc_mcontext.gregs[REG_RSP] = static_cast<greg_t>(value);
}

LoggedRegisters number_registers(ucontext_t &context)
{
    constexpr std::uint64_t kFirst = 0x5000000000000000;
    for (int i = 0; i < NGREG; i++)
        context.uc_mcontext.gregs[i] = static_cast<greg_t>(kFirst) + i;

    constexpr int kNone = -1;
    constexpr int kSaved[32] = {kNone,  REG_RBX, REG_RCX, REG_RDX, REG_RSI, REG_RDI, REG_RAX, kNone,
                                REG_R8, REG_R9,  REG_R10, REG_R11, REG_R12, REG_R13, REG_R14, REG_R15,
                                kNone,  kNone,   kNone,   kNone,   kNone,   kNone,   kNone,   kNone,
                                kNone,  kNone,   kNone,   kNone,   kNone,   REG_RBP, REG_RIP, REG_RSP};
    auto value = [](int saved) { return saved == kNone ? 0 : kFirst + static_cast<unsigned>(saved); };
    LoggedRegisters logged = {{}, value(REG_RSP), value(REG_RIP), value(REG_EFL), value(REG_CR2)};
    for (unsigned i = 0; i < 32; i++)
        logged.slots[i] = value(kSaved[i]);
    return logged;
}

std::array<std::string, 32> register_names()
{
    std::array<std::string, 32> names;
    for (unsigned i = 0; i < 32; i++)
        names[i] = "x" + std::to_string(i);
    names[1] = "x1(RBX)", names[2] = "x2(RCX)", names[3] = "x3(RDX)", names[4] = "x4(RSI)";
    names[5] = "x5(RDI)", names[6] = "x6(RAX)";
    for (unsigned i = 8; i < 16; i++)
        names[i].append("(R").append(std::to_string(i)).append(")");
    names[29] = "x29(RBP)", names[30] = "x30(RIP)", names[31] = "x31(RSP)";
    return names;
}

void execute_illegal_instruction()
{
    asm volatile("ud2");
}

unsigned long signed_address(unsigned long address)
{
    return address; // x86-64 signs none
}

} // namespace support

#endif
