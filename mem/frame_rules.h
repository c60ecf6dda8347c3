// SPDX-License-Identifier: Apache-2.0
// frame_rules.h - how to find a caller's frame: the unwind table entry of a return address, evaluated for three
// registers.
//
// The C library's unwinder evaluates the entry at every step of every walk. Here the result is kept by return address.
// Entries that need more than the stack pointer, the frame pointer and one offset have no rule; a walk that meets one
// is left to that unwinder.
#ifndef LIBCOMMON_MEM_FRAME_RULES_H
#define LIBCOMMON_MEM_FRAME_RULES_H

#include <cstddef>
#include <cstdint>
#include <link.h>

namespace qv::frame_rules {

// The numbers of the registers in unwind tables.
struct architecture {
    std::uint64_t stack_pointer;
    std::uint64_t frame_pointer;
    std::uint64_t return_address;
};

// The end of a frame is the value of the stack pointer before the call. One word, which is kept and returned as such: a
// wider load of members that were just stored one by one would wait for them.
struct rule {
    std::uint16_t is_known : 1 = false;
    // The end is at a distance from the frame pointer; else from the stack pointer.
    std::uint16_t from_frame_pointer : 1 = false;
    // The caller's frame pointer is on the stack; else it is still in the register.
    std::uint16_t saves_frame_pointer : 1 = false;
    // The function is in a module that is never unloaded, so that the rule holds for the life of the process.
    std::uint16_t is_permanent : 1 = false;
    // Nothing called the function: it is where the process or a thread began.
    std::uint16_t is_outermost : 1 = false;
    std::uint16_t unused : 11 = 0; // bit_cast() reads every bit
    std::uint16_t end_words = 0;   // from that register, in words
    // Where they are saved, from the frame's end.
    std::int16_t frame_pointer_words = 0;
    std::int16_t return_address_words = 0;
};
static_assert(sizeof(rule) == sizeof(std::uint64_t));

struct module {
    std::uintptr_t start = 0, end = 0;
    std::uintptr_t index = 0;      // of the unwind tables; 0 for none
    const link_map *map = nullptr; // the loader's entry

    bool holds(std::uintptr_t address, std::size_t size) const
    {
        return address >= start && address < end && end - address >= size;
    }
};

// The rows of an index. Each has two offsets from the index: of the first address described, and of the description.
struct table {
    static constexpr std::size_t kRowSize = 8;

    std::uintptr_t index = 0;
    std::uintptr_t rows = 0;
    std::size_t count = 0; // 0 for an index that is not supported
};

// The look-ups of one walk. A module that may be unloaded is looked up once while the return addresses stay within it:
// their code is running, which keeps it loaded.
class finder {
public:
    explicit finder(const architecture &machine) : machine_(machine) {}

    // The rule for the function that a call returns to. Uses no lock and allocates nothing. Signal-safe.
    rule find(std::uintptr_t return_address);

private:
    rule find_in_module(std::uintptr_t return_address);
    void enter_module(std::uintptr_t address);

    const architecture &machine_;
    module in_;
    table rows_;
};

enum class step {
    to_caller,
    at_end, // the function has no caller
    unknown // it needs the C library's unwinder
};

// A function that is in a call, and what its registers hold.
struct frame {
    std::uintptr_t return_address; // of the call
    std::uintptr_t stack_pointer;
    std::uintptr_t frame_pointer;

    // Goes to the function's caller, if it has one.
    step leave(finder &rules);
};

inline constexpr std::uintptr_t kWord = sizeof(std::uintptr_t);

// A word of another function's frame, which a sanitizer must not judge.
[[gnu::no_sanitize_address]] inline std::uintptr_t saved_word(std::uintptr_t frame_end, std::intptr_t words)
{
    return *(reinterpret_cast<const std::uintptr_t *>(frame_end) + words);
}

inline step frame::leave(finder &rules)
{
    rule found = rules.find(return_address);
    if (!found.is_known)
        return step::unknown;
    if (found.is_outermost) [[unlikely]]
        return step::at_end;
    std::uintptr_t base = found.from_frame_pointer ? frame_pointer : stack_pointer;
    std::uintptr_t end = base + found.end_words * kWord;
    if (end <= stack_pointer || end % kWord != 0)
        return step::unknown;
    if (found.saves_frame_pointer)
        frame_pointer = saved_word(end, found.frame_pointer_words);
    return_address = saved_word(end, found.return_address_words);
    stack_pointer = end;
    return return_address != 0 ? step::to_caller : step::unknown;
}

} // namespace qv::frame_rules

#endif
