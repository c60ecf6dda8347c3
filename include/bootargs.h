/* SPDX-License-Identifier: Apache-2.0 */
/* bootargs.h - switches and numbers from the kernel's command line, and output that they gate.
 *
 * A device is booted into a verbose mode by the word "qv_output" on its kernel command line; no configuration changes.
 *
 *     unsigned long reserved = qv_parse_cmdline("/proc/cmdline", "reserve");    // reserve=0x100000
 *     qv_output(2, "probing slot %d\n", slot);                                  // only when booted verbosely
 *
 * Files are read again at every call. Any thread may call any function; not for signal handlers.
 */
#ifndef LIBCOMMON_BOOTARGS_H
#define LIBCOMMON_BOOTARGS_H

#include "libcommon_api.h"

QV_BEGIN_DECLS

/**
 * The number that a key has in a command line.
 * @param path  the file, 4095 bytes of which count; a failure to open or read it is reported on standard output
 * @param key   found anywhere, also inside a word; the character after it is skipped, whatever it is, even a zero byte
 * @return the number, decimal, 0x hexadecimal or 0 octal; 0 for text that is no number or without the key or the file
 */
QV_API unsigned long qv_parse_cmdline(const char *path, const char *key);

/** Whether a text occurs anywhere in /proc/cmdline, 1023 bytes of which count: 1 or 0, also 0 when it cannot be opened.
 */
QV_API int qv_has_bootargs(const char *word);

/**
 * Prints through console_print(): levels 1, 4 and 5 always, any other only with "qv_output" in /proc/cmdline.
 * @param format  the text is cut to 1023 characters
 * @return 0 at level 1 and when nothing was printed, else console_print()'s result
 */
QV_API int qv_output(int level, const char *format, ...) QV_PRINTF(2, 3);

QV_END_DECLS

#endif
