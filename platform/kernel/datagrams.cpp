// SPDX-License-Identifier: Apache-2.0
// Datagrams in virtual routers. The source address carries the VR. Control messages that the real kernel does not know
// are removed before a send, and added after a receive.
#include "datagrams.h"

#include "base/cmsg_walk.h"
#include "base/unique_fd.h"
#include "names.h"
#include "system_calls.h"
#include "tables.h"

#include <algorithm>
#include <linux/errqueue.h>
#include <pthread.h>
#include <span>
#include <sys/uio.h>

using namespace qv;
using namespace vr_abi;

namespace qv::vrkernel {

namespace {

constexpr std::size_t kHeader = sizeof(base::cmsg_header);
constexpr std::size_t kControlSize = 1024;        // of what is passed to the real kernel
constexpr std::size_t kProgramControlMax = 20480; // of what a program may pass; the default of net.core.optmem_max

// The control messages with a whole header: the kernel accepts a last one without its padding.
base::cmsg_walk control_of(const msghdr &message)
{
    return {message.msg_control, message.msg_controllen, message.msg_controllen, base::cmsg_walk::fit::header};
}

bool is_vr(const base::cmsg_walk &found)
{
    return found.is(IPPROTO_IP, kIpSetVr) || found.is(IPPROTO_IPV6, kIpv6SetVr);
}

bool is_packet_info(const base::cmsg_walk &found)
{
    return found.is(IPPROTO_IP, IP_PKTINFO) || found.is(IPPROTO_IPV6, IPV6_PKTINFO);
}

// ---- sending ----

// How a datagram is to be sent.
struct send_options {
    unsigned vr;
    bool names_vr = false; // whether a control message gave the VR
    std::optional<name> source{};
    int ifindex = 0;

    // Control messages override what the socket has. 0 or an errno value.
    int read(tables &all, const msghdr &message, bool takes_vr)
    {
        if (message.msg_controllen > kProgramControlMax)
            return ENOBUFS;
        for (auto found = control_of(message); found; found.next()) {
            if (found.length() < kHeader || found.bytes().size() != found.length())
                return EINVAL;
            int error = 0;
            if (is_vr(found))
                error = takes_vr ? read_vr(all, found) : 0;
            else if (is_packet_info(found))
                error = read_packet_info(found);
            if (error != 0)
                return error;
        }
        return 0;
    }

private:
    int read_vr(tables &all, const base::cmsg_walk &found)
    {
        auto id = found.data<std::int32_t>();
        if (found.length() != kHeader + sizeof id)
            return EINVAL;
        if (id != -1 && all.find_vr(static_cast<unsigned>(id)) == nullptr)
            return ENOENT;
        vr = id != -1 ? static_cast<unsigned>(id) : 0;
        names_vr = true;
        return 0;
    }

    int read_packet_info(const base::cmsg_walk &found)
    {
        if (found.level() == IPPROTO_IP) {
            auto info = found.data<in_pktinfo>();
            if (found.length() != kHeader + sizeof info)
                return EINVAL;
            source = name::ip4(info.ipi_spec_dst, 0);
            ifindex = info.ipi_ifindex;
        } else {
            auto info = found.data<in6_pktinfo>();
            if (found.length() < kHeader + sizeof info)
                return EINVAL;
            source = name::ip6(info.ipi6_addr, 0);
            ifindex = static_cast<int>(info.ipi6_ifindex);
        }
        return 0;
    }
};

// The outside source address: the requested one, else the one that the socket is bound to, else the VR's main one.
// Nothing if the VR does not have the requested one.
std::optional<std::uint32_t> source_outside(tables &all, int fd, const send_options &options)
{
    auto a = options.source ? inner_of(*options.source, options.vr) : std::nullopt;
    if (options.source && !a)
        return std::nullopt;
    if (!a || a->host == kAnyHost) {
        name own = inside_name(all, fd, real::getsockname);
        a = inner_of(own, options.vr).value_or(inner{options.vr, own.is_ip6(), kMainHost});
    }
    if (a->host == kAnyHost)
        a->host = kMainHost;
    return outside_of(*a);
}

// The control data for the real kernel: packet info for a datagram in a VR, then the messages that the real kernel
// knows.
struct outgoing {
    alignas(base::cmsg_header) unsigned char bytes[kControlSize]{};
    std::size_t used = 0;

    void add_packet_info(std::uint32_t source, int ifindex)
    {
        in_pktinfo info{};
        info.ipi_ifindex = ifindex;
        info.ipi_spec_dst.s_addr = htonl(source);
        used += base::put_cmsg(bytes + used, IPPROTO_IP, IP_PKTINFO, info);
    }

    // False if they do not fit.
    bool add_others(const msghdr &message, bool in_vr)
    {
        for (auto found = control_of(message); found; found.next()) {
            if (is_vr(found) || (in_vr && is_packet_info(found)))
                continue;
            auto whole = found.bytes();
            if (base::padded_cmsg(whole.size()) > sizeof bytes - used)
                return false;
            std::memcpy(bytes + used, whole.data(), whole.size());
            used += base::padded_cmsg(whole.size());
        }
        return true;
    }
};

// The name that a message gives, interpreted as the real kernel does: AF_UNSPEC means IPv4 on an IPv4 socket, and no
// name on an IPv6 one.
std::optional<name> given_destination(const msghdr &message, int family)
{
    if (message.msg_name == nullptr || message.msg_namelen == 0)
        return std::nullopt;
    name to(message.msg_name, message.msg_namelen);
    if (to.at.any.sa_family == AF_UNSPEC) {
        if (family == AF_INET6)
            return std::nullopt;
        to.at.any.sa_family = AF_INET;
    }
    return to;
}

// An IPv6-only socket cannot send to the mapped addresses of VRs. A temporary IPv4 socket on the same port sends for
// it; SO_REUSEPORT, because several threads may send at the same time.
ssize_t send_for_ipv6_only(in_port_t port, const msghdr &outside, in_addr source, int flags)
{
    base::unique_fd sender(::socket(AF_INET, SOCK_DGRAM | SOCK_CLOEXEC, 0));
    int on = 1;
    name from = name::ip4(source, port);
    if (!sender || real::setsockopt(sender.get(), SOL_SOCKET, SO_REUSEPORT, &on, sizeof on) < 0 ||
        real::bind(sender.get(), &from.at, from.length) < 0)
        return -1;
    return real::sendmsg(sender.get(), &outside, flags);
}

ssize_t send_for_ipv6_only(tables &all, int fd, msghdr outside, const name &to, in_addr source, int flags)
{
    if (bind_if_unbound(all, fd, 0) < 0)
        return -1;
    name ip4 = name::ip4(to.is_ip() ? to.at.ip.sin_addr : mapped_part(to.at.ip6.sin6_addr), to.port());
    outside.msg_name = &ip4.at;
    outside.msg_namelen = ip4.length;
    in_port_t port = inside_name(all, fd, real::getsockname).port();
    int previous; // cancelled halfway, the thread would leak the temporary socket
    ::pthread_testcancel();
    ::pthread_setcancelstate(PTHREAD_CANCEL_DISABLE, &previous);
    ssize_t n = send_for_ipv6_only(port, outside, source, flags);
    ::pthread_setcancelstate(previous, nullptr);
    return n;
}

// `own` is the socket's VR, which may differ from the datagram's.
ssize_t send_in_vr(tables &all, int fd, const msghdr &message, int flags, const send_options &options, unsigned own,
                   int family)
{
    auto given = given_destination(message, family);
    name to = given ? *given : inside_name(all, fd, real::getpeername);
    if (!bring_outside(to, options.vr))
        return fail(ENETUNREACH);
    auto source = source_outside(all, fd, options);
    if (!source)
        return fail(EINVAL);
    outgoing control;
    control.add_packet_info(*source, options.ifindex);
    if (!control.add_others(message, true))
        return fail(ENOBUFS);
    if (own != 0 && bind_if_unbound(all, fd, own) < 0)
        return -1;
    msghdr outside = message;
    outside.msg_name = nullptr; // without a name or a peer, the real kernel returns the error
    outside.msg_namelen = 0;
    if (given || to.port() != 0) {
        outside.msg_name = &to.at;
        outside.msg_namelen = to.length;
    }
    outside.msg_control = control.bytes;
    outside.msg_controllen = control.used;
    if (own == 0 && family == AF_INET6 && (to.is_ip() || to.is_ip6()) && is_ipv6_only(fd))
        return send_for_ipv6_only(all, fd, outside, to, {htonl(*source)}, flags);
    return real::sendmsg(fd, &outside, flags);
}

// Sends with the messages that the real kernel knows only.
ssize_t send_in_no_vr(tables &all, int fd, const msghdr &message, int flags, unsigned own)
{
    outgoing control;
    if (!control.add_others(message, false))
        return fail(ENOBUFS);
    if (own != 0 && bind_if_unbound(all, fd, own) < 0)
        return -1;
    msghdr outside = message;
    outside.msg_control = control.used != 0 ? control.bytes : nullptr;
    outside.msg_controllen = control.used;
    return real::sendmsg(fd, &outside, flags);
}

// ---- receiving ----

// Translates a name in a control message to what the program sees.
void bring_name_inside(tables &all, unsigned char *data, std::size_t size)
{
    name n(data, static_cast<socklen_t>(size));
    if (bring_inside(all, n))
        std::memcpy(data, &n.at, n.length);
}

void bring_packet_info_inside(tables &all, unsigned char *data, in_pktinfo info)
{
    for (in_addr *address : {&info.ipi_spec_dst, &info.ipi_addr}) {
        if (auto a = vr_behind(all, *address))
            *address = inner_address(*a);
    }
    std::memcpy(data, &info, sizeof info);
}

void bring_packet_info_inside(tables &all, unsigned char *data, in6_pktinfo info)
{
    if (auto a = vr_behind(all, info.ipi6_addr))
        info.ipi6_addr = inner_address6(*a);
    std::memcpy(data, &info, sizeof info);
}

// Translates the addresses in control messages to what the program sees: destinations, and in the error queue the
// addresses that reported the error.
void bring_control_inside(tables &all, const msghdr &message)
{
    auto *control = static_cast<unsigned char *>(message.msg_control);
    for (auto found = control_of(message); found; found.next()) {
        auto whole = found.bytes();
        if (whole.size() < kHeader)
            continue;
        unsigned char *data = control + (whole.data() - control) + kHeader;
        std::size_t size = whole.size() - kHeader;
        if (found.is(IPPROTO_IP, IP_PKTINFO) && size >= sizeof(in_pktinfo))
            bring_packet_info_inside(all, data, found.data<in_pktinfo>());
        else if (found.is(IPPROTO_IPV6, IPV6_PKTINFO) && size >= sizeof(in6_pktinfo))
            bring_packet_info_inside(all, data, found.data<in6_pktinfo>());
        else if (found.is(IPPROTO_IP, IP_ORIGDSTADDR) || found.is(IPPROTO_IPV6, IPV6_ORIGDSTADDR))
            bring_name_inside(all, data, size);
        else if ((found.is(IPPROTO_IP, IP_RECVERR) || found.is(IPPROTO_IPV6, IPV6_RECVERR)) &&
                 size > sizeof(sock_extended_err))
            bring_name_inside(all, data + sizeof(sock_extended_err), size - sizeof(sock_extended_err));
    }
}

// Adds the VR message to the control messages of a datagram, or sets MSG_CTRUNC if it does not fit.
void add_vr_message(msghdr &message, std::size_t room, int family, std::uint32_t vr)
{
    std::size_t at = base::padded_cmsg(message.msg_controllen);
    if (message.msg_control == nullptr || room < at || room - at < kHeader + sizeof vr) {
        message.msg_flags |= MSG_CTRUNC;
        return;
    }
    auto *control = static_cast<unsigned char *>(message.msg_control);
    bool ip4 = family == AF_INET;
    at += base::put_cmsg(control + at, ip4 ? IPPROTO_IP : IPPROTO_IPV6, ip4 ? kIpGetVr : kIpv6GetVr, vr);
    message.msg_controllen = std::min(room, at);
}

// Whether the buffer holds a whole name: UDP has no longer ones than IPv6's.
bool has_room_for_name(const msghdr &message)
{
    return message.msg_name == nullptr || message.msg_namelen >= sizeof(sockaddr_in6);
}

void bring_name_and_control_inside(tables &all, msghdr &message)
{
    bring_control_inside(all, message);
    if (message.msg_name != nullptr)
        bring_name_inside(all, static_cast<unsigned char *>(message.msg_name),
                          std::min<std::size_t>(message.msg_namelen, sizeof(sockaddr_in6)));
}

// Receives one message of several whose buffer cuts the name: the translation needs the whole name.
int receive_one_of_several(tables &all, int fd, mmsghdr &message, int flags, timespec *timeout)
{
    name from;
    mmsghdr outside = message;
    outside.msg_hdr.msg_name = &from.at;
    outside.msg_hdr.msg_namelen = from.length;
    int n = real::recvmmsg(fd, &outside, 1, flags, timeout);
    if (n <= 0)
        return n;
    bring_name_and_control_inside(all, outside.msg_hdr);
    from.length = outside.msg_hdr.msg_namelen;
    outside.msg_hdr.msg_name = message.msg_hdr.msg_name;
    outside.msg_hdr.msg_namelen = message.msg_hdr.msg_namelen;
    message = outside;
    if (message.msg_hdr.msg_name != nullptr && from.give(message.msg_hdr.msg_name, &message.msg_hdr.msg_namelen) < 0)
        return -1;
    return n;
}

bool is_over(const timespec *timeout)
{
    return timeout != nullptr && timeout->tv_sec == 0 && timeout->tv_nsec == 0;
}

} // namespace

ssize_t send(tables &all, int fd, const msghdr *message, int flags)
{
    unsigned own = vr_of(fd);
    bool takes_vr = (flags & kMsgVr) != 0;
    int family = own != 0 || takes_vr ? udp_family(fd) : 0;
    if (family == 0 || message == nullptr)
        return real::sendmsg(fd, message, flags);
    if (static_cast<int>(message->msg_namelen) < 0)
        return fail(EINVAL);
    flags &= ~kMsgVr;
    send_options options = {.vr = own};
    if (int error = options.read(all, *message, takes_vr))
        return fail(error);
    if (options.vr != 0)
        return send_in_vr(all, fd, *message, flags, options, own, family);
    if (own != 0 || options.names_vr)
        return send_in_no_vr(all, fd, *message, flags, own);
    return real::sendmsg(fd, message, flags);
}

ssize_t receive(tables &all, int fd, msghdr *message, int flags)
{
    if (message == nullptr || udp_family(fd) == 0)
        return real::recvmsg(fd, message, flags);
    if (message->msg_name != nullptr && static_cast<int>(message->msg_namelen) < 0)
        return fail(EINVAL);
    name from;
    msghdr outside = *message;
    bool has_room = message->msg_name != nullptr && has_room_for_name(*message);
    if (!has_room) { // the translation needs the whole name
        outside.msg_name = &from.at;
        outside.msg_namelen = from.length;
    }
    ssize_t n = real::recvmsg(fd, &outside, flags & ~kMsgVr);
    if (n < 0)
        return n;
    if (has_room)
        from = name(outside.msg_name, std::min(outside.msg_namelen, message->msg_namelen));
    from.length = outside.msg_namelen;
    auto source = bring_inside(all, from);
    std::size_t room = message->msg_controllen;
    message->msg_controllen = outside.msg_controllen;
    message->msg_flags = outside.msg_flags;
    bring_control_inside(all, *message);
    if (source && (flags & kMsgVr) != 0)
        add_vr_message(*message, room, from.at.any.sa_family, source->vr);
    if (message->msg_name != nullptr)
        from.give(message->msg_name, &message->msg_namelen);
    return n;
}

ssize_t send_to(tables &all, int fd, const void *data, size_t size, int flags, const sockaddr *to, socklen_t tolen)
{
    if (vr_of(fd) == 0 || (to != nullptr && tolen > sizeof(sockaddr_storage)))
        return real::sendto(fd, data, size, flags, to, tolen);
    iovec part = {const_cast<void *>(data), size};
    msghdr message{};
    message.msg_name = const_cast<sockaddr *>(to);
    message.msg_namelen = to != nullptr ? tolen : 0;
    message.msg_iov = &part;
    message.msg_iovlen = 1;
    return send(all, fd, &message, flags & ~kMsgVr);
}

ssize_t receive_from(tables &all, int fd, void *data, size_t size, int flags, sockaddr *from, socklen_t *fromlen)
{
    if (from == nullptr || udp_family(fd) == 0)
        return real::recvfrom(fd, data, size, flags, from, fromlen);
    name source;
    ssize_t n = real::recvfrom(fd, data, size, flags, &source.at, &source.length);
    if (n < 0)
        return n;
    bring_inside(all, source);
    return source.give(from, fromlen) == 0 ? n : -1;
}

int send_all(tables &all, int fd, mmsghdr *messages, unsigned count, int flags)
{
    if (udp_family(fd) == 0 || (vr_of(fd) == 0 && (flags & kMsgVr) == 0))
        return real::sendmmsg(fd, messages, count, flags);
    int done = 0;
    for (mmsghdr &one : std::span(messages, std::min<unsigned>(count, UIO_MAXIOV))) {
        ssize_t n = send(all, fd, &one.msg_hdr, flags);
        if (n < 0)
            return done != 0 ? done : -1;
        one.msg_len = static_cast<unsigned>(n);
        done++;
    }
    return done;
}

// The VR flag and MSG_WAITFORONE are the same bit. In this call it means MSG_WAITFORONE.
int receive_all(tables &all, int fd, mmsghdr *messages, unsigned count, int flags, timespec *timeout)
{
    std::span wanted(messages, count);
    if (udp_family(fd) == 0)
        return real::recvmmsg(fd, messages, count, flags, timeout);
    if (std::all_of(wanted.begin(), wanted.end(), [](const mmsghdr &m) { return has_room_for_name(m.msg_hdr); })) {
        int n = real::recvmmsg(fd, messages, count, flags, timeout);
        for (int i = 0; i < n; i++)
            bring_name_and_control_inside(all, messages[i].msg_hdr);
        return n;
    }
    int done = 0;
    for (mmsghdr &one : wanted) {
        int n = receive_one_of_several(all, fd, one, flags, timeout);
        if (n <= 0)
            return done != 0 ? done : n;
        done++;
        if (is_over(timeout))
            break;
        if ((flags & MSG_WAITFORONE) != 0)
            flags |= MSG_DONTWAIT;
    }
    return done;
}

} // namespace qv::vrkernel
