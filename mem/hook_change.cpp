// SPDX-License-Identifier: Apache-2.0
#include "mem/hook_change.h"

#include "base/errno_guard.h"
#include "mem/thread_set.h"

#include <ctime>
#include <sched.h>
#include <sys/syscall.h>
#include <unistd.h>

namespace qv::hooks {
namespace {

// The thread that makes a change; 0 for none. One word, so that a signal handler never reads a part of it.
std::uintptr_t changer = 0;

// The threads between the handlers before and after a fork. A fork inserts itself and then reads `changer`. A change
// writes `changer` and then reads this set; when a fork is in it, the change gives way.
constinit threads::set forking;

// The rounds that a fork waits for a change. One that takes longer waits for a lock that its caller holds: it has not
// begun, and the fork continues.
constexpr int kForkPatience = 1000;

// Sequentially consistent, like `changer`: either the end of a change reads the work, or whoever stored it finds that
// the change has ended.
void (*deferred_work)() = nullptr;

void do_deferred_work()
{
    if (auto work = __atomic_load_n(&deferred_work, __ATOMIC_SEQ_CST); work != nullptr)
        work();
}

std::uintptr_t current_changer()
{
    return __atomic_load_n(&changer, __ATOMIC_SEQ_CST);
}

// Yields at first, then sleeps a millisecond by the system call: usleep() would be a cancellation point.
void pause(int round)
{
    constexpr int kYields = 20;
    if (round < kYields) {
        ::sched_yield();
        return;
    }
    base::errno_guard keep;
    timespec millisecond = {0, 1'000'000};
    ::syscall(SYS_nanosleep, &millisecond, nullptr);
}

} // namespace

bool try_begin_change()
{
    std::uintptr_t nobody = 0;
    if (!__atomic_compare_exchange_n(&changer, &nobody, threads::self(), false, __ATOMIC_SEQ_CST, __ATOMIC_SEQ_CST))
        return false;
    // Another library's fork handler may call mtrace(): a thread's own fork does not block its changes.
    if (forking.is_empty() || forking.contains_self())
        return true;
    end_change();
    return false;
}

void end_change()
{
    __atomic_store_n(&changer, 0, __ATOMIC_SEQ_CST);
}

change_scope::change_scope() : is_nested_(current_changer() == threads::self())
{
    if (is_nested_)
        return;
    for (int round = 0; !try_begin_change(); round++)
        pause(round);
}

change_scope::~change_scope()
{
    if (is_nested_)
        return;
    end_change();
    do_deferred_work();
}

void set_deferred_work(void (*work)())
{
    __atomic_store_n(&deferred_work, work, __ATOMIC_SEQ_CST);
}

void before_fork()
{
    forking.insert_self();
    for (int round = 0; round < kForkPatience; round++) {
        std::uintptr_t other = current_changer();
        if (other == 0 || other == threads::self())
            return;
        pause(round);
    }
}

void after_fork_in_parent()
{
    forking.remove_self();
    do_deferred_work();
}

void after_fork_in_child()
{
    forking.keep_only_self();
    forking.remove_self();
    if (current_changer() != threads::self())
        end_change();
}

} // namespace qv::hooks
