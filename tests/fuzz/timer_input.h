// SPDX-License-Identifier: Apache-2.0
// timer_input.h - operations for the timers out of a fuzzer's bytes, and the monotonic clock that they move.
#pragma once

#include <cstddef>
#include <cstdint>
#include <ctime>
#include <sys/syscall.h>
#include <unistd.h>

namespace fuzz {

inline timespec now; // of the monotonic clock

// Reads zeros once the bytes are used up.
class Input {
public:
    Input(const std::uint8_t *data, std::size_t size) : at_(data), end_(data + size) {}
    bool empty() const { return at_ == end_; }
    std::uint8_t byte() { return empty() ? std::uint8_t{0} : *at_++; }
    std::uint32_t word()
    {
        std::uint32_t value = 0;
        for (int i = 0; i < 4; i++)
            value = value << 8 | byte();
        return value;
    }

private:
    const std::uint8_t *at_;
    const std::uint8_t *end_;
};

} // namespace fuzz

// The fuzzer itself reads the other clocks.
extern "C" int clock_gettime(clockid_t clock, timespec *ts)
{
    if (clock != CLOCK_MONOTONIC)
        return static_cast<int>(::syscall(SYS_clock_gettime, clock, ts));
    *ts = fuzz::now;
    return 0;
}
