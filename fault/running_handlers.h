// SPDX-License-Identifier: Apache-2.0
// running_handlers.h - which threads of the process are inside the fatal-signal handler. All of it is signal-safe.
//
// One table for the process, one entry for each run of the handler. No thread-local storage: a handler's first access
// to it could allocate in a process that loaded the library by dlopen(). A run may end without leaving the table: its
// thread ends in a callback, a callback leaves by siglongjmp(), or fork() copies the table into a child without the
// other threads. So an entry counts only while its thread is alive in this process, and a handler that leaves the table
// removes the entries of runs that cannot be running any more.
#ifndef LIBCOMMON_FAULT_RUNNING_HANDLERS_H
#define LIBCOMMON_FAULT_RUNNING_HANDLERS_H

#include <cstdint>
#include <sys/types.h>
#include <ucontext.h>

namespace qv::fault {

// One run of the handler. Lies in the handler's frame: its address says which of two runs on a stack is the inner one.
class running_handler {
public:
    // Enters the table and removes those runs of this thread that a callback left.
    running_handler(int sig, const ucontext_t &interrupted);
    ~running_handler();

    running_handler(const running_handler &) = delete;
    running_handler &operator=(const running_handler &) = delete;

    // Enters the table again if another thread removed this run: a callback had unblocked the signal.
    void confirm();

    // From here on this thread counts as dying, until handlers are armed again.
    void start_dying();

    // From here on nobody waits for this run.
    void finish_log();

private:
    void enter();
    void mark(std::uint64_t bit);

    std::uint64_t word_; // as entered in the table
    int index_ = -1;     // -1 when the table was full
    bool on_signal_stack_;
};

// Whether this thread is inside a handler that has announced its death and no handler was armed since. One that a
// callback left counts too: with the handlers disarmed at the announcement, the next fault would have ended the
// process.
bool is_thread_dying();

// How often handlers were armed. Arming them ends the dying of every thread that survives it.
void count_arming();
int armings();

// How many handlers this thread is inside.
int handlers_on_thread();

// Whether another thread still writes its log.
bool is_other_log_unfinished();

// How many runs have called finish_log().
unsigned finished_logs();

// Whether any handler runs in this process.
bool is_handler_running();

// The signals that a thread of this process blocks: bit n is signal n + 1. False when that cannot be read.
bool read_blocked_signals(pid_t thread, std::uint64_t *mask);

} // namespace qv::fault

#endif
