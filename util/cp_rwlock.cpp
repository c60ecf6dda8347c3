// SPDX-License-Identifier: Apache-2.0
// The ticketed reader-writer spin lock between processes.
#include "cp_rwlock.h"

#include "util/exported_variable.h"

#include <cstddef>
#include <cstdint>

extern "C" {
qv_cp_rwlock *rwlock = nullptr;
[[gnu::visibility("hidden"), gnu::alias("rwlock")]] extern qv_cp_rwlock *own_rwlock;
} // extern "C"

namespace {

constinit qv::exported_variable<qv_cp_rwlock *> record_variable{own_rwlock};

[[gnu::constructor]] void choose_rwlock()
{
    record_variable.choose(rwlock);
}

constexpr std::uint32_t kWriter = 1;
constexpr std::uint32_t kReader = 2;

static_assert(offsetof(qv_cp_rwlock, lock_state) == 0);
static_assert(offsetof(qv_cp_rwlock, next_ticket) == 4);
static_assert(offsetof(qv_cp_rwlock, now_serving) == 8);
static_assert(sizeof(qv_cp_rwlock) == 12);

// The __sync functions are full barriers on both sides. Where a locked instruction is such a barrier they cost no more
// than it; an __atomic operation with a separate fence would pay twice.
std::uint32_t fetch_add(std::uint32_t *word, std::uint32_t amount)
{
    return __sync_fetch_and_add(word, amount);
}

void subtract(std::uint32_t *word, std::uint32_t amount)
{
    __sync_fetch_and_sub(word, amount);
}

std::uint32_t load(const std::uint32_t *word)
{
    return __atomic_load_n(word, __ATOMIC_ACQUIRE);
}

qv_cp_rwlock *record_in_use()
{
    return __atomic_load_n(&*record_variable, __ATOMIC_RELAXED);
}

} // namespace

extern "C" {

void *qv_cp_rwlock_init(void *record)
{
    auto *lock = static_cast<qv_cp_rwlock *>(record);
    __atomic_store_n(&*record_variable, lock, __ATOMIC_RELAXED);
    __atomic_store_n(&lock->lock_state, 0, __ATOMIC_SEQ_CST);
    __atomic_store_n(&lock->now_serving, 0, __ATOMIC_SEQ_CST);
    __atomic_store_n(&lock->next_ticket, 0, __ATOMIC_SEQ_CST);
    return record;
}

int qv_cp_wtlock(void)
{
    qv_cp_rwlock *lock = record_in_use();
    std::uint32_t ticket = fetch_add(&lock->next_ticket, 1);

    // The signed distance keeps the order where the counters wrap.
    while (static_cast<std::int32_t>(ticket - load(&lock->now_serving)) > 0)
        ;

    // Readers that entered before the ticket was drawn leave first. The plain load before each attempt keeps the cache
    // line with them meanwhile. The record is read again in every round: qv_cp_rwlock_init() may replace it.
    for (;;) {
        std::uint32_t *state = &record_in_use()->lock_state;
        if (load(state) == 0 && __sync_bool_compare_and_swap(state, 0, kWriter))
            return 1;
    }
}

void qv_cp_wtunlock(void)
{
    qv_cp_rwlock *lock = record_in_use();
    subtract(&lock->lock_state, kWriter);
    fetch_add(&lock->now_serving, 1);
}

void qv_cp_rdlock(void)
{
    qv_cp_rwlock *lock = record_in_use();
    while (load(&lock->next_ticket) != load(&lock->now_serving))
        ;

    fetch_add(&lock->lock_state, kReader);

    // A writer may have entered between the comparison and the increment. It finishes first. A writer that draws its
    // ticket after the increment waits for this reader.
    while ((load(&lock->lock_state) & kWriter) != 0)
        ;
}

void qv_cp_rdunlock(void)
{
    subtract(&record_in_use()->lock_state, kReader);
}

} // extern "C"
