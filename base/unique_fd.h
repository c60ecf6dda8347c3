// SPDX-License-Identifier: Apache-2.0
// unique_fd.h - owns one descriptor and closes it at the end of the scope without changing errno.
#ifndef LIBCOMMON_BASE_UNIQUE_FD_H
#define LIBCOMMON_BASE_UNIQUE_FD_H

#include "base/cancel_guard.h"
#include "base/errno_guard.h"

#include <unistd.h>
#include <utility>

namespace qv::base {

// Signal-safe, and no cancellation point: close() is one and would leave the descriptor open. A process may run with
// descriptors 0 to 2 closed, so 0 is a valid descriptor.
class unique_fd {
public:
    constexpr unique_fd() = default;
    constexpr explicit unique_fd(int fd) : fd_(fd) {}
    unique_fd(unique_fd &&other) noexcept : fd_(std::exchange(other.fd_, -1)) {}
    unique_fd &operator=(unique_fd &&other) noexcept
    {
        reset(std::exchange(other.fd_, -1));
        return *this;
    }
    ~unique_fd() { reset(); }

    void reset(int fd = -1)
    {
        if (fd_ >= 0) {
            errno_guard keep;
            cancel_guard whole;
            ::close(fd_);
        }
        fd_ = fd;
    }

    int release() { return std::exchange(fd_, -1); }
    int get() const { return fd_; }
    explicit operator bool() const { return fd_ >= 0; }

private:
    int fd_ = -1;
};

} // namespace qv::base

#endif
