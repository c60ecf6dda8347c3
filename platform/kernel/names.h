// SPDX-License-Identifier: Apache-2.0
// names.h - socket names (addresses with ports) of programs and of the real kernel, and the VR that a socket is in.
//
// "Inside" is what a program sees, "outside" what the real kernel sees (vr_address.h).
#ifndef LIBCOMMON_PLATFORM_KERNEL_NAMES_H
#define LIBCOMMON_PLATFORM_KERNEL_NAMES_H

#include "vr_address.h"

#include <cerrno>
#include <cstddef>
#include <sys/socket.h>

namespace qv::vrkernel {

struct tables;

inline int fail(int error)
{
    errno = error;
    return -1;
}

// The VR of a UDP socket; 0 if it has none, and for any other socket.
unsigned vr_of(int fd);
int put_in_vr(int fd, unsigned vr); // 0: no VR

// AF_INET or AF_INET6 for a UDP socket, else 0.
int udp_family(int fd);

// Whether an IPv6 socket cannot use IPv4, because of IPV6_V6ONLY or the IPv6 address that it is bound to.
bool is_ipv6_only(int fd);

struct name {
    union {
        sockaddr any;
        sockaddr_in ip;
        sockaddr_in6 ip6;
        sockaddr_storage room;
    } at{};
    socklen_t length = sizeof at;

    name() = default;
    name(const void *given, socklen_t given_length);

    static name ip4(in_addr address, in_port_t port);
    static name ip6(const in6_addr &address, in_port_t port);

    bool is_ip() const { return at.any.sa_family == AF_INET && length >= sizeof at.ip; }
    bool is_ip6() const // the scope is optional in the real kernel
    {
        return at.any.sa_family == AF_INET6 && length >= offsetof(sockaddr_in6, sin6_scope_id);
    }
    in_port_t port() const { return is_ip() ? at.ip.sin_port : is_ip6() ? at.ip6.sin6_port : in_port_t{0}; }

    // Writes the name as system calls do: cut to *to_room, which then holds the full length. 0, or -1 with errno.
    int give(void *to, socklen_t *to_room) const;
};

using name_call = int (*)(int fd, void *address, socklen_t *length);

// The VR and address that an outside address means, if it is one of a VR in the tables.
std::optional<inner> vr_behind(tables &all, const in_addr &outside);
std::optional<inner> vr_behind(tables &all, const in6_addr &outside);

// Translates an outside name to the inside one; returns the VR and address that it stood for, if any.
std::optional<inner> bring_inside(tables &all, name &n);

// The inside name of a socket (getsockname) or of its peer (getpeername), or an empty one. Preserves errno.
name inside_name(tables &all, int fd, name_call ask);

// The address of a VR that an inside name means; nothing if a VR does not have it.
std::optional<inner> inner_of(const name &inside, unsigned vr);

// Translates an inside name to the outside one; the wildcard becomes the VR's main address. False if the VR does not
// have the address. Names of other families stay: the real kernel refuses them.
bool bring_outside(name &n, unsigned vr);

// Binds a socket in a VR. 0, or -1 with errno.
int bind_outside(int fd, name inside, unsigned vr);

// Binds a socket that is about to send: the real kernel would give it a port on every address, and in a VR the port
// must be on the VR's address. If another thread binds the socket first, that is a success. VR 0: the ordinary
// wildcard.
int bind_if_unbound(tables &all, int fd, unsigned vr);

// After a disconnect the real kernel has removed the port, but keeps the address that bind_if_unbound() gave. Removes
// the address too, so that the socket can be put into another VR.
void forget_main_address(tables &all, int fd);

} // namespace qv::vrkernel

#endif
