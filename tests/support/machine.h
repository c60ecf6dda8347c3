// SPDX-License-Identifier: Apache-2.0
// machine.h - what tests know of the architecture: one source for each behind it.
#ifndef LIBCOMMON_TESTS_MACHINE_H
#define LIBCOMMON_TESTS_MACHINE_H

#include <array>
#include <cstdint>
#include <string>
#include <ucontext.h>

namespace support {

// Whether a crash log's walk scans the stack instead of following frame records alone.
extern const bool kWalkScansTheStack;

// ---- saved registers, for made-up contexts ----

void set_program_counter(ucontext_t &context, unsigned long value);
void set_frame_pointer(ucontext_t &context, unsigned long value);
void set_stack_pointer(ucontext_t &context, unsigned long value);

// What a crash log shows of saved registers.
struct LoggedRegisters {
    std::array<std::uint64_t, 32> slots;
    std::uint64_t sp, pc, pstate, fault;
};

// Gives each saved register a value that no other has, and returns what a log shows of them.
LoggedRegisters number_registers(ucontext_t &context);

// The names of a log's 32 slots.
std::array<std::string, 32> register_names();

// Whether a log's slot holds the program counter too, and which.
constexpr int kNoSlot = -1;
extern const int kProgramCounterSlot;

// ---- instructions ----

void execute_illegal_instruction();

// The address with a signature as a function's return address has it, or as it is where the processor signs none.
unsigned long signed_address(unsigned long address);

} // namespace support

#endif
