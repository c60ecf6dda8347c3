// SPDX-License-Identifier: Apache-2.0
// trace_error.h - reports of the library's families through the debug trace.
#ifndef LIBCOMMON_LOG_TRACE_ERROR_H
#define LIBCOMMON_LOG_TRACE_ERROR_H

#include "debug_trace.h"

namespace qv::trace {

// Reports at error level under a family's source name and one of its line numbers.
inline void error(const char *source, int line, const char *text)
{
    if (__qv_debug_level < QV_TRACE_ERROR)
        return;
    int result = __qv_print_prefix(QV_TRACE_ERROR, source, line);
    __qv_print_val = result + __qv_print_msg("%s", text);
}

} // namespace qv::trace

#endif
