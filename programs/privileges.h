// SPDX-License-Identifier: Apache-2.0
// privileges.h - gives up what a program that root runs does not need.
//
// Capabilities belong to threads: call these before the first thread is started.
#ifndef LIBCOMMON_PROGRAMS_PRIVILEGES_H
#define LIBCOMMON_PROGRAMS_PRIVILEGES_H

#include <grp.h>
#include <initializer_list>
#include <linux/capability.h>
#include <sys/prctl.h>
#include <sys/syscall.h>
#include <unistd.h>

namespace qv::programs {

constexpr unsigned kNobody = 65534;

/** Whether the process may use this capability. */
inline bool has_capability(int capability)
{
    __user_cap_header_struct header = {_LINUX_CAPABILITY_VERSION_3, 0};
    __user_cap_data_struct words[_LINUX_CAPABILITY_U32S_3] = {};
    return ::syscall(SYS_capget, &header, words) == 0 &&
           (words[CAP_TO_INDEX(capability)].permitted & CAP_TO_MASK(capability)) != 0;
}

/**
 * Drops all capabilities except these. Programs that it starts cannot gain any.
 * @return false with errno set when the kernel refuses; the capabilities are then unchanged
 */
inline bool keep_capabilities(std::initializer_list<int> kept)
{
    __user_cap_header_struct header = {_LINUX_CAPABILITY_VERSION_3, 0};
    __user_cap_data_struct words[_LINUX_CAPABILITY_U32S_3] = {};
    if (::prctl(PR_SET_NO_NEW_PRIVS, 1, 0, 0, 0) != 0 || ::syscall(SYS_capget, &header, words) != 0)
        return false;
    __u32 mask[_LINUX_CAPABILITY_U32S_3] = {};
    for (int capability : kept)
        mask[CAP_TO_INDEX(capability)] |= CAP_TO_MASK(capability);
    for (int i = 0; i < _LINUX_CAPABILITY_U32S_3; i++)
        words[i] = {words[i].permitted & mask[i], words[i].permitted & mask[i], 0};
    return ::syscall(SYS_capset, &header, words) == 0;
}

/**
 * Changes root to the user and group nobody. The process keeps its permitted capabilities; keep_capabilities() makes
 * them effective again. Needs CAP_SETUID and CAP_SETGID. If the user cannot be changed, the process stays root, without
 * its groups.
 */
inline void become_nobody()
{
    if (::geteuid() != 0 || ::prctl(PR_SET_KEEPCAPS, 1, 0, 0, 0) != 0)
        return;
    if (::setgroups(0, nullptr) == 0 && ::setresgid(kNobody, kNobody, kNobody) == 0)
        static_cast<void>(::setresuid(kNobody, kNobody, kNobody) == 0);
    ::prctl(PR_SET_KEEPCAPS, 0, 0, 0, 0);
}

} // namespace qv::programs

#endif
