// SPDX-License-Identifier: Apache-2.0
// Control data of any shape through the receive calls: the fuzzer's recvmsg() returns it and reports any length for
// it.
#include "vrsock.h"

#include <algorithm>
#include <cstdint>
#include <cstdlib>
#include <cstring>

namespace {

struct {
    const std::uint8_t *control;
    std::size_t size;
    std::size_t claimed;
    sa_family_t family;
    bool no_buffer;
} kernel;

struct Header {
    std::uint8_t call;
    std::uint8_t family; // odd: the family of the call
    std::uint8_t room;   // size of the destination
    std::uint8_t how;    // 0: the true length, 1: no control buffer at all, else the claimed length
    std::uint16_t claimed;
};

void require(bool held)
{
    if (!held)
        std::abort();
}

} // namespace

extern "C" ssize_t recvmsg(int, msghdr *message, int flags)
{
    require((flags & 0x10000) != 0);
    std::size_t size = std::min(kernel.size, message->msg_controllen);
    std::memcpy(message->msg_control, kernel.control, size);
    message->msg_controllen = kernel.claimed != SIZE_MAX ? kernel.claimed : size;
    if (kernel.no_buffer)
        message->msg_control = nullptr;
    message->msg_namelen = 0;
    return 1;
}

extern "C" int getsockname(int, sockaddr *address, socklen_t *length) noexcept
{
    std::memset(address, 0, *length);
    address->sa_family = kernel.family;
    return 0;
}

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t *data, std::size_t size)
{
    Header header;
    if (size < sizeof header)
        return 0;
    std::memcpy(&header, data, sizeof header);
    bool six = (header.call & 1) != 0;
    kernel = {data + sizeof header, size - sizeof header, header.how > 1 ? header.claimed : SIZE_MAX,
              static_cast<sa_family_t>(((header.family & 1) != 0) == six ? AF_INET6 : AF_INET), header.how == 1};

    char byte;
    sockaddr_storage from;
    socklen_t fromlen = sizeof from;
    auto *name = reinterpret_cast<sockaddr *>(&from);
    unsigned vr = 12345;
    if ((header.call & 2) != 0) {
        auto call = six ? qv_recvfrom6 : qv_recvfrom;
        ssize_t n = call(3, &byte, 1, 0, name, &fromlen, &vr);
        require(n == 1 || (n == QV_BAD_VR_MESSAGE && vr == QV_NO_VR));
        return 0;
    }
    sockaddr_in to;
    sockaddr_in6 to6;
    socklen_t tolen = header.room;
    int ifindex = 0;
    ssize_t n = six ? qv_recvfromto_v6(3, &byte, 1, 0, name, &fromlen, &to6, &tolen, &ifindex, &vr)
                    : qv_recvfromto(3, &byte, 1, 0, name, &fromlen, &to, &tolen, &ifindex, &vr);
    require(n == 1 && fromlen == 0);
    require(tolen == 0 || (header.room > 7 && tolen == (six ? sizeof to6 : sizeof to)));
    return 0;
}
