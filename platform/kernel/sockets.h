// SPDX-License-Identifier: Apache-2.0
// sockets.h - options and names of sockets, as the appliance's kernel would answer for them.
//
// Arguments and results are those of the system calls. Sockets that are no UDP sockets, and those that are in no VR,
// are the real kernel's.
#ifndef LIBCOMMON_PLATFORM_KERNEL_SOCKETS_H
#define LIBCOMMON_PLATFORM_KERNEL_SOCKETS_H

#include <sys/socket.h>

namespace vrkernel {

struct tables;

// The VR of a socket.
int set_option(tables &all, int fd, int level, int name, const void *value, socklen_t length);
int get_option(int fd, int level, int name, void *value, socklen_t *length);

// Lets an IPv6 socket in a VR that wants an error queue (IPV6_RECVERR) have the errors of its datagrams, which are
// IPv4's outside.
void want_errors_of_ipv4(int fd);

int bind(int fd, const sockaddr *address, socklen_t length);
int connect(tables &all, int fd, const sockaddr *address, socklen_t length);
int own_name(tables &all, int fd, sockaddr *address, socklen_t *length);  // getsockname()
int peer_name(tables &all, int fd, sockaddr *address, socklen_t *length); // getpeername()

} // namespace vrkernel

#endif
