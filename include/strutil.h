/* SPDX-License-Identifier: Apache-2.0 */
/* strutil.h - bounded string copies and UTF-8 names.
 *
 * strlcpy(), strlcat() and strcasestr() have the names and contracts of the functions in newer C libraries; a program
 * that links this library uses these. strcasestr(haystack, needle) finds needle ignoring case; an empty needle matches
 * at once. In C++ <string.h> declares it, as two overloads.
 *
 *     char dst[16];
 *     if (strlcpy(dst, name, sizeof dst) >= sizeof dst)
 *         ...                                        // truncated
 *
 * No state; any thread; none of them allocates.
 */
#ifndef LIBCOMMON_STRUTIL_H
#define LIBCOMMON_STRUTIL_H

#include "libcommon_api.h"

#include <stddef.h>
#include <string.h>

/* C libraries that declare these functions use their own exception specification, which a redeclaration must
 * repeat. */
#if defined(__cplusplus) && defined(__GLIBC__)
#define QV_LIBC_THROW __THROW
#else
#define QV_LIBC_THROW
#endif

QV_BEGIN_DECLS

#ifndef __cplusplus
/** The first position in haystack where needle occurs, ignoring case; haystack for an empty needle; null when absent.
 */
QV_API char *strcasestr(const char *haystack, const char *needle);
#endif

/**
 * Copies at most size - 1 bytes of src and ends dst with a zero; with size 0 nothing is written.
 * @return the length of src; size or more means that the copy was truncated
 */
QV_API size_t strlcpy(char *dst, const char *src, size_t size) QV_LIBC_THROW;

/**
 * Appends src to the string in dst, within size bytes in all, and ends it with a zero.
 * @return the length that the whole string would have: that of dst (size when dst has no zero within size bytes) plus
 * that of src
 */
QV_API size_t strlcat(char *dst, const char *src, size_t size) QV_LIBC_THROW;

/** The length, 1 to 6, of the UTF-8 sequence that b starts; 1 for a byte that starts none. */
QV_API int get_utf8_byte_count_by_1st_byte(unsigned char b);

/**
 * Copies a UTF-8 name; a name that does not fit is truncated after a whole character and ends in "~".
 * @param size  room in dst, terminator included; with 1 only the terminator fits, with 0 nothing is written
 * @return dst
 */
QV_API char *trim_utf8_name(char *dst, const char *src, size_t size);

QV_END_DECLS

#endif
