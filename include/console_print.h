/* SPDX-License-Identifier: Apache-2.0 */
/* console_print.h - the reporting path of every process: the console and a few fixed log files.
 *
 * A message is formatted once, shown to the mirror hook, written to the console devices ("/dev/console", and
 * "/dev/ttyS0" where that is not the console already) and appended to a log file. The functions differ only in where
 * they write:
 *
 *                        console            log file
 *     console_print      unless the host    /etc/consolelog
 *                        says otherwise
 *     console_print_t    yes                /etc/consolelog
 *     console_printv     yes                /etc/consolelog
 *     console_print_nb   yes                /etc/consolelog
 *     boot_print         no                 /etc/bootlog
 *     qv_clog            no                 /etc/consolelog
 *     qv_ilog            no                 /etc/ilog.txt
 *     qv_plog            no                 /flash/platform/powerlog
 *     qv_fru_mlog        no                 /etc/fru_mlog
 *
 *     console_print("link %s is down: %m\n", name);
 *
 * A message that ends in a newline gets a time stamp in the log ("2026-01-31 09:00:00 ", or "uptime 42 " while the
 * clock is in 1970); one that does not continues a line, so a line may be built from several calls. No
 * message is appended to a log file above 512 KiB until somebody truncates it; the number lost is then noted in it.
 * Text of up to 1023 characters needs no heap; above 16382 it is replaced by a notice on the console.
 *
 * All return the length of the formatted text, whether or not the writes succeeded, or -1 if there was no memory for
 * it. %m is the caller's errno, which is left as it was. Any thread may print; lines of two threads may interleave
 * between a stamp and its text, never inside one. A pending cancellation of the thread acts after the message, never
 * inside it. Inside the library's fatal-signal handler every message uses a separate path that needs no heap and no
 * lock, where %m is in English whatever the locale; outside it these functions are not for signal handlers.
 *
 * Each logged line checks whether the time zone has changed: some microseconds with TZ unset, nothing with
 * TZ=:/etc/localtime in the environment. Hosts that log much set it.
 */
#ifndef LIBCOMMON_CONSOLE_PRINT_H
#define LIBCOMMON_CONSOLE_PRINT_H

#include "libcommon_api.h"

#include <stdarg.h>

QV_BEGIN_DECLS

/** A host may define it: a result other than 0 keeps the messages of console_print() off the console. */
int qv_is_numa_ssm(void);

/** Prints to the console, unless the host's qv_is_numa_ssm() is non-zero, and to /etc/consolelog. */
QV_API int console_print(const char *format, ...) QV_PRINTF(1, 2);

/** Prints to the console and to /etc/consolelog. */
QV_API int console_print_t(const char *format, ...) QV_PRINTF(1, 2);

/** console_print_t() for an argument list, which is left untouched. */
QV_API int console_printv(const char *format, va_list ap);

/** console_print_t() under another name, for callers that ask not to be blocked. It behaves the same. */
QV_API int console_print_nb(const char *format, ...) QV_PRINTF(1, 2);

/** Print to one log file and never to the console. */
QV_API int boot_print(const char *format, ...) QV_PRINTF(1, 2);
QV_API int qv_clog(const char *format, ...) QV_PRINTF(1, 2);
QV_API int qv_ilog(const char *format, ...) QV_PRINTF(1, 2);
QV_API int qv_plog(const char *format, ...) QV_PRINTF(1, 2);
QV_API int qv_fru_mlog(const char *format, ...) QV_PRINTF(1, 2);

/**
 * Prints to the given destinations. All functions above call it.
 * @param to_console  non-zero: write to the console devices
 * @param log_path    the log file to append to, made if missing; null for none
 * @param ap          left untouched
 */
QV_API int console_print_args(int to_console, const char *log_path, const char *format, va_list ap);

/**
 * console_print_args() inside the fatal-signal handler, where console_print_args() calls it: no hook, no heap, the text
 * cut to 1024 bytes (a terminating zero among them then), the console opened non-blocking, the stamp marked "(UTC)".
 * @return the number of message bytes written, 1024 at most
 */
QV_API int console_print_args_sigctx(int to_console, const char *log_path, const char *format,
                                     va_list ap) QV_SIGNAL_SAFE;

/* ---- the mirror hook ---- */

/* Sees every message of every function above before it is written, also those for a log file only; its result is
 * ignored. A hook that prints is called again for its message. */
extern QV_API int (*mirror_func)(const char *format, va_list ap);

/** Sets the mirror hook; null removes it. @return 0 */
QV_API int console_print_mfunc_set(int (*fn)(const char *format, va_list ap));

/* ---- platform probes ---- */

/** 1 when "/sys/devices/system/xen_memory" exists (then the serial port is left alone), else 0. A 1 is remembered. */
QV_API int qv_is_aws(void) QV_SIGNAL_SAFE;

/** 1 when "/etc/pcap" exists, else 0. A 1 is remembered; a 0 is not, as the file may be made after the process starts.
 */
QV_API int qv_is_pcap_network(void) QV_SIGNAL_SAFE;

/** Always 1: the platform knows its default console without asking the kernel. */
QV_API int qv_is_support_default_console_device(void) QV_SIGNAL_SAFE;

/** 1 when the console called name ("ttyS0") is the enabled, preferred one, else 0; 0 for null. */
QV_API int is_default_console_device(const char *name) QV_SIGNAL_SAFE;

/* Days before each month and the length of the year; row 1 is for leap years. */
extern QV_API const unsigned short __mon_yday[2][13];

QV_END_DECLS

#endif
