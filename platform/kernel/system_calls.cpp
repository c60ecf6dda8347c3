// SPDX-License-Identifier: Apache-2.0
#include "system_calls.h"

#include <dlfcn.h>
#include <sys/syscall.h>
#include <unistd.h>

namespace qv::vrkernel::real {

namespace {

// The C library's functions of these names. Set once, before the process has threads. Null while the constructors of
// other libraries run before ours: those get the plain system call, which is no cancellation point.
struct {
    decltype(&::connect) connect;
    decltype(&::sendto) sendto;
    decltype(&::recvfrom) recvfrom;
    decltype(&::sendmsg) sendmsg;
    decltype(&::recvmsg) recvmsg;
    decltype(&::sendmmsg) sendmmsg;
    decltype(&::recvmmsg) recvmmsg;
} next;

template <typename Function>
void find(Function &function, const char *name)
{
    function = reinterpret_cast<Function>(::dlsym(RTLD_NEXT, name));
}

} // namespace

void look_up()
{
    find(next.connect, "connect");
    find(next.sendto, "sendto");
    find(next.recvfrom, "recvfrom");
    find(next.sendmsg, "sendmsg");
    find(next.recvmsg, "recvmsg");
    find(next.sendmmsg, "sendmmsg");
    find(next.recvmmsg, "recvmmsg");
}

int connect(int fd, const void *address, socklen_t length)
{
    if (next.connect != nullptr)
        return next.connect(fd, static_cast<const sockaddr *>(address), length);
    return static_cast<int>(::syscall(SYS_connect, fd, address, length));
}

ssize_t sendto(int fd, const void *data, size_t size, int flags, const void *address, socklen_t length)
{
    if (next.sendto != nullptr)
        return next.sendto(fd, data, size, flags, static_cast<const sockaddr *>(address), length);
    return ::syscall(SYS_sendto, fd, data, size, flags, address, length);
}

ssize_t recvfrom(int fd, void *data, size_t size, int flags, void *address, socklen_t *length)
{
    if (next.recvfrom != nullptr)
        return next.recvfrom(fd, data, size, flags, static_cast<sockaddr *>(address), length);
    return ::syscall(SYS_recvfrom, fd, data, size, flags, address, length);
}

ssize_t sendmsg(int fd, const msghdr *message, int flags)
{
    return next.sendmsg != nullptr ? next.sendmsg(fd, message, flags) : ::syscall(SYS_sendmsg, fd, message, flags);
}

ssize_t recvmsg(int fd, msghdr *message, int flags)
{
    return next.recvmsg != nullptr ? next.recvmsg(fd, message, flags) : ::syscall(SYS_recvmsg, fd, message, flags);
}

int sendmmsg(int fd, mmsghdr *messages, unsigned count, int flags)
{
    if (next.sendmmsg != nullptr)
        return next.sendmmsg(fd, messages, count, flags);
    return static_cast<int>(::syscall(SYS_sendmmsg, fd, messages, count, flags));
}

int recvmmsg(int fd, mmsghdr *messages, unsigned count, int flags, timespec *timeout)
{
    if (next.recvmmsg != nullptr)
        return next.recvmmsg(fd, messages, count, flags, timeout);
    return static_cast<int>(::syscall(SYS_recvmmsg, fd, messages, count, flags, timeout));
}

int setsockopt(int fd, int level, int name, const void *value, socklen_t length)
{
    return static_cast<int>(::syscall(SYS_setsockopt, fd, level, name, value, length));
}

int getsockopt(int fd, int level, int name, void *value, socklen_t *length)
{
    return static_cast<int>(::syscall(SYS_getsockopt, fd, level, name, value, length));
}

int bind(int fd, const void *address, socklen_t length)
{
    return static_cast<int>(::syscall(SYS_bind, fd, address, length));
}

int getsockname(int fd, void *address, socklen_t *length)
{
    return static_cast<int>(::syscall(SYS_getsockname, fd, address, length));
}

int getpeername(int fd, void *address, socklen_t *length)
{
    return static_cast<int>(::syscall(SYS_getpeername, fd, address, length));
}

int ioctl(int fd, unsigned long request, void *argument)
{
    return static_cast<int>(::syscall(SYS_ioctl, fd, request, argument));
}

} // namespace qv::vrkernel::real
