// SPDX-License-Identifier: Apache-2.0
#include "names.h"

#include "base/errno_guard.h"
#include "system_calls.h"
#include "tables.h"

#include <algorithm>

using namespace qv;

namespace qv::vrkernel {

namespace {

// A socket's VR is kept in its SO_RCVLOWAT, which UDP does not use: the value lasts exactly as long as the socket,
// through dup(), fork() and exec().
constexpr int kVrMark = 0x56520000;
constexpr int kVrMarkMask = 0x7FFF0000;
constexpr int kNoMark = 1; // the value of a new socket

int socket_option(int fd, int option, int level = SOL_SOCKET)
{
    base::errno_guard keep;
    int value = 0;
    socklen_t length = sizeof value;
    return real::getsockopt(fd, level, option, &value, &length) == 0 ? value : 0;
}

// The outside name that getsockname() or getpeername() returns, or an empty one. Preserves errno.
name outside_name(int fd, name_call ask)
{
    base::errno_guard keep;
    name n;
    return ask(fd, &n.at, &n.length) == 0 ? n : name();
}

} // namespace

unsigned vr_of(int fd)
{
    int mark = socket_option(fd, SO_RCVLOWAT);
    if ((mark & kVrMarkMask) != kVrMark || udp_family(fd) == 0)
        return 0;
    return static_cast<unsigned>(mark & ~kVrMarkMask);
}

int put_in_vr(int fd, unsigned vr)
{
    int mark = vr != 0 ? kVrMark | static_cast<int>(vr) : kNoMark;
    return real::setsockopt(fd, SOL_SOCKET, SO_RCVLOWAT, &mark, sizeof mark);
}

int udp_family(int fd)
{
    if (socket_option(fd, SO_PROTOCOL) != IPPROTO_UDP || socket_option(fd, SO_TYPE) != SOCK_DGRAM)
        return 0; // a raw socket may have the same protocol
    return socket_option(fd, SO_DOMAIN);
}

bool is_ipv6_only(int fd)
{
    return socket_option(fd, IPV6_V6ONLY, IPPROTO_IPV6) != 0;
}

name name::ip4(in_addr address, in_port_t port)
{
    name n;
    n.at.ip = {.sin_family = AF_INET, .sin_port = port, .sin_addr = address, .sin_zero = {}};
    n.length = sizeof n.at.ip;
    return n;
}

name name::ip6(const in6_addr &address, in_port_t port)
{
    name n;
    n.at.ip6 = {AF_INET6, port, 0, address, 0};
    n.length = sizeof n.at.ip6;
    return n;
}

// A longer name is cut, as in the real kernel.
name::name(const void *given, socklen_t given_length) : length(std::min<socklen_t>(given_length, sizeof at))
{
    std::memcpy(&at, given, length);
}

int name::give(void *to, socklen_t *to_room) const
{
    if (to == nullptr || to_room == nullptr)
        return fail(EFAULT);
    if (static_cast<int>(*to_room) < 0)
        return fail(EINVAL);
    std::memcpy(to, &at, std::min({*to_room, length, socklen_t{sizeof at}}));
    *to_room = length;
    return 0;
}

std::optional<inner> vr_behind(tables &all, const in_addr &outside)
{
    auto a = inside_of(ntohl(outside.s_addr));
    return a && all.find_vr(a->vr) != nullptr ? a : std::nullopt;
}

std::optional<inner> vr_behind(tables &all, const in6_addr &outside)
{
    return IN6_IS_ADDR_V4MAPPED(&outside) ? vr_behind(all, mapped_part(outside)) : std::nullopt;
}

name inside_name(tables &all, int fd, name_call ask)
{
    name n = outside_name(fd, ask);
    bring_inside(all, n);
    return n;
}

std::optional<inner> inner_of(const name &n, unsigned vr)
{
    if (n.is_ip6() && !IN6_IS_ADDR_V4MAPPED(&n.at.ip6.sin6_addr)) {
        auto host = host_of(n.at.ip6.sin6_addr);
        return host ? std::optional(inner{vr, true, *host}) : std::nullopt;
    }
    if (!n.is_ip() && !n.is_ip6())
        return std::nullopt;
    auto host = host_of(n.is_ip() ? n.at.ip.sin_addr : mapped_part(n.at.ip6.sin6_addr));
    return host ? std::optional(inner{vr, false, *host}) : std::nullopt;
}

std::optional<inner> bring_inside(tables &all, name &n)
{
    std::optional<inner> a;
    if (n.is_ip() && (a = vr_behind(all, n.at.ip.sin_addr)))
        n.at.ip.sin_addr = inner_address(*a);
    else if (n.is_ip6() && (a = vr_behind(all, n.at.ip6.sin6_addr)))
        n.at.ip6.sin6_addr = inner_address6(*a);
    return a;
}

bool bring_outside(name &n, unsigned vr)
{
    if (!n.is_ip() && !n.is_ip6())
        return true;
    auto a = inner_of(n, vr);
    if (!a)
        return false;
    if (a->host == kAnyHost)
        a->host = kMainHost;
    in_addr outside = {htonl(outside_of(*a))};
    if (n.is_ip())
        n.at.ip.sin_addr = outside;
    else
        n.at.ip6.sin6_addr = mapped(outside);
    return true;
}

int bind_outside(int fd, name inside, unsigned vr)
{
    if (!bring_outside(inside, vr))
        return fail(EADDRNOTAVAIL);
    if (inside.is_ip6()) { // a mapped address needs a dual-stack socket, and the option cannot change after the bind
        int off = 0;
        real::setsockopt(fd, IPPROTO_IPV6, IPV6_V6ONLY, &off, sizeof off);
    }
    return real::bind(fd, &inside.at, inside.length);
}

int bind_if_unbound(tables &all, int fd, unsigned vr)
{
    name own = inside_name(all, fd, real::getsockname);
    if (own.port() != 0)
        return 0;
    int result = vr != 0 ? bind_outside(fd, own, vr) : real::bind(fd, &own.at, own.length);
    if (result < 0 && errno == EINVAL && outside_name(fd, real::getsockname).port() != 0)
        return 0;
    return result;
}

void forget_main_address(tables &all, int fd)
{
    base::errno_guard keep;
    name own = outside_name(fd, real::getsockname);
    auto bound = bring_inside(all, own);
    if (own.port() != 0 || !bound || bound->host != kMainHost)
        return;
    name any = own.is_ip() ? name::ip4({}, 0) : name::ip6({}, 0);
    int previous = socket_option(fd, IP_BIND_ADDRESS_NO_PORT, IPPROTO_IP), without_port = 1;
    real::setsockopt(fd, IPPROTO_IP, IP_BIND_ADDRESS_NO_PORT, &without_port, sizeof without_port);
    real::bind(fd, &any.at, any.length);
    real::setsockopt(fd, IPPROTO_IP, IP_BIND_ADDRESS_NO_PORT, &previous, sizeof previous);
}

} // namespace qv::vrkernel
