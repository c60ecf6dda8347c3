/* SPDX-License-Identifier: Apache-2.0 */
/* stimer.h - one-shot timers in microseconds, sorted by expiry, for a caller's event loop.
 *
 * A context is one pointer that the caller owns: the handle of a priority queue (heap.h). A loop asks for the next
 * expiry to limit its wait, and then fires all timers that are due. Time is the monotonic clock (qv_time.h).
 *
 *     void *timers;
 *     stimer_context_init(&timers);
 *     struct stimer *t = create_stimer(&timers, 5, on_timeout, peer);
 *     start_stimer(t);
 *     for (;;) {
 *         struct timeval next;
 *         wait_until(stimer_get_next_expire(&timers, &next) == 0 ? &next : NULL);
 *         process_stimer(&timers);
 *     }
 *
 * A timer that fires is removed from the queue before its callback runs; the callback may free it or start it again. A
 * context and its timers belong to one thread. Starting and stopping cost O(log n). Failures are reported through
 * debug_trace.h at error level. Not for signal handlers.
 */
#ifndef LIBCOMMON_STIMER_H
#define LIBCOMMON_STIMER_H

#include "libcommon_api.h"

#include <sys/time.h>

QV_BEGIN_DECLS

/** A timer. */
typedef struct stimer {
    void **ctx;              /* the context that it belongs to */
    int index;               /* its heap position plus one while it runs, else 0 */
    struct timeval interval; /* from start to expiry */
    struct timeval expire;   /* set by start_stimer(); must not change while it runs */
    void (*callback)(void *arg);
    void *arg;
} stimer;

/** Makes an empty context. @param ctx  receives the context @return 0, or -1 when there is no memory */
QV_API int stimer_context_init(void **ctx);

/** Frees the queue of a context; its timers are not touched: stop or free them before. */
QV_API void stimer_context_fini(void **ctx);

/**
 * Reports when the earliest timer expires.
 * @param out  receives the monotonic time; unchanged when no timer runs
 * @return 0, or -1 when no timer runs
 */
QV_API int stimer_get_next_expire(void **ctx, struct timeval *out);

/**
 * Makes a timer, which is the caller's until free_stimer().
 * @param seconds   from start to expiry; at once when 0 or negative. For fractions of a second set the timer's
 * interval, in seconds and microseconds, before it is started
 * @param callback  called with arg when it expires; contract: a timer without one also removes the next timer from the
 *                  queue
 * @return the timer, not running; null when there is no memory
 */
QV_API struct stimer *create_stimer(void **ctx, int seconds, void (*callback)(void *arg), void *arg);

/** Initialises a timer in caller-provided memory, which must not hold a running one. expire is unchanged. */
QV_API void init_stimer(struct stimer *timer, void **ctx, int seconds, void (*callback)(void *arg), void *arg);

/** Starts a timer; one that runs already keeps its expiry and is reported. A timer without context aborts the process.
 */
QV_API void start_stimer(struct stimer *timer);

/** Stops a timer; one that does not run or has no context is ignored. */
QV_API void stop_stimer(struct stimer *timer);

/**
 * Fires every timer that is due. The clock is read once, at the start: a timer that a callback starts again normally
 * waits for the next call.
 * @return how many were removed from the queue
 */
QV_API int process_stimer(void **ctx);

/** Stops a timer from create_stimer() and frees it. */
QV_API void free_stimer(struct stimer *timer);

/** 1 when the timer runs, else 0. The spelling of the name is contract. */
QV_API int stimer_isruning(const struct stimer *timer);

/* The callbacks of the heap: whether a expires strictly before b; stores a timer's position. */
QV_API int stimer_higher_priority_func(const void *a, const void *b);
QV_API void stimer_index_func(void *timer, unsigned int position);

QV_END_DECLS

#endif
