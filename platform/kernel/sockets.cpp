// SPDX-License-Identifier: Apache-2.0
// Options and names of UDP sockets in virtual routers: addresses are translated on their way to and from the real
// kernel, which does the rest.
#include "sockets.h"

#include "names.h"
#include "system_calls.h"
#include "tables.h"

#include <algorithm>

namespace vrkernel {

namespace {

int tell_name(tables &all, int fd, sockaddr *to, socklen_t *room, name_call ask)
{
    name n;
    if (ask(fd, &n.at, &n.length) < 0)
        return -1;
    bring_inside(all, n);
    return n.give(to, room);
}

} // namespace

// ---- options ----

int set_option(tables &all, int fd, int level, int name, const void *value, socklen_t length)
{
    int family = udp_family(fd);
    if (family == 0 || (level == IPPROTO_IPV6 && family != AF_INET6))
        return real::setsockopt(fd, level, name, value, length);
    int id;
    if (length < sizeof id)
        return fail(EINVAL);
    if (value == nullptr)
        return fail(EFAULT);
    std::memcpy(&id, value, sizeof id);
    if (id != -1 && all.find_vr(static_cast<unsigned>(id)) == nullptr)
        return fail(ENOENT);
    unsigned vr = id != -1 ? static_cast<unsigned>(id) : 0;
    // An address, once bound, stays; and it is what keeps the VRs apart.
    if (vr != vr_of(fd) && outside_name(fd, real::getsockname).port() != 0)
        return fail(EINVAL);
    int on = 1;
    if (family == AF_INET)
        real::setsockopt(fd, IPPROTO_IP, IP_PKTINFO, &on, sizeof on);
    else
        real::setsockopt(fd, IPPROTO_IPV6, IPV6_RECVPKTINFO, &on, sizeof on);
    return put_in_vr(fd, vr);
}

int get_option(int fd, int level, int name, void *value, socklen_t *length)
{
    int family = udp_family(fd);
    if (family == 0 || (level == IPPROTO_IPV6 && family != AF_INET6))
        return real::getsockopt(fd, level, name, value, length);
    if (value == nullptr || length == nullptr)
        return fail(EFAULT);
    if (static_cast<int>(*length) < 0)
        return fail(EINVAL);
    int id = vr_of(fd) != 0 ? static_cast<int>(vr_of(fd)) : -1;
    *length = std::min<socklen_t>(*length, sizeof id);
    std::memcpy(value, &id, *length);
    return 0;
}

// ---- names ----

int bind(int fd, const sockaddr *given, socklen_t length)
{
    unsigned vr = vr_of(fd);
    if (vr == 0 || given == nullptr || length > sizeof(sockaddr_storage))
        return real::bind(fd, given, length);
    return bind_outside(fd, name(given, length), vr);
}

int connect(int fd, const sockaddr *given, socklen_t length)
{
    unsigned vr = vr_of(fd);
    if (vr == 0 || given == nullptr || length > sizeof(sockaddr_storage))
        return real::connect(fd, given, length);
    name to(given, length);
    if (to.at.any.sa_family == AF_UNSPEC) // to be connected no more
        return real::connect(fd, given, length);
    if (bind_if_unbound(fd, vr) < 0)
        return -1;
    if (!bring_outside(to, vr))
        return fail(ENETUNREACH);
    return real::connect(fd, &to.at, to.length);
}

int own_name(tables &all, int fd, sockaddr *to, socklen_t *room)
{
    return tell_name(all, fd, to, room, real::getsockname);
}

int peer_name(tables &all, int fd, sockaddr *to, socklen_t *room)
{
    return tell_name(all, fd, to, room, real::getpeername);
}

} // namespace vrkernel
