// SPDX-License-Identifier: Apache-2.0
#include "mem/block_table.h"

#include "mem/pointer_hash.h"

#include <bit>
#include <cstring>

namespace qv::live_blocks {
namespace {

constexpr unsigned kSlotMask = kSlots - 1;
constexpr std::uint64_t kAll = ~std::uint64_t{0};

unsigned hash_of(std::uintptr_t ptr)
{
    return mem::pointer_hash(ptr, std::countr_zero(kSlots));
}

void set(std::uint64_t *bits, unsigned bit)
{
    bits[bit / 64] |= std::uint64_t{1} << (bit % 64);
}

void clear(std::uint64_t *bits, unsigned bit)
{
    bits[bit / 64] &= ~(std::uint64_t{1} << (bit % 64));
}

// The first clear bit of a word from `from` on; 64 when there is none.
unsigned first_clear(std::uint64_t word, unsigned from)
{
    return static_cast<unsigned>(std::countr_one(word | ((std::uint64_t{1} << from) - 1)));
}

} // namespace

int block_table::find(std::uintptr_t ptr, unsigned count) const
{
    int found = -1;
    unsigned least = kSlots;
    for (std::uint32_t link = head[hash_of(ptr)]; link != 0; link = next[link - 1]) {
        unsigned slot = link - 1;
        unsigned distance = (count - slot) & kSlotMask;
        if (records[slot].ptr == ptr && distance < least) {
            found = static_cast<int>(slot);
            least = distance;
        }
    }
    return found;
}

int block_table::free_slot(unsigned count) const
{
    unsigned start = count & kSlotMask;
    unsigned word = start / kWordBits;
    if (unsigned bit = first_clear(used[word], start % kWordBits); bit < kWordBits)
        return static_cast<int>(word * kWordBits + bit);
    // The words after it, wrapping around to itself, by their summary bits.
    constexpr unsigned kSummaries = kWords / kWordBits;
    unsigned from = (word + 1) % kWords;
    for (unsigned i = 0; i <= kSummaries; i++) {
        unsigned summary = (from / kWordBits + i) % kSummaries;
        unsigned bit = first_clear(without_free_slot[summary], i == 0 ? from % kWordBits : 0);
        if (bit == kWordBits)
            continue;
        unsigned open = summary * kWordBits + bit;
        return static_cast<int>(open * kWordBits + first_clear(used[open], 0));
    }
    return -1;
}

// The address of a record is written last and cleared first: rebuild() relies on every record with an address.

void block_table::enter(unsigned slot, std::uintptr_t ptr, std::uint32_t size, std::uint64_t when,
                        const call_chain &trace)
{
    block_record &record = records[slot];
    record.size = size;
    record.when = when;
    record.trace = trace;
    __atomic_store_n(&record.ptr, ptr, __ATOMIC_RELEASE);
    add_to_index(slot);
}

void block_table::add_to_index(unsigned slot)
{
    std::uint32_t &list = head[hash_of(records[slot].ptr)];
    next[slot] = list;
    list = slot + 1;
    set(used, slot);
    if (used[slot / kWordBits] == kAll)
        set(without_free_slot, slot / kWordBits);
}

void block_table::remove(unsigned slot)
{
    std::uint32_t *link = &head[hash_of(records[slot].ptr)];
    while (*link != slot + 1)
        link = &next[*link - 1];
    *link = next[slot];
    records[slot].ptr = 0;
    clear(used, slot);
    clear(without_free_slot, slot / kWordBits);
}

unsigned block_table::rebuild()
{
    std::memset(head, 0, sizeof head);
    std::memset(used, 0, sizeof used);
    std::memset(without_free_slot, 0, sizeof without_free_slot);
    unsigned blocks = 0;
    for (unsigned slot = 0; slot < kSlots; slot++) {
        if (records[slot].ptr == 0)
            continue;
        add_to_index(slot);
        blocks++;
    }
    return blocks;
}

} // namespace qv::live_blocks
