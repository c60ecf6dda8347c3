// SPDX-License-Identifier: Apache-2.0
// Sockets in virtual routers. Each operation is defined once, as a template over the constants of its address family.
#include "vrsock.h"

#include "base/cmsg_walk.h"
#include "net/vr_abi.h"

#include <cerrno>
#include <cstdint>
#include <cstdio>
#include <cstring>
#include <sys/uio.h>

using namespace qv;

namespace {

constexpr std::size_t kHeader = sizeof(base::cmsg_header);
constexpr std::size_t kVrMessageLength = kHeader + sizeof(std::uint32_t);
constexpr std::size_t kVrControlSize = 80;      // of the receive calls that return only the VR
constexpr std::size_t kPacketControlSize = 256; // of those that also return the destination
constexpr int kLeastToLength = 8;               // a caller with a smaller buffer does not get the destination

struct ipv4 {
    using address = sockaddr_in;
    using packet_info = in_pktinfo;
    static constexpr int kFamily = AF_INET;
    static constexpr int kLevel = IPPROTO_IP;
    static constexpr int kGetVr = vr_abi::kIpGetVr;
    static constexpr int kSetVr = vr_abi::kIpSetVr;
    static constexpr int kPacketInfo = IP_PKTINFO;

    static packet_info make_info(const address *from, int ifindex)
    {
        packet_info info{};
        info.ipi_ifindex = ifindex;
        if (from != nullptr)
            info.ipi_spec_dst = from->sin_addr;
        return info;
    }

    static int interface(const packet_info &info) { return info.ipi_ifindex; }

    static address destination(const packet_info &info, const sockaddr_storage &own)
    {
        address to{};
        to.sin_family = kFamily;
        std::memcpy(&to.sin_port, reinterpret_cast<const char *>(&own) + offsetof(address, sin_port),
                    sizeof to.sin_port);
        to.sin_addr = info.ipi_addr;
        return to;
    }
};

struct ipv6 {
    using address = sockaddr_in6;
    using packet_info = in6_pktinfo;
    static constexpr int kFamily = AF_INET6;
    static constexpr int kLevel = IPPROTO_IPV6;
    static constexpr int kGetVr = vr_abi::kIpv6GetVr;
    static constexpr int kSetVr = vr_abi::kIpv6SetVr;
    static constexpr int kPacketInfo = IPV6_PKTINFO;

    static packet_info make_info(const address *from, int ifindex)
    {
        packet_info info{};
        if (from != nullptr)
            info.ipi6_addr = from->sin6_addr;
        info.ipi6_ifindex = static_cast<unsigned>(ifindex);
        return info;
    }

    static int interface(const packet_info &info) { return static_cast<int>(info.ipi6_ifindex); }

    static address destination(const packet_info &info, const sockaddr_storage &own)
    {
        address to{};
        to.sin6_family = kFamily;
        std::memcpy(&to.sin6_port, reinterpret_cast<const char *>(&own) + offsetof(address, sin6_port),
                    sizeof to.sin6_port);
        to.sin6_addr = info.ipi6_addr;
        return to;
    }
};

static_assert(kVrMessageLength == 20);
static_assert(kHeader + sizeof(in_pktinfo) == 28 && kHeader + sizeof(in6_pktinfo) == 36);

// ---- binding ----

template <typename Ip>
int bind_vr(int fd, int vrid)
{
    if (vrid != -1 && (vrid < QV_VRID_MIN || vrid > QV_VRID_MAX))
        return -1;
    return ::setsockopt(fd, Ip::kLevel, Ip::kSetVr, &vrid, sizeof vrid) == 0 ? 0 : errno;
}

template <typename Ip>
int get_vr(int fd, int *vrid)
{
    if (vrid == nullptr)
        return -1;
    socklen_t length = sizeof *vrid;
    return ::getsockopt(fd, Ip::kLevel, Ip::kGetVr, vrid, &length) == 0 ? 0 : errno;
}

// ---- sending ----

int send_with(int fd, const void *buf, std::size_t len, int flags, const sockaddr *to, socklen_t tolen, void *control,
              std::size_t control_size)
{
    iovec data = {const_cast<void *>(buf), len};
    msghdr message{};
    message.msg_name = const_cast<sockaddr *>(to);
    message.msg_namelen = tolen;
    message.msg_iov = &data;
    message.msg_iovlen = 1;
    message.msg_control = control;
    message.msg_controllen = control_size;
    ssize_t sent = ::sendmsg(fd, &message, flags | vr_abi::kMsgVr);
    return sent < 0 ? static_cast<int>(sent) : 0;
}

template <typename Ip>
int send_in_vr(int fd, const void *buf, std::size_t len, int flags, const sockaddr *to, socklen_t tolen,
               std::uint32_t vrid)
{
    alignas(base::cmsg_header) unsigned char control[base::padded_cmsg(kVrMessageLength)]{};
    base::put_cmsg(control, Ip::kLevel, Ip::kSetVr, vrid);
    return send_with(fd, buf, len, flags, to, tolen, control, sizeof control);
}

template <typename Ip>
int send_through(int fd, const void *buf, std::size_t len, int flags, const sockaddr *to,
                 const typename Ip::address *from, socklen_t tolen, int ifindex, std::uint32_t vrid)
{
    constexpr std::size_t kInfoLength = kHeader + sizeof(typename Ip::packet_info);
    alignas(base::cmsg_header) unsigned char
        control[base::padded_cmsg(kVrMessageLength) + base::padded_cmsg(kInfoLength)]{};
    std::size_t at = base::put_cmsg(control, Ip::kLevel, Ip::kSetVr, vrid);
    base::put_cmsg(control + at, Ip::kLevel, Ip::kPacketInfo, Ip::make_info(from, ifindex));
    return send_with(fd, buf, len, flags, to, tolen, control, sizeof control);
}

// ---- receiving ----

// One recvmsg() with a zeroed control buffer: what is read beyond a short message must not come from the stack.
template <std::size_t Size>
struct reception {
    alignas(base::cmsg_header) unsigned char control[Size]{};
    msghdr message{};
    iovec data{};

    ssize_t receive(int fd, void *buf, std::size_t len, int flags, sockaddr *from, const socklen_t *fromlen)
    {
        data = {buf, len};
        message.msg_name = from;
        message.msg_namelen = fromlen != nullptr ? *fromlen : 0;
        message.msg_iov = &data;
        message.msg_iovlen = 1;
        message.msg_control = control;
        message.msg_controllen = sizeof control;
        return ::recvmsg(fd, &message, flags | vr_abi::kMsgVr);
    }

    base::cmsg_walk messages() const
    {
        return {message.msg_control == nullptr ? nullptr : control, message.msg_controllen, sizeof control};
    }
};

using vr_test = bool (*)(const base::cmsg_walk &message);

ssize_t receive_in_vr(int fd, void *buf, std::size_t len, int flags, sockaddr *from, const socklen_t *fromlen,
                      unsigned *vrid, vr_test is_vr)
{
    reception<kVrControlSize> in;
    ssize_t n = in.receive(fd, buf, len, flags, from, fromlen);
    if (n < 0)
        return n;

    *vrid = QV_NO_VR;
    for (auto message = in.messages(); message; message.next()) {
        if (!is_vr(message))
            continue;
        if (message.length() != kVrMessageLength)
            return QV_BAD_VR_MESSAGE;
        *vrid = message.template data<std::uint32_t>();
        return n;
    }
    return n;
}

template <typename Ip>
ssize_t receive_with_destination(int fd, void *buf, std::size_t len, int flags, sockaddr *from, socklen_t *fromlen,
                                 typename Ip::address *to, socklen_t *tolen, int *ifindex, unsigned *vrid)
{
    sockaddr_storage own{};
    socklen_t own_length = sizeof own;
    if (::getsockname(fd, reinterpret_cast<sockaddr *>(&own), &own_length) < 0) {
        std::printf("getsockname (%s)\n", std::strerror(errno));
        return -1;
    }

    reception<kPacketControlSize> in;
    ssize_t n = in.receive(fd, buf, len, flags, from, fromlen);
    if (n < 0)
        return n;

    if (fromlen != nullptr)
        *fromlen = in.message.msg_namelen;
    bool wants_destination = static_cast<int>(*tolen) >= kLeastToLength && own.ss_family == Ip::kFamily;
    *tolen = 0;
    for (auto message = in.messages(); message; message.next()) {
        if (message.is(Ip::kLevel, Ip::kPacketInfo) && wants_destination) {
            auto info = message.template data<typename Ip::packet_info>();
            *to = Ip::destination(info, own);
            *tolen = sizeof *to;
            *ifindex = Ip::interface(info);
            wants_destination = false; // the first one counts
        } else if (message.is(Ip::kLevel, Ip::kGetVr)) {
            // Contract: a malformed message means VR 1 here, while qv_recvfrom() refuses it.
            *vrid = message.length() == kVrMessageLength ? message.template data<std::uint32_t>() : 1;
        }
    }
    return n;
}

} // namespace

extern "C" {

int qv_bindvr(int fd, int vrid)
{
    return bind_vr<ipv4>(fd, vrid);
}

int qv_bindvr6(int fd, int vrid)
{
    return bind_vr<ipv6>(fd, vrid);
}

int qv_getvr(int fd, int *vrid)
{
    return get_vr<ipv4>(fd, vrid);
}

int qv_getvr6(int fd, int *vrid)
{
    return get_vr<ipv6>(fd, vrid);
}

int qv_sendto(int fd, const void *buf, size_t len, int flags, const struct sockaddr *to, socklen_t tolen,
              unsigned int vrid)
{
    return send_in_vr<ipv4>(fd, buf, len, flags, to, tolen, vrid);
}

int qv_ipv6_sendto(int fd, const void *buf, size_t len, int flags, const struct sockaddr *to, socklen_t tolen,
                   unsigned int vrid)
{
    return send_in_vr<ipv6>(fd, buf, len, flags, to, tolen, vrid);
}

int qv_sendto_if(int fd, const void *buf, size_t len, int flags, const struct sockaddr *to,
                 const struct sockaddr_in *from, socklen_t tolen, int ifindex, unsigned int vrid)
{
    return send_through<ipv4>(fd, buf, len, flags, to, from, tolen, ifindex, vrid);
}

int qv_ipv6_sendto_if(int fd, const void *buf, size_t len, int flags, const struct sockaddr *to,
                      const struct sockaddr_in6 *from, socklen_t tolen, int ifindex, unsigned int vrid)
{
    return send_through<ipv6>(fd, buf, len, flags, to, from, tolen, ifindex, vrid);
}

ssize_t qv_recvfrom(int fd, void *buf, size_t len, int flags, struct sockaddr *from, socklen_t *fromlen,
                    unsigned int *vrid)
{
    return receive_in_vr(fd, buf, len, flags, from, fromlen, vrid,
                         [](const base::cmsg_walk &message) { return message.is(ipv4::kLevel, ipv4::kGetVr); });
}

ssize_t qv_recvfrom6(int fd, void *buf, size_t len, int flags, struct sockaddr *from, socklen_t *fromlen,
                     unsigned int *vrid)
{
    // Contract: any level but IPv6. Callers rely on QV_NO_VR for the kernel's IPv6 message.
    return receive_in_vr(fd, buf, len, flags, from, fromlen, vrid, [](const base::cmsg_walk &message) {
        return message.level() != ipv6::kLevel && message.type() == ipv6::kGetVr;
    });
}

ssize_t qv_recvfromto(int fd, void *buf, size_t len, int flags, struct sockaddr *from, socklen_t *fromlen,
                      struct sockaddr_in *to, socklen_t *tolen, int *ifindex, unsigned int *vrid)
{
    return receive_with_destination<ipv4>(fd, buf, len, flags, from, fromlen, to, tolen, ifindex, vrid);
}

ssize_t qv_recvfromto_v6(int fd, void *buf, size_t len, int flags, struct sockaddr *from, socklen_t *fromlen,
                         struct sockaddr_in6 *to, socklen_t *tolen, int *ifindex, unsigned int *vrid)
{
    return receive_with_destination<ipv6>(fd, buf, len, flags, from, fromlen, to, tolen, ifindex, vrid);
}
}
