// SPDX-License-Identifier: Apache-2.0
// Monotonic reads and the serialised calendar conversions.
#include "qv_time.h"

#include <atomic>
#include <pthread.h>

namespace {

constexpr long kNanosecondsPerMicrosecond = 1000;

// ---- the conversion mutex and forks ----

pthread_mutex_t localtime_mutex = PTHREAD_MUTEX_INITIALIZER;

// Who holds the mutex, for the fork handlers alone. Valid while held is set.
std::atomic<bool> held;
std::atomic<pthread_t> holder;

// Whether this thread's before_fork() took the mutex, for its counterparts.
thread_local bool taken_for_fork;

constexpr int kForkTries = 50;
constexpr timespec kForkPause = {0, 1'000'000};

bool held_by_this_thread()
{
    return held && pthread_equal(holder, pthread_self()) != 0;
}

// A conversion in another thread holds the C library's own time-zone lock too, which a child could never get past: wait
// for it. A thread that keeps the mutex for long is not waited for; the child gets a fresh one.
void before_fork()
{
    taken_for_fork = false;
    if (held_by_this_thread())
        return;
    for (int i = 0; i < kForkTries; i++) {
        taken_for_fork = pthread_mutex_trylock(&localtime_mutex) == 0;
        if (taken_for_fork)
            return;
        nanosleep(&kForkPause, nullptr);
    }
}

void after_fork_in_parent()
{
    if (taken_for_fork)
        pthread_mutex_unlock(&localtime_mutex);
}

void after_fork_in_child()
{
    if (held_by_this_thread())
        return; // forked between lock and unlock: the child goes on and unlocks its copy
    held = false;
    pthread_mutex_init(&localtime_mutex, nullptr);
}

void watch_forks()
{
    pthread_atfork(before_fork, after_fork_in_parent, after_fork_in_child);
}

// At first use and not at load: a process that never converts pays nothing at its forks.
pthread_once_t forks_watched = PTHREAD_ONCE_INIT;

int lock()
{
    pthread_once(&forks_watched, watch_forks);
    int result = pthread_mutex_lock(&localtime_mutex);
    if (result == 0) {
        holder = pthread_self();
        held = true;
    }
    return result;
}

int unlock()
{
    held = false;
    return pthread_mutex_unlock(&localtime_mutex);
}

template <typename Convert>
tm *converted(Convert convert)
{
    lock();
    tm *result = convert();
    unlock();
    return result;
}

} // namespace

extern "C" {

long qv_timeval_compare(const struct timeval *a, const struct timeval *b)
{
    if (a->tv_sec != b->tv_sec)
        return a->tv_sec > b->tv_sec ? 1 : -1;
    if (a->tv_usec != b->tv_usec)
        return a->tv_usec > b->tv_usec ? 1 : -1;
    return 0;
}

unsigned int get_time_second(void)
{
    return static_cast<unsigned int>(qv_time(nullptr));
}

int gettimeofday_qv(struct timeval *tv)
{
    timespec now;
    int result = timeRT(&now);
    tv->tv_sec = now.tv_sec;
    tv->tv_usec = now.tv_nsec / kNanosecondsPerMicrosecond;
    return result;
}

int qv_gettimeofday(struct timeval *tv)
{
    return gettimeofday_qv(tv);
}

time_t qv_time(time_t *t)
{
    timespec now;
    timeRT(&now);
    if (t != nullptr)
        *t = now.tv_sec;
    return now.tv_sec;
}

int timeRT(struct timespec *ts)
{
    int result = clock_gettime(CLOCK_MONOTONIC, ts);
    if (result != 0)
        *ts = {0, 0};
    return result;
}

int localtime_safe_lock(void)
{
    return lock();
}

int localtime_safe_unlock(void)
{
    return unlock();
}

struct tm *localtime_safe(const time_t *t)
{
    return converted([&] { return localtime(t); });
}

struct tm *qv_localtime(const time_t *t)
{
    return converted([&] {
        tzset();
        return localtime(t);
    });
}

struct tm *qv_localtime_r(const time_t *t, struct tm *out)
{
    return converted([&] {
        tzset();
        return localtime_r(t, out);
    });
}

time_t qv_calendar_time(time_t *t)
{
    tzset();
    return time(t);
}
}
