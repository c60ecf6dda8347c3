// SPDX-License-Identifier: Apache-2.0
// The public table of months, from which dates of time stamps are computed.
#include "console_print.h"

const unsigned short __mon_yday[2][13] = {
    {0, 31, 59, 90, 120, 151, 181, 212, 243, 273, 304, 334, 365},
    {0, 31, 60, 91, 121, 152, 182, 213, 244, 274, 305, 335, 366},
};
