// SPDX-License-Identifier: Apache-2.0
// One process of an experiment with the stand-in kernel: reads one call per line from standard input, makes it, and
// prints a line with the results. Receiving does not wait for another process, only for the kernel: a datagram on the
// loopback interface arrives before send returns, or a moment later on a busy machine.
//
//     socket 4            3
//     bindvr 3 7          0
//     recv 3              5 hello 127.0.0.1 4711 7
#include "vrctl.h"
#include "vrsock.h"

#include <algorithm>
#include <arpa/inet.h>
#include <atomic>
#include <cerrno>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <functional>
#include <iostream>
#include <linux/errqueue.h>
#include <map>
#include <net/if.h>
#include <poll.h>
#include <pthread.h>
#include <sstream>
#include <string>
#include <sys/ioctl.h>
#include <sys/wait.h>
#include <thread>
#include <unistd.h>
#include <vector>

namespace {

using Words = std::istringstream;

// ---- addresses ----

struct Name {
    sockaddr_storage room{};
    socklen_t length = sizeof room;

    sockaddr *any() { return reinterpret_cast<sockaddr *>(&room); }
    sockaddr_in *ip() { return reinterpret_cast<sockaddr_in *>(&room); }
    sockaddr_in6 *ip6() { return reinterpret_cast<sockaddr_in6 *>(&room); }
};

// "ADDRESS PORT"; "-" gives no name.
Name read_name(Words &words)
{
    Name name;
    std::string address;
    words >> address;
    if (address == "-") {
        name.length = 0;
        return name;
    }
    std::uint16_t port = 0;
    words >> port;
    if (address.find(':') != std::string::npos) {
        name.length = sizeof *name.ip6();
        name.ip6()->sin6_family = AF_INET6;
        name.ip6()->sin6_port = htons(port);
        ::inet_pton(AF_INET6, address.c_str(), &name.ip6()->sin6_addr);
    } else {
        name.length = sizeof *name.ip();
        name.ip()->sin_family = AF_INET;
        name.ip()->sin_port = htons(port);
        ::inet_pton(AF_INET, address.c_str(), &name.ip()->sin_addr);
    }
    return name;
}

std::string text_of(Name name)
{
    char text[INET6_ADDRSTRLEN] = "?";
    if (name.length == 0)
        return "- 0";
    bool six = name.room.ss_family == AF_INET6;
    const void *address = six ? static_cast<void *>(&name.ip6()->sin6_addr) : &name.ip()->sin_addr;
    ::inet_ntop(name.room.ss_family, address, text, sizeof text);
    return std::string(text) + " " + std::to_string(ntohs(six ? name.ip6()->sin6_port : name.ip()->sin_port));
}

bool is_six(int fd)
{
    int family = 0;
    socklen_t length = sizeof family;
    ::getsockopt(fd, SOL_SOCKET, SO_DOMAIN, &family, &length);
    return family == AF_INET6;
}

// A result, and the error of a failure.
std::string told(long result)
{
    return result == -1 ? "-1 " + std::string(::strerrorname_np(errno)) : std::to_string(result);
}

std::string vr_text(unsigned vr)
{
    return vr == QV_NO_VR ? "none" : std::to_string(vr);
}

template <typename T>
T next(Words &words)
{
    T value{};
    words >> value;
    return value;
}

// ---- sockets ----

std::string open_socket(Words &words)
{
    return told(::socket(next<int>(words) == 6 ? AF_INET6 : AF_INET, SOCK_DGRAM, 0));
}

std::string bind_vr(Words &words)
{
    int fd = next<int>(words), vr = next<int>(words);
    return told(is_six(fd) ? qv_bindvr6(fd, vr) : qv_bindvr(fd, vr));
}

std::string get_vr(Words &words)
{
    int fd = next<int>(words), vr = 0;
    int result = is_six(fd) ? qv_getvr6(fd, &vr) : qv_getvr(fd, &vr);
    return told(result) + " " + std::to_string(vr);
}

std::string own_name(int fd)
{
    Name own;
    return ::getsockname(fd, own.any(), &own.length) == 0 ? text_of(own) : told(-1);
}

std::string bind_name(Words &words)
{
    int fd = next<int>(words);
    Name name = read_name(words);
    return ::bind(fd, name.any(), name.length) == 0 ? own_name(fd) : told(-1);
}

std::string connect_name(Words &words)
{
    int fd = next<int>(words);
    Name name = read_name(words);
    return told(::connect(fd, name.any(), name.length));
}

std::string peer_name(Words &words)
{
    Name peer;
    return ::getpeername(next<int>(words), peer.any(), &peer.length) == 0 ? text_of(peer) : told(-1);
}

// ---- datagrams ----

// FD ADDRESS PORT VR TEXT
std::string send_in_vr(Words &words)
{
    int fd = next<int>(words);
    Name to = read_name(words);
    auto vr = next<unsigned>(words);
    auto text = next<std::string>(words);
    auto call = is_six(fd) ? qv_ipv6_sendto : qv_sendto;
    return told(call(fd, text.data(), text.size(), 0, to.length != 0 ? to.any() : nullptr, to.length, vr));
}

// FD ADDRESS PORT SOURCE PORT IFINDEX VR TEXT
std::string send_from(Words &words)
{
    int fd = next<int>(words);
    Name to = read_name(words), from = read_name(words);
    int ifindex = next<int>(words);
    auto vr = next<unsigned>(words);
    auto text = next<std::string>(words);
    bool given = from.length != 0;
    return told(is_six(fd) ? qv_ipv6_sendto_if(fd, text.data(), text.size(), 0, to.any(), given ? from.ip6() : nullptr,
                                               to.length, ifindex, vr)
                           : qv_sendto_if(fd, text.data(), text.size(), 0, to.any(), given ? from.ip() : nullptr,
                                          to.length, ifindex, vr));
}

// FD ADDRESS PORT TEXT
std::string send_plain(Words &words)
{
    int fd = next<int>(words);
    Name to = read_name(words);
    auto text = next<std::string>(words);
    return told(::sendto(fd, text.data(), text.size(), 0, to.length != 0 ? to.any() : nullptr, to.length));
}

// FD ADDRESS PORT LENGTH: with a name of that length, cut or with the bytes after it.
std::string send_to_length(Words &words)
{
    int fd = next<int>(words);
    Name to[2] = {read_name(words), {}};
    return told(::sendto(fd, "x", 1, 0, to[0].any(), next<socklen_t>(words)));
}

// The same with sendmsg(), which truncates where sendto() refuses.
std::string send_message_to_length(Words &words)
{
    int fd = next<int>(words);
    Name to[2] = {read_name(words), {}};
    char data = 'x';
    iovec part = {&data, 1};
    msghdr message{};
    message.msg_name = to[0].any();
    message.msg_namelen = next<socklen_t>(words);
    message.msg_iov = &part;
    message.msg_iovlen = 1;
    return told(::sendmsg(fd, &message, 0));
}

// FD ADDRESS PORT: a name without a family.
Name read_unspecified(Words &words)
{
    Name name = read_name(words);
    name.room.ss_family = AF_UNSPEC;
    return name;
}

std::string send_unspecified(Words &words)
{
    int fd = next<int>(words);
    Name to = read_unspecified(words);
    return told(::sendto(fd, "x", 1, 0, to.any(), to.length));
}

std::string bind_unspecified(Words &words)
{
    int fd = next<int>(words);
    Name name = read_unspecified(words);
    return ::bind(fd, name.any(), name.length) == 0 ? own_name(fd) : told(-1);
}

std::string connect_unspecified(Words &words)
{
    int fd = next<int>(words);
    Name name = read_unspecified(words);
    return told(::connect(fd, name.any(), name.length));
}

// FD ADDRESS PORT COUNT: several datagrams in one call, "0", "1" and so on.
std::string send_several(Words &words)
{
    int fd = next<int>(words);
    Name to = read_name(words);
    auto count = next<unsigned>(words);
    std::vector<mmsghdr> messages(count);
    std::vector<iovec> parts(count);
    const char digits[] = "0123456789";
    for (unsigned i = 0; i < count; i++) {
        parts[i] = {const_cast<char *>(digits) + i % 10, 1};
        messages[i].msg_hdr = {to.any(), to.length, &parts[i], 1, nullptr, 0, 0};
    }
    return told(::sendmmsg(fd, messages.data(), count, 0));
}

// FD COUNT FLAGS TIMEOUT (0: none, 1: one that expires at once): the datagrams and their senders.
std::string receive_several(Words &words)
{
    int fd = next<int>(words);
    auto count = next<unsigned>(words);
    int flags = next<int>(words);
    std::vector<mmsghdr> messages(count);
    std::vector<iovec> parts(count);
    std::vector<Name> from(count);
    std::vector<char> data(count);
    for (unsigned i = 0; i < count; i++) {
        parts[i] = {&data[i], 1};
        messages[i].msg_hdr = {from[i].any(), from[i].length, &parts[i], 1, nullptr, 0, 0};
    }
    timespec none = {0, 0};
    int n = ::recvmmsg(fd, messages.data(), count, flags, next<int>(words) != 0 ? &none : nullptr);
    std::string text = told(n);
    for (int i = 0; i < n; i++) {
        auto at = static_cast<std::size_t>(i);
        from[at].length = messages[at].msg_hdr.msg_namelen;
        text += " " + std::string(&data[at], messages[at].msg_len) + " " + text_of(from[at]);
    }
    return text;
}

// FD COUNT SECONDS NANOSECONDS: how many arrived within the time, and the seconds that remain.
std::string receive_within(Words &words)
{
    int fd = next<int>(words);
    auto count = next<unsigned>(words);
    timespec time;
    words >> time.tv_sec >> time.tv_nsec;
    std::vector<mmsghdr> messages(count);
    std::string came = told(::recvmmsg(fd, messages.data(), count, MSG_DONTWAIT, &time));
    return came + " " + (time.tv_sec > 1 ? "many" : std::to_string(time.tv_sec)); // the clock continues
}

// FD SIZE FLAGS TIMEOUT (as above): up to three datagrams, into names of this size; the lengths, and the bytes written
// after the port.
std::string receive_cut_names(Words &words)
{
    int fd = next<int>(words);
    auto room = next<socklen_t>(words);
    int flags = next<int>(words);
    timespec none = {0, 0};
    std::vector<mmsghdr> messages(3);
    std::vector<std::vector<unsigned char>> names(3, std::vector<unsigned char>(room + 4, 0xEE));
    for (std::size_t i = 0; i < messages.size(); i++)
        messages[i].msg_hdr = {names[i].data(), room, nullptr, 0, nullptr, 0, 0};
    int n = ::recvmmsg(fd, messages.data(), 3, flags, next<int>(words) != 0 ? &none : nullptr);
    std::string text = told(n);
    for (std::size_t i = 0; static_cast<int>(i) < n; i++) {
        text += " " + std::to_string(messages[i].msg_hdr.msg_namelen) + ":";
        for (std::size_t at = 4; at < names[i].size(); at++)
            text += " " + std::to_string(names[i][at]);
    }
    return text;
}

// FD LENGTH ("null": a null pointer): a plain receive into a name of that size.
std::string receive_into_length(Words &words)
{
    int fd = next<int>(words);
    auto given = next<std::string>(words);
    Name from;
    char data[16];
    bool null = given == "null";
    from.length = null ? 0 : static_cast<socklen_t>(std::stoul(given));
    ssize_t n = ::recvfrom(fd, data, sizeof data, MSG_DONTWAIT, from.any(), null ? nullptr : &from.length);
    return told(n) + " " + std::to_string(from.length);
}

std::string own_into_length(Words &words)
{
    int fd = next<int>(words);
    Name own;
    own.length = next<socklen_t>(words);
    int result = ::getsockname(fd, own.any(), &own.length);
    return told(result) + " " + std::to_string(own.length);
}

std::string received(ssize_t n, const char *data, const Name &from, const std::string &rest)
{
    return n < 0 ? told(n) : std::string(data, static_cast<std::size_t>(n)) + " " + text_of(from) + rest;
}

std::string receive_in_vr(Words &words)
{
    int fd = next<int>(words);
    char data[2048];
    Name from;
    unsigned vr = 0;
    auto call = is_six(fd) ? qv_recvfrom6 : qv_recvfrom;
    ssize_t n = call(fd, data, sizeof data, MSG_DONTWAIT, from.any(), &from.length, &vr);
    return received(n, data, from, " vr " + vr_text(vr));
}

std::string receive_with_destination(Words &words)
{
    int fd = next<int>(words);
    char data[2048], interface[IF_NAMESIZE] = "none";
    Name from, to;
    int ifindex = 0;
    unsigned vr = QV_NO_VR;
    ssize_t n = is_six(fd) ? qv_recvfromto_v6(fd, data, sizeof data, MSG_DONTWAIT, from.any(), &from.length, to.ip6(),
                                              &to.length, &ifindex, &vr)
                           : qv_recvfromto(fd, data, sizeof data, MSG_DONTWAIT, from.any(), &from.length, to.ip(),
                                           &to.length, &ifindex, &vr);
    if (n < 0)
        return told(n);
    ::if_indextoname(static_cast<unsigned>(ifindex), interface);
    return received(n, data, from, " to " + text_of(to) + " through " + interface + " vr " + vr_text(vr));
}

std::string receive_plain(Words &words)
{
    char data[2048];
    Name from;
    ssize_t n = ::recvfrom(next<int>(words), data, sizeof data, MSG_DONTWAIT, from.any(), &from.length);
    return received(n, data, from, "");
}

std::string name_at(const unsigned char *data, std::size_t size)
{
    Name name;
    name.length = static_cast<socklen_t>(std::min(size, sizeof name.room));
    std::memcpy(name.any(), data, name.length);
    return text_of(name);
}

// The content of a control message.
std::string text_of(const cmsghdr &c)
{
    auto *data = reinterpret_cast<const unsigned char *>(CMSG_DATA(&c));
    std::size_t size = c.cmsg_len - sizeof c;
    if (c.cmsg_level == IPPROTO_IP && c.cmsg_type == IP_PKTINFO) {
        in_pktinfo info;
        std::memcpy(&info, data, sizeof info);
        std::string specific = ::inet_ntoa(info.ipi_spec_dst);
        return "info " + specific + " " + ::inet_ntoa(info.ipi_addr);
    }
    if (c.cmsg_level == IPPROTO_IP && c.cmsg_type == IP_TTL)
        return "ttl " + std::to_string(data[0]);
    if (c.cmsg_type == (c.cmsg_level == IPPROTO_IP ? IP_ORIGDSTADDR : IPV6_ORIGDSTADDR))
        return "original " + name_at(data, size);
    if (c.cmsg_type == (c.cmsg_level == IPPROTO_IP ? IP_RECVERR : IPV6_RECVERR))
        return "error from " + name_at(data + sizeof(sock_extended_err), size - sizeof(sock_extended_err));
    return std::to_string(c.cmsg_level) + "/" + std::to_string(c.cmsg_type);
}

// FD FLAGS: the name, and the content of the control messages.
std::string receive_control(Words &words)
{
    int fd = next<int>(words);
    int flags = MSG_DONTWAIT | next<int>(words);
    char data[2048];
    alignas(cmsghdr) char control[512];
    Name from;
    iovec part = {data, sizeof data};
    msghdr message = {from.any(), from.length, &part, 1, control, sizeof control, 0};
    if (::recvmsg(fd, &message, flags) < 0)
        return told(-1);
    from.length = message.msg_namelen;
    std::string text = text_of(from);
    for (cmsghdr *c = CMSG_FIRSTHDR(&message); c != nullptr; c = CMSG_NXTHDR(&message, c))
        text += ", " + text_of(*c);
    return text;
}

// With recvmsg() and without the VR flag: the levels and types of the control messages.
std::string receive_messages(Words &words)
{
    int fd = next<int>(words);
    int flags = MSG_DONTWAIT | next<int>(words);
    auto room = next<std::size_t>(words);
    char data[2048];
    alignas(cmsghdr) char control[256];
    iovec part = {data, sizeof data};
    msghdr message{};
    message.msg_iov = &part;
    message.msg_iovlen = 1;
    message.msg_control = control;
    message.msg_controllen = room;
    if (::recvmsg(fd, &message, flags) < 0)
        return told(-1);
    std::string text = message.msg_flags & MSG_CTRUNC ? "cut" : "whole";
    if (message.msg_controllen > room)
        text += " beyond the room";
    for (cmsghdr *c = CMSG_FIRSTHDR(&message); c != nullptr; c = CMSG_NXTHDR(&message, c))
        text += " " + std::to_string(c->cmsg_level) + "/" + std::to_string(c->cmsg_type);
    return text;
}

std::string readable(Words &words)
{
    pollfd one = {next<int>(words), POLLIN, 0};
    return told(::poll(&one, 1, 0));
}

// FD LEVEL TYPE LENGTH: sends a control message of any length.
std::string send_message(Words &words)
{
    int fd = next<int>(words);
    Name to = read_name(words);
    alignas(cmsghdr) char control[64] = {};
    cmsghdr header{};
    header.cmsg_level = next<int>(words);
    header.cmsg_type = next<int>(words);
    header.cmsg_len = next<std::size_t>(words);
    std::memcpy(control, &header, sizeof header);
    char data = 'x';
    iovec part = {&data, 1};
    msghdr message{};
    message.msg_name = to.any();
    message.msg_namelen = to.length;
    message.msg_iov = &part;
    message.msg_iovlen = 1;
    message.msg_control = control;
    message.msg_controllen = next<std::size_t>(words);
    return told(::sendmsg(fd, &message, 0x10000));
}

// FD ADDRESS PORT BYTES: with the VR flag and control data of these bytes, two digits each.
std::string send_control(Words &words)
{
    int fd = next<int>(words);
    Name to = read_name(words);
    auto digits = next<std::string>(words);
    std::vector<char> control;
    for (std::size_t i = 0; i + 1 < digits.size(); i += 2)
        control.push_back(static_cast<char>(std::stoi(digits.substr(i, 2), nullptr, 16)));
    char data = 'x';
    iovec part = {&data, 1};
    msghdr message = {to.any(), to.length, &part, 1, control.data(), control.size(), 0};
    return told(::sendmsg(fd, &message, 0x10000));
}

// FD LEVEL NAME VALUE
std::string set_option(Words &words)
{
    int fd = next<int>(words), level = next<int>(words), name = next<int>(words), value = next<int>(words);
    return told(::setsockopt(fd, level, name, &value, sizeof value));
}

// ---- threads ----

// VR ADDRESS PORT ROUNDS: in each round two threads send on a new socket at the same time; how many sends failed.
std::string first_sends(Words &words)
{
    int vr = next<int>(words);
    Name to = read_name(words);
    int rounds = next<int>(words);
    std::atomic<int> failed = 0, arrived = 0;
    std::vector<int> sockets;
    for (int i = 0; i < rounds; i++) {
        sockets.push_back(::socket(AF_INET, SOCK_DGRAM, 0));
        qv_bindvr(sockets.back(), vr);
    }
    auto send_first = [&] {
        int others = 0;
        for (int fd : sockets) {
            arrived++;
            others += 2;
            while (arrived < others) // spins, so that both send at the same time
                ;
            failed += ::sendto(fd, "x", 1, 0, to.any(), to.length) != 1;
        }
    };
    std::thread other(send_first);
    send_first();
    other.join();
    for (int fd : sockets)
        ::close(fd);
    return std::to_string(failed);
}

// FD CALL: whether a thread with a pending cancellation request ends in that call.
int cancelled_fd;
std::string cancelled_call;

void *call_when_cancelled(void *)
{
    Name to;
    char data = 'x';
    iovec part = {&data, 1};
    msghdr message{};
    message.msg_iov = &part;
    message.msg_iovlen = 1;
    mmsghdr several = {message, 0};
    to.ip()->sin_family = AF_INET;
    to.ip()->sin_port = htons(5000);
    to.ip()->sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    to.length = sizeof *to.ip();
    ::pthread_cancel(::pthread_self());
    if (cancelled_call == "connect")
        ::connect(cancelled_fd, to.any(), to.length);
    else if (cancelled_call == "sendto")
        ::sendto(cancelled_fd, "x", 1, 0, to.any(), to.length);
    else if (cancelled_call == "sendmsg")
        ::sendmsg(cancelled_fd, &message, 0);
    else if (cancelled_call == "sendmmsg")
        ::sendmmsg(cancelled_fd, &several, 1, 0);
    else if (cancelled_call == "recvfrom")
        ::recvfrom(cancelled_fd, &data, 1, MSG_DONTWAIT, to.any(), &to.length);
    else if (cancelled_call == "recvmsg")
        ::recvmsg(cancelled_fd, &message, MSG_DONTWAIT);
    else if (cancelled_call == "recvmmsg")
        ::recvmmsg(cancelled_fd, &several, 1, MSG_DONTWAIT, nullptr);
    else if (cancelled_call == "vr")
        qv_ipv6_sendto(cancelled_fd, "x", 1, 0, to.any(), to.length, 7);
    return nullptr;
}

std::string is_cancelled(Words &words)
{
    cancelled_fd = next<int>(words);
    cancelled_call = next<std::string>(words);
    pthread_t thread;
    void *result = nullptr;
    ::pthread_create(&thread, nullptr, call_when_cancelled, nullptr);
    ::pthread_join(thread, &result);
    return result == PTHREAD_CANCELED ? "cancelled" : "returned";
}

// ---- the private requests ----

std::string name_or_null(const char *name)
{
    return name != nullptr ? name : "null " + std::string(::strerrorname_np(errno));
}

unsigned short id(Words &words)
{
    return next<unsigned short>(words);
}

std::string interfaces_vsys(Words &words)
{
    unsigned short vsys = 0;
    int result = qv_get_if_vsysid(id(words), &vsys);
    return result == 0 ? std::to_string(vsys) : told(result);
}

std::string interfaces_vr(Words &words)
{
    unsigned vr = 0;
    int result = qv_get_if_vr(next<std::string>(words).c_str(), &vr);
    return result == 0 ? std::to_string(vr) : std::string(::strerrorname_np(result)) + " " + vr_text(vr);
}

std::string set_interfaces_vr(Words &words)
{
    auto name = next<std::string>(words);
    int result = qv_set_if_vr(name.c_str(), next<unsigned>(words));
    return result == 0 ? "0" : ::strerrorname_np(result);
}

std::string set_mac(Words &words)
{
    const unsigned char mac[6] = {2, 0, 0, 0, 0, 0x17};
    unsigned short ifid = id(words);
    return told(qv_set_cellular_if_mac(mac, ifid, next<unsigned>(words)));
}

// CODE DEVICE: a request on the device's channel, with or without a record.
std::string raw_command(Words &words)
{
    alignas(8) char record[280] = {};
    auto code = next<std::uint64_t>(words);
    std::memcpy(record, &code, sizeof code);
    ifreq channel{};
    std::strncpy(channel.ifr_name, next<std::string>(words).c_str(), sizeof channel.ifr_name - 1);
    channel.ifr_data = next<std::string>(words) == "record" ? record : nullptr;
    int fd = ::socket(AF_INET, SOCK_DGRAM, 0);
    std::string answer = told(::ioctl(fd, 0x89F0, &channel));
    ::close(fd);
    return answer;
}

std::string request_on_a_file(Words &)
{
    return told(::ioctl(0, 0x89A4, nullptr));
}

// ---- what becomes of a socket ----

std::string duplicate(Words &words)
{
    return told(::dup(next<int>(words)));
}

// Reads the socket's VR in another process: a child, and the same child after exec().
std::string ask_after_exec(Words &words)
{
    int fd = next<int>(words), out[2];
    if (::pipe(out) < 0)
        return told(-1);
    pid_t pid = ::fork();
    if (pid == 0) {
        ::dup2(out[1], 1);
        std::string number = std::to_string(fd);
        ::execl("/proc/self/exe", "peer", number.c_str(), static_cast<char *>(nullptr));
        ::_exit(127);
    }
    ::close(out[1]);
    char text[64];
    ssize_t n = ::read(out[0], text, sizeof text);
    ::close(out[0]);
    ::waitpid(pid, nullptr, 0);
    return n > 0 ? std::string(text, static_cast<std::size_t>(n)) : told(-1);
}

const std::map<std::string, std::function<std::string(Words &)>> kCalls = {
    {"socket", open_socket},
    {"tcp", [](Words &) { return told(::socket(AF_INET, SOCK_STREAM, 0)); }},
    {"unix", [](Words &) { return told(::socket(AF_UNIX, SOCK_DGRAM, 0)); }},
    {"raw", [](Words &) { return told(::socket(AF_INET, SOCK_RAW, IPPROTO_UDP)); }},
    {"listen", [](Words &words) { return told(::listen(next<int>(words), 1)); }},
    {"setoption", set_option},
    {"bindvr", bind_vr},
    {"getvr", get_vr},
    {"bind", bind_name},
    {"connect", connect_name},
    {"own", [](Words &words) { return own_name(next<int>(words)); }},
    {"peer", peer_name},
    {"send", send_in_vr},
    {"sendfrom", send_from},
    {"sendplain", send_plain},
    {"sendmessage", send_message},
    {"sendtolength", send_to_length},
    {"sendmsglength", send_message_to_length},
    {"sendunspecified", send_unspecified},
    {"bindunspecified", bind_unspecified},
    {"connectunspecified", connect_unspecified},
    {"sendcontrol", send_control},
    {"recvcontrol", receive_control},
    {"recvwithin", receive_within},
    {"recvcutnames", receive_cut_names},
    {"recvintolength", receive_into_length},
    {"ownintolength", own_into_length},
    {"firstsends", first_sends},
    {"cancel", is_cancelled},
    {"sendseveral", send_several},
    {"recvseveral", receive_several},
    {"recv", receive_in_vr},
    {"recvto", receive_with_destination},
    {"recvplain", receive_plain},
    {"recvmessages", receive_messages},
    {"readable", readable},
    {"dup", duplicate},
    {"askafterexec", ask_after_exec},
    {"vrid_2_vsysid", [](Words &words) { return told(qv_vrid_2_vsysid(id(words))); }},
    {"vrid_2_name", [](Words &words) { return name_or_null(qv_vrid_2_name(id(words))); }},
    {"vrname_2_id",
     [](Words &words) {
         unsigned short vsys = id(words);
         return std::to_string(qv_vrname_2_id(vsys, next<std::string>(words).c_str()));
     }},
    {"vsysid_2_name", [](Words &words) { return name_or_null(qv_vsysid_2_name(id(words))); }},
    {"vsysname_2_id", [](Words &words) { return told(qv_vsysname_2_id(next<std::string>(words).c_str())); }},
    {"default_vrid", [](Words &words) { return std::to_string(qv_vsysid_2_default_vrid(id(words))); }},
    {"is_vr_shared", [](Words &words) { return told(qv_is_vr_shared(id(words))); }},
    {"set_vr_shared", [](Words &words) { return told(qv_set_vr_shared(id(words))); }},
    {"set_vr_unshared", [](Words &words) { return told(qv_set_vr_unshared(id(words))); }},
    {"is_if_shared", [](Words &words) { return told(qv_is_if_shared(id(words))); }},
    {"set_if_shared", [](Words &words) { return told(qv_set_if_shared(id(words))); }},
    {"set_if_unshared", [](Words &words) { return told(qv_set_if_unshared(id(words))); }},
    {"if_vsysid", interfaces_vsys},
    {"get_if_vr", interfaces_vr},
    {"set_if_vr", set_interfaces_vr},
    {"ifname_2_vsysid", [](Words &words) { return told(qv_ifname_2_vsysid(next<std::string>(words).c_str())); }},
    {"set_mac", set_mac},
    {"set_wifi",
     [](Words &words) {
         unsigned short ifid = id(words);
         return told(qv_set_wifi_if(ifid, next<unsigned>(words)));
     }},
    {"set_mtu_limit", [](Words &words) { return told(qv_set_if_mtu_limit(id(words))); }},
    {"change_device",
     [](Words &words) {
         unsigned short ifid = id(words);
         return told(qv_change_cellular_dev(nullptr, ifid, next<unsigned>(words)));
     }},
    {"command", raw_command},
    {"fileioctl", request_on_a_file},
};

bool has_nothing_yet(const std::string &call, const std::string &answer)
{
    return (call.rfind("recv", 0) == 0 && answer.rfind("-1 EAGAIN", 0) == 0) || (call == "readable" && answer == "0");
}

std::string make_call(const std::string &line)
{
    Words words(line);
    auto name = next<std::string>(words);
    auto call = kCalls.find(name);
    if (call == kCalls.end())
        return "unknown call";
    const bool is_slow = std::getenv("LIBCOMMON_VM") != nullptr;
    std::string answer = call->second(words);
    for (int ms = is_slow ? 500 : 100; ms > 0 && has_nothing_yet(name, answer); ms--) {
        ::usleep(1000);
        Words again(line);
        next<std::string>(again);
        answer = call->second(again);
    }
    return answer;
}

} // namespace

int main(int argc, char **argv)
{
    if (argc > 1) {
        Words fd(argv[1]);
        std::cout << get_vr(fd);
        return 0;
    }
    for (std::string line; std::getline(std::cin, line);)
        std::cout << make_call(line) << std::endl;
}
