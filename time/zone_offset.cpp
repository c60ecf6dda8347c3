// SPDX-License-Identifier: Apache-2.0
// The record of the local zone's offset that signal handlers read.
#include "time/zone_offset.h"

#include <atomic>

namespace qv::zone {
namespace {

struct copy {
    std::atomic<long> offset;
    std::atomic<std::time_t> until;
    std::atomic<long> next_offset;
};

constinit copy copies[2];
constinit std::atomic<unsigned long> generation = 0; // 0: nothing stored

} // namespace

bool load_offsets(offsets *out)
{
    for (;;) {
        unsigned long before = generation.load(std::memory_order_acquire);
        if (before == 0)
            return false;
        // Acquired, so that the second read of the generation comes after them.
        const copy &current = copies[before % 2];
        out->offset = current.offset.load(std::memory_order_acquire);
        out->until = current.until.load(std::memory_order_acquire);
        out->next_offset = current.next_offset.load(std::memory_order_acquire);
        if (generation.load(std::memory_order_relaxed) == before)
            return true;
    }
}

void store_offsets(const offsets &record)
{
    unsigned long next = generation.load(std::memory_order_relaxed) + 1;
    // Released: a reader of a new field also sees the generation that took the copy out of use.
    copy &unused = copies[next % 2];
    unused.offset.store(record.offset, std::memory_order_release);
    unused.until.store(record.until, std::memory_order_release);
    unused.next_offset.store(record.next_offset, std::memory_order_release);
    generation.store(next, std::memory_order_release);
}

} // namespace qv::zone
