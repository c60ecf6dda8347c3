/* SPDX-License-Identifier: Apache-2.0 */
/* stimer.h - one-shot timers in microseconds, sorted by expiry, for a caller's event loop.
 *
 * A context is one pointer that the caller owns: the handle of a priority queue (heap.h). A loop asks for the next
 * expiry to size its wait, and then has all timers fired that are due. Time is the monotonic clock (qv_time.h).
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
 * A timer that fires is off the queue before its callback runs; the callback may free it or start it again. A context
 * and its timers belong to one thread. Starting and stopping cost O(log n). Failures are reported through debug_trace.h
 * at error level. Not for signal handlers.
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

/** Makes an empty context. @param ctx  the caller's cell @return 0, or -1 when there is no memory */
QV_API int stimer_context_init(void **ctx);

/** Frees the queue of a context; its timers are not touched, and must have been stopped or freed before. */
QV_API void stimer_context_fini(void **ctx);

/**
 * Reports when the earliest timer expires.
 * @param out  receives the monotonic time; left alone when no timer runs
 * @return 0, or -1 when no timer runs
 */
QV_API int stimer_get_next_expire(void **ctx, struct timeval *out);

/**
 * Makes a timer, which is the caller's until free_stimer().
 * @param seconds   from start to expiry; one that is not positive is due at once. For fractions of a second set the
 *                  timer's interval, in seconds and microseconds, before it is started
 * @param callback  called with arg when it expires; a timer without one takes the next timer off the queue with itself
 * @return the timer, not running; null when there is no memory
 */
QV_API struct stimer *create_stimer(void **ctx, int seconds, void (*callback)(void *arg), void *arg);

/** Sets up a timer in the caller's own storage, which must not hold a running one. expire is left as it was. */
QV_API void init_stimer(struct stimer *timer, void **ctx, int seconds, void (*callback)(void *arg), void *arg);

/** Starts a timer; one that runs already keeps its expiry and is reported. A timer without context aborts the process.
 */
QV_API void start_stimer(struct stimer *timer);

/** Stops a timer; one that does not run or has no context is left alone. */
QV_API void stop_stimer(struct stimer *timer);

/**
 * Fires every timer that is due, by one reading of the clock at the start: a timer that a callback starts again is
 * normally left for the next call.
 * @return how many were taken off
 */
QV_API int process_stimer(void **ctx);

/** Stops a timer from create_stimer() and frees it. */
QV_API void free_stimer(struct stimer *timer);

/** 1 when the timer runs, else 0. (The name is spelled so.) */
QV_API int stimer_isruning(const struct stimer *timer);

/* The callbacks of the heap: whether a expires strictly before b, and the position that a timer was given. */
QV_API int stimer_higher_priority_func(const void *a, const void *b);
QV_API void stimer_index_func(void *timer, unsigned int position);

QV_END_DECLS

#endif
