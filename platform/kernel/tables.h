// SPDX-License-Identifier: Apache-2.0
// tables.h - the tables of the stand-in kernel: virtual systems, virtual routers, interfaces.
//
// They live in shared memory, one segment for each configuration file, and outlast the processes that use them as a
// kernel's would. Their entries are fixed when the file is read. The attributes that requests may change are single
// atomic words, so no process waits for another.
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

namespace qv::vrkernel {

inline constexpr const char *kConfigVariable = "VRKERNEL_CONFIG";
inline constexpr std::size_t kVsysLimit = 256;
inline constexpr std::size_t kInterfaceLimit = 1024;
inline constexpr std::size_t kVrLimit = QV_VRID_MAX + 1; // vrs[id] is the VR with this id

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
    std::atomic<std::uint32_t> cellular; // the values of the set-up commands
    std::atomic<std::uint32_t> wifi;
    std::atomic<std::uint32_t> device;
    std::atomic<std::uint32_t> mtu_limits; // how often the limit was applied
    std::atomic<std::uint64_t> mac;        // the six bytes in memory order
};

// Whether an interface of a vsys may be in a VR: the VR belongs to this vsys or is shared.
inline bool may_hold(const vr &one, unsigned vsys)
{
    return one.vsys == vsys || (one.flags & vr_abi::kShared) != 0;
}

// The file that tables were read from, as it was then.
struct origin {
    std::uint32_t layout; // version of this record and the tables
    std::int64_t size;
    timespec changed;
    std::uint64_t device;
    std::uint64_t inode;
    char path[PATH_MAX]; // absolute, as the last process gave it; finds segments whose file is gone
};

struct tables {
    origin from;
    std::uint32_t vsys_count;
    std::uint32_t interface_count;
    vsys all_vsys[kVsysLimit];
    vr vrs[kVrLimit];
    interface interfaces[kInterfaceLimit];

    // Each returns null if there is no such entry. A name may lack its terminator if it fills the field.
    vsys *find_vsys(unsigned id);
    vsys *find_vsys(const char *name);
    vr *find_vr(unsigned id);
    vr *find_vr(unsigned vsys, const char *name);
    interface *find_interface(unsigned id);
    interface *find_interface(const char *name);

    unsigned id_of(const vr *one) const { return static_cast<unsigned>(one - vrs); }
};
static_assert(std::atomic<std::uint32_t>::is_always_lock_free && std::atomic<std::uint64_t>::is_always_lock_free);

// The tables of a configuration file: those that an earlier process made, if the file is unchanged, else read from it.
// Null on failure, after a message on standard error for every mistake in the file.
tables *attach(const char *config);

// Removes the tables of a configuration file, so that the next process reads it again, and the tables of files that are
// gone or replaced. Running processes keep what they have.
bool forget(const char *config);

} // namespace qv::vrkernel

#endif
