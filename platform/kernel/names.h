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

namespace vrkernel {

struct tables;

inline int fail(int error)
{
    errno = error;
    return -1;
}

// 0 when the socket is in none, or is no UDP socket.
unsigned vr_of(int fd);
int put_in_vr(int fd, unsigned vr); // 0: in none

// AF_INET or AF_INET6; 0 for what is no UDP socket.
int udp_family(int fd);

// Whether an IPv6 socket is closed to IPv4, by its option or by the IPv6 address that it is bound to.
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
    bool is_ip6() const // the real kernel does without the scope
    {
        return at.any.sa_family == AF_INET6 && length >= offsetof(sockaddr_in6, sin6_scope_id);
    }
    in_port_t port() const { return is_ip() ? at.ip.sin_port : is_ip6() ? at.ip6.sin6_port : in_port_t{0}; }

    // Writes it as system calls do: cut to the room there is, with the whole length. 0, or -1 with errno.
    int give(void *to, socklen_t *to_room) const;
};

using name_call = int (*)(int fd, void *address, socklen_t *length);

// Which VR's address an outside one is.
std::optional<inner> vr_behind(tables &all, const in_addr &outside);
std::optional<inner> vr_behind(tables &all, const in6_addr &outside);

// Turns an outside name into what the program is to see; returns which VR's address it was, if it was one.
std::optional<inner> bring_inside(tables &all, name &n);

// The inside name of a socket (getsockname) or of its peer (getpeername); an empty one when there is none. errno stays.
name inside_name(tables &all, int fd, name_call ask);

// Which of a VR's addresses an inside name is.
std::optional<inner> inner_of(const name &inside, unsigned vr);

// Turns an inside name into the one outside; the wildcard becomes the VR's main address. False when the VR does not
// have the address. Names of other families are the real kernel's to refuse.
bool bring_outside(name &n, unsigned vr);

// Binds a socket in a VR. 0, or -1 with errno.
int bind_outside(int fd, name inside, unsigned vr);

// The real kernel would give a socket that sends a port on every address; in a VR it must be on the VR's. Two threads
// may do this at the same time: the one that comes second finds the socket bound and is content. VR 0 is none.
int bind_if_unbound(tables &all, int fd, unsigned vr);

// After a disconnect: the real kernel takes the port back, but not the address, which bind_if_unbound() gave. Without
// it the socket is as new, also for another VR.
void forget_main_address(tables &all, int fd);

} // namespace vrkernel

#endif
