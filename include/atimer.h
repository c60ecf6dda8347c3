/* SPDX-License-Identifier: Apache-2.0 */
/* atimer.h - very many coarse one-shot timers in a cascading wheel.
 *
 * Time passes in ticks, one a second when process_atimer() drives it. A wheel has levels of 2^bits buckets each; a
 * bucket of level i covers 2^(i * bits) ticks. A timer waits in a bucket of the highest level at which it is at least
 * one bucket away, and moves to a lower level when that bucket becomes current:
 *
 *     level 1:  [ 0 ][ 1 ][ 2 ]...[ 15 ]     16 ticks a bucket      (2 levels of 4 bits)
 *                   \____ spread over
 *     level 0:  [ 0 ][ 1 ][ 2 ]...[ 15 ]     1 tick a bucket, fired when it is current
 *
 *     struct atimer_context wheel;
 *     atimer_init(&wheel, 3, 10);
 *     struct atimer *t = create_atimer(30, on_timeout, session);
 *     start_atimer(&wheel, t);
 *     for (;;) { sleep(1); process_atimer(&wheel); }
 *
 * Starting and stopping take constant time and no memory. A tick with nothing due takes a few instructions, and empty
 * buckets are skipped after a stall. A timer that fires is removed from the wheel before its callback runs; a callback
 * may start, stop or free any timer. A wheel and its timers belong to one thread. Not for signal handlers.
 *
 * A timer counts ticks, and the first tick after its start may come at once: it fires up to one tick early, and late by
 * at most the time between two calls. start_atimer() returns nothing. A refused start prints a message with
 * console_print(), and the timer's `bucket` stays null.
 */
#ifndef LIBCOMMON_ATIMER_H
#define LIBCOMMON_ATIMER_H

#include "libcommon_api.h"

#include <stdint.h>

QV_BEGIN_DECLS

struct atimer;

/** The timers that wait at one position of a level. */
typedef struct atimer_bucket {
    struct atimer *first;
    struct atimer **last; /* address of the last timer's next, or of first */
} atimer_bucket;

/** A level of the wheel: a ring of buckets. */
typedef struct atimer_level {
    struct atimer_bucket *buckets; /* `size` of them, then the level's occupancy words */
    int32_t current;               /* index of the current bucket */
    int32_t bits;
    int32_t size;
    int32_t shift;
    uint32_t mask;
} atimer_level;

/* In caller-provided memory. No function destroys a wheel: the caller frees the buckets of each level, then the
 * levels. */
typedef struct atimer_context {
    struct atimer_level *levels; /* null after a failed atimer_init() */
    int32_t nlevels;
    uint32_t total_bits;
    uint32_t tick_mask;
    uint32_t max_expire; /* expiries must be below it, both read as signed */
    uint32_t tick;
    uint32_t last_second; /* of the monotonic clock, up to which ticks have been delivered */
} atimer_context;

/** A timer. */
typedef struct atimer {
    struct atimer *next;
    struct atimer **prev;         /* address of the pointer that points at this timer */
    struct atimer_bucket *bucket; /* null while it does not run */
    uint32_t spare;
    void (*callback)(void *arg);
    void *arg;
    uint32_t expire; /* ticks from start to firing */
    uint32_t remain; /* ticks to wait after its bucket becomes current */
} atimer;

/**
 * Builds a wheel.
 * @param nlevels  levels, at least 1 for a usable wheel; nlevels * bits is at most 30
 * @param bits     log2 of the buckets of a level
 * @return 0; -1 for a null context, too many bits (reported on the console) or no memory
 */
QV_API int atimer_init(struct atimer_context *ctx, unsigned int nlevels, int bits);

/**
 * Makes a timer, which is the caller's until free_atimer().
 * @param expire    ticks from start to firing, below the wheel's max_expire; 0 counts as 1
 * @param callback  called with arg; may be null
 * @return the timer, not running; null when there is no memory
 */
QV_API struct atimer *create_atimer(unsigned int expire, void (*callback)(void *arg), void *arg);

/** Initialises a timer in caller-provided memory, which is zeroed or holds a timer, which is stopped. Null is ignored.
 */
QV_API void init_atimer(struct atimer *timer, unsigned int expire, void (*callback)(void *arg), void *arg);

/** Starts a timer. One that already runs, or whose expiry is too large, is reported on the console and unchanged. */
QV_API void start_atimer(struct atimer_context *ctx, struct atimer *timer);

/** Stops a timer; one that does not run is ignored. */
QV_API void stop_atimer(struct atimer *timer);

/** Stops a timer and starts it with another expiry. Does nothing when the wheel or the timer is null. */
QV_API void adjust_atimer(struct atimer_context *ctx, struct atimer *timer, unsigned int expire);

/** Stops a timer from create_atimer() and frees it. */
QV_API void free_atimer(struct atimer *timer);

/** Advances the wheel by one tick and fires what is due. */
QV_API void per_tick_call(struct atimer_context *ctx);

/**
 * Delivers one tick for each second that has passed on the monotonic clock.
 * @return 0 when all are delivered; negative, without a tick, when the clock is before the last delivered second
 */
QV_API int process_atimer(struct atimer_context *ctx);

QV_END_DECLS

#endif
