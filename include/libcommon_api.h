/* SPDX-License-Identifier: Apache-2.0 */
/* libcommon_api.h - what every public header of the library needs: export and linkage.
 *
 * The library is built with hidden visibility; a declaration marked QV_API is exported under its C name.
 * Functions marked QV_SIGNAL_SAFE may be called from a signal handler at any moment: they take no lock,
 * allocate nothing and leave errno as they found it unless they say otherwise.
 */
#ifndef LIBCOMMON_API_H
#define LIBCOMMON_API_H

#define QV_API __attribute__((visibility("default")))

/* A mark for readers; the build checks the crash path's objects against a list of allowed symbols. */
#define QV_SIGNAL_SAFE

/* Lets the compiler check a printf-style call: TEXT is the position of the format, FIRST that of its first argument.
 * For gcc %m, which these formats take, is a pedantic offence that cannot be allowed by itself; there the check is off.
 */
#ifdef __clang__
#define QV_PRINTF(text, first) __attribute__((format(printf, text, first)))
#else
#define QV_PRINTF(text, first)
#endif

#ifdef __cplusplus
#define QV_BEGIN_DECLS extern "C" {
#define QV_END_DECLS }
#else
#define QV_BEGIN_DECLS
#define QV_END_DECLS
#endif

#endif
