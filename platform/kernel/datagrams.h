// SPDX-License-Identifier: Apache-2.0
// datagrams.h - sendmsg(), recvmsg(), sendto(), recvfrom(), sendmmsg() and recvmmsg() as on the appliance's kernel.
#ifndef LIBCOMMON_PLATFORM_KERNEL_DATAGRAMS_H
#define LIBCOMMON_PLATFORM_KERNEL_DATAGRAMS_H

#include <ctime>
#include <sys/socket.h>
#include <sys/types.h>

namespace qv::vrkernel {

struct tables;

// Arguments and results are those of the system calls. Sockets other than UDP get the plain system call.
ssize_t send(tables &all, int fd, const msghdr *message, int flags);
ssize_t receive(tables &all, int fd, msghdr *message, int flags);
ssize_t send_to(tables &all, int fd, const void *data, size_t size, int flags, const sockaddr *to, socklen_t tolen);
ssize_t receive_from(tables &all, int fd, void *data, size_t size, int flags, sockaddr *from, socklen_t *fromlen);
int send_all(tables &all, int fd, mmsghdr *messages, unsigned count, int flags);
int receive_all(tables &all, int fd, mmsghdr *messages, unsigned count, int flags, timespec *timeout);

} // namespace qv::vrkernel

#endif
