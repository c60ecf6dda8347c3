// SPDX-License-Identifier: Apache-2.0
#include "echo.h"

#include "loop.h"

#include <arpa/inet.h>
#include <cerrno>
#include <console_print.h>
#include <cstdio>
#include <cstring>
#include <ifname.h>
#include <net/if.h>
#include <unistd.h>
#include <vrctl.h>
#include <vrsock.h>

namespace sampled {
namespace {

constexpr std::size_t kMostEchoed = 1500;
constexpr int kNameSize = 32;

// An interface's appliance name, or its number if it has none.
void name_interface(int ifindex, char (&name)[kNameSize])
{
    char linux_name[IF_NAMESIZE];
    if (::if_indextoname(static_cast<unsigned>(ifindex), linux_name) == nullptr ||
        unixname2ifpname(linux_name, name, sizeof name) != 0)
        std::snprintf(name, sizeof name, "interface %d", ifindex);
}

void answer(int fd)
{
    char data[kMostEchoed];
    sockaddr_in from, to;
    socklen_t fromlen = sizeof from, tolen = sizeof to;
    int ifindex = 0;
    unsigned vrid = QV_NO_VR;
    ssize_t n = qv_recvfromto(fd, data, sizeof data, MSG_DONTWAIT, reinterpret_cast<sockaddr *>(&from), &fromlen, &to,
                              &tolen, &ifindex, &vrid);
    if (n < 0 || tolen == 0 || vrid == QV_NO_VR)
        return;
    char interface[kNameSize], asker[INET_ADDRSTRLEN], asked[INET_ADDRSTRLEN];
    name_interface(ifindex, interface);
    console_print("sampled: VR %u: %zd bytes from %s to %s through %s\n", vrid, n,
                  ::inet_ntop(AF_INET, &from.sin_addr, asker, sizeof asker),
                  ::inet_ntop(AF_INET, &to.sin_addr, asked, sizeof asked), interface);
    // Answers from the address that the request was sent to, through the interface that it arrived on.
    if (qv_sendto_if(fd, data, static_cast<std::size_t>(n), MSG_DONTWAIT, reinterpret_cast<sockaddr *>(&from), &to,
                     fromlen, ifindex, vrid) < 0)
        console_print("sampled: VR %u: no answer, %m\n", vrid);
}

int open_in_vr(int vrid, int port)
{
    int fd = ::socket(AF_INET, SOCK_DGRAM | SOCK_CLOEXEC, 0);
    int on = 1;
    sockaddr_in at{};
    at.sin_family = AF_INET;
    at.sin_port = htons(static_cast<in_port_t>(port));
    int error = qv_bindvr(fd, vrid);
    if (error == 0 && ::setsockopt(fd, IPPROTO_IP, IP_PKTINFO, &on, sizeof on) == 0 &&
        ::bind(fd, reinterpret_cast<sockaddr *>(&at), sizeof at) == 0)
        return fd;
    if (error < 0)
        error = EINVAL; // not a VR id
    console_print("sampled: VR %d: %s\n", vrid, std::strerror(error != 0 ? error : errno));
    ::close(fd);
    return -1;
}

} // namespace

bool echo_in_vr(int vrid, int port)
{
    int fd = open_in_vr(vrid, port);
    if (fd < 0 || !loop_watch(fd, answer))
        return false;
    const char *name = qv_vrid_2_name(static_cast<unsigned short>(vrid));
    console_print("sampled: echo in VR %d, %s of vsys %d\n", vrid, name != nullptr ? name : "?",
                  qv_vrid_2_vsysid(static_cast<unsigned short>(vrid)));
    return true;
}

bool echo_at_interface(const char *name, int port)
{
    unsigned vrid;
    char linux_name[kNameSize];
    if (qv_get_netif_vr(name, &vrid) != 0 || ifpname2unixname(name, linux_name, sizeof linux_name) != 0) {
        console_print("sampled: %s: no such interface\n", name);
        return false;
    }
    console_print("sampled: %s is %s in VR %u\n", name, linux_name, vrid);
    return echo_in_vr(static_cast<int>(vrid), port);
}

} // namespace sampled
