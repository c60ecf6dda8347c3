// SPDX-License-Identifier: Apache-2.0
// handler_format.h - message texts inside signal handlers.
#ifndef LIBCOMMON_LOG_HANDLER_FORMAT_H
#define LIBCOMMON_LOG_HANDLER_FORMAT_H

#include <cstdarg>
#include <cstddef>

namespace qv::console {

// vsnprintf() with %m as the English description of error in every locale. The C library's own %m looks for a
// translation, which takes locks and allocates. Signal-safe if the other conversions are. ap is not changed.
int format_in_handler(char *out, std::size_t size, const char *format, va_list ap, int error);

} // namespace qv::console

#endif
