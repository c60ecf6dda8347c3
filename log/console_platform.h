// SPDX-License-Identifier: Apache-2.0
// console_platform.h - what console output asks of the host: whether to print, and the mirror hook. Signal-safe, except
// for the host's hooks themselves.
#ifndef LIBCOMMON_LOG_CONSOLE_PLATFORM_H
#define LIBCOMMON_LOG_CONSOLE_PLATFORM_H

#include <cstdarg>

namespace qv::console {

// Whether console_print() writes to the console devices: 1 unless the host's qv_is_numa_ssm() is non-zero.
int console_wanted();

// Calls the mirror hook, if there is one, with the caller's errno.
void show_to_mirror(const char *format, va_list ap, int error);

} // namespace qv::console

#endif
