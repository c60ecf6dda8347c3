// SPDX-License-Identifier: Apache-2.0
#include "mem/hook_change.h"

#include "base/errno_guard.h"
#include "mem/malloc_hooks.h"
#include "mem/thread_set.h"

#include <ctime>
#include <sched.h>
#include <sys/syscall.h>
#include <unistd.h>

namespace hooks {
namespace {

// The thread that makes a change; 0 for none. One word, which a signal handler finds whole at any moment.
std::uintptr_t changer = 0;

// The threads between the handlers before and after a fork. A fork enters itself and then looks for a changer; a change
// does the two in the other order and gives way.
constinit threads::set forking;

// A change that takes longer waits for a lock that its caller keeps: it has not begun, and a fork goes on.
constexpr int kForkPatience = 1000;

std::uintptr_t current_changer()
{
    return __atomic_load_n(&changer, __ATOMIC_SEQ_CST);
}

// A moment at first, then milliseconds, by the system call: usleep() would be a cancellation point.
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
    // Another library's fork handler may call mtrace(): its own fork does not keep a thread from it.
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
    trace_file::make_up_for_toggles();
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
    trace_file::make_up_for_toggles();
}

void after_fork_in_child()
{
    forking.keep_only_self();
    forking.remove_self();
    if (current_changer() != threads::self())
        end_change();
}

} // namespace hooks
