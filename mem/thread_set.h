// SPDX-License-Identifier: Apache-2.0
// thread_set.h - a set of threads, for code that runs inside malloc().
//
// Thread-local storage cannot be used there: the first access of a thread, and the first one after a dlopen(), may call
// the loader, which allocates and waits for its locks. So all threads share one table of thread pointers. A thread
// keeps its thread pointer across a fork.
#ifndef LIBCOMMON_MEM_THREAD_SET_H
#define LIBCOMMON_MEM_THREAD_SET_H

#include "mem/pointer_hash.h"

#include <bit>
#include <cstdint>
#include <sched.h>

namespace qv::threads {

inline std::uintptr_t self()
{
    return reinterpret_cast<std::uintptr_t>(__builtin_thread_pointer());
}

// Thread pointers lie at multiples of the page, mostly of more.
inline unsigned hash_of(std::uintptr_t thread, int bits)
{
    return mem::pointer_hash(thread, bits);
}

// Every function is about the calling thread. Only the thread itself writes its entry, in a free slot of its probe
// sequence. A thread can be in the set more than once, and is removed as often. Signal-safe.
class set {
public:
    bool is_empty() const { return __atomic_load_n(&size_, __ATOMIC_SEQ_CST) == 0; }
    bool contains_self() { return !is_empty() && find(self()) != nullptr; }

    // Waits while the probe sequence is full.
    void insert_self()
    {
        __atomic_fetch_add(&size_, 1, __ATOMIC_SEQ_CST);
        for (;;) {
            std::uintptr_t *slot = find(0);
            std::uintptr_t nobody = 0;
            if (slot == nullptr)
                ::sched_yield();
            else if (__atomic_compare_exchange_n(slot, &nobody, self(), false, __ATOMIC_RELAXED, __ATOMIC_RELAXED))
                return;
        }
    }

    void remove_self()
    {
        if (std::uintptr_t *slot = find(self()); slot != nullptr)
            __atomic_store_n(slot, 0, __ATOMIC_RELAXED);
        __atomic_fetch_sub(&size_, 1, __ATOMIC_SEQ_CST);
    }

    // In a forked child, where the other threads are gone.
    void keep_only_self()
    {
        size_ = 0;
        for (std::uintptr_t &slot : slots_) {
            slot = slot == self() ? slot : 0;
            size_ += slot != 0;
        }
    }

private:
    static constexpr unsigned kSlots = 512;
    static constexpr unsigned kProbes = 32;

    std::uintptr_t *find(std::uintptr_t value)
    {
        unsigned home = hash_of(self(), std::countr_zero(kSlots));
        for (unsigned i = 0; i < kProbes; i++) {
            std::uintptr_t &slot = slots_[(home + i) % kSlots];
            if (__atomic_load_n(&slot, __ATOMIC_RELAXED) == value)
                return &slot;
        }
        return nullptr;
    }

    unsigned size_ = 0; // at least the number of entries: mostly 0, and then no slot is read
    std::uintptr_t slots_[kSlots] = {};
};

} // namespace qv::threads

#endif
