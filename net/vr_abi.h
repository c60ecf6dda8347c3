// SPDX-License-Identifier: Apache-2.0
// vr_abi.h - the appliance kernel's private numbers for virtual routers, each defined once.
#ifndef LIBCOMMON_NET_VR_ABI_H
#define LIBCOMMON_NET_VR_ABI_H

#include <cstddef>

namespace qv::vr_abi {

// Socket options and control messages, on the IP and the IPv6 level.
inline constexpr int kIpGetVr = 30; // getsockopt() option, and message type on receive
inline constexpr int kIpSetVr = 31; // setsockopt() option, and message type on send
inline constexpr int kIpv6GetVr = 90;
inline constexpr int kIpv6SetVr = 91;
inline constexpr int kMsgVr = 0x10000; // flag of every send and receive with a VR

// Requests on sockets. The private channel takes an ifreq that names the pseudo-device and points at a command record;
// the interface requests take their own record.
inline constexpr unsigned long kPrivateChannel = 0x89F0;
inline constexpr unsigned long kGetIfVr = 0x89A4;
inline constexpr unsigned long kSetIfVr = 0x89A5;
inline constexpr const char *kChannelDevice = "pow0";

enum command : unsigned long {
    kSetIfFlags = 4,
    kGetIf = 6,
    kSetVrFlags = 9,
    kGetVr = 11,
    kVrNameToId = 12,
    kVsysIdToName = 15,
    kVsysNameToId = 16,
    kDefaultVrOfVsys = 17,
    kSetCellularMac = 18,
    kSetWifi = 19,
    kSetMtuLimit = 22,
    kChangeCellularDev = 24,
};

// Offsets in the command record. Several commands may use the same bytes for different fields.
inline constexpr std::size_t kCommandSize = 280;
inline constexpr std::size_t kCode = 0;      // 8 bytes
inline constexpr std::size_t kFirstId = 8;   // 2 bytes: VR, vsys or interface id, by command
inline constexpr std::size_t kSecondId = 10; // 2 bytes: vsys id
inline constexpr std::size_t kVsysName = 10; // 32 bytes, commands 15 and 16
inline constexpr std::size_t kValue = 12;    // 4 bytes: flags, or a number whose meaning is the kernel's
inline constexpr std::size_t kVrName = 16;   // 32 bytes
inline constexpr std::size_t kMac = 16;      // 6 bytes, command 18
inline constexpr std::size_t kMacSize = 6;
inline constexpr std::size_t kDefaultVr = 42; // 2 bytes, reply of command 17
inline constexpr std::size_t kIfId = 264;     // 4 bytes
inline constexpr std::size_t kIfFlags = 268;  // 4 bytes
inline constexpr std::size_t kIfVsysId = 272; // 2 bytes, reply of command 6
inline constexpr std::size_t kNameSize = 32;  // of VR and vsys names, with the terminator

// Offsets in the record of the interface requests.
inline constexpr std::size_t kIfVrSize = 56;
inline constexpr std::size_t kIfVrName = 0; // 16 bytes
inline constexpr std::size_t kIfVrId = 16;  // 4 bytes
inline constexpr std::size_t kIfNameSize = 16;

inline constexpr unsigned kShared = 2; // in the flags of interfaces and VRs: shared between virtual systems

} // namespace qv::vr_abi

#endif
