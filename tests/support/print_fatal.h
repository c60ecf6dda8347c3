// SPDX-License-Identifier: Apache-2.0
// The fatal path of console output, called with arguments instead of their list.
#pragma once

#include "console_print.h"

#include <cstdarg>

namespace support {

inline int print_fatal(int to_console, const char *path, const char *format, ...)
{
    va_list ap;
    va_start(ap, format);
    int length = console_print_args_sigctx(to_console, path, format, ap);
    va_end(ap);
    return length;
}

} // namespace support
