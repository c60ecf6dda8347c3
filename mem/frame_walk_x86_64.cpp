// SPDX-License-Identifier: Apache-2.0
// Walks with kept unwind rules. At a call, the return address is the last word of the caller's frame.
#include "mem/frame_walk.h"

#if defined(__x86_64__)

#include "mem/frame_rules.h"

#include <cstdint>

namespace qv::frame_walk {
namespace {

constexpr std::uintptr_t kWord = sizeof(std::uintptr_t);

constexpr frame_rules::architecture kMachine = {
    .stack_pointer = 7, .frame_pointer = 6, .return_address = 16, .return_address_offset = -8};

// A sanitizer must not judge reads of other functions' frames.
[[gnu::no_sanitize_address]] std::uintptr_t word_at(std::uintptr_t address)
{
    return *reinterpret_cast<const std::uintptr_t *>(address);
}

} // namespace

// Not inline: its own frame record is where the walk starts.
[[gnu::noinline]] bool read(void **frames, int max)
{
    auto record = reinterpret_cast<std::uintptr_t>(__builtin_frame_address(0));
    std::uintptr_t frame_pointer = word_at(record);
    std::uintptr_t return_address = word_at(record + kWord);
    std::uintptr_t stack_pointer = record + 2 * kWord;
    frame_rules::finder rules(kMachine);
    for (int i = 0;; i++) {
        frames[i] = reinterpret_cast<void *>(return_address);
        if (i + 1 == max)
            return true;
        frame_rules::rule rule = rules.find(return_address);
        if (!rule.is_known)
            return false;
        std::uintptr_t base = rule.from_frame_pointer ? frame_pointer : stack_pointer;
        std::uintptr_t end = base + static_cast<std::uintptr_t>(std::intptr_t{rule.end_offset});
        if (end <= stack_pointer || end % kWord != 0)
            return false;
        if (rule.saves_frame_pointer)
            frame_pointer = word_at(end + static_cast<std::uintptr_t>(std::intptr_t{rule.frame_pointer_words}) * kWord);
        return_address = word_at(end - kWord);
        if (return_address == 0)
            return false;
        stack_pointer = end;
    }
}

} // namespace qv::frame_walk

#endif
