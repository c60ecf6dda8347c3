// SPDX-License-Identifier: Apache-2.0
// vrecho - requests an echo in a virtual router, and reports whether one arrives.
//
//     vrecho VR [PORT]
#include <vrsock.h>

#include <arpa/inet.h>
#include <cstdio>
#include <cstdlib>
#include <poll.h>
#include <string_view>
#include <unistd.h>

namespace {

constexpr int kPort = 7007;
constexpr int kPatienceMs = 500;

// The socket is in no VR: the call names the VR of the request, and the answer carries its own.
bool echo(int fd, const sockaddr_in &to, unsigned vrid, unsigned &answered_in)
{
    char text[64];
    int size = std::snprintf(text, sizeof text, "to VR %u", vrid);
    auto length = static_cast<std::size_t>(size);
    if (qv_sendto(fd, text, length, 0, reinterpret_cast<const sockaddr *>(&to), sizeof to, vrid) < 0) {
        std::perror("vrecho: send");
        return false;
    }
    pollfd answer = {fd, POLLIN, 0};
    if (::poll(&answer, 1, kPatienceMs) <= 0)
        return false;
    char reply[sizeof text];
    ssize_t n = qv_recvfrom(fd, reply, sizeof reply, 0, nullptr, nullptr, &answered_in);
    return n == size && std::string_view(reply, length) == std::string_view(text, length);
}

} // namespace

int main(int argc, char **argv)
{
    if (argc < 2) {
        std::fputs("usage: vrecho VR [PORT]\n", stderr);
        return 2;
    }
    auto vrid = static_cast<unsigned>(std::atoi(argv[1]));
    sockaddr_in to{};
    to.sin_family = AF_INET;
    to.sin_port = htons(static_cast<in_port_t>(argc > 2 ? std::atoi(argv[2]) : kPort));
    to.sin_addr.s_addr = htonl(INADDR_LOOPBACK);

    int fd = ::socket(AF_INET, SOCK_DGRAM, 0);
    unsigned answered_in = QV_NO_VR;
    bool heard = echo(fd, to, vrid, answered_in);
    ::close(fd);
    if (heard)
        std::printf("VR %u: answered in VR %u\n", vrid, answered_in);
    else
        std::printf("VR %u: no answer\n", vrid);
    return heard ? 0 : 1;
}
