// SPDX-License-Identifier: Apache-2.0
// Dates of time stamps, compared with the C library's.
#include "log/civil_time.h"

#include "console_print.h"
#include "support/random.h"
#include "support/support.h"

#include <climits>
#include <ctime>

using namespace qv;
using namespace support;

TEST(CivilTime, AgreesWithTheCLibraryOverAWideRange)
{
    Random64 random(42);
    std::vector<std::time_t> times = {0,      -1,        1,         86399,      86400,     -86400,
                                      -86401, 951782399, 951782400, 4107542399, 4107542400};
    for (std::size_t i = 0; i < effort(300000); i++)
        times.push_back(static_cast<std::time_t>(random()) >> (random() % 64));
    for (std::time_t t : times) {
        tm wanted;
        if (::gmtime_r(&t, &wanted) == nullptr)
            continue; // the year overflows an int
        console::civil_time got = console::civil_from_time(t);
        ASSERT_EQ(wanted.tm_year + 1900L, got.year) << t;
        ASSERT_EQ(wanted.tm_mon + 1, got.month) << t;
        ASSERT_EQ(wanted.tm_mday, got.day) << t;
        ASSERT_EQ(wanted.tm_hour, got.hour) << t;
        ASSERT_EQ(wanted.tm_min, got.minute) << t;
        ASSERT_EQ(wanted.tm_sec, got.second) << t;
    }
}

TEST(CivilTime, EveryTimeHasADate)
{
    console::civil_time last = console::civil_from_time(LONG_MAX);
    EXPECT_EQ(292277026596L, last.year);
    EXPECT_EQ(12, last.month);
    EXPECT_EQ(4, last.day);
    console::civil_time first = console::civil_from_time(LONG_MIN);
    EXPECT_EQ(-292277022657L, first.year);
    EXPECT_EQ(1, first.month);
    EXPECT_EQ(27, first.day);
}

TEST(CivilTime, TheMonthTable)
{
    const unsigned lengths[] = {31, 28, 31, 30, 31, 30, 31, 31, 30, 31, 30, 31};
    for (int leap = 0; leap < 2; leap++) {
        unsigned days = 0;
        for (int month = 0; month < 12; month++) {
            EXPECT_EQ(days, __mon_yday[leap][month]);
            days += lengths[month] + (leap == 1 && month == 1 ? 1 : 0);
        }
        EXPECT_EQ(days, __mon_yday[leap][12]);
    }
}
