// SPDX-License-Identifier: Apache-2.0
// timer_input.h - operations for the timers, read from a fuzzer's bytes, and the monotonic clock that they advance.
#pragma once

#include "tests/fuzz/input.h"

#include <ctime>
#include <sys/syscall.h>
#include <unistd.h>

namespace fuzz {

inline timespec now; // of the monotonic clock

} // namespace fuzz

// The fuzzer itself reads the other clocks.
extern "C" int clock_gettime(clockid_t clock, timespec *ts)
{
    if (clock != CLOCK_MONOTONIC)
        return static_cast<int>(::syscall(SYS_clock_gettime, clock, ts));
    *ts = fuzz::now;
    return 0;
}
