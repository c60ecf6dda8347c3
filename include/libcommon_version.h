/* SPDX-License-Identifier: Apache-2.0 */
/* libcommon_version.h - the version of the headers, and that of the library which the process has loaded.
 *
 *     if (strcmp(libcommon_version(), LIBCOMMON_VERSION) != 0)
 *         console_print("built with %s, runs with %s\n", LIBCOMMON_VERSION, libcommon_version());
 */
#ifndef LIBCOMMON_VERSION_H
#define LIBCOMMON_VERSION_H

#include "libcommon_api.h"

/* The version of the headers, as numbers and as text. */
#define LIBCOMMON_VERSION_MAJOR 1
#define LIBCOMMON_VERSION_MINOR 0
#define LIBCOMMON_VERSION_PATCH 0
#define LIBCOMMON_VERSION "1.0.0"

/* The version as one number, for comparisons by the preprocessor: LIBCOMMON_VERSION_NUMBER >= 10200 is 1.2.0 or later.
 */
#define LIBCOMMON_VERSION_NUMBER                                                                                       \
    (LIBCOMMON_VERSION_MAJOR * 10000 + LIBCOMMON_VERSION_MINOR * 100 + LIBCOMMON_VERSION_PATCH)

QV_BEGIN_DECLS

/**
 * The version of the loaded library, in the form of LIBCOMMON_VERSION. Any thread may call it, and any handler.
 * @return a constant text
 */
QV_API const char *libcommon_version(void) QV_SIGNAL_SAFE;

QV_END_DECLS

#endif
