// SPDX-License-Identifier: Apache-2.0
// civil_time.h - the date of a time_t by Gregorian rules, in UTC, without the C library: no lock, no time zone, no
// limit.
#ifndef LIBCOMMON_LOG_CIVIL_TIME_H
#define LIBCOMMON_LOG_CIVIL_TIME_H

#include "console_print.h"

#include <ctime>

namespace qv::console {

struct civil_time {
    long year; // 64 bits: every time_t has its year
    int month; // 1 to 12
    int day;   // 1 to 31
    int hour;
    int minute;
    int second;
};

namespace detail {

inline constexpr long kSecondsPerMinute = 60;
inline constexpr long kSecondsPerHour = 3600;
inline constexpr long kSecondsPerDay = 86400;
inline constexpr long kFirstYearOfCycle = 2000; // the rules repeat every 400 years from here
inline constexpr long kDaysToCycle = 10957;     // from 1970
inline constexpr long kYearsPerCycle = 400;
inline constexpr long kDaysPerCycle = 146097;

constexpr bool is_leap_year(long year)
{
    return year % 4 == 0 && (year % 100 != 0 || year % 400 == 0);
}

// Rounds down, also below zero.
constexpr long floor_divide(long a, long b)
{
    return a / b - (a % b < 0 ? 1 : 0);
}

constexpr long floor_remainder(long a, long b)
{
    return a % b + (a % b < 0 ? b : 0);
}

} // namespace detail

// Signal-safe.
inline civil_time civil_from_time(std::time_t time)
{
    using namespace detail;
    auto second_of_day = static_cast<int>(floor_remainder(time, kSecondsPerDay));
    long days = floor_divide(time, kSecondsPerDay) - kDaysToCycle;

    long cycle = floor_divide(days, kDaysPerCycle);
    long year = kFirstYearOfCycle + cycle * kYearsPerCycle;
    long day_of_year = floor_remainder(days, kDaysPerCycle);
    for (long length; day_of_year >= (length = is_leap_year(year) ? 366 : 365); year++)
        day_of_year -= length;

    const unsigned short *days_before = __mon_yday[is_leap_year(year) ? 1 : 0];
    int month = 1;
    while (day_of_year >= days_before[month])
        month++;

    civil_time result;
    result.year = year;
    result.month = month;
    result.day = static_cast<int>(day_of_year) - days_before[month - 1] + 1;
    result.hour = second_of_day / static_cast<int>(kSecondsPerHour);
    result.minute = second_of_day / static_cast<int>(kSecondsPerMinute) % 60;
    result.second = second_of_day % static_cast<int>(kSecondsPerMinute);
    return result;
}

} // namespace qv::console

#endif
