// SPDX-License-Identifier: Apache-2.0
// UDP sockets in virtual routers: addresses are translated on their way to and from the real kernel, which does the
// rest.
#include "datagrams.h"

#include "base/cmsg_walk.h"
#include "base/errno_guard.h"
#include "system_calls.h"
#include "tables.h"
#include "vr_address.h"

#include <algorithm>
#include <cerrno>
#include <span>

using namespace vr_abi;

namespace vrkernel {

namespace {

constexpr std::size_t kHeader = sizeof(base::cmsg_header);
constexpr std::size_t kControlSize = 1024; // of what a program may send along
constexpr std::size_t kMessageUnit = 8;    // control messages are padded to multiples of it

int fail(int error)
{
    errno = error;
    return -1;
}

// ---- the VR of a socket ----

// A socket remembers its VR in its low-water mark for receiving, which datagram sockets have no use for: there it lasts
// exactly as long as the socket, through dup(), fork() and exec().
constexpr int kVrMark = 0x56520000;
constexpr int kVrMarkMask = 0x7FFF0000;

int socket_option(int fd, int name)
{
    base::errno_guard keep;
    int value = 0;
    socklen_t length = sizeof value;
    return real::getsockopt(fd, SOL_SOCKET, name, &value, &length) == 0 ? value : 0;
}

// 0 when it has none.
unsigned vr_of(int fd)
{
    int mark = socket_option(fd, SO_RCVLOWAT);
    return (mark & kVrMarkMask) == kVrMark ? static_cast<unsigned>(mark & ~kVrMarkMask) : 0;
}

// AF_INET or AF_INET6; 0 for what is no UDP socket.
int udp_family(int fd)
{
    return socket_option(fd, SO_PROTOCOL) == IPPROTO_UDP ? socket_option(fd, SO_DOMAIN) : 0;
}

// ---- addresses ----

// Room for any socket address, with its length.
union address {
    sockaddr any;
    sockaddr_in ip;
    sockaddr_in6 ip6;
    sockaddr_storage room;
};

struct name {
    address at{};
    socklen_t length = sizeof at;

    bool is_ip() const { return at.any.sa_family == AF_INET && length >= sizeof at.ip; }
    bool is_ip6() const { return at.any.sa_family == AF_INET6 && length >= sizeof at.ip6; }
    in_port_t port() const { return is_ip() ? at.ip.sin_port : is_ip6() ? at.ip6.sin6_port : in_port_t{0}; }
};

std::optional<name> name_given(const void *given, socklen_t length)
{
    name n;
    if (given == nullptr || length > sizeof n.at)
        return std::nullopt;
    std::memcpy(&n.at, given, length);
    n.length = length;
    return n;
}

name real_name(int fd, int (*ask)(int, void *, socklen_t *))
{
    base::errno_guard keep;
    name n;
    if (ask(fd, &n.at, &n.length) < 0)
        n = {};
    return n;
}

// Which VR's address a real one stands for.
std::optional<inner> vr_behind(tables &all, const in_addr &outside)
{
    auto a = inside_of(ntohl(outside.s_addr));
    return a && all.find_vr(a->vr) != nullptr ? a : std::nullopt;
}

std::optional<inner> vr_behind(tables &all, const in6_addr &outside)
{
    return IN6_IS_ADDR_V4MAPPED(&outside) ? vr_behind(all, mapped_part(outside)) : std::nullopt;
}

// Turns a real name into what the program is to see; tells the VR when it is of one.
std::optional<inner> bring_inside(tables &all, name &n)
{
    std::optional<inner> a;
    if (n.is_ip() && (a = vr_behind(all, n.at.ip.sin_addr)))
        n.at.ip.sin_addr = inner_address(*a);
    else if (n.is_ip6() && (a = vr_behind(all, n.at.ip6.sin6_addr)))
        n.at.ip6.sin6_addr = inner_address6(*a);
    return a;
}

// Which host of a VR a name tells, as a program gives it or as it stands for a VR's already.
std::optional<inner> inner_of(const name &n, unsigned vr)
{
    bool over_ip = n.is_ip() || (n.is_ip6() && IN6_IS_ADDR_V4MAPPED(&n.at.ip6.sin6_addr));
    if (!over_ip && !n.is_ip6())
        return std::nullopt;
    if (!over_ip) {
        auto host = host_of(n.at.ip6.sin6_addr);
        return host ? std::optional(inner{vr, true, *host}) : std::nullopt;
    }
    in_addr ip = n.is_ip() ? n.at.ip.sin_addr : mapped_part(n.at.ip6.sin6_addr);
    if (auto a = inside_of(ntohl(ip.s_addr)))
        return inner{vr, a->ipv6, a->host};
    auto host = host_of(ip);
    return host ? std::optional(inner{vr, false, *host}) : std::nullopt;
}

// Turns a name that a program gives into the real one in this VR; the wildcard means the VR's main address. False when
// the VR does not have the address. Names of other families are the real kernel's to refuse.
bool bring_outside(name &n, unsigned vr)
{
    if (!n.is_ip() && !n.is_ip6())
        return true;
    auto a = inner_of(n, vr);
    if (!a)
        return false;
    if (a->host == kAnyHost)
        a->host = kMainHost;
    in_addr outside = {htonl(outside_of(*a))};
    if (n.is_ip())
        n.at.ip.sin_addr = outside;
    else
        n.at.ip6.sin6_addr = mapped(outside);
    return true;
}

int give_name(const name &n, sockaddr *to, socklen_t *room)
{
    if (room == nullptr)
        return fail(EFAULT);
    if (static_cast<int>(*room) < 0)
        return fail(EINVAL);
    std::memcpy(to, &n.at, std::min(*room, n.length));
    *room = n.length;
    return 0;
}

int tell_name(tables &all, int fd, sockaddr *to, socklen_t *room, int (*ask)(int, void *, socklen_t *))
{
    name n;
    if (ask(fd, &n.at, &n.length) < 0)
        return -1;
    bring_inside(all, n);
    return give_name(n, to, room);
}

// The mapped addresses need a socket that takes IPv4 too, which cannot be asked for once it is bound.
int bind_outside(int fd, name n, unsigned vr)
{
    if (!bring_outside(n, vr))
        return fail(EADDRNOTAVAIL);
    if (n.is_ip6()) {
        int off = 0;
        real::setsockopt(fd, IPPROTO_IPV6, IPV6_V6ONLY, &off, sizeof off);
    }
    return real::bind(fd, &n.at, n.length);
}

// The real kernel would give a socket that sends a port on every address; in a VR it must be on the VR's.
int bind_if_unbound(int fd, unsigned vr)
{
    name own = real_name(fd, real::getsockname);
    return own.port() == 0 ? bind_outside(fd, own, vr) : 0;
}

// ---- control messages ----

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
    if (!a || a->host == kAnyHost)
        a = inner_of(real_name(fd, real::getsockname), way.vr);
    if (!a)
        return 0;
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

ssize_t send_in_vr(int fd, const msghdr &message, int flags, const route &way)
{
    if (vr_of(fd) != 0 && bind_if_unbound(fd, vr_of(fd)) < 0)
        return -1;
    msghdr outside = message;
    auto to = name_given(message.msg_name, message.msg_namelen);
    if (message.msg_name == nullptr)
        to = real_name(fd, real::getpeername); // without one the real kernel says what is missing
    if (to && !bring_outside(*to, way.vr))
        return fail(ENETUNREACH);
    if (to && to->port() != 0) {
        outside.msg_name = &to->at;
        outside.msg_namelen = to->length;
    }
    auto source = source_outside(fd, way);
    if (!source)
        return fail(EINVAL);
    outgoing control;
    control.add_packet_info(*source, way.ifindex);
    if (!control.add_others(message, true))
        return fail(ENOBUFS);
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

} // namespace

// ---- options ----

int set_option(tables &all, int fd, int level, int name, const void *value, socklen_t length)
{
    int family = udp_family(fd);
    if (family == 0 || (level == IPPROTO_IPV6 && family != AF_INET6))
        return real::setsockopt(fd, level, name, value, length);
    int id;
    if (length < sizeof id)
        return fail(EINVAL);
    if (value == nullptr)
        return fail(EFAULT);
    std::memcpy(&id, value, sizeof id);
    if (id != -1 && all.find_vr(static_cast<unsigned>(id)) == nullptr)
        return fail(ENOENT);
    unsigned vr = id != -1 ? static_cast<unsigned>(id) : 0;
    // An address, once bound, stays; and it is what keeps the VRs apart.
    if (vr != vr_of(fd) && real_name(fd, real::getsockname).port() != 0)
        return fail(EINVAL);
    int mark = vr != 0 ? kVrMark | static_cast<int>(vr) : 1;
    int on = 1;
    if (family == AF_INET)
        real::setsockopt(fd, IPPROTO_IP, IP_PKTINFO, &on, sizeof on);
    else
        real::setsockopt(fd, IPPROTO_IPV6, IPV6_RECVPKTINFO, &on, sizeof on);
    return real::setsockopt(fd, SOL_SOCKET, SO_RCVLOWAT, &mark, sizeof mark);
}

int get_option(int fd, int level, int name, void *value, socklen_t *length)
{
    int family = udp_family(fd);
    if (family == 0 || (level == IPPROTO_IPV6 && family != AF_INET6))
        return real::getsockopt(fd, level, name, value, length);
    if (value == nullptr || length == nullptr)
        return fail(EFAULT);
    if (static_cast<int>(*length) < 0)
        return fail(EINVAL);
    int id = vr_of(fd) != 0 ? static_cast<int>(vr_of(fd)) : -1;
    *length = std::min<socklen_t>(*length, sizeof id);
    std::memcpy(value, &id, *length);
    return 0;
}

// ---- names ----

int bind(int fd, const sockaddr *given, socklen_t length)
{
    unsigned vr = vr_of(fd);
    auto n = vr != 0 ? name_given(given, length) : std::nullopt;
    return n ? bind_outside(fd, *n, vr) : real::bind(fd, given, length);
}

int connect(int fd, const sockaddr *given, socklen_t length)
{
    unsigned vr = vr_of(fd);
    auto n = vr != 0 ? name_given(given, length) : std::nullopt;
    if (!n || n->at.any.sa_family == AF_UNSPEC)
        return real::connect(fd, given, length);
    if (bind_if_unbound(fd, vr) < 0)
        return -1;
    if (!bring_outside(*n, vr))
        return fail(ENETUNREACH);
    return real::connect(fd, &n->at, n->length);
}

int own_name(tables &all, int fd, sockaddr *to, socklen_t *room)
{
    return tell_name(all, fd, to, room, real::getsockname);
}

int peer_name(tables &all, int fd, sockaddr *to, socklen_t *room)
{
    return tell_name(all, fd, to, room, real::getpeername);
}

// ---- datagrams ----

ssize_t send(tables &all, int fd, const msghdr *message, int flags)
{
    bool takes_vr = (flags & kMsgVr) != 0;
    flags &= ~kMsgVr;
    route way = {vr_of(fd), {}, 0};
    if (message == nullptr || (way.vr == 0 && !takes_vr) || udp_family(fd) == 0)
        return real::sendmsg(fd, message, flags);
    if (int error = way.read(all, *message, takes_vr))
        return fail(error);
    return way.vr != 0 ? send_in_vr(fd, *message, flags, way) : send_plain(fd, *message, flags);
}

ssize_t receive(tables &all, int fd, msghdr *message, int flags)
{
    if (message == nullptr)
        return real::recvmsg(fd, message, flags & ~kMsgVr);
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
        give_name(from, static_cast<sockaddr *>(message->msg_name), &message->msg_namelen);
    return n;
}

} // namespace vrkernel
