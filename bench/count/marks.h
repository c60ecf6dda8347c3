/* SPDX-License-Identifier: Apache-2.0 */
/* marks.h - the system call numbers by which a counted program speaks to the plug-in. No kernel has them. */
#ifndef LIBCOMMON_BENCH_COUNT_MARKS_H
#define LIBCOMMON_BENCH_COUNT_MARKS_H

enum {
    MARK_BEGIN = 0x7ff01,
    MARK_END = 0x7ff02,
    MARK_REPORT = 0x7ff03, /* writes the sum and clears it */
};

#endif
