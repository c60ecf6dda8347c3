// SPDX-License-Identifier: Apache-2.0
// A datagram over the loopback interface through the VR calls, against the bare system calls with the same control
// data; and interface names by the second.
//
// A stock kernel refuses the VR message of the socket's own family, but steps over that of the other one: so the IPv6
// call sends on an IPv4 socket here. It differs from the IPv4 call only in its numbers.
#include "ifname.h"
#include "vrsock.h"

#include <arpa/inet.h>
#include <array>
#include <benchmark/benchmark.h>
#include <cstring>
#include <unistd.h>

namespace {

constexpr std::size_t kSize = 100;
constexpr int kVrFlag = 0x10000;

// A socket that sends to itself.
struct Loop {
    int fd = ::socket(AF_INET, SOCK_DGRAM, 0);
    sockaddr_in at{};
    std::array<char, kSize> data{};

    Loop()
    {
        at.sin_family = AF_INET;
        at.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
        socklen_t length = sizeof at;
        ::bind(fd, name(), length);
        ::getsockname(fd, name(), &length);
    }
    ~Loop() { ::close(fd); }

    sockaddr *name() { return reinterpret_cast<sockaddr *>(&at); }
};

void ours(benchmark::State &state)
{
    Loop loop;
    sockaddr_in from;
    for (auto _ : state) {
        socklen_t fromlen = sizeof from;
        unsigned vr;
        if (qv_ipv6_sendto(loop.fd, loop.data.data(), kSize, 0, loop.name(), sizeof loop.at, 7) != 0 ||
            qv_recvfrom(loop.fd, loop.data.data(), kSize, 0, reinterpret_cast<sockaddr *>(&from), &fromlen, &vr) !=
                kSize)
            state.SkipWithError("no datagram");
        benchmark::DoNotOptimize(vr);
    }
}

void bare_messages(benchmark::State &state)
{
    Loop loop;
    sockaddr_in from;
    alignas(cmsghdr) char control[24] = {};
    cmsghdr header = {20, IPPROTO_IPV6, 91};
    std::memcpy(control, &header, sizeof header);
    for (auto _ : state) {
        iovec part = {loop.data.data(), kSize};
        alignas(cmsghdr) char reply[80];
        msghdr out = {loop.name(), sizeof loop.at, &part, 1, control, sizeof control, 0};
        msghdr in = {&from, sizeof from, &part, 1, reply, sizeof reply, 0};
        if (::sendmsg(loop.fd, &out, kVrFlag) != kSize || ::recvmsg(loop.fd, &in, kVrFlag) != kSize)
            state.SkipWithError("no datagram");
        benchmark::DoNotOptimize(in.msg_controllen);
    }
}

BENCHMARK(ours);
BENCHMARK(bare_messages);

void to_linux_name(benchmark::State &state, const char *name)
{
    char out[32];
    for (auto _ : state)
        benchmark::DoNotOptimize(ifpname2unixname(name, out, sizeof out));
    state.SetItemsProcessed(state.iterations());
}

void to_appliance_name(benchmark::State &state, const char *name)
{
    char out[32];
    for (auto _ : state)
        benchmark::DoNotOptimize(unixname2ifpname(name, out, sizeof out));
    state.SetItemsProcessed(state.iterations());
}

BENCHMARK_CAPTURE(to_linux_name, first_row, "ethernet0/1.100");
BENCHMARK_CAPTURE(to_linux_name, pppoe, "ethernet0/2pppoe1");
BENCHMARK_CAPTURE(to_linux_name, no_row, "tunnel.1");
BENCHMARK_CAPTURE(to_appliance_name, no_row, "eth0-1_100");

} // namespace
