// SPDX-License-Identifier: Apache-2.0
// datagrams.h - UDP sockets of the stand-in kernel: each call as the appliance's kernel would answer it.
//
// Arguments and results are those of the system calls of the same names. Sockets that are no UDP sockets, or that have
// no VR and ask for none, go straight through to the real kernel.
#ifndef LIBCOMMON_PLATFORM_KERNEL_DATAGRAMS_H
#define LIBCOMMON_PLATFORM_KERNEL_DATAGRAMS_H

#include <sys/socket.h>
#include <sys/types.h>

namespace vrkernel {

struct tables;

int set_option(tables &all, int fd, int level, int name, const void *value, socklen_t length);
int get_option(int fd, int level, int name, void *value, socklen_t *length);
int bind(int fd, const sockaddr *address, socklen_t length);
int connect(int fd, const sockaddr *address, socklen_t length);
int own_name(tables &all, int fd, sockaddr *address, socklen_t *length);
int peer_name(tables &all, int fd, sockaddr *address, socklen_t *length);
ssize_t send(tables &all, int fd, const msghdr *message, int flags);
ssize_t receive(tables &all, int fd, msghdr *message, int flags);

} // namespace vrkernel

#endif
