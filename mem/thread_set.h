// SPDX-License-Identifier: Apache-2.0
// thread_set.h - which threads are in some state, for code that runs inside malloc().
//
// Thread-local storage cannot hold such a state here. The first access of a thread, and one after any dlopen(), may
// call the loader, which allocates and waits for its locks. So a thread is named by its thread pointer, which it keeps
// across a fork, in a table that all threads share.
#ifndef LIBCOMMON_MEM_THREAD_SET_H
#define LIBCOMMON_MEM_THREAD_SET_H

#include <bit>
#include <cstdint>
#include <sched.h>

namespace threads {

inline std::uintptr_t self()
{
    return reinterpret_cast<std::uintptr_t>(__builtin_thread_pointer());
}

// The top bits of a product with an odd constant: thread pointers lie at multiples of the page, mostly of more.
inline unsigned hash_of(std::uintptr_t thread, int bits)
{
    return static_cast<unsigned>(thread * 0x9E3779B97F4A7C15 >> (64 - bits));
}

// Every function concerns the calling thread. An entry is written by its thread alone, in a free slot of its probe
// sequence. A thread may be in the set more than once and then leaves as often. Signal-safe.
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
        if (std::uintptr_t *slot = find(self()))
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

    unsigned size_ = 0; // at least the number of entries; 0 answers most questions
    std::uintptr_t slots_[kSlots] = {};
};

} // namespace threads

#endif
