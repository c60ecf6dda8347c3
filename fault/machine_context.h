// SPDX-License-Identifier: Apache-2.0
// machine_context.h - the registers that the kernel saved at a signal. All knowledge of registers is behind this
// header.
//
// The crash log's register table has 32 slots. Slot 0 is a hard-wired zero and the last one holds the stack pointer; a
// port with fewer registers leaves slots empty, which print as 0.
#ifndef LIBCOMMON_FAULT_MACHINE_CONTEXT_H
#define LIBCOMMON_FAULT_MACHINE_CONTEXT_H

#include <ucontext.h>

namespace qv::fault {

inline constexpr unsigned kRegisterSlots = 32;

class machine_context {
public:
    explicit machine_context(const void *ucontext) : machine_(static_cast<const ucontext_t *>(ucontext)->uc_mcontext) {}

    unsigned long program_counter() const;
    unsigned long stack_pointer() const;
    unsigned long frame_pointer() const;
    unsigned long fault_address() const;
    unsigned long state_word() const;
    unsigned long first_argument() const; // the register that carries it, as saved

    unsigned long slot(unsigned index) const; // index 0 to 31
    static const char *slot_name(unsigned index);

private:
    const mcontext_t &machine_;
};

// Whether the bytes before `end` are a call instruction. Reads kLongestCall bytes.
inline constexpr unsigned long kLongestCall = 8;
bool ends_in_call(const unsigned char *end);

// A return address without the signature that some processors put into its upper bits.
unsigned long strip_signature(unsigned long return_address);

} // namespace qv::fault

#endif
