// SPDX-License-Identifier: Apache-2.0
// block_table.h - the live blocks that full tracing knows.
//
// Blocks are in slots of an array. Which slot a block gets and which of several with one address is found is told by
// the number of blocks alone: the first free slot upward from it, the first that matches downward from it, both round
// the end. Neither search walks: a bitmap tells free slots, and lists by hash of the address the slots to choose among.
#ifndef LIBCOMMON_MEM_BLOCK_TABLE_H
#define LIBCOMMON_MEM_BLOCK_TABLE_H

#include "qv_mtrace.h"

#include <array>
#include <cstddef>
#include <cstdint>

namespace live_blocks {

inline constexpr unsigned kSlots = MTRACE_TABLE_SIZE;

// Return addresses, 0 behind the last of fewer.
using call_chain = std::array<std::uint64_t, MTRACE_CHAIN_SIZE>;

struct block_record {
    std::uintptr_t ptr; // 0 for a free slot
    std::uint32_t size; // as requested
    std::uint64_t when; // seconds of the wall clock
    call_chain trace;
};

// Made of zeroed memory, which is an empty table.
struct block_table {
    block_record records[kSlots];

    // The slot of a block, given the number of blocks in the table; -1 when it is not there.
    int find(std::uintptr_t ptr, unsigned count) const;
    // A slot for one more; -1 when there is none.
    int free_slot(unsigned count) const;

    void enter(unsigned slot, std::uintptr_t ptr, std::uint32_t size, std::uint64_t when, const call_chain &trace);
    void remove(unsigned slot);

    // Makes everything else from the records, after a writer has vanished in the middle. Returns the number of blocks.
    unsigned rebuild();

private:
    static constexpr unsigned kWordBits = 64;
    static constexpr unsigned kWords = kSlots / kWordBits;

    std::uint32_t head[kSlots];                          // by hash: a slot plus one, 0 for none
    std::uint32_t next[kSlots];                          // of a slot: the next one in its list, likewise
    std::uint64_t used[kWords];                          // a bit a slot
    std::uint64_t without_free_slot[kWords / kWordBits]; // a bit for each word of those that has no free slot

    void add_to_index(unsigned slot);
};

} // namespace live_blocks

#endif
