// SPDX-License-Identifier: Apache-2.0
// The C library's functions that the preloaded stand-in kernel replaces. Without a configuration, and for everything
// that does not concern virtual routers, they are the plain system calls.
#include "base/errno_guard.h"
#include "datagrams.h"
#include "requests.h"
#include "sockets.h"
#include "system_calls.h"
#include "tables.h"

#include <cerrno>
#include <cstdarg>
#include <cstdlib>
#include <sys/ioctl.h>

using namespace qv;
using namespace qv;

#define VRKERNEL_EXPORT extern "C" [[gnu::visibility("default")]]

extern "C" [[noreturn]] void __chk_fail(); // ends a program that overruns a buffer

namespace {

constexpr int kNoTables = 125; // exit status of a program whose tables cannot be attached

// Set once at load, before the process has threads.
vrkernel::tables *kernel = nullptr;

[[gnu::constructor]] void start()
{
    vrkernel::real::look_up();
    const char *config = std::getenv(vrkernel::kConfigVariable);
    if (config == nullptr)
        return;
    kernel = vrkernel::attach(config);
    if (kernel == nullptr)
        ::_exit(kNoTables);
}

bool is_socket(int fd)
{
    base::errno_guard keep;
    int type;
    socklen_t length = sizeof type;
    return vrkernel::real::getsockopt(fd, SOL_SOCKET, SO_TYPE, &type, &length) == 0;
}

bool sets_vr(int level, int name)
{
    return (level == IPPROTO_IP && name == vr_abi::kIpSetVr) || (level == IPPROTO_IPV6 && name == vr_abi::kIpv6SetVr);
}

bool gets_vr(int level, int name)
{
    return (level == IPPROTO_IP && name == vr_abi::kIpGetVr) || (level == IPPROTO_IPV6 && name == vr_abi::kIpv6GetVr);
}

} // namespace

VRKERNEL_EXPORT int ioctl(int fd, unsigned long request, ...) noexcept
{
    std::va_list arguments;
    va_start(arguments, request);
    void *argument = va_arg(arguments, void *);
    va_end(arguments);
    // Only on a socket is the argument known to be a pointer.
    if (kernel == nullptr || !vrkernel::is_known(request) || !is_socket(fd) || !vrkernel::is_ours(request, argument))
        return vrkernel::real::ioctl(fd, request, argument);
    int error = vrkernel::answer(*kernel, request, argument);
    if (error == 0)
        return 0;
    errno = error;
    return -1;
}

VRKERNEL_EXPORT int setsockopt(int fd, int level, int name, const void *value, socklen_t length) noexcept
{
    if (kernel != nullptr && sets_vr(level, name))
        return vrkernel::set_option(*kernel, fd, level, name, value, length);
    int result = vrkernel::real::setsockopt(fd, level, name, value, length);
    if (kernel != nullptr && result == 0 && level == IPPROTO_IPV6 && name == IPV6_RECVERR)
        vrkernel::want_errors_of_ipv4(fd);
    return result;
}

VRKERNEL_EXPORT int getsockopt(int fd, int level, int name, void *value, socklen_t *length) noexcept
{
    if (kernel == nullptr || !gets_vr(level, name))
        return vrkernel::real::getsockopt(fd, level, name, value, length);
    return vrkernel::get_option(fd, level, name, value, length);
}

VRKERNEL_EXPORT int bind(int fd, const sockaddr *address, socklen_t length) noexcept
{
    return kernel != nullptr ? vrkernel::bind(fd, address, length) : vrkernel::real::bind(fd, address, length);
}

VRKERNEL_EXPORT int connect(int fd, const sockaddr *address, socklen_t length)
{
    return kernel != nullptr ? vrkernel::connect(*kernel, fd, address, length)
                             : vrkernel::real::connect(fd, address, length);
}

VRKERNEL_EXPORT int getsockname(int fd, sockaddr *address, socklen_t *length) noexcept
{
    return kernel != nullptr ? vrkernel::own_name(*kernel, fd, address, length)
                             : vrkernel::real::getsockname(fd, address, length);
}

VRKERNEL_EXPORT int getpeername(int fd, sockaddr *address, socklen_t *length) noexcept
{
    return kernel != nullptr ? vrkernel::peer_name(*kernel, fd, address, length)
                             : vrkernel::real::getpeername(fd, address, length);
}

VRKERNEL_EXPORT ssize_t sendmsg(int fd, const msghdr *message, int flags)
{
    return kernel != nullptr ? vrkernel::send(*kernel, fd, message, flags)
                             : vrkernel::real::sendmsg(fd, message, flags);
}

VRKERNEL_EXPORT ssize_t recvmsg(int fd, msghdr *message, int flags)
{
    return kernel != nullptr ? vrkernel::receive(*kernel, fd, message, flags)
                             : vrkernel::real::recvmsg(fd, message, flags);
}

VRKERNEL_EXPORT int sendmmsg(int fd, mmsghdr *messages, unsigned count, int flags)
{
    return kernel != nullptr ? vrkernel::send_all(*kernel, fd, messages, count, flags)
                             : vrkernel::real::sendmmsg(fd, messages, count, flags);
}

VRKERNEL_EXPORT int recvmmsg(int fd, mmsghdr *messages, unsigned count, int flags, timespec *timeout)
{
    return kernel != nullptr ? vrkernel::receive_all(*kernel, fd, messages, count, flags, timeout)
                             : vrkernel::real::recvmmsg(fd, messages, count, flags, timeout);
}

VRKERNEL_EXPORT ssize_t sendto(int fd, const void *data, size_t size, int flags, const sockaddr *to, socklen_t tolen)
{
    return kernel != nullptr ? vrkernel::send_to(*kernel, fd, data, size, flags, to, tolen)
                             : vrkernel::real::sendto(fd, data, size, flags, to, tolen);
}

VRKERNEL_EXPORT ssize_t recvfrom(int fd, void *data, size_t size, int flags, sockaddr *from, socklen_t *fromlen)
{
    return kernel != nullptr ? vrkernel::receive_from(*kernel, fd, data, size, flags, from, fromlen)
                             : vrkernel::real::recvfrom(fd, data, size, flags, from, fromlen);
}

// Programs compiled with _FORTIFY_SOURCE call this instead.
VRKERNEL_EXPORT ssize_t __recvfrom_chk(int fd, void *data, size_t size, size_t room, int flags, sockaddr *from,
                                       socklen_t *fromlen)
{
    if (size > room)
        __chk_fail();
    return recvfrom(fd, data, size, flags, from, fromlen);
}
