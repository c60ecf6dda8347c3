// SPDX-License-Identifier: Apache-2.0
// system_calls.h - the real kernel's socket calls, without the C library's functions that interpose.cpp replaces.
#ifndef LIBCOMMON_PLATFORM_KERNEL_SYSTEM_CALLS_H
#define LIBCOMMON_PLATFORM_KERNEL_SYSTEM_CALLS_H

#include <ctime>
#include <sys/socket.h>
#include <sys/types.h>

namespace qv::vrkernel::real {

// Looks up the C library's functions. Called once at load, because the first call may be in a signal handler.
void look_up();

// Calls that may block. They are cancellation points, so they go through the C library's own functions.
int connect(int fd, const void *address, socklen_t length);
ssize_t sendto(int fd, const void *data, size_t size, int flags, const void *address, socklen_t length);
ssize_t recvfrom(int fd, void *data, size_t size, int flags, void *address, socklen_t *length);
ssize_t sendmsg(int fd, const msghdr *message, int flags);
ssize_t recvmsg(int fd, msghdr *message, int flags);
int sendmmsg(int fd, mmsghdr *messages, unsigned count, int flags);
int recvmmsg(int fd, mmsghdr *messages, unsigned count, int flags, timespec *timeout);

// The others are plain system calls.
int setsockopt(int fd, int level, int name, const void *value, socklen_t length);
int getsockopt(int fd, int level, int name, void *value, socklen_t *length);
int bind(int fd, const void *address, socklen_t length);
int getsockname(int fd, void *address, socklen_t *length);
int getpeername(int fd, void *address, socklen_t *length);
int ioctl(int fd, unsigned long request, void *argument);

} // namespace qv::vrkernel::real

#endif
