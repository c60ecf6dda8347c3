// SPDX-License-Identifier: Apache-2.0
// datagrams.h - sendmsg(), recvmsg() and their kin, as the appliance's kernel would do them.
#ifndef LIBCOMMON_PLATFORM_KERNEL_DATAGRAMS_H
#define LIBCOMMON_PLATFORM_KERNEL_DATAGRAMS_H

#include <ctime>
#include <span>
#include <sys/socket.h>
#include <sys/types.h>

namespace vrkernel {

struct tables;

ssize_t send(tables &all, int fd, const msghdr *message, int flags);
ssize_t receive(tables &all, int fd, msghdr *message, int flags);

// Several at a time: how many, or -1 when already the first one fails.
int send_all(tables &all, int fd, std::span<mmsghdr> messages, int flags);
int receive_all(tables &all, int fd, std::span<mmsghdr> messages, int flags, const timespec *timeout);

} // namespace vrkernel

#endif
