// SPDX-License-Identifier: Apache-2.0
// requests.h - the stand-in kernel's answers to the private requests on sockets.
#ifndef LIBCOMMON_PLATFORM_KERNEL_REQUESTS_H
#define LIBCOMMON_PLATFORM_KERNEL_REQUESTS_H

namespace vrkernel {

struct tables;

// Whether a request on a socket may be one of ours, and whether it is one with this argument: the interface requests,
// and the private channel when it names our device.
bool is_known(unsigned long request);
bool is_ours(unsigned long request, const void *argument);

// Answers it: 0 or an errno value. ENODEV: no such interface; ENOENT: no such VR or vsys; EOPNOTSUPP: no such command;
// EFAULT: nowhere to find the record.
int answer(tables &all, unsigned long request, void *argument);

} // namespace vrkernel

#endif
