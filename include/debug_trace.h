/* SPDX-License-Identifier: Apache-2.0 */
/* debug_trace.h - developer traces, filtered by level, to standard error and a file a day.
 *
 * A call site tests the process-wide level; when it is high enough, it prints a prefix (time, level, place, in a chosen
 * amount of detail) and then the message. Both are written to standard error and, if requested, to
 * /var/sysinfo/logs/procPID.YYYYMMDD, which is opened with the first prefix and replaced with the first of a new day.
 *
 *     QV_TRACE(QV_TRACE_WARN, "peer %s: %d retries\n", name, retries);
 *
 *     [09:00:00] Warn: src/peer.c:120: peer a: 3 retries
 *
 * All functions always return 0 and keep errno. Any thread may trace; a prefix and its message
 * from two threads may interleave between the two. A child process opens its own file with its first prefix. A pending
 * cancellation of the thread acts after the line. They use stdio: not for signal handlers.
 */
#ifndef LIBCOMMON_DEBUG_TRACE_H
#define LIBCOMMON_DEBUG_TRACE_H

#include "libcommon_api.h"

#include <stddef.h>

QV_BEGIN_DECLS

/* Levels. A message is printed when the process's level is at least the message's. */
#define QV_TRACE_FATAL 1
#define QV_TRACE_ERROR 2
#define QV_TRACE_WARN 3
#define QV_TRACE_DEBUG 4

/* Destinations, bits of __qv_debug_where. */
#define QV_TRACE_TO_FILE 1
#define QV_TRACE_TO_STDERR 2

extern QV_API int __qv_debug_where;  /* destinations; initially standard error */
extern QV_API int __qv_debug_detail; /* of the prefix: 0 none, 1 time and level, 2 and file, 3 (initially) and line */
extern QV_API int __qv_debug_level;  /* highest level printed; initially QV_TRACE_ERROR */
extern QV_API int __qv_debug_calltrace; /* for hosts: call tracing; not read here */
extern QV_API int __qv_debug_assert;    /* for hosts: assertions; not read here */
extern QV_API int __qv_print_val;       /* receives the results, so that a trace is an expression */

/* One trace. With the level off it costs the comparison; the arguments are not evaluated. */
#define QV_TRACE(level, ...)                                                                                           \
    (__qv_debug_level >= (level) ? (__qv_print_val = __qv_print_prefix((level), __FILE__, __LINE__),                   \
                                    __qv_print_val += __qv_print_msg(__VA_ARGS__))                                     \
                                 : 0)

/**
 * Prints the prefix of a message; opens, replaces or closes the trace file. A file that cannot be opened is reported
 * on standard output, and the process then traces to standard error alone until __qv_debug_where is set again.
 * @param level  0 to 4
 * @param file   source name; leading dots and slashes are left out
 * @return 0
 */
QV_API int __qv_print_prefix(int level, const char *file, int line);

/** Prints the message itself. @return 0 */
QV_API int __qv_print_msg(const char *format, ...) QV_PRINTF(1, 2);

/** Prints a message and after it a line "\t[ERRNO, TEXT]" with the errno of the moment of the call. @return 0 */
QV_API int __qv_print_pmsg(const char *format, ...) QV_PRINTF(1, 2);

/**
 * Stores the folder that contains var/sysinfo/logs. This definition stores the root; a system that keeps its logs
 * elsewhere supplies its own definition, which the dynamic linker finds first.
 * @param buf   receives the folder, empty for the root
 * @param size  room in buf, 128. A folder that fills all of it is cut to 127 characters
 * @return 0, or a negative value: no trace file then
 */
QV_API int qv_get_basedir(char *buf, size_t size);

QV_END_DECLS

#endif
