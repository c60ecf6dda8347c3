// SPDX-License-Identifier: Apache-2.0
// timeval.h - compares times: seconds first, then microseconds, neither normalised.
#ifndef LIBCOMMON_TIME_TIMEVAL_H
#define LIBCOMMON_TIME_TIMEVAL_H

#include <sys/time.h>

namespace qv::timers {

// Without a branch: in a heap the result is not predictable.
inline bool is_later(const timeval &a, const timeval &b)
{
    return (a.tv_sec > b.tv_sec) | ((a.tv_sec == b.tv_sec) & (a.tv_usec > b.tv_usec));
}

} // namespace qv::timers

#endif
