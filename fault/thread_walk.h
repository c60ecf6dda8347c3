// SPDX-License-Identifier: Apache-2.0
// thread_walk.h - asks other threads for their call chains. Signal-safe.
#ifndef LIBCOMMON_FAULT_THREAD_WALK_H
#define LIBCOMMON_FAULT_THREAD_WALK_H

#include "fault/backtrace_internal.h"

#include <cstdint>
#include <ctime>
#include <sys/types.h>

namespace qv::fault {

struct thread_walk {
    unsigned long sp, pc;
    unsigned long addrs[kMaxFrames]; // the program counter first, where it is code
    unsigned long frames[kMaxFrames];
    int depth;
};

// One dump's questions to the other threads, one thread after the other. All of them together wait for answers for two
// seconds at most.
class walk_questions {
public:
    enum class answer {
        given,
        unwanted, // the host has not asked for walks
        blocked,  // the thread blocks the signal
        no_room,  // too little of its stack is left for a handler
        refused,  // the kernel queues no more signals, or the thread is gone
        none,     // it did not answer in time
        busy,     // another thread's dump asks, or an earlier one's answer is still being written
        no_time,  // the two seconds are over
    };

    walk_questions();
    ~walk_questions();
    walk_questions(const walk_questions &) = delete;
    walk_questions &operator=(const walk_questions &) = delete;

    // @param sp  the thread's stack pointer as the kernel reports it, or 0
    answer ask(pid_t thread, unsigned long sp, thread_walk *walk);

    static const char *reason(answer result);

private:
    answer await(std::uint64_t question, thread_walk *walk);

    timespec begin_ = {};
    bool is_open_ = false;
};

} // namespace qv::fault

#endif
