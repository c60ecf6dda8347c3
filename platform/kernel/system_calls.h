// SPDX-License-Identifier: Apache-2.0
// system_calls.h - the real kernel's socket calls, past the C library's functions that we stand in for.
#ifndef LIBCOMMON_PLATFORM_KERNEL_SYSTEM_CALLS_H
#define LIBCOMMON_PLATFORM_KERNEL_SYSTEM_CALLS_H

#include <sys/socket.h>
#include <sys/syscall.h>
#include <unistd.h>

namespace vrkernel::real {

inline int setsockopt(int fd, int level, int name, const void *value, socklen_t length)
{
    return static_cast<int>(::syscall(SYS_setsockopt, fd, level, name, value, length));
}

inline int getsockopt(int fd, int level, int name, void *value, socklen_t *length)
{
    return static_cast<int>(::syscall(SYS_getsockopt, fd, level, name, value, length));
}

inline int bind(int fd, const void *address, socklen_t length)
{
    return static_cast<int>(::syscall(SYS_bind, fd, address, length));
}

inline int connect(int fd, const void *address, socklen_t length)
{
    return static_cast<int>(::syscall(SYS_connect, fd, address, length));
}

inline int getsockname(int fd, void *address, socklen_t *length)
{
    return static_cast<int>(::syscall(SYS_getsockname, fd, address, length));
}

inline int getpeername(int fd, void *address, socklen_t *length)
{
    return static_cast<int>(::syscall(SYS_getpeername, fd, address, length));
}

inline ssize_t sendmsg(int fd, const msghdr *message, int flags)
{
    return ::syscall(SYS_sendmsg, fd, message, flags);
}

inline ssize_t recvmsg(int fd, msghdr *message, int flags)
{
    return ::syscall(SYS_recvmsg, fd, message, flags);
}

inline int sendmmsg(int fd, mmsghdr *messages, unsigned count, int flags)
{
    return static_cast<int>(::syscall(SYS_sendmmsg, fd, messages, count, flags));
}

inline int recvmmsg(int fd, mmsghdr *messages, unsigned count, int flags, timespec *timeout)
{
    return static_cast<int>(::syscall(SYS_recvmmsg, fd, messages, count, flags, timeout));
}

inline int ioctl(int fd, unsigned long request, void *argument)
{
    return static_cast<int>(::syscall(SYS_ioctl, fd, request, argument));
}

} // namespace vrkernel::real

#endif
