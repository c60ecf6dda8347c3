// SPDX-License-Identifier: Apache-2.0
// Datagrams through the stand-in kernel, over the fuzzer's real kernel: control data and names of any content from a
// program, and of any content towards it. What is sent in a VR goes to that VR, with packet info as the first message
// and without the private messages. Nothing is read or written outside the caller's buffers.
#include "base/cmsg_walk.h"
#include "platform/kernel/datagrams.h"
#include "platform/kernel/names.h"
#include "platform/kernel/sockets.h"
#include "platform/kernel/system_calls.h"
#include "platform/kernel/tables.h"

#include <algorithm>
#include <cstdint>
#include <cstdlib>
#include <cstring>

using namespace qv;
using namespace qv;
using namespace vrkernel;

namespace {

constexpr int kSocket = 3;
constexpr unsigned kVr = 7; // in the tables, which also contain 8

void require(bool held)
{
    if (!held)
        std::abort();
}

struct input {
    const std::uint8_t *data;
    std::size_t size;

    std::uint8_t byte()
    {
        if (size == 0)
            return 0;
        size--;
        return *data++;
    }

    std::size_t copy(void *to, std::size_t wanted)
    {
        std::size_t given = std::min(wanted, size);
        if (given != 0)
            std::memcpy(to, data, given);
        data += given;
        size -= given;
        return given;
    }
};

// One socket of the real kernel.
struct {
    int family;
    int mark;
    bool is_ipv6_only;
    name own;
    name peer;
    bool is_ordinary; // the datagram has nothing to do with VRs and is passed on unchanged
    bool expects_vr;  // a datagram in a VR is requested
    input replies;
} socket_;

void require_in_a_vr(const name &n)
{
    auto address = n.is_ip() ? n.at.ip.sin_addr : mapped_part(n.at.ip6.sin6_addr);
    require(inside_of(ntohl(address.s_addr)).has_value());
}

// Checks that the control data is well formed and contains only messages that the kernel knows.
void require_well_formed(const msghdr &message)
{
    base::cmsg_walk found(message.msg_control, message.msg_controllen, message.msg_controllen,
                          base::cmsg_walk::fit::header);
    for (; found; found.next()) {
        require(found.length() >= sizeof(base::cmsg_header) && found.bytes().size() == found.length());
        require(!found.is(IPPROTO_IP, vr_abi::kIpSetVr) && !found.is(IPPROTO_IPV6, vr_abi::kIpv6SetVr));
    }
}

// Maps an address of the input to one that is likely to be in the tables.
void steer(name &n, std::uint8_t how)
{
    if ((how & 1) != 0)
        n.at.any.sa_family = (how & 2) != 0 ? AF_INET6 : AF_INET;
    if ((how & 4) != 0 && n.at.any.sa_family == AF_INET)
        n.at.ip.sin_addr.s_addr = htonl(kLoopback | (how >> 4));
    if ((how & 8) != 0 && n.at.any.sa_family == AF_INET)
        n.at.ip.sin_addr.s_addr = htonl(outside_of({kVr, (how & 4) != 0, static_cast<std::uint8_t>(how >> 4)}));
    if ((how & 8) != 0 && n.at.any.sa_family == AF_INET6)
        n.at.ip6.sin6_addr = mapped({htonl(outside_of({kVr, true, static_cast<std::uint8_t>(how >> 4)}))});
}

// A block of exactly this size, so that an access beyond it is detected.
struct block {
    unsigned char *bytes;
    std::size_t size;

    block(input &from, std::size_t wanted) : bytes(static_cast<unsigned char *>(std::calloc(1, wanted + !wanted)))
    {
        size = wanted;
        from.copy(bytes, wanted);
    }
    ~block() { std::free(bytes); }
    block(const block &) = delete;
    block &operator=(const block &) = delete;
};

} // namespace

namespace qv::vrkernel::real {

int connect(int, const void *, socklen_t)
{
    return 0;
}

ssize_t sendmsg(int fd, const msghdr *message, int)
{
    if (socket_.is_ordinary)
        return 1;
    require_well_formed(*message);
    if (fd == kSocket && !socket_.expects_vr)
        return 1;
    base::cmsg_walk first(message->msg_control, message->msg_controllen, message->msg_controllen);
    require(first && first.is(IPPROTO_IP, IP_PKTINFO));
    name source = name::ip4(first.data<in_pktinfo>().ipi_spec_dst, 0);
    require_in_a_vr(source);
    if (message->msg_name == nullptr)
        return 1;
    name to(message->msg_name, message->msg_namelen);
    if (to.is_ip() || to.is_ip6())
        require_in_a_vr(to);
    return 1;
}

ssize_t sendto(int, const void *, size_t size, int, const void *, socklen_t)
{
    return static_cast<ssize_t>(size);
}

// Any control data and name that fit. A name may claim to be longer.
ssize_t recvmsg(int, msghdr *message, int)
{
    input &from = socket_.replies;
    std::uint8_t length = from.byte();
    if (message->msg_name != nullptr) {
        name n;
        from.copy(&n.at, sizeof n.at);
        steer(n, from.byte());
        std::memcpy(message->msg_name, &n.at, std::min<std::size_t>(message->msg_namelen, sizeof n.at));
        message->msg_namelen = length;
    }
    message->msg_controllen = from.copy(message->msg_control, message->msg_controllen);
    return length < 250 ? length : -1;
}

ssize_t recvfrom(int, void *, size_t, int, void *address, socklen_t *length)
{
    msghdr message{};
    message.msg_name = address;
    message.msg_namelen = *length;
    ssize_t n = real::recvmsg(kSocket, &message, 0);
    *length = message.msg_namelen;
    return n;
}

int sendmmsg(int, mmsghdr *, unsigned count, int)
{
    return static_cast<int>(count);
}

int recvmmsg(int, mmsghdr *messages, unsigned count, int, timespec *)
{
    for (unsigned i = 0; i < count; i++)
        real::recvmsg(kSocket, &messages[i].msg_hdr, 0);
    return static_cast<int>(count);
}

int setsockopt(int fd, int level, int option, const void *value, socklen_t length)
{
    if (fd == kSocket && level == SOL_SOCKET && option == SO_RCVLOWAT && length == sizeof socket_.mark)
        std::memcpy(&socket_.mark, value, sizeof socket_.mark);
    return 0;
}

int getsockopt(int, int level, int option, void *value, socklen_t *length)
{
    int answer = 0;
    if (level == SOL_SOCKET && option == SO_PROTOCOL)
        answer = IPPROTO_UDP;
    else if (level == SOL_SOCKET && option == SO_TYPE)
        answer = SOCK_DGRAM;
    else if (level == SOL_SOCKET && option == SO_DOMAIN)
        answer = socket_.family;
    else if (level == SOL_SOCKET && option == SO_RCVLOWAT)
        answer = socket_.mark;
    else if (level == IPPROTO_IPV6 && option == IPV6_V6ONLY)
        answer = socket_.is_ipv6_only ? 1 : 0;
    std::memcpy(value, &answer, std::min<std::size_t>(*length, sizeof answer));
    return 0;
}

int bind(int, const void *, socklen_t)
{
    return 0;
}

int getsockname(int, void *address, socklen_t *length)
{
    return socket_.own.give(address, length);
}

int getpeername(int, void *address, socklen_t *length)
{
    return socket_.peer.give(address, length);
}

int ioctl(int, unsigned long, void *)
{
    return 0;
}

} // namespace qv::vrkernel::real

namespace {

void send_one(tables &all, input &in)
{
    std::uint8_t how = in.byte(), steering = in.byte();
    block given_name(in, in.byte() % 140);
    name n(given_name.bytes, static_cast<socklen_t>(given_name.size));
    steer(n, steering);
    std::memcpy(given_name.bytes, &n.at, std::min(given_name.size, sizeof n.at));
    block control(in, in.byte() * 8U % 1200);
    iovec part = {nullptr, 0};
    msghdr message{};
    message.msg_name = (how & 1) != 0 ? nullptr : given_name.bytes;
    message.msg_namelen = static_cast<socklen_t>(given_name.size);
    message.msg_iov = &part;
    message.msg_iovlen = 1;
    message.msg_control = control.bytes;
    message.msg_controllen = control.size;
    int flags = (how & 2) != 0 ? vr_abi::kMsgVr : 0;
    socket_.is_ordinary = vr_of(kSocket) == 0 && flags == 0;
    // With the flag, a message may send the datagram outside all VRs.
    socket_.expects_vr = vr_of(kSocket) != 0 && flags == 0;
    send(all, kSocket, &message, flags);
    if (message.msg_name == nullptr)
        return;
    socket_.expects_vr = vr_of(kSocket) != 0;
    send_to(all, kSocket, "x", 1, flags, reinterpret_cast<sockaddr *>(given_name.bytes), message.msg_namelen);
    vrkernel::connect(all, kSocket, reinterpret_cast<sockaddr *>(given_name.bytes), message.msg_namelen);
    vrkernel::bind(kSocket, reinterpret_cast<sockaddr *>(given_name.bytes), message.msg_namelen);
}

void receive_one(tables &all, input &in)
{
    std::uint8_t how = in.byte();
    input nothing = {nullptr, 0};
    block from(nothing, in.byte() % 140), control(nothing, in.byte() % 250);
    iovec part = {nullptr, 0};
    msghdr message{};
    message.msg_name = (how & 1) != 0 ? nullptr : from.bytes;
    message.msg_namelen = static_cast<socklen_t>(from.size);
    message.msg_iov = &part;
    message.msg_iovlen = 1;
    message.msg_control = control.bytes;
    message.msg_controllen = control.size;
    socket_.replies = in;
    mmsghdr several[2] = {{message, 0}, {message, 0}};
    receive(all, kSocket, &message, (how & 2) != 0 ? vr_abi::kMsgVr : 0);
    require(message.msg_controllen <= control.size);
    receive_all(all, kSocket, several, 2, 0, nullptr);
    auto length = static_cast<socklen_t>(from.size);
    receive_from(all, kSocket, nullptr, 0, 0, reinterpret_cast<sockaddr *>(from.bytes), &length);
    length = static_cast<socklen_t>(from.size);
    own_name(all, kSocket, reinterpret_cast<sockaddr *>(from.bytes), &length);
    in = socket_.replies;
}

} // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t *data, std::size_t size)
{
    static auto *all = static_cast<tables *>(std::calloc(1, sizeof(tables)));
    for (unsigned id : {kVr, kVr + 1})
        std::strcpy(all->vrs[id].name, "vr");
    input in = {data, size};
    std::uint8_t how = in.byte();
    socket_ = {};
    socket_.family = (how & 1) != 0 ? AF_INET6 : AF_INET;
    socket_.is_ipv6_only = (how & 2) != 0;
    put_in_vr(kSocket, (how & 4) != 0 ? kVr : 0);
    for (name *n : {&socket_.own, &socket_.peer}) {
        if ((how & 8) != 0)
            in.copy(&n->at, sizeof(sockaddr_in6));
        steer(*n, in.byte());
        n->length = n->is_ip() ? sizeof n->at.ip : sizeof n->at.ip6;
    }
    while (in.size != 0) {
        if ((in.byte() & 1) != 0)
            receive_one(*all, in);
        else
            send_one(*all, in);
    }
    return 0;
}
