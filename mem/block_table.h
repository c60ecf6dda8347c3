// SPDX-License-Identifier: Apache-2.0
// block_table.h - the table of the live blocks that full tracing records.
//
// Blocks are in the slots of an array. The number of blocks alone decides where a search starts. A new block gets the
// first free slot upward from there. Among several slots with one address, the first one downward from there is found.
// Both searches wrap around. Neither visits every slot: a bitmap has the free ones, and chains by the hash of the
// address have the candidates.
//
//     records   the slots             used               a bit for each slot
//     head      by hash: first slot   without_free_slot  a bit for each word of `used`
//     next      by slot: next slot
#ifndef LIBCOMMON_MEM_BLOCK_TABLE_H
#define LIBCOMMON_MEM_BLOCK_TABLE_H

#include "qv_mtrace.h"

#include <array>
#include <cstddef>
#include <cstdint>

namespace qv::live_blocks {

inline constexpr unsigned kSlots = MTRACE_TABLE_SIZE;

// Return addresses, with a 0 after the last one of a shorter chain.
using call_chain = std::array<std::uint64_t, MTRACE_CHAIN_SIZE>;

struct block_record {
    std::uintptr_t ptr; // 0 for a free slot
    std::uint32_t size; // as requested
    std::uint64_t when; // seconds of the wall clock
    call_chain trace;
};

// Zeroed memory is an empty table.
struct block_table {
    block_record records[kSlots]; // first: libcommon_inspect.h takes the table for an array of records

    // The slot of a block; -1 if there is none. `count` is the number of blocks in the table.
    int find(std::uintptr_t ptr, unsigned count) const;
    // A slot for one more block; -1 if all are in use.
    int free_slot(unsigned count) const;

    void enter(unsigned slot, std::uintptr_t ptr, std::uint32_t size, std::uint64_t when, const call_chain &trace);
    void remove(unsigned slot);

    // Builds the index again from the records: in a forked child, whose parent's thread was in the middle of a write.
    // Returns the number of blocks.
    unsigned rebuild();

private:
    static constexpr unsigned kWordBits = 64;
    static constexpr unsigned kWords = kSlots / kWordBits;

    std::uint32_t head[kSlots];                          // by hash: a slot plus one; 0 for none
    std::uint32_t next[kSlots];                          // by slot: the next one of its chain, plus one
    std::uint64_t used[kWords];                          // a bit for each slot
    std::uint64_t without_free_slot[kWords / kWordBits]; // a bit for each word of `used`

    void add_to_index(unsigned slot);
};

} // namespace qv::live_blocks

#endif
