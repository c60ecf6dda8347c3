// SPDX-License-Identifier: Apache-2.0
// requests.h - the stand-in kernel's answers to the private requests on sockets.
#ifndef LIBCOMMON_PLATFORM_KERNEL_REQUESTS_H
#define LIBCOMMON_PLATFORM_KERNEL_REQUESTS_H

namespace qv::vrkernel {

struct tables;

// is_known(): whether the request's number is one of the appliance kernel's. is_ours(): also that a request on the
// private channel names the pseudo-device. Only then is the argument's type known.
bool is_known(unsigned long request);
bool is_ours(unsigned long request, const void *argument);

// Answers it: 0 or an errno value. ENODEV: no such interface; ENOENT: no such VR or vsys; EOPNOTSUPP: no such command;
// EINVAL: a VR of another vsys; EFAULT: no record.
int answer(tables &all, unsigned long request, void *argument);

} // namespace qv::vrkernel

#endif
