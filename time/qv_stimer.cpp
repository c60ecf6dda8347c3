// SPDX-License-Identifier: Apache-2.0
// Sorted one-shot timers over the imported heap.
#include "stimer.h"

#include "base/assert_fail.h"
#include "heap.h"
#include "log/trace_error.h"
#include "qv_time.h"
#include "time/timeval.h"

#include <climits>
#include <cstddef>
#include <cstdlib>

using namespace qv;

// Only where the loaded heap library has it. The second declaration makes the reference weak.
// NOLINTNEXTLINE(readability-redundant-declaration): for that
extern "C" [[gnu::weak]] decltype(__heap_new_keyed) __heap_new_keyed;

namespace {

constexpr const char *kSource = "qv_stimer";
constexpr unsigned kInitialHeapSize = 16;
constexpr unsigned kEarliest = 1; // heap position
constexpr long kMicrosecondsPerSecond = 1'000'000;

static_assert(offsetof(stimer, ctx) == 0 && offsetof(stimer, index) == 8 && offsetof(stimer, interval) == 16);
static_assert(offsetof(stimer, expire) == 32 && offsetof(stimer, callback) == 48 && offsetof(stimer, arg) == 56);
static_assert(sizeof(stimer) == 64);

constexpr heap_layout kLayout = {
    .time_offset = offsetof(stimer, expire), .position_offset = offsetof(stimer, index), .position_bias = 1};

// A heap that evaluates kLayout itself must agree with stimer_higher_priority_func() and stimer_index_func().
void *new_heap()
{
    if (__heap_new_keyed != nullptr)
        return __heap_new_keyed(stimer_higher_priority_func, stimer_index_func, kInitialHeapSize, &kLayout);
    return __heap_new(stimer_higher_priority_func, stimer_index_func, kInitialHeapSize);
}

void report(const char *text, int line = __builtin_LINE())
{
    trace::error(kSource, line, text);
}

// The sum, held at the ends of the range: intervals may be set by hand.
long add(long a, long b)
{
    long sum;
    if (!__builtin_add_overflow(a, b, &sum))
        return sum;
    return b < 0 ? LONG_MIN : LONG_MAX;
}

timeval expiry_after(const timeval &now, const timeval &interval)
{
    timeval expire = {add(now.tv_sec, interval.tv_sec), add(now.tv_usec, interval.tv_usec)};
    if (expire.tv_usec >= kMicrosecondsPerSecond) {
        expire.tv_sec = add(expire.tv_sec, 1);
        expire.tv_usec -= kMicrosecondsPerSecond;
    }
    return expire;
}

void take_off(stimer *timer)
{
    if (__heap_delete(*timer->ctx, static_cast<unsigned>(timer->index) - 1) >= 0)
        timer->index = 0;
    else
        report("Can not start stimer\n"); // contract: a failed stop has the text of a failed start
}

} // namespace

extern "C" {

int stimer_context_init(void **ctx)
{
    *ctx = new_heap();
    if (*ctx != nullptr)
        return 0;
    report("Can not intialize stimer context\n"); // contract: log readers know this spelling
    return -1;
}

void stimer_context_fini(void **ctx)
{
    if (*ctx != nullptr)
        __heap_free(*ctx);
}

int stimer_get_next_expire(void **ctx, struct timeval *out)
{
    const auto *timer = static_cast<const stimer *>(__heap_element(*ctx, 0));
    if (timer == nullptr)
        return -1;
    *out = timer->expire;
    return 0;
}

struct stimer *create_stimer(void **ctx, int seconds, void (*callback)(void *arg), void *arg)
{
    auto *timer = static_cast<stimer *>(std::malloc(sizeof(stimer)));
    if (timer == nullptr) {
        report("Can not allocate stimer\n");
        return nullptr;
    }
    *timer = {};
    init_stimer(timer, ctx, seconds, callback, arg);
    return timer;
}

void init_stimer(struct stimer *timer, void **ctx, int seconds, void (*callback)(void *arg), void *arg)
{
    timer->ctx = ctx;
    timer->index = 0;
    timer->interval = {seconds, 0};
    timer->callback = callback;
    timer->arg = arg;
}

void start_stimer(struct stimer *timer)
{
    if (timer->ctx == nullptr)
        __assert_fail("ctx", kSource, __LINE__, "start_stimer");
    if (timer->index > 0) {
        report("stimer already started\n");
        return;
    }
    timeval now;
    qv_gettimeofday(&now);
    timer->expire = expiry_after(now, timer->interval);
    if (__heap_insert(*timer->ctx, timer) < 0)
        report("Can not start stimer\n");
}

void stop_stimer(struct stimer *timer)
{
    if (timer->ctx != nullptr && timer->index > 0)
        take_off(timer);
}

int process_stimer(void **ctx)
{
    timeval now;
    qv_gettimeofday(&now);
    int count = 0;
    // The head is read again in every round: a callback may start, stop or free any timer.
    while (auto *timer = static_cast<stimer *>(__heap_element(*ctx, kEarliest))) {
        if (timers::is_later(timer->expire, now))
            break;
        if (timer->ctx != nullptr && timer->index > 0)
            take_off(timer);
        count++;
        if (timer->callback != nullptr)
            timer->callback(timer->arg);
        else
            // Contract: the timer is already stopped, so this removes the next one, whose index still says that it
            // runs. Callers depend on it.
            __heap_delete(*ctx, kEarliest);
    }
    return count;
}

void free_stimer(struct stimer *timer)
{
    stop_stimer(timer);
    std::free(timer);
}

int stimer_isruning(const struct stimer *timer)
{
    return timer->index > 0 ? 1 : 0;
}

int stimer_higher_priority_func(const void *a, const void *b)
{
    return timers::is_later(static_cast<const stimer *>(b)->expire, static_cast<const stimer *>(a)->expire) ? 1 : 0;
}

void stimer_index_func(void *timer, unsigned int position)
{
    static_cast<stimer *>(timer)->index = static_cast<int>(position + 1);
}
}
