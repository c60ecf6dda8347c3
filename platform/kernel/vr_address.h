// SPDX-License-Identifier: Apache-2.0
// vr_address.h - how a stock kernel is made to keep the datagrams of virtual routers apart.
//
// Each VR has its own loopback addresses 127.0.0.1 to 127.0.0.254 and ::1 to ::fe ("inside"). On the real loopback
// interface ("outside"), each is an address of 127.128.0.0/9 that contains the VR's id:
//
//     127 . 1 f vvvvvv . vvvvvvvv . hhhhhhhh      f: 0 IPv4, 1 IPv6;  v: VR id;  h: last byte of the address
//
// A stock machine has only one IPv6 loopback address, so IPv6 sockets use the IPv4 ones in their mapped form
// (::ffff:127.x.x.x). Ports, queues, wake-ups and errors are therefore the real kernel's. The source address of a
// datagram contains its VR, and no socket in a VR has an address that another VR reaches.
#ifndef LIBCOMMON_PLATFORM_KERNEL_VR_ADDRESS_H
#define LIBCOMMON_PLATFORM_KERNEL_VR_ADDRESS_H

#include <arpa/inet.h>
#include <cstdint>
#include <cstring>
#include <netinet/in.h>
#include <optional>

namespace qv::vrkernel {

inline constexpr std::uint32_t kLoopback = 0x7F000000; // 127.0.0.0/24 is the IPv4 network of each VR
inline constexpr std::uint32_t kOutside = 0x7F800000;  // 127.128.0.0/9
inline constexpr std::uint32_t kOutsideMask = 0xFF800000;
inline constexpr std::uint32_t kIpv6Bit = 0x00400000;
inline constexpr std::uint32_t kVrIdMask = 0x3FFF;
inline constexpr std::uint8_t kAnyHost = 0; // the wildcard address
inline constexpr std::uint8_t kMainHost = 1;
inline constexpr std::uint8_t kLastHost = 254;

// An address within a VR.
struct inner {
    unsigned vr;
    bool ipv6;
    std::uint8_t host;
};

// Both in host order.
constexpr std::uint32_t outside_of(inner a)
{
    return kOutside | (a.ipv6 ? kIpv6Bit : 0) | (a.vr & kVrIdMask) << 8 | a.host;
}

constexpr std::optional<inner> inside_of(std::uint32_t outside)
{
    if ((outside & kOutsideMask) != kOutside)
        return std::nullopt;
    return inner{outside >> 8 & kVrIdMask, (outside & kIpv6Bit) != 0, static_cast<std::uint8_t>(outside)};
}
static_assert(outside_of({7, false, 1}) == 0x7F800701 && outside_of({7, true, 1}) == 0x7FC00701);
static_assert(inside_of(0x7FC82002)->vr == 2080 && inside_of(0x7FC82002)->ipv6 && inside_of(0x7FC82002)->host == 2);
static_assert(!inside_of(INADDR_LOOPBACK));

inline in6_addr mapped(in_addr address)
{
    in6_addr to{};
    to.s6_addr[10] = to.s6_addr[11] = 0xFF;
    std::memcpy(&to.s6_addr[12], &address, sizeof address);
    return to;
}

inline in_addr mapped_part(const in6_addr &address)
{
    in_addr part;
    std::memcpy(&part, &address.s6_addr[12], sizeof part);
    return part;
}

// The last byte of an inside address; nothing if a VR does not have the address.
inline std::optional<std::uint8_t> host_of(const in_addr &address)
{
    if (address.s_addr == htonl(INADDR_ANY))
        return kAnyHost;
    std::uint32_t host = ntohl(address.s_addr) - kLoopback;
    return host >= kMainHost && host <= kLastHost ? std::optional(static_cast<std::uint8_t>(host)) : std::nullopt;
}

inline std::optional<std::uint8_t> host_of(const in6_addr &address)
{
    in6_addr network = address;
    std::uint8_t host = network.s6_addr[15];
    network.s6_addr[15] = 0;
    return IN6_IS_ADDR_UNSPECIFIED(&network) && host <= kLastHost ? std::optional(host) : std::nullopt;
}

inline in_addr inner_address(const inner &a)
{
    return {htonl(kLoopback | a.host)};
}

// An IPv6 socket may also receive IPv4 datagrams: those addresses keep the mapped form.
inline in6_addr inner_address6(const inner &a)
{
    if (!a.ipv6)
        return mapped(inner_address(a));
    in6_addr address{};
    address.s6_addr[15] = a.host;
    return address;
}

} // namespace qv::vrkernel

#endif
