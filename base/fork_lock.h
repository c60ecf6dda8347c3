// SPDX-License-Identifier: Apache-2.0
// fork_lock.h - taking a mutex in a fork handler, where its holder may be one that never lets go.
//
// A mutex is taken before a fork so that the child does not begin in the middle of what it guards. Its holder may be
// the very thread that forks (a signal handler forked, or a caller keeps an exported mutex) or one that waits for the
// child, so the handler looks again now and then instead of waiting for good.
#ifndef LIBCOMMON_BASE_FORK_LOCK_H
#define LIBCOMMON_BASE_FORK_LOCK_H

#include <ctime>
#include <pthread.h>
#include <unistd.h>

namespace base {

// What hold_for_fork() found, for the handlers after the fork.
enum class fork_hold {
    taken,   // by the fork handler
    own,     // the forking thread holds it: a signal handler forks, or a caller keeps an exported mutex
    foreign, // another thread keeps it
};

namespace detail {

// The C library sets the owner after locking and clears it before unlocking. No owner for a moment means that another
// thread is in one of those gaps; none for good means that this thread is, and its signal handler forks.
class owner_watch {
public:
    explicit owner_watch(const pthread_mutex_t &watched) : owner_(&watched.__data.__owner) {}

    bool is_this_thread()
    {
        int owner = __atomic_load_n(owner_, __ATOMIC_RELAXED);
        looks_without_owner_ = owner == 0 ? looks_without_owner_ + 1 : 0;
        return owner == ::gettid() || looks_without_owner_ >= kForGood;
    }

private:
    static constexpr int kForGood = 100;
    const int *owner_;
    int looks_without_owner_ = 0;
};

} // namespace detail

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

// The same for a mutex whose holders let go unless they are the forking thread itself.
inline bool lock_for_fork(pthread_mutex_t &mutex)
{
    detail::owner_watch owner(mutex);
    return lock_for_fork(mutex, [&] { return !owner.is_this_thread(); });
}

// For a mutex that callers may keep for as long as they like: another thread is waited for only while
// is_held_briefly() says that the library holds it. With release_in_parent() or release_in_child() after the fork.
template <typename IsHeldBriefly>
fork_hold hold_for_fork(pthread_mutex_t &mutex, IsHeldBriefly is_held_briefly)
{
    detail::owner_watch owner(mutex);
    bool is_own = false;
    bool taken = lock_for_fork(mutex, [&] {
        is_own = owner.is_this_thread();
        return !is_own && is_held_briefly();
    });
    if (taken)
        return fork_hold::taken;
    return is_own ? fork_hold::own : fork_hold::foreign;
}

inline void release_in_parent(pthread_mutex_t &mutex, fork_hold hold)
{
    if (hold == fork_hold::taken)
        pthread_mutex_unlock(&mutex);
}

// A thread that holds the mutex goes on holding its copy. The copy's owner becomes the thread's new id: with the old one
// it would look like another thread when the child forks in turn.
inline void release_in_child(pthread_mutex_t &mutex, fork_hold hold)
{
    switch (hold) {
    case fork_hold::taken:
        pthread_mutex_unlock(&mutex);
        break;
    case fork_hold::own:
        if (mutex.__data.__owner != 0)
            mutex.__data.__owner = ::gettid();
        break;
    case fork_hold::foreign:
        pthread_mutex_init(&mutex, nullptr); // its holder does not exist in the child
        break;
    }
}

} // namespace base

#endif
