// SPDX-License-Identifier: Apache-2.0
// Datagrams in virtual routers. The VR travels in the source address; control messages that the real kernel does not
// know are taken out on the way to it, and put in on the way back.
#include "datagrams.h"

#include "base/cmsg_walk.h"
#include "names.h"
#include "system_calls.h"
#include "tables.h"

#include <algorithm>
#include <span>

using namespace vr_abi;

namespace vrkernel {

namespace {

constexpr std::size_t kHeader = sizeof(base::cmsg_header);
constexpr std::size_t kControlSize = 1024; // of what a program may send along
constexpr std::size_t kMessageUnit = 8;    // control messages are padded to multiples of it

constexpr std::size_t padded(std::size_t length)
{
    return (length + kMessageUnit - 1) / kMessageUnit * kMessageUnit;
}

bool is_vr(const base::cmsg_walk &found)
{
    return found.is(IPPROTO_IP, kIpSetVr) || found.is(IPPROTO_IPV6, kIpv6SetVr);
}

bool is_packet_info(const base::cmsg_walk &found)
{
    return found.is(IPPROTO_IP, IP_PKTINFO) || found.is(IPPROTO_IPV6, IPV6_PKTINFO);
}

template <typename T>
void put_message(unsigned char *out, int level, int type, const T &data)
{
    base::cmsg_header header = {kHeader + sizeof data, level, type};
    std::memcpy(out, &header, sizeof header);
    std::memcpy(out + sizeof header, &data, sizeof data);
}

// ---- sending ----

// How a datagram is to be sent.
struct route {
    unsigned vr = 0;
    std::optional<name> source;
    int ifindex = 0;

    // Takes what the control messages say over what the socket has. 0 or an errno value.
    int read(tables &all, const msghdr &message, bool takes_vr)
    {
        base::cmsg_walk found(message.msg_control, message.msg_controllen, message.msg_controllen);
        for (; found; found.next()) {
            if (found.length() < kHeader || found.bytes().size() != found.length())
                return EINVAL;
            int error = 0;
            if (takes_vr && is_vr(found))
                error = read_vr(all, found);
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
        return 0;
    }

    int read_packet_info(const base::cmsg_walk &found)
    {
        name from;
        if (found.level() == IPPROTO_IP) {
            auto info = found.data<in_pktinfo>();
            if (found.length() != kHeader + sizeof info)
                return EINVAL;
            from.at.ip = {.sin_family = AF_INET, .sin_port = 0, .sin_addr = info.ipi_spec_dst, .sin_zero = {}};
            ifindex = info.ipi_ifindex;
        } else {
            auto info = found.data<in6_pktinfo>();
            if (found.length() < kHeader + sizeof info)
                return EINVAL;
            from.at.ip6 = {AF_INET6, 0, 0, info.ipi6_addr, 0};
            ifindex = static_cast<int>(info.ipi6_ifindex);
        }
        source = from;
        return 0;
    }
};

// The source address to use outside: the one asked for, else the one that the socket is bound to, else the VR's main
// one. Nothing when the VR does not have the one asked for.
std::optional<std::uint32_t> source_outside(int fd, const route &way)
{
    auto a = way.source ? inner_of(*way.source, way.vr) : std::nullopt;
    if (way.source && !a)
        return std::nullopt;
    if (!a || a->host == kAnyHost) {
        name own = outside_name(fd, real::getsockname);
        a = inner_of(own, way.vr).value_or(inner{way.vr, own.is_ip6(), kMainHost});
    }
    if (a->host == kAnyHost)
        a->host = kMainHost;
    return outside_of(*a);
}

// The control data that goes to the real kernel: packet info for a datagram in a VR, then all that is not ours.
struct outgoing {
    alignas(base::cmsg_header) unsigned char bytes[kControlSize]{};
    std::size_t used = 0;

    void add_packet_info(std::uint32_t source, int ifindex)
    {
        in_pktinfo info{};
        info.ipi_ifindex = ifindex;
        info.ipi_spec_dst.s_addr = htonl(source);
        put_message(bytes + used, IPPROTO_IP, IP_PKTINFO, info);
        used += padded(kHeader + sizeof info);
    }

    // False when there is no room for all.
    bool add_others(const msghdr &message, bool in_vr)
    {
        base::cmsg_walk found(message.msg_control, message.msg_controllen, message.msg_controllen);
        for (; found; found.next()) {
            if (is_vr(found) || (in_vr && is_packet_info(found)))
                continue;
            auto whole = found.bytes();
            if (padded(whole.size()) > sizeof bytes - used)
                return false;
            std::memcpy(bytes + used, whole.data(), whole.size());
            used += padded(whole.size());
        }
        return true;
    }
};

// The name to send to: the one given, or the one that the socket is connected to. Nothing when the VR does not have it.
std::optional<name> destination_outside(int fd, const msghdr &message, unsigned vr)
{
    name to =
        message.msg_name != nullptr ? name(message.msg_name, message.msg_namelen) : outside_name(fd, real::getpeername);
    return bring_outside(to, vr) ? std::optional(to) : std::nullopt;
}

ssize_t send_in_vr(int fd, const msghdr &message, int flags, const route &way)
{
    if (unsigned own = vr_of(fd); own != 0 && bind_if_unbound(fd, own) < 0)
        return -1;
    auto to = destination_outside(fd, message, way.vr);
    if (!to)
        return fail(ENETUNREACH);
    auto source = source_outside(fd, way);
    if (!source)
        return fail(EINVAL);
    outgoing control;
    control.add_packet_info(*source, way.ifindex);
    if (!control.add_others(message, true))
        return fail(ENOBUFS);
    msghdr outside = message;
    if (message.msg_name != nullptr || to->port() != 0) { // else there is none, which the real kernel will say
        outside.msg_name = &to->at;
        outside.msg_namelen = to->length;
    }
    outside.msg_control = control.bytes;
    outside.msg_controllen = control.used;
    return real::sendmsg(fd, &outside, flags);
}

// A message without ours, whatever flag asked for them.
ssize_t send_plain(int fd, const msghdr &message, int flags)
{
    msghdr outside = message;
    outgoing control;
    if (!control.add_others(message, false))
        return fail(ENOBUFS);
    outside.msg_control = control.used != 0 ? control.bytes : nullptr;
    outside.msg_controllen = control.used;
    return real::sendmsg(fd, &outside, flags);
}

// ---- receiving ----

// Turns the destinations that were received into what the program is to see.
void bring_packet_infos_inside(tables &all, const msghdr &message)
{
    auto *control = static_cast<unsigned char *>(message.msg_control);
    base::cmsg_walk found(control, message.msg_controllen, message.msg_controllen);
    for (; found; found.next()) {
        unsigned char *data = control + (found.bytes().data() - control) + kHeader;
        if (found.is(IPPROTO_IP, IP_PKTINFO) && found.bytes().size() >= kHeader + sizeof(in_pktinfo)) {
            auto info = found.data<in_pktinfo>();
            for (in_addr *address : {&info.ipi_spec_dst, &info.ipi_addr}) {
                if (auto a = vr_behind(all, *address))
                    *address = inner_address(*a);
            }
            std::memcpy(data, &info, sizeof info);
        } else if (found.is(IPPROTO_IPV6, IPV6_PKTINFO) && found.bytes().size() >= kHeader + sizeof(in6_pktinfo)) {
            auto info = found.data<in6_pktinfo>();
            if (auto a = vr_behind(all, info.ipi6_addr))
                info.ipi6_addr = inner_address6(*a);
            std::memcpy(data, &info, sizeof info);
        }
    }
}

// Adds the VR to the control messages of a datagram; one for which there is no room is dropped with a mark.
void add_vr_message(msghdr &message, std::size_t room, int family, std::uint32_t vr)
{
    std::size_t at = padded(message.msg_controllen);
    if (message.msg_control == nullptr || room < at || room - at < kHeader + sizeof vr) {
        message.msg_flags |= MSG_CTRUNC;
        return;
    }
    auto *control = static_cast<unsigned char *>(message.msg_control);
    put_message(control + at, family == AF_INET ? IPPROTO_IP : IPPROTO_IPV6, family == AF_INET ? kIpGetVr : kIpv6GetVr,
                vr);
    message.msg_controllen = std::min(room, at + padded(kHeader + sizeof vr));
}

// ---- time ----

timespec now()
{
    timespec time;
    ::clock_gettime(CLOCK_MONOTONIC, &time);
    return time;
}

timespec later_by(const timespec &wait)
{
    constexpr long kSecond = 1000000000;
    timespec time = now();
    time.tv_nsec += wait.tv_nsec;
    time.tv_sec += wait.tv_sec + time.tv_nsec / kSecond;
    time.tv_nsec %= kSecond;
    return time;
}

bool is_past(const timespec &end)
{
    timespec time = now();
    return time.tv_sec > end.tv_sec || (time.tv_sec == end.tv_sec && time.tv_nsec >= end.tv_nsec);
}

} // namespace

ssize_t send(tables &all, int fd, const msghdr *message, int flags)
{
    bool takes_vr = (flags & kMsgVr) != 0;
    flags &= ~kMsgVr;
    route way = {vr_of(fd), {}, 0};
    if (message == nullptr || (way.vr == 0 && !takes_vr) || udp_family(fd) == 0)
        return real::sendmsg(fd, message, flags);
    if (static_cast<int>(message->msg_namelen) < 0)
        return fail(EINVAL);
    if (int error = way.read(all, *message, takes_vr))
        return fail(error);
    return way.vr != 0 ? send_in_vr(fd, *message, flags, way) : send_plain(fd, *message, flags);
}

ssize_t receive(tables &all, int fd, msghdr *message, int flags)
{
    if (message == nullptr)
        return real::recvmsg(fd, message, flags & ~kMsgVr);
    if (message->msg_name != nullptr && static_cast<int>(message->msg_namelen) < 0)
        return fail(EINVAL);
    name from;
    msghdr outside = *message;
    outside.msg_name = &from.at;
    outside.msg_namelen = from.length;
    ssize_t n = real::recvmsg(fd, &outside, flags & ~kMsgVr);
    if (n < 0)
        return n;
    from.length = outside.msg_namelen;
    auto source = bring_inside(all, from);
    std::size_t room = message->msg_controllen;
    message->msg_controllen = outside.msg_controllen;
    message->msg_flags = outside.msg_flags;
    bring_packet_infos_inside(all, *message);
    if (source && (flags & kMsgVr) != 0)
        add_vr_message(*message, room, from.at.any.sa_family, source->vr);
    if (message->msg_name != nullptr)
        from.give(message->msg_name, &message->msg_namelen);
    return n;
}

int send_all(tables &all, int fd, std::span<mmsghdr> messages, int flags)
{
    int done = 0;
    for (mmsghdr &one : messages) {
        ssize_t n = send(all, fd, &one.msg_hdr, flags);
        if (n < 0)
            return done != 0 ? done : -1;
        one.msg_len = static_cast<unsigned>(n);
        done++;
    }
    return done;
}

// Like the real kernel, it looks at the clock between datagrams only.
int receive_all(tables &all, int fd, std::span<mmsghdr> messages, int flags, const timespec *timeout)
{
    timespec end = timeout != nullptr ? later_by(*timeout) : timespec{};
    int done = 0;
    for (mmsghdr &one : messages) {
        ssize_t n = receive(all, fd, &one.msg_hdr, flags & ~MSG_WAITFORONE);
        if (n < 0)
            return done != 0 ? done : -1;
        one.msg_len = static_cast<unsigned>(n);
        done++;
        if ((flags & MSG_WAITFORONE) != 0)
            flags |= MSG_DONTWAIT;
        if (timeout != nullptr && is_past(end))
            break;
    }
    return done;
}

} // namespace vrkernel
