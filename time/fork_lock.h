// SPDX-License-Identifier: Apache-2.0
// fork_lock.h - locks a mutex in a fork handler, where its holder may never unlock it.
//
// A mutex is locked before a fork so that the child does not start in the middle of what it protects. Its holder may be
// the forking thread itself (a signal handler forked, or a caller keeps an exported mutex) or a thread that waits for
// the child. So the handler polls instead of waiting without end.
#ifndef LIBCOMMON_TIME_FORK_LOCK_H
#define LIBCOMMON_TIME_FORK_LOCK_H

#include <ctime>
#include <pthread.h>

namespace qv::timers {

// Waits for the mutex while will_unlock(), called every 10 ms, says that its holder will unlock it.
// @return whether the mutex was locked
template <typename WillUnlock>
bool lock_for_fork(pthread_mutex_t &mutex, WillUnlock will_unlock)
{
    constexpr long kPollNanoseconds = 10'000'000;
    constexpr long kSecond = 1'000'000'000;
    do {
        // By the wall clock, as the call requires. If the clock is set meanwhile, one poll is early or late.
        timespec end;
        clock_gettime(CLOCK_REALTIME, &end);
        end.tv_nsec += kPollNanoseconds;
        end.tv_sec += end.tv_nsec / kSecond;
        end.tv_nsec %= kSecond;
        if (pthread_mutex_timedlock(&mutex, &end) == 0)
            return true;
    } while (will_unlock());
    return pthread_mutex_trylock(&mutex) == 0; // it may have been unlocked just now
}

} // namespace qv::timers

#endif
