// SPDX-License-Identifier: Apache-2.0
// hook_change.h - which thread may exchange the installed hooks, and when.
//
// mtrace(), muntrace(), the functions that start and stop full tracing, and a toggle by SIGUSR2 are changes. One thread
// at a time makes a change. A fork waits for the end of a change, and no change begins while the fork handlers of the
// other libraries run: so no child begins in the middle of a change. Allocations do not check any of this.
// Lock order: the change, the trace file's lock, `mutex`.
#ifndef LIBCOMMON_MEM_HOOK_CHANGE_H
#define LIBCOMMON_MEM_HOOK_CHANGE_H

namespace qv::hooks {

// A change. Waits for another thread's change, and for forks. Inside another scope of the same thread it does nothing.
// Its end does the deferred work.
class change_scope {
public:
    change_scope();
    ~change_scope();
    change_scope(const change_scope &) = delete;
    change_scope &operator=(const change_scope &) = delete;

private:
    bool is_nested_;
};

// The same for a signal handler: never waits, not even for the thread that it interrupted. After true, the caller calls
// end_change() and checks itself for work that was deferred meanwhile.
bool try_begin_change();
void end_change();

// Sets what the end of each change and of each fork calls. A signal handler that cannot make its change at once sets it
// before it records its request. Signal-safe.
void set_deferred_work(void (*work)());

void before_fork();
void after_fork_in_parent();
void after_fork_in_child();

} // namespace qv::hooks

#endif
