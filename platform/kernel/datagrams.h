// SPDX-License-Identifier: Apache-2.0
// datagrams.h - sendmsg() and recvmsg(), as the appliance's kernel would do them.
#ifndef LIBCOMMON_PLATFORM_KERNEL_DATAGRAMS_H
#define LIBCOMMON_PLATFORM_KERNEL_DATAGRAMS_H

#include <sys/socket.h>
#include <sys/types.h>

namespace vrkernel {

struct tables;

ssize_t send(tables &all, int fd, const msghdr *message, int flags);
ssize_t receive(tables &all, int fd, msghdr *message, int flags);

} // namespace vrkernel

#endif
