// SPDX-License-Identifier: Apache-2.0
// tables.h - the tables of the stand-in kernel: virtual systems, virtual routers, interfaces.
//
// They live in shared memory, one segment for each configuration file, and outlast the processes that use them as a
// kernel's would. What stands in them is fixed when the file is read; the attributes that requests may change are
// single atomic words, so that no process ever waits for another.
#ifndef LIBCOMMON_PLATFORM_KERNEL_TABLES_H
#define LIBCOMMON_PLATFORM_KERNEL_TABLES_H

#include "net/vr_abi.h"
#include "vrsock.h"

#include <atomic>
#include <climits>
#include <cstddef>
#include <cstdint>
#include <ctime>
#include <sys/types.h>

namespace vrkernel {

inline constexpr const char *kConfigVariable = "VRKERNEL_CONFIG";
inline constexpr std::size_t kVsysLimit = 256;
inline constexpr std::size_t kInterfaceLimit = 1024;
inline constexpr std::size_t kVrLimit = QV_VRID_MAX + 1; // VRs stand at their ids

struct vsys {
    std::uint16_t id;
    std::uint16_t default_vr;
    char name[vr_abi::kNameSize];
};

struct vr {
    char name[vr_abi::kNameSize]; // empty: there is no VR with this id
    std::uint16_t vsys;
    std::atomic<std::uint32_t> flags;
};

struct interface {
    char name[vr_abi::kIfNameSize];
    std::uint16_t id;
    std::uint16_t vsys;
    std::atomic<std::uint32_t> vr;
    std::atomic<std::uint32_t> flags;
    std::atomic<std::uint32_t> cellular; // values of the commands that set such an interface up
    std::atomic<std::uint32_t> wifi;
    std::atomic<std::uint32_t> device;
    std::atomic<std::uint32_t> mtu_limits; // how often the limit was applied
    std::atomic<std::uint64_t> mac;        // its bytes in their order in memory
};

// Whether an interface of a vsys may be in a VR: one of its vsys, or one that is shared.
inline bool may_hold(const vr &one, unsigned vsys)
{
    return one.vsys == vsys || (one.flags & vr_abi::kShared) != 0;
}

// The file that tables were read from, as it was then.
struct origin {
    std::uint32_t layout; // of this record and the tables; another one is not ours
    std::int64_t size;
    timespec changed;
    std::uint64_t device;
    std::uint64_t inode;
    char path[PATH_MAX]; // of its last user, absolute; only for finding segments that no file leads to any more
};

struct tables {
    origin from;
    std::uint32_t vsys_count;
    std::uint32_t interface_count;
    vsys all_vsys[kVsysLimit];
    vr vrs[kVrLimit];
    interface interfaces[kInterfaceLimit];

    // Each answers null for what is not there. Names compare by at most their field's size, terminated or not.
    vsys *find_vsys(unsigned id);
    vsys *find_vsys(const char *name);
    vr *find_vr(unsigned id);
    vr *find_vr(unsigned vsys, const char *name);
    interface *find_interface(unsigned id);
    interface *find_interface(const char *name);

    unsigned id_of(const vr *one) const { return static_cast<unsigned>(one - vrs); }
};
static_assert(std::atomic<std::uint32_t>::is_always_lock_free && std::atomic<std::uint64_t>::is_always_lock_free);

// The tables of a configuration file, read from it unless a process before did and the file is as it was. Null after a
// message on standard error for every mistake in the file.
tables *attach(const char *config);

// Forgets the tables of a configuration file, also those of files that were in its place before or are gone: the next
// process reads it again. Those that run keep what they have.
bool forget(const char *config);

} // namespace vrkernel

#endif
