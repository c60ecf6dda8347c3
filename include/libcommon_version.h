/* SPDX-License-Identifier: Apache-2.0 */
/* libcommon_version.h - the version of the headers, for the preprocessor. */
#ifndef LIBCOMMON_VERSION_H
#define LIBCOMMON_VERSION_H

/** The version by its numbers, and as text. See docs/versioning.md for what each number means. */
#define LIBCOMMON_VERSION_MAJOR 1
#define LIBCOMMON_VERSION_MINOR 0
#define LIBCOMMON_VERSION_PATCH 0
#define LIBCOMMON_VERSION "1.0.0"

#endif
