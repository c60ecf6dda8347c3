// SPDX-License-Identifier: Apache-2.0
// Monotonic reads and the serialised calendar conversions.
#include "qv_time.h"

#include "base/fork_lock.h"

#include <atomic>
#include <pthread.h>

namespace {

constexpr long kNanosecondsPerMicrosecond = 1000;

// ---- the conversion mutex and forks ----

pthread_mutex_t localtime_mutex = PTHREAD_MUTEX_INITIALIZER;

// What the fork handlers know of its holders. A caller that keeps it through localtime_safe_lock() may do so for as
// long as it likes; the library's own conversions hold it for microseconds. `inside` is set for the whole of a thread's
// way in and out, since the fork may be that of a signal handler which interrupted it anywhere.
std::atomic<bool> kept;
thread_local std::atomic<bool> inside;

// Whether this thread's before_fork() took the mutex, for its counterparts.
thread_local bool taken_for_fork;

// A conversion in another thread holds the C library's own time-zone lock too, which a child could never get past: wait
// for it. A caller that keeps the mutex is not waited for, it may be waiting for the child; the child gets a fresh one.
void before_fork()
{
    taken_for_fork = false;
    if (!inside)
        taken_for_fork = base::lock_for_fork(localtime_mutex, [] { return !kept; });
}

void after_fork_in_parent()
{
    if (taken_for_fork)
        pthread_mutex_unlock(&localtime_mutex);
}

void after_fork_in_child()
{
    if (inside)
        return; // the child goes on and unlocks its copy
    kept = false;
    pthread_mutex_init(&localtime_mutex, nullptr);
}

// At load: a fork that began before the handlers were registered would run without them and could leave the child in
// the middle of another thread's conversion. After the allocation hooks', so that before a fork it comes first:
// conversions allocate.
[[gnu::constructor]] void watch_forks()
{
    pthread_atfork(before_fork, after_fork_in_parent, after_fork_in_child);
}

int lock()
{
    inside = true;
    return pthread_mutex_lock(&localtime_mutex);
}

int unlock()
{
    int result = pthread_mutex_unlock(&localtime_mutex);
    inside = false;
    return result;
}

// Within the file, since a call of an exported function goes through its table entry. A clock that fails reads 0.
inline int read_monotonic(timespec &ts)
{
    int result = clock_gettime(CLOCK_MONOTONIC, &ts);
    if (result != 0)
        ts = {0, 0};
    return result;
}

inline int read_monotonic(timeval &tv)
{
    timespec now;
    int result = read_monotonic(now);
    tv.tv_sec = now.tv_sec;
    tv.tv_usec = now.tv_nsec / kNanosecondsPerMicrosecond;
    return result;
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
    return read_monotonic(*tv);
}

int qv_gettimeofday(struct timeval *tv)
{
    return read_monotonic(*tv);
}

time_t qv_time(time_t *t)
{
    timespec now;
    read_monotonic(now);
    if (t != nullptr)
        *t = now.tv_sec;
    return now.tv_sec;
}

int timeRT(struct timespec *ts)
{
    return read_monotonic(*ts);
}

int localtime_safe_lock(void)
{
    int result = lock();
    kept = true;
    return result;
}

int localtime_safe_unlock(void)
{
    kept = false;
    return unlock();
}

struct tm *localtime_safe(const time_t *t)
{
    // Not localtime(), which looks at TZ anew in itself. gmtime() returns the record that the two share.
    return converted([&]() -> tm * {
        tm result;
        tm *shared = gmtime(t);
        if (shared == nullptr || localtime_r(t, &result) == nullptr)
            return nullptr;
        *shared = result;
        return shared;
    });
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
