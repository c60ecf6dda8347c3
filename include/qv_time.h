/* SPDX-License-Identifier: Apache-2.0 */
/* qv_time.h - the clocks of the library.
 *
 * Every time-of-day and seconds function here reads the monotonic clock, never the wall clock: timers and elapsed times
 * are not affected when the date is set. Only the calendar functions (localtime_safe(), qv_localtime(),
 * qv_localtime_r(), qv_calendar_time()) return the date. All of them except localtime_safe() read the time-zone setting
 * on every call, and one mutex serialises the C library's static conversion between threads.
 *
 *     struct timeval begin, end;
 *     qv_gettimeofday(&begin);  work();  qv_gettimeofday(&end);
 *
 * Reading the time zone costs a system call or two with TZ unset and nothing with TZ=:/etc/localtime set.
 *
 * Any thread may call any function. After a fork the child can convert times whatever the parent's other
 * threads were doing in these functions, except if one was inside localtime() itself between localtime_safe_lock() and
 * localtime_safe_unlock(). The calendar functions are not for signal handlers.
 */
#ifndef LIBCOMMON_QV_TIME_H
#define LIBCOMMON_QV_TIME_H

#include "libcommon_api.h"

#include <sys/time.h>
#include <time.h>

QV_BEGIN_DECLS

/* ---- monotonic ---- */

/** 1 when a is later than b, -1 when earlier, 0 when equal: by seconds, then by microseconds, neither normalised. */
QV_API long qv_timeval_compare(const struct timeval *a, const struct timeval *b) QV_SIGNAL_SAFE;

/** Seconds of the monotonic clock, their low 32 bits; 0 when the clock cannot be read. */
QV_API unsigned int get_time_second(void) QV_SIGNAL_SAFE;

/**
 * Reads the monotonic clock in seconds and microseconds, truncated, not rounded.
 * @param tv  receives the time; both fields 0 on failure
 * @return 0, or the failing result of clock_gettime()
 */
QV_API int gettimeofday_qv(struct timeval *tv) QV_SIGNAL_SAFE;
QV_API int qv_gettimeofday(struct timeval *tv) QV_SIGNAL_SAFE; /**< another name of gettimeofday_qv() */

/**
 * Seconds of the monotonic clock; 0 when it cannot be read.
 * @param t  receives the same, or null
 */
QV_API time_t qv_time(time_t *t) QV_SIGNAL_SAFE;

/** Like gettimeofday_qv(), in nanoseconds. */
QV_API int timeRT(struct timespec *ts) QV_SIGNAL_SAFE;

/* ---- calendar ---- */

/**
 * Lock and unlock the mutex around the C library's conversion, for a caller that needs the static result of
 * localtime() over several statements. It is not recursive: in between, call localtime() itself and none of the
 * functions below.
 * @return the result of the pthread call
 */
QV_API int localtime_safe_lock(void);
QV_API int localtime_safe_unlock(void);

/** localtime() under the mutex. Its static result may change with the next call of any thread; TZ is not read
 * again. */
QV_API struct tm *localtime_safe(const time_t *t);

/** tzset() and localtime() under the mutex; null when t cannot be converted. */
QV_API struct tm *qv_localtime(const time_t *t);

/** tzset() and localtime_r() under the mutex. @param out receives the result */
QV_API struct tm *qv_localtime_r(const time_t *t, struct tm *out);

/** The wall clock, after tzset(); passes while a caller holds the mutex. @param t receives the same, or null */
QV_API time_t qv_calendar_time(time_t *t);

QV_END_DECLS

#endif
