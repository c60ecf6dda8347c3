// SPDX-License-Identifier: Apache-2.0
// timeval.h - the order of times. Seconds first, then microseconds, neither normalised.
#ifndef LIBCOMMON_TIME_TIMEVAL_H
#define LIBCOMMON_TIME_TIMEVAL_H

#include <sys/time.h>

namespace timers {

// Without a branch: in a heap the outcome is as good as random.
inline bool is_later(const timeval &a, const timeval &b)
{
    return (a.tv_sec > b.tv_sec) | ((a.tv_sec == b.tv_sec) & (a.tv_usec > b.tv_usec));
}

} // namespace timers

#endif
