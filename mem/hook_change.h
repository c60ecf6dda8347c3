// SPDX-License-Identifier: Apache-2.0
// hook_change.h - who may exchange the sets of hooks, and when.
//
// mtrace(), muntrace(), the functions that start and stop full tracing, and a toggle by SIGUSR2 are changes: one thread
// makes one at a time. No child begins in the middle of a change: a fork waits for the end of one and keeps others from
// beginning, from before its handlers of other libraries until after them. Allocations do not ask for any of this.
// Lock order: the change, the trace file's lock, `mutex`.
#ifndef LIBCOMMON_MEM_HOOK_CHANGE_H
#define LIBCOMMON_MEM_HOOK_CHANGE_H

namespace hooks {

// A change. Waits for another thread's, and for forks. Inside another scope of the same thread it does nothing. Its end
// carries out the toggles that were requested meanwhile.
class change_scope {
public:
    change_scope();
    ~change_scope();
    change_scope(const change_scope &) = delete;
    change_scope &operator=(const change_scope &) = delete;

private:
    bool is_nested_;
};

// The same for a signal handler: does not wait, not even for the thread that it interrupted. After true, end_change().
bool try_begin_change();
void end_change();

void before_fork();
void after_fork_in_parent();
void after_fork_in_child();

} // namespace hooks

#endif
