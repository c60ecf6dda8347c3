// SPDX-License-Identifier: Apache-2.0
// The record of the local zone's offset that signal handlers read.
#include "time/zone_offset.h"

#include <atomic>

namespace zone {
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
        const copy &current = copies[before % 2];
        out->offset = current.offset.load(std::memory_order_relaxed);
        out->until = current.until.load(std::memory_order_relaxed);
        out->next_offset = current.next_offset.load(std::memory_order_relaxed);
        std::atomic_thread_fence(std::memory_order_acquire);
        if (generation.load(std::memory_order_relaxed) == before)
            return true;
    }
}

void store_offsets(const offsets &record)
{
    unsigned long next = generation.load(std::memory_order_relaxed) + 1;
    copy &unused = copies[next % 2];
    // No store to the copy becomes visible before the generation that took it out of use.
    std::atomic_thread_fence(std::memory_order_release);
    unused.offset.store(record.offset, std::memory_order_relaxed);
    unused.until.store(record.until, std::memory_order_relaxed);
    unused.next_offset.store(record.next_offset, std::memory_order_relaxed);
    generation.store(next, std::memory_order_release);
}

} // namespace zone
