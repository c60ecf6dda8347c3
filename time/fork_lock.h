// SPDX-License-Identifier: Apache-2.0
// fork_lock.h - taking a mutex in a fork handler, where its holder may be one that never lets go.
//
// A mutex is taken before a fork so that the child does not begin in the middle of what it guards. Its holder may be
// the very thread that forks (a signal handler forked, or a caller keeps an exported mutex) or one that waits for the
// child, so the handler polls instead of waiting for good.
#ifndef LIBCOMMON_TIME_FORK_LOCK_H
#define LIBCOMMON_TIME_FORK_LOCK_H

#include <ctime>
#include <pthread.h>

namespace timers {

// Waits for the mutex while will_let_go(), asked every 10 ms, says that its holder will. Returns whether it was taken.
template <typename WillLetGo>
bool lock_for_fork(pthread_mutex_t &mutex, WillLetGo will_let_go)
{
    constexpr long kPatience = 10'000'000;
    constexpr long kSecond = 1'000'000'000;
    do {
        // By the wall clock, as the call requires; if that is set meanwhile, one look comes early or late.
        timespec end;
        clock_gettime(CLOCK_REALTIME, &end);
        end.tv_nsec += kPatience;
        end.tv_sec += end.tv_nsec / kSecond;
        end.tv_nsec %= kSecond;
        if (pthread_mutex_timedlock(&mutex, &end) == 0)
            return true;
    } while (will_let_go());
    return pthread_mutex_trylock(&mutex) == 0; // it may have been given back just now
}

} // namespace timers

#endif
