// SPDX-License-Identifier: Apache-2.0
// Options and names of UDP sockets in virtual routers: translates addresses to and from the real kernel, which does the
// rest.
#include "sockets.h"

#include "base/errno_guard.h"
#include "names.h"
#include "system_calls.h"
#include "tables.h"

#include <algorithm>

using namespace qv;

namespace qv::vrkernel {

namespace {

int give_name(tables &all, int fd, sockaddr *to, socklen_t *room, name_call ask)
{
    if (vr_of(fd) == 0)
        return ask(fd, to, room);
    name n;
    if (ask(fd, &n.at, &n.length) < 0)
        return -1;
    bring_inside(all, n);
    return n.give(to, room);
}

// bind() on an IPv4 socket also accepts the wildcard address with AF_UNSPEC.
bool is_unspecified_wildcard(int fd, const name &given)
{
    return given.at.any.sa_family == AF_UNSPEC && given.length >= sizeof given.at.ip &&
           given.at.ip.sin_addr.s_addr == htonl(INADDR_ANY) && udp_family(fd) == AF_INET;
}

} // namespace

// ---- options ----

void want_errors_of_ipv4(int fd)
{
    base::errno_guard keep;
    int wanted = 0;
    socklen_t length = sizeof wanted;
    if (vr_of(fd) != 0 && real::getsockopt(fd, IPPROTO_IPV6, IPV6_RECVERR, &wanted, &length) == 0)
        real::setsockopt(fd, IPPROTO_IP, IP_RECVERR, &wanted, sizeof wanted);
}

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
    // The bound address cannot change any more, and it is what keeps the VRs apart.
    if (vr != vr_of(fd) && inside_name(all, fd, real::getsockname).port() != 0)
        return fail(EINVAL);
    int on = 1;
    if (family == AF_INET)
        real::setsockopt(fd, IPPROTO_IP, IP_PKTINFO, &on, sizeof on);
    else
        real::setsockopt(fd, IPPROTO_IPV6, IPV6_RECVPKTINFO, &on, sizeof on);
    if (put_in_vr(fd, vr) < 0)
        return -1;
    want_errors_of_ipv4(fd);
    return 0;
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
    name inside(given, length);
    if (is_unspecified_wildcard(fd, inside))
        inside.at.any.sa_family = AF_INET;
    return bind_outside(fd, inside, vr);
}

int connect(tables &all, int fd, const sockaddr *given, socklen_t length)
{
    unsigned vr = vr_of(fd);
    if (vr == 0 || given == nullptr || length > sizeof(sockaddr_storage))
        return real::connect(fd, given, length);
    name to(given, length);
    if (to.at.any.sa_family == AF_UNSPEC) {
        int result = real::connect(fd, given, length);
        if (result == 0)
            forget_main_address(all, fd);
        return result;
    }
    if (!bring_outside(to, vr))
        return fail(ENETUNREACH);
    if (bind_if_unbound(all, fd, vr) < 0)
        return -1;
    return real::connect(fd, &to.at, to.length);
}

int own_name(tables &all, int fd, sockaddr *to, socklen_t *room)
{
    return give_name(all, fd, to, room, real::getsockname);
}

int peer_name(tables &all, int fd, sockaddr *to, socklen_t *room)
{
    return give_name(all, fd, to, room, real::getpeername);
}

} // namespace qv::vrkernel
