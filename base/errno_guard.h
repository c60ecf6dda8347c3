// SPDX-License-Identifier: Apache-2.0
// errno_guard.h - restores errno at the end of the scope.
#ifndef LIBCOMMON_BASE_ERRNO_GUARD_H
#define LIBCOMMON_BASE_ERRNO_GUARD_H

#include <cerrno>

namespace qv::base {

class errno_guard {
public:
    errno_guard() : saved_(errno) {}
    ~errno_guard() { errno = saved_; }
    errno_guard(const errno_guard &) = delete;
    errno_guard &operator=(const errno_guard &) = delete;

    // The value of errno when the guard was created, which the guard restores.
    int saved() const { return saved_; }

private:
    int saved_;
};

} // namespace qv::base

#endif
