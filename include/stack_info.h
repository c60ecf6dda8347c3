/* SPDX-License-Identifier: Apache-2.0 */
/* stack_info.h - ranges of stacks, from the kernel's mapping list.
 *
 * qv_record_process_info() notes once, at start-up, where the main thread's stack lies (install_sighandler() calls it).
 * The two range readers can be called at any time, also in a signal handler:
 *
 *     unsigned long start, end;
 *     if (qv_get_thread_stack_info((unsigned long)&start, &start, &end) == 0) { ... }
 */
#ifndef LIBCOMMON_STACK_INFO_H
#define LIBCOMMON_STACK_INFO_H

#include "libcommon_api.h"

#include <stdint.h>

QV_BEGIN_DECLS

/** The main thread's stack mapping, end exclusive; 0 until recorded. */
extern QV_API uint64_t g_process_stack_start;
extern QV_API uint64_t g_process_stack_end;

/** The first number of the main thread's status line that points into that mapping, and its field number from 1. */
extern QV_API uint64_t g_process_stack_cur;
extern QV_API uint32_t g_process_stack_cur_index;

/* ---- usable in a signal handler ---- */

/**
 * Finds the main stack, the mapping marked "[stack]", as the calling thread sees it.
 * @param start  receives its first address
 * @param end    receives the first address after it
 * @return 0, or -1 when the mapping list cannot be opened (reported on standard output). 0 with both outputs left alone
 *         means that there is no such mapping: set them before the call. A line of the list that has more than 1,024
 *         bytes, newline included, ends the reading, so a path that long hides all mappings at higher addresses.
 */
QV_API int qv_get_stack_info(unsigned long *start, unsigned long *end) QV_SIGNAL_SAFE;

/**
 * Finds the first private read-write mapping that contains an address: a thread's stack for an address on it.
 * Parameters and results as for qv_get_stack_info().
 */
QV_API int qv_get_thread_stack_info(unsigned long addr, unsigned long *start, unsigned long *end) QV_SIGNAL_SAFE;

/* ---- not for signal handlers ---- */

/** Fills the four variables above. Does nothing outside the main thread; call it before other threads read them. */
QV_API void qv_record_process_info(void);

QV_END_DECLS

#endif
