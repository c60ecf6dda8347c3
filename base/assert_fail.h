// SPDX-License-Identifier: Apache-2.0
// assert_fail.h - the C library's assertion failure, declared here so that NDEBUG does not remove it.
#ifndef LIBCOMMON_BASE_ASSERT_FAIL_H
#define LIBCOMMON_BASE_ASSERT_FAIL_H

extern "C" [[noreturn]] void __assert_fail(const char *expression, const char *file, unsigned line,
                                           const char *function) noexcept;

#endif
