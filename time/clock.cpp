// SPDX-License-Identifier: Apache-2.0
// Monotonic reads and the serialised calendar conversions.
#include "qv_time.h"

#include "base/cancel_guard.h"
#include "time/fork_lock.h"
#include "time/local_time.h"
#include "time/zone_offset.h"

#include <atomic>
#include <pthread.h>

using namespace qv;

namespace {

constexpr long kNanosecondsPerMicrosecond = 1000;

// ---- the mutexes and forks ----
//
// If another thread is in the C library's zone code at a fork, that code's lock stays locked in the child for ever. So
// every use of it here holds one of two mutexes, and both are locked before a fork.

pthread_mutex_t localtime_mutex = PTHREAD_MUTEX_INITIALIZER;

// Protects the zone look-ups that must not wait while a caller keeps localtime_mutex. Held for microseconds; locked
// after localtime_mutex by a thread that needs both.
pthread_mutex_t lookup_mutex = PTHREAD_MUTEX_INITIALIZER;

// A caller keeps localtime_mutex through localtime_safe_lock(), for as long as it likes.
constinit std::atomic<bool> kept = false;

// The forking thread's state, for the fork handlers. The flags are set before a section is entered and cleared after it
// is left, since a signal handler that forks may interrupt the thread anywhere.
struct thread_state {
    std::atomic<bool> converting = false; // in a section of localtime_mutex
    std::atomic<bool> looking_up = false; // in a section of lookup_mutex
    bool localtime_taken = false;         // by before_fork()
    bool lookup_taken = false;
    bool forking = false; // between the handlers before and after a fork
};

constinit thread_local thread_state self;

// Does not wait for a caller that keeps the mutex: that caller may be waiting for the child. The child gets a new
// mutex.
void before_fork()
{
    self.localtime_taken = !self.converting && timers::lock_for_fork(localtime_mutex, [] { return !kept; });
    self.lookup_taken = !self.looking_up && timers::lock_for_fork(lookup_mutex, [] { return true; });
    self.forking = true;
}

void after_fork_in_parent()
{
    self.forking = false;
    if (self.lookup_taken)
        pthread_mutex_unlock(&lookup_mutex);
    if (self.localtime_taken)
        pthread_mutex_unlock(&localtime_mutex);
}

// A section that the forking thread is inside continues in the child, which unlocks its copy.
void after_fork_in_child()
{
    self.forking = false;
    if (!self.looking_up)
        pthread_mutex_init(&lookup_mutex, nullptr);
    if (self.converting)
        return;
    kept = false;
    pthread_mutex_init(&localtime_mutex, nullptr);
}

// Registered at load: a fork before that would run without the handlers, and the child could start in the middle of
// another thread's conversion. Registered after the allocation hooks, so that it runs before theirs at a fork:
// conversions allocate.
[[gnu::constructor]] void watch_forks()
{
    pthread_atfork(before_fork, after_fork_in_parent, after_fork_in_child);
}

// Between its fork handlers a thread holds the mutexes already: fork handlers of other libraries may print.

int lock()
{
    if (self.forking)
        return 0;
    self.converting = true;
    return pthread_mutex_lock(&localtime_mutex);
}

int unlock()
{
    if (self.forking)
        return 0;
    int result = pthread_mutex_unlock(&localtime_mutex);
    self.converting = false;
    return result;
}

// Internal, because a call of an exported function uses its linkage table entry. A clock that fails reads as 0.
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

// Zone code opens files, which are cancellation points: no thread may end with a mutex locked.
template <typename Convert>
auto converted(Convert convert)
{
    base::cancel_guard whole;
    lock();
    auto result = convert();
    unlock();
    return result;
}

template <typename LookUp>
auto looked_up(LookUp look_up)
{
    if (self.forking)
        return look_up();
    base::cancel_guard whole;
    self.looking_up = true;
    pthread_mutex_lock(&lookup_mutex);
    auto result = look_up();
    pthread_mutex_unlock(&lookup_mutex);
    self.looking_up = false;
    return result;
}

// ---- the zone's offset for signal handlers, stored with lookup_mutex held ----

long offset_at(std::time_t when, long fallback)
{
    tm date;
    return localtime_r(&when, &date) != nullptr ? date.tm_gmtoff : fallback;
}

// Searches about a year ahead for the offset's next change. Without one, the end of the search counts as a change to
// the same offset.
zone::offsets look_ahead(std::time_t now, long offset)
{
    constexpr std::time_t kStep = 30L * 86400;
    constexpr int kSteps = 13;
    std::time_t before = now, after = now;
    long next = offset;
    for (int i = 0; i < kSteps && next == offset; i++) {
        before = after;
        if (__builtin_add_overflow(after, kStep, &after))
            return {offset, now, offset};
        next = offset_at(after, offset);
    }
    if (next == offset)
        return {offset, after, offset};
    while (after - before > 1) {
        std::time_t middle = before + (after - before) / 2;
        (offset_at(middle, offset) == offset ? before : after) = middle;
    }
    return {offset, after, offset_at(after, next)};
}

bool is_known(std::time_t now, long offset)
{
    zone::offsets known;
    return zone::load_offsets(&known) && now < known.until && known.offset == offset;
}

void note_offset(std::time_t now, long offset)
{
    if (!is_known(now, offset))
        zone::store_offsets(look_ahead(now, offset));
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
    if (!self.forking)
        kept = true;
    return result;
}

int localtime_safe_unlock(void)
{
    if (!self.forking)
        kept = false;
    return unlock();
}

struct tm *localtime_safe(const time_t *t)
{
    // Not localtime(), which reads TZ again. gmtime() returns the record that the two share.
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
    return looked_up([&] {
        tzset();
        return time(t);
    });
}

} // extern "C"

bool local_time::convert_for_log(std::time_t now, tm *out)
{
    if (qv_localtime_r(&now, out) == nullptr)
        return false;
    if (!is_known(now, out->tm_gmtoff))
        looked_up([&] {
            note_offset(now, out->tm_gmtoff);
            return 0;
        });
    return true;
}

bool local_time::convert_for_trace(std::time_t now, tm *out)
{
    return looked_up([&] {
        tzset();
        return localtime_r(&now, out) != nullptr;
    });
}

void local_time::prepare_handlers()
{
    looked_up([] {
        std::time_t now = std::time(nullptr);
        tm date;
        tzset();
        if (now != -1 && localtime_r(&now, &date) != nullptr)
            note_offset(now, date.tm_gmtoff);
        return 0;
    });
}
