/* SPDX-License-Identifier: Apache-2.0 */
/* libcommon_api.h - what every public header of the library needs: export and linkage.
 *
 * The library is built with hidden visibility; a declaration marked QV_API is exported under its C name.
 * Functions marked QV_SIGNAL_SAFE may be called from a signal handler at any moment: they take no lock,
 * allocate nothing and leave errno as they found it unless they say otherwise.
 */
#ifndef LIBCOMMON_API_H
#define LIBCOMMON_API_H

/** Marks a declaration that the library exports. */
#define QV_API __attribute__((visibility("default")))

/* A mark for readers; the build checks the crash path's objects against a list of allowed symbols. */
#define QV_SIGNAL_SAFE

/* Lets the compiler check a printf-style call: TEXT is the position of the format, FIRST that of its first argument.
 * These formats accept %m, to which gcc objects under -Wpedantic. A source that wants both defines
 * QV_NO_PRINTF_CHECK before it includes a header of the library.
 */
#ifdef QV_NO_PRINTF_CHECK
#define QV_PRINTF(text, first)
#else
#define QV_PRINTF(text, first) __attribute__((format(printf, text, first)))
#endif

#ifdef __cplusplus
/** Enclose declarations with C linkage. */
#define QV_BEGIN_DECLS extern "C" {
#define QV_END_DECLS }
#else
#define QV_BEGIN_DECLS
#define QV_END_DECLS
#endif

#endif
