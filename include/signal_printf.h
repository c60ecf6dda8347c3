/* SPDX-License-Identifier: Apache-2.0 */
/* signal_printf.h - printf-style formatting that may run inside a fatal-signal handler.
 *
 * Allocates nothing, takes no lock, touches no stdio stream; each call works in a 1024-byte buffer on its own stack and
 * keeps no state. Text that would run past the buffer is cut between two elements of the format, with the line "Notice:
 * The buffer close to overflow!!!" if there is room for it.
 *
 *     signal_printf(fd, "pc     : %016lx \n\n", pc);
 *
 * The formats are nearly printf's. The differences are contract, because programs read crash logs:
 *   - flags are '+', ' ', '-' and '0'; width and precision are digits, never '*'
 *   - one of H, L, l (with a second l or L) makes d, i and u take a long, and so do ALL d, i and u after it in the call
 *   - o, x and X always take a long; u without a length takes an int and sign-extends it
 *   - p prints 0x and UPPER-case digits; a width pads between the two
 *   - b prints an int in base 2; h is no length; an unknown conversion prints itself
 *   - s does not accept null
 */
#ifndef LIBCOMMON_SIGNAL_PRINTF_H
#define LIBCOMMON_SIGNAL_PRINTF_H

#include "libcommon_api.h"

QV_BEGIN_DECLS

/**
 * Formats and writes the text with one write(). A short or failed write is not reported; errno is left alone.
 * @param fd   any descriptor
 * @param fmt  format as described above
 */
QV_API void signal_printf(int fd, const char *fmt, ...) QV_SIGNAL_SAFE;

/**
 * Formats into a buffer.
 * @param buf   receives at most size - 1 characters and a zero
 * @param size  room in buf, at least 1; with less nothing is written
 * @return the number of characters stored, without the zero (not the length that the whole text would have)
 */
QV_API int signal_snprintf(char *buf, int size, const char *fmt, ...) QV_SIGNAL_SAFE;

/** Whether a thread of this process is inside the library's fatal-signal handler: 1 or 0. */
QV_API int in_signal_context(void) QV_SIGNAL_SAFE;

/* The most significant digit of the last non-zero number formatted. Other modules of the system link against it. */
extern QV_API int __res;

QV_END_DECLS

#endif
