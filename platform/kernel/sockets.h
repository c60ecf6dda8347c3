// SPDX-License-Identifier: Apache-2.0
// sockets.h - options and names of sockets as on the appliance's kernel.
//
// Arguments and results are those of the system calls. Sockets other than UDP, and those in no VR, get the plain system
// call.
#ifndef LIBCOMMON_PLATFORM_KERNEL_SOCKETS_H
#define LIBCOMMON_PLATFORM_KERNEL_SOCKETS_H

#include <sys/socket.h>

namespace qv::vrkernel {

struct tables;

// The VR of a socket.
int set_option(tables &all, int fd, int level, int name, const void *value, socklen_t length);
int get_option(int fd, int level, int name, void *value, socklen_t *length);

// Gives an IPv6 socket in a VR that has IPV6_RECVERR set the option of IPv4 too: outside, its datagrams are IPv4.
void want_errors_of_ipv4(int fd);

int bind(int fd, const sockaddr *address, socklen_t length);
int connect(tables &all, int fd, const sockaddr *address, socklen_t length);
int own_name(tables &all, int fd, sockaddr *address, socklen_t *length);  // getsockname()
int peer_name(tables &all, int fd, sockaddr *address, socklen_t *length); // getpeername()

} // namespace qv::vrkernel

#endif
