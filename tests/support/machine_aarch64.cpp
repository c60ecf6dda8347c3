// SPDX-License-Identifier: Apache-2.0
#include "support/machine.h"

#if defined(__aarch64__)

namespace support {

const bool kWalkScansTheStack = false;
const int kProgramCounterSlot = kNoSlot;

void set_program_counter(ucontext_t &context, unsigned long value)
{
    context.uc_mcontext.pc = value;
}

void set_frame_pointer(ucontext_t &context, unsigned long value)
{
    context.uc_mcontext.regs[29] = value;
}

void set_stack_pointer(ucontext_t &context, unsigned long value)
{
    context.uc_mcontext.sp = value;
}

LoggedRegisters number_registers(ucontext_t &context)
{
    auto &machine = context.uc_mcontext;
    for (unsigned i = 0; i < 31; i++)
        machine.regs[i] = 0xa000000000000000 + i;
    machine.sp = 0xb1, machine.pc = 0xb2, machine.pstate = 0xb3, machine.fault_address = 0xb4;

    LoggedRegisters logged = {{}, 0xb1, 0xb2, 0xb3, 0xb4};
    for (unsigned i = 1; i < 31; i++)
        logged.slots[i] = 0xa000000000000000 + i;
    logged.slots[31] = 0xb1;
    return logged;
}

std::array<std::string, 32> register_names()
{
    std::array<std::string, 32> names;
    for (unsigned i = 0; i < 32; i++)
        names[i] = "x" + std::to_string(i);
    names[16] = "x16(IP0)", names[17] = "x17(IP1)", names[29] = "x29(FP)", names[30] = "x30(LR)";
    return names;
}

void execute_illegal_instruction()
{
    asm volatile("udf #0");
}

unsigned long signed_address(unsigned long address)
{
    asm("mov x30, %0\n\thint #25\n\tmov %0, x30" : "+r"(address) : : "x30"); // PACIASP
    return address;
}

} // namespace support

#endif
