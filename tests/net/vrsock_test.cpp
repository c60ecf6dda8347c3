// SPDX-License-Identifier: Apache-2.0
// The VR sockets byte for byte, with system calls in place of the appliance kernel's, and on the stock kernel.
#include "vrsock.h"

#include "support/next_function.h"
#include "support/random.h"
#include "support/support.h"

#include <arpa/inet.h>
#include <cerrno>
#include <climits>
#include <cstdint>
#include <cstring>
#include <optional>
#include <sys/uio.h>
#include <unistd.h>
#include <vector>

using namespace support;

namespace {

static_assert(QV_NO_VR == 0xFFFFABCD && QV_BAD_VR_MESSAGE == -22 && QV_VRID_MIN == 1 && QV_VRID_MAX == 2080);

using Bytes = std::vector<unsigned char>;

// ---- the interposed kernel ----

bool interposed = false;

struct Option {
    int fd, level, name;
    Bytes value;
    socklen_t length;
} option;
int option_error = 0;
int option_reply = 0;
int options_asked = 0;

struct Sent {
    int fd, flags, message_flags;
    const void *to;
    socklen_t tolen;
    std::vector<iovec> data;
    Bytes control;
    bool control_is_null;
} sent;
ssize_t send_result = 100;

Bytes reply_control;                    // what recvmsg() writes into the control buffer
std::size_t claimed_control = SIZE_MAX; // the length that it reports instead of the real one
bool reply_null_control = false;
ssize_t receive_result = 5;
socklen_t reply_namelen = 7;
struct Received {
    int flags;
    socklen_t namelen;
    const void *name;
    std::size_t control_size;
    bool control_was_zero;
} received;

sockaddr_storage own_name;
int own_name_error = 0;

void append(Bytes &bytes, const void *data, std::size_t size)
{
    auto *from = static_cast<const unsigned char *>(data);
    bytes.insert(bytes.end(), from, from + size);
}

// One control message, padded. Its length is the correct one unless another is given.
Bytes message(int level, int type, const Bytes &data, std::optional<std::uint64_t> length = std::nullopt)
{
    Bytes bytes;
    std::uint64_t claimed = length.value_or(16 + data.size());
    append(bytes, &claimed, 8);
    append(bytes, &level, 4);
    append(bytes, &type, 4);
    append(bytes, data.data(), data.size());
    bytes.resize((bytes.size() + 7) / 8 * 8);
    return bytes;
}

Bytes number(std::uint32_t value)
{
    Bytes bytes;
    append(bytes, &value, 4);
    return bytes;
}

Bytes vr4(std::uint32_t vrid, std::optional<std::uint64_t> length = std::nullopt)
{
    return message(0, 30, number(vrid), length);
}

Bytes vr6(std::uint32_t vrid, std::optional<std::uint64_t> length = std::nullopt)
{
    return message(41, 90, number(vrid), length);
}

Bytes info4(int ifindex, const char *specific, const char *destination)
{
    in_pktinfo info{};
    info.ipi_ifindex = ifindex;
    ::inet_pton(AF_INET, specific, &info.ipi_spec_dst);
    ::inet_pton(AF_INET, destination, &info.ipi_addr);
    Bytes bytes;
    append(bytes, &info, sizeof info);
    return message(0, 8, bytes);
}

Bytes info6(unsigned ifindex, const char *destination)
{
    in6_pktinfo info{};
    info.ipi6_ifindex = ifindex;
    ::inet_pton(AF_INET6, destination, &info.ipi6_addr);
    Bytes bytes;
    append(bytes, &info, sizeof info);
    return message(41, 50, bytes);
}

Bytes operator+(Bytes a, const Bytes &b)
{
    a.insert(a.end(), b.begin(), b.end());
    return a;
}

sockaddr_in address4(const char *text, std::uint16_t port)
{
    sockaddr_in address{};
    address.sin_family = AF_INET;
    address.sin_port = htons(port);
    ::inet_pton(AF_INET, text, &address.sin_addr);
    return address;
}

sockaddr_in6 address6(const char *text, std::uint16_t port)
{
    sockaddr_in6 address{};
    address.sin6_family = AF_INET6;
    address.sin6_port = htons(port);
    ::inet_pton(AF_INET6, text, &address.sin6_addr);
    return address;
}

struct Vrsock : testing::Test {
    void SetUp() override
    {
        interposed = true;
        auto own = address4("0.0.0.0", 5000);
        std::memcpy(&own_name, &own, sizeof own);
    }
    void TearDown() override { interposed = false; }

    void own_is_v6()
    {
        auto own = address6("::", 6000);
        std::memcpy(&own_name, &own, sizeof own);
    }

    char buf[16] = {};
    socklen_t fromlen = 99;
    sockaddr_storage from;
};

struct Vrsock4 : Vrsock {
    ssize_t receive(const Bytes &control, unsigned *vrid)
    {
        reply_control = control;
        return qv_recvfrom(3, buf, sizeof buf, 0, reinterpret_cast<sockaddr *>(&from), &fromlen, vrid);
    }
};

// What a recvfromto call stores. The outputs start with recognisable values.
struct Told {
    ssize_t result = 0;
    unsigned vrid = 0x77777777;
    int ifindex = -77;
    socklen_t tolen = 0;
    Bytes to;
};

template <typename Address, typename Call>
Told receive_with(Call call, const Bytes &control, socklen_t tolen)
{
    reply_control = control;
    Told told;
    char buf[16];
    socklen_t fromlen = 99;
    sockaddr_storage from;
    Address to;
    std::memset(&to, 0xEE, sizeof to);
    told.tolen = tolen;
    told.result = call(3, buf, sizeof buf, 0, reinterpret_cast<sockaddr *>(&from), &fromlen, &to, &told.tolen,
                       &told.ifindex, &told.vrid);
    append(told.to, &to, sizeof to);
    return told;
}

Told receive_to4(const Bytes &control, socklen_t tolen = 16)
{
    return receive_with<sockaddr_in>(qv_recvfromto, control, tolen);
}

Told receive_to6(const Bytes &control, socklen_t tolen = 28)
{
    return receive_with<sockaddr_in6>(qv_recvfromto_v6, control, tolen);
}

template <typename Address>
Bytes bytes_of(const Address &address)
{
    Bytes bytes;
    append(bytes, &address, sizeof address);
    return bytes;
}

} // namespace

extern "C" int setsockopt(int fd, int level, int name, const void *value, socklen_t length) noexcept
{
    static auto real = support::next_function<int(int, int, int, const void *, socklen_t)>("setsockopt");
    if (!interposed)
        return real(fd, level, name, value, length);
    options_asked++;
    option = {fd, level, name, {}, length};
    append(option.value, value, length);
    errno = option_error;
    return option_error != 0 ? -1 : 0;
}

extern "C" int getsockopt(int fd, int level, int name, void *value, socklen_t *length) noexcept
{
    static auto real = support::next_function<int(int, int, int, void *, socklen_t *)>("getsockopt");
    if (!interposed)
        return real(fd, level, name, value, length);
    options_asked++;
    option = {fd, level, name, {}, *length};
    errno = option_error;
    if (option_error != 0)
        return -1;
    std::memcpy(value, &option_reply, 4);
    return 0;
}

extern "C" int getsockname(int fd, sockaddr *name, socklen_t *length) noexcept
{
    static auto real = support::next_function<int(int, sockaddr *, socklen_t *)>("getsockname");
    if (!interposed)
        return real(fd, name, length);
    EXPECT_EQ(128u, *length);
    errno = own_name_error;
    if (own_name_error != 0)
        return -1;
    std::memcpy(name, &own_name, sizeof own_name);
    return 0;
}

extern "C" ssize_t sendmsg(int fd, const msghdr *m, int flags)
{
    static auto real = support::next_function<ssize_t(int, const msghdr *, int)>("sendmsg");
    if (!interposed)
        return real(fd, m, flags);
    sent = {fd, flags, m->msg_flags, m->msg_name, m->msg_namelen, {}, {}, m->msg_control == nullptr};
    sent.data.assign(m->msg_iov, m->msg_iov + m->msg_iovlen);
    append(sent.control, m->msg_control, m->msg_controllen);
    return send_result;
}

extern "C" ssize_t recvmsg(int fd, msghdr *m, int flags)
{
    static auto real = support::next_function<ssize_t(int, msghdr *, int)>("recvmsg");
    if (!interposed)
        return real(fd, m, flags);
    auto *control = static_cast<unsigned char *>(m->msg_control);
    received = {flags, m->msg_namelen, m->msg_name, m->msg_controllen, true};
    for (std::size_t i = 0; i < m->msg_controllen; i++)
        received.control_was_zero = received.control_was_zero && control[i] == 0;
    if (receive_result < 0) {
        errno = EAGAIN;
        return receive_result;
    }
    std::size_t size = std::min<std::size_t>(reply_control.size(), m->msg_controllen);
    std::copy_n(reply_control.begin(), size, control);
    m->msg_controllen = claimed_control != SIZE_MAX ? claimed_control : size;
    if (reply_null_control)
        m->msg_control = nullptr;
    m->msg_namelen = reply_namelen;
    return receive_result;
}

// ---- binding ----

TEST_F(Vrsock, BindReachesTheKernelForValidIds)
{
    for (int vrid : {-1, 1, 2, QV_VRID_MAX}) {
        EXPECT_EQ(0, qv_bindvr(5, vrid));
        EXPECT_EQ(5, option.fd);
        EXPECT_EQ(0, option.level);
        EXPECT_EQ(31, option.name);
        EXPECT_EQ(number(static_cast<std::uint32_t>(vrid)), option.value);
        EXPECT_EQ(0, qv_bindvr6(6, vrid));
        EXPECT_EQ(6, option.fd);
        EXPECT_EQ(41, option.level);
        EXPECT_EQ(91, option.name);
        EXPECT_EQ(number(static_cast<std::uint32_t>(vrid)), option.value);
    }
    EXPECT_EQ(8, options_asked);
}

TEST_F(Vrsock, BindRefusesOtherIdsWithoutTheKernel)
{
    for (int vrid : {0, -2, QV_VRID_MAX + 1, INT_MAX, INT_MIN}) {
        EXPECT_EQ(-1, qv_bindvr(5, vrid));
        EXPECT_EQ(-1, qv_bindvr6(5, vrid));
    }
    EXPECT_EQ(0, options_asked);
}

TEST_F(Vrsock, GetvrAsksTheKernel)
{
    int vrid = 0;
    option_reply = QV_VRID_MAX;
    EXPECT_EQ(0, qv_getvr(5, &vrid));
    EXPECT_EQ(QV_VRID_MAX, vrid);
    EXPECT_EQ(0, option.level);
    EXPECT_EQ(30, option.name);
    EXPECT_EQ(4u, option.length);
    EXPECT_EQ(0, qv_getvr6(5, &vrid));
    EXPECT_EQ(41, option.level);
    EXPECT_EQ(90, option.name);
    EXPECT_EQ(4u, option.length);
    EXPECT_EQ(-1, qv_getvr(5, nullptr));
    EXPECT_EQ(-1, qv_getvr6(5, nullptr));
    EXPECT_EQ(2, options_asked);
}

TEST_F(Vrsock, OptionFailuresArePositiveErrnoValues)
{
    int vrid = 5;
    option_error = ENOPROTOOPT;
    EXPECT_EQ(ENOPROTOOPT, qv_bindvr(5, 1));
    EXPECT_EQ(ENOPROTOOPT, qv_bindvr6(5, 1));
    EXPECT_EQ(ENOPROTOOPT, qv_getvr(5, &vrid));
    EXPECT_EQ(ENOPROTOOPT, qv_getvr6(5, &vrid));
    EXPECT_EQ(5, vrid);
}

// ---- sending ----

TEST_F(Vrsock, SendtoBytes)
{
    auto to = address4("127.0.0.1", 9);
    EXPECT_EQ(0, qv_sendto(5, buf, 7, 0x40, reinterpret_cast<sockaddr *>(&to), sizeof to, 0xA1B2C3D4))
        << "not the number of bytes";
    EXPECT_EQ(5, sent.fd);
    EXPECT_EQ(0x10040, sent.flags);
    EXPECT_EQ(0, sent.message_flags);
    EXPECT_EQ(&to, sent.to);
    EXPECT_EQ(sizeof to, sent.tolen);
    ASSERT_EQ(1u, sent.data.size());
    EXPECT_EQ(buf, sent.data[0].iov_base);
    EXPECT_EQ(7u, sent.data[0].iov_len);
    EXPECT_EQ(message(0, 31, number(0xA1B2C3D4)), sent.control);
    EXPECT_EQ(24u, sent.control.size());
    EXPECT_EQ(20, sent.control[0]);
}

TEST_F(Vrsock, Ipv6SendtoBytes)
{
    auto to = address6("::1", 9);
    EXPECT_EQ(0, qv_ipv6_sendto(5, buf, 7, 0, reinterpret_cast<sockaddr *>(&to), sizeof to, 7));
    EXPECT_EQ(0x10000, sent.flags);
    EXPECT_EQ(sizeof to, sent.tolen);
    EXPECT_EQ(message(41, 91, number(7)), sent.control);
}

TEST_F(Vrsock, SendtoIfBytes)
{
    auto to = address4("127.0.0.1", 9);
    auto source = address4("10.1.2.3", 77);
    EXPECT_EQ(0, qv_sendto_if(5, buf, 7, 2, reinterpret_cast<sockaddr *>(&to), &source, sizeof to, 12, 7));
    EXPECT_EQ(0x10002, sent.flags);
    EXPECT_EQ(message(0, 31, number(7)) + info4(12, "10.1.2.3", "0.0.0.0"), sent.control);
    EXPECT_EQ(56u, sent.control.size());
    EXPECT_EQ(28, sent.control[24]);
    EXPECT_EQ(0, qv_sendto_if(5, buf, 7, 2, reinterpret_cast<sockaddr *>(&to), nullptr, sizeof to, -1, 7));
    EXPECT_EQ(message(0, 31, number(7)) + info4(-1, "0.0.0.0", "0.0.0.0"), sent.control);
}

TEST_F(Vrsock, Ipv6SendtoIfBytes)
{
    auto to = address6("::1", 9);
    auto source = address6("fd00::5", 77);
    EXPECT_EQ(0, qv_ipv6_sendto_if(5, buf, 7, 2, reinterpret_cast<sockaddr *>(&to), &source, sizeof to, 12, 7));
    EXPECT_EQ(0x10002, sent.flags);
    EXPECT_EQ(message(41, 91, number(7)) + info6(12, "fd00::5"), sent.control);
    EXPECT_EQ(64u, sent.control.size());
    EXPECT_EQ(36, sent.control[24]);
    EXPECT_EQ(0, qv_ipv6_sendto_if(5, buf, 7, 2, reinterpret_cast<sockaddr *>(&to), nullptr, sizeof to, 12, 7));
    EXPECT_EQ(message(41, 91, number(7)) + info6(12, "::"), sent.control);
}

TEST_F(Vrsock, SendResults)
{
    auto to = address4("127.0.0.1", 9);
    auto *name = reinterpret_cast<sockaddr *>(&to);
    for (ssize_t result : {ssize_t{0}, ssize_t{1}, ssize_t{-1}, ssize_t{-5}}) {
        send_result = result;
        int wanted = result < 0 ? static_cast<int>(result) : 0;
        EXPECT_EQ(wanted, qv_sendto(5, buf, 7, 0, name, sizeof to, 1));
        EXPECT_EQ(wanted, qv_ipv6_sendto(5, buf, 7, 0, name, sizeof to, 1));
        EXPECT_EQ(wanted, qv_sendto_if(5, buf, 7, 0, name, nullptr, sizeof to, 1, 1));
        EXPECT_EQ(wanted, qv_ipv6_sendto_if(5, buf, 7, 0, name, nullptr, sizeof to, 1, 1));
    }
}

// ---- receiving the VR ----

TEST_F(Vrsock4, ReadsTheVrMessage)
{
    unsigned vrid = 5;
    EXPECT_EQ(5, receive(vr4(7), &vrid));
    EXPECT_EQ(7u, vrid);
    EXPECT_EQ(0x10000, received.flags);
    EXPECT_EQ(&from, received.name);
    EXPECT_EQ(99u, received.namelen);
    EXPECT_EQ(80u, received.control_size);
    EXPECT_TRUE(received.control_was_zero);
    EXPECT_EQ(99u, fromlen) << "not written back";
}

TEST_F(Vrsock4, TheFirstVrMessageAmongOthersCounts)
{
    unsigned vrid = 5;
    EXPECT_EQ(5, receive(info4(1, "1.1.1.1", "2.2.2.2") + vr4(7) + vr4(8), &vrid));
    EXPECT_EQ(7u, vrid);
    EXPECT_EQ(5, receive(message(41, 30, number(9)) + message(0, 90, number(9)) + vr4(7), &vrid));
    EXPECT_EQ(7u, vrid) << "level and type both count";
}

TEST_F(Vrsock4, WithoutAVrMessageThereIsNoVr)
{
    unsigned vrid = 5;
    EXPECT_EQ(5, receive({}, &vrid));
    EXPECT_EQ(QV_NO_VR, vrid);
    vrid = 5;
    EXPECT_EQ(5, receive(info4(1, "1.1.1.1", "2.2.2.2"), &vrid));
    EXPECT_EQ(QV_NO_VR, vrid);
}

TEST_F(Vrsock4, AVrMessageOfAnotherLengthIsRefused)
{
    for (std::uint64_t length : {0ULL, 15ULL, 16ULL, 17ULL, 19ULL, 21ULL, 24ULL, ~0ULL, 1ULL << 63}) {
        unsigned vrid = 5;
        EXPECT_EQ(QV_BAD_VR_MESSAGE, receive(vr4(7, length), &vrid)) << length;
        EXPECT_EQ(QV_NO_VR, vrid);
    }
}

TEST_F(Vrsock4, AFailedReceiveWritesNothing)
{
    unsigned vrid = 5;
    receive_result = -1;
    EXPECT_EQ(-1, receive(vr4(7), &vrid));
    EXPECT_EQ(5u, vrid);
    EXPECT_EQ(EAGAIN, errno);
}

TEST_F(Vrsock4, ControlDataShorterThanAHeaderIsIgnored)
{
    unsigned vrid = 5;
    for (std::size_t claimed : {0u, 1u, 15u}) {
        claimed_control = claimed;
        EXPECT_EQ(5, receive(vr4(7), &vrid));
        EXPECT_EQ(QV_NO_VR, vrid);
    }
    claimed_control = 16;
    EXPECT_EQ(5, receive(vr4(7), &vrid));
    EXPECT_EQ(7u, vrid) << "the first message's length decides";
    claimed_control = SIZE_MAX;
    reply_null_control = true;
    EXPECT_EQ(5, receive(vr4(7), &vrid));
    EXPECT_EQ(QV_NO_VR, vrid);
}

TEST_F(Vrsock4, SteppingEndsWhereTheNextMessageDoesNotFit)
{
    unsigned vrid = 5;
    auto ends = [&](const Bytes &control, std::size_t used) {
        claimed_control = used;
        EXPECT_EQ(5, receive(control, &vrid));
        return vrid == QV_NO_VR;
    };
    Bytes first = message(9, 9, number(1)); // 24 bytes
    EXPECT_FALSE(ends(first + vr4(7), 48));
    EXPECT_TRUE(ends(first + vr4(7), 47)) << "its padding must fit as well";
    EXPECT_TRUE(ends(first + vr4(7), 44));
    EXPECT_TRUE(ends(first + vr4(7), 40));
    EXPECT_TRUE(ends(first + vr4(7), 39));
    for (std::uint64_t length : {0ULL, 1ULL, 15ULL, 41ULL, 80ULL, ~0ULL, ~0ULL - 7, ~0ULL - 15, 1ULL << 63})
        EXPECT_TRUE(ends(message(9, 9, number(1), length) + vr4(7), 48)) << "first length " << length;
    EXPECT_FALSE(ends(message(9, 9, number(1), 17) + vr4(7), 48)) << "a length of 17 is padded to 24";
    EXPECT_FALSE(ends(message(9, 9, {}, 16) + vr4(7), 40));
}

TEST_F(Vrsock4, AMessageOfLengthZeroAfterAnotherIsStillRead)
{
    unsigned vrid = 5;
    EXPECT_EQ(QV_BAD_VR_MESSAGE, receive(message(9, 9, number(1)) + vr4(7, 0), &vrid));
}

TEST_F(Vrsock4, FromMayBeNull)
{
    unsigned vrid = 5;
    reply_control = vr4(7);
    EXPECT_EQ(5, qv_recvfrom(3, buf, sizeof buf, 0, nullptr, nullptr, &vrid));
    EXPECT_EQ(7u, vrid);
}

TEST_F(Vrsock, RecvfromSixAcceptsEveryLevelButItsOwn)
{
    unsigned vrid = 5;
    auto receive = [&](const Bytes &control) {
        reply_control = control;
        return qv_recvfrom6(3, buf, sizeof buf, 4, reinterpret_cast<sockaddr *>(&from), &fromlen, &vrid);
    };
    EXPECT_EQ(5, receive(vr6(7)));
    EXPECT_EQ(QV_NO_VR, vrid);
    EXPECT_EQ(0x10004, received.flags);
    EXPECT_EQ(80u, received.control_size);
    for (int level : {0, 1, 40, 42, -1}) {
        EXPECT_EQ(5, receive(message(level, 90, number(7))));
        EXPECT_EQ(7u, vrid) << level;
    }
    EXPECT_EQ(QV_BAD_VR_MESSAGE, receive(message(0, 90, number(7), 24)));
    EXPECT_EQ(5, receive(vr6(7, 24))) << "not even read";
    EXPECT_EQ(5, receive(vr4(7)));
    EXPECT_EQ(QV_NO_VR, vrid);
    EXPECT_EQ(99u, fromlen);
}

// ---- receiving with the destination ----

TEST_F(Vrsock, RecvfromtoReturnsDestinationInterfaceAndVr)
{
    Told told = receive_to4(info4(12, "10.0.0.1", "10.0.0.2") + vr4(7));
    EXPECT_EQ(5, told.result);
    EXPECT_EQ(7u, told.vrid);
    EXPECT_EQ(12, told.ifindex);
    EXPECT_EQ(16u, told.tolen);
    EXPECT_EQ(bytes_of(address4("10.0.0.2", 5000)), told.to) << "the header's destination, the socket's own port";
    EXPECT_EQ(256u, received.control_size);
    EXPECT_TRUE(received.control_was_zero);
    EXPECT_EQ(0x10000, received.flags);
}

TEST_F(Vrsock, RecvfromtoSixReturnsDestinationInterfaceAndVr)
{
    own_is_v6();
    Told told = receive_to6(vr6(7) + info6(12, "fd00::2"));
    EXPECT_EQ(5, told.result);
    EXPECT_EQ(7u, told.vrid);
    EXPECT_EQ(12, told.ifindex);
    EXPECT_EQ(28u, told.tolen);
    EXPECT_EQ(bytes_of(address6("fd00::2", 6000)), told.to);
    EXPECT_EQ(256u, received.control_size);
}

TEST_F(Vrsock, RecvfromtoWritesFromlenBack)
{
    reply_control = {};
    socklen_t tolen = 16;
    sockaddr_in to;
    int ifindex;
    unsigned vrid;
    EXPECT_EQ(5, qv_recvfromto(3, buf, sizeof buf, 0, reinterpret_cast<sockaddr *>(&from), &fromlen, &to, &tolen,
                               &ifindex, &vrid));
    EXPECT_EQ(99u, received.namelen);
    EXPECT_EQ(7u, fromlen);
}

TEST_F(Vrsock, RecvfromtoStoresTheDestinationFrom8BytesOn)
{
    Bytes control = info4(12, "10.0.0.1", "10.0.0.2") + vr4(7);
    for (socklen_t room : {0u, 4u, 7u}) {
        Told told = receive_to4(control, room);
        EXPECT_EQ(0u, told.tolen);
        EXPECT_EQ(-77, told.ifindex);
        EXPECT_EQ(Bytes(16, 0xEE), told.to);
        EXPECT_EQ(7u, told.vrid) << "the VR is returned nevertheless";
    }
    EXPECT_EQ(16u, receive_to4(control, 8).tolen);
    own_is_v6();
    EXPECT_EQ(0u, receive_to6(info6(12, "::1"), 7).tolen);
    EXPECT_EQ(28u, receive_to6(info6(12, "::1"), 8).tolen);
}

TEST_F(Vrsock, RecvfromtoReadsTheSizeAsASignedNumber)
{
    Bytes control = info4(12, "10.0.0.1", "10.0.0.2") + vr4(7);
    for (socklen_t room : {0x80000000u, 0x80000010u, 0xFFFFFFFFu}) {
        Told told = receive_to4(control, room);
        EXPECT_EQ(0u, told.tolen) << room;
        EXPECT_EQ(-77, told.ifindex);
        EXPECT_EQ(Bytes(16, 0xEE), told.to);
        EXPECT_EQ(7u, told.vrid);
    }
    EXPECT_EQ(16u, receive_to4(control, 0x7FFFFFFF).tolen);
    own_is_v6();
    for (socklen_t room : {0x80000000u, 0x8000001Cu, 0xFFFFFFFFu}) {
        Told told = receive_to6(info6(12, "::1"), room);
        EXPECT_EQ(0u, told.tolen) << room;
        EXPECT_EQ(Bytes(28, 0xEE), told.to);
    }
    EXPECT_EQ(28u, receive_to6(info6(12, "::1"), 0x7FFFFFFF).tolen);
}

TEST_F(Vrsock, RecvfromtoUsesTheFirstPacketInfoOnly)
{
    Told told = receive_to4(info4(12, "1.1.1.1", "10.0.0.2") + info4(13, "1.1.1.1", "10.0.0.3"));
    EXPECT_EQ(12, told.ifindex);
    EXPECT_EQ(bytes_of(address4("10.0.0.2", 5000)), told.to);
}

TEST_F(Vrsock, RecvfromtoUsesTheLastVrMessage)
{
    EXPECT_EQ(8u, receive_to4(vr4(7) + vr4(8)).vrid);
}

TEST_F(Vrsock, RecvfromtoNeedsASocketOfItsFamilyForTheDestination)
{
    own_is_v6();
    Told told = receive_to4(info4(12, "1.1.1.1", "10.0.0.2") + vr4(7));
    EXPECT_EQ(0u, told.tolen);
    EXPECT_EQ(-77, told.ifindex);
    EXPECT_EQ(7u, told.vrid) << "the VR does not need it";
    auto own = address4("0.0.0.0", 5000);
    std::memcpy(&own_name, &own, sizeof own);
    told = receive_to6(info6(12, "::1") + vr6(7));
    EXPECT_EQ(0u, told.tolen);
    EXPECT_EQ(7u, told.vrid);
}

TEST_F(Vrsock, RecvfromtoWithoutMessagesLeavesItsOutputs)
{
    Told told = receive_to4({});
    EXPECT_EQ(5, told.result);
    EXPECT_EQ(0x77777777u, told.vrid);
    EXPECT_EQ(-77, told.ifindex);
    EXPECT_EQ(0u, told.tolen);
    EXPECT_EQ(0x77777777u, receive_to4(vr6(7)).vrid) << "messages of the other family are ignored";
    own_is_v6();
    EXPECT_EQ(0x77777777u, receive_to6(vr4(7)).vrid);
}

TEST_F(Vrsock, RecvfromtoMalformedVrMeansTheDefault)
{
    for (std::uint64_t length : {0ULL, 16ULL, 19ULL, 21ULL, 24ULL, ~0ULL}) {
        EXPECT_EQ(1u, receive_to4(vr4(7, length)).vrid) << length;
        EXPECT_EQ(1u, receive_to6(vr6(7, length)).vrid) << length;
    }
}

TEST_F(Vrsock, RecvfromtoFailures)
{
    receive_result = -1;
    Told told = receive_to4(vr4(7));
    EXPECT_EQ(-1, told.result);
    EXPECT_EQ(16u, told.tolen) << "nothing written";
    EXPECT_EQ(0x77777777u, told.vrid);
    own_name_error = ENOTSOCK;
    std::string said = capture_stdout([&] {
        EXPECT_EQ(-1, receive_to4({}).result);
        EXPECT_EQ(-1, receive_to6({}).result);
    });
    EXPECT_EQ("getsockname (Socket operation on non-socket)\ngetsockname (Socket operation on non-socket)\n", said);
}

TEST_F(Vrsock, RecvfromtoShortPacketInfoIsReadFromZeroedMemory)
{
    Told told = receive_to4(message(0, 8, number(12), 20));
    EXPECT_EQ(12, told.ifindex);
    EXPECT_EQ(bytes_of(address4("0.0.0.0", 5000)), told.to);
}

TEST_F(Vrsock, RecvfromtoPacketInfoAtTheEndOfTheBufferIsReadWithinIt)
{
    Bytes filler;
    while (filler.size() < 240)
        filler = filler + message(9, 9, {}, 16);
    Told told = receive_to4(filler + message(0, 8, {}, 16));
    EXPECT_EQ(16u, told.tolen);
    EXPECT_EQ(0, told.ifindex);
    told = receive_to4(filler + message(0, 30, {}, 16));
    EXPECT_EQ(1u, told.vrid);
}

TEST_F(Vrsock, RandomControlDataIsNeverReadOutside)
{
    Random64 random(5);
    const std::uint64_t lengths[] = {0, 1, 15, 16, 17, 20, 24, 28, 36, 40, 255, 256, 1ULL << 32, ~0ULL, ~0ULL - 7};
    const int levels[] = {0, 41, 1, -1};
    const int types[] = {30, 90, 8, 50, 0};
    for (std::size_t i = 0; i < effort(200000); i++) {
        Bytes control;
        while (control.size() < random() % 280) {
            std::uint64_t length = random() % 4 == 0 ? random() : lengths[random() % std::size(lengths)];
            control = control + message(levels[random() % 4], types[random() % 5], Bytes(random() % 40, 0xAB), length);
        }
        claimed_control = random() % 8 == 0 ? random() % 300 : SIZE_MAX;
        random.doing("receive control data of, claimed as", control.size(), claimed_control);
        reply_control = control;
        unsigned vrid;
        ssize_t n = qv_recvfrom(3, buf, sizeof buf, 0, reinterpret_cast<sockaddr *>(&from), &fromlen, &vrid);
        ASSERT_TRUE(n == 5 || n == QV_BAD_VR_MESSAGE);
        n = qv_recvfrom6(3, buf, sizeof buf, 0, reinterpret_cast<sockaddr *>(&from), &fromlen, &vrid);
        ASSERT_TRUE(n == 5 || n == QV_BAD_VR_MESSAGE);
        ASSERT_EQ(5, receive_to4(control).result);
        ASSERT_EQ(5, receive_to6(control).result);
    }
}

// ---- the stock kernel, which knows none of this ----

TEST(VrsockStockKernel, OptionsAreRefused)
{
    int fd = ::socket(AF_INET, SOCK_DGRAM, 0);
    int fd6 = ::socket(AF_INET6, SOCK_DGRAM, 0);
    int vrid = 5;
    // Options 30 and 31 of IPv4 have other meanings on some stock kernels, so the results vary. The calls only have to
    // return.
    EXPECT_GE(qv_bindvr(fd, 7), 0);
    EXPECT_GE(qv_getvr(fd, &vrid), 0);
    EXPECT_GT(qv_bindvr6(fd6, 7), 0);
    EXPECT_GT(qv_getvr6(fd6, &vrid), 0);
    EXPECT_EQ(EBADF, qv_bindvr(-1, 7));
    EXPECT_EQ(EBADF, qv_getvr6(-1, &vrid));
    ::close(fd);
    ::close(fd6);
}

TEST(VrsockStockKernel, SendingInAVrIsRefused)
{
    int fd = ::socket(AF_INET, SOCK_DGRAM, 0);
    int fd6 = ::socket(AF_INET6, SOCK_DGRAM, 0);
    auto to = address4("127.0.0.1", 9);
    sockaddr_in6 to6{};
    to6.sin6_family = AF_INET6;
    to6.sin6_port = htons(9);
    to6.sin6_addr = in6addr_loopback;
    auto *name = reinterpret_cast<sockaddr *>(&to), *name6 = reinterpret_cast<sockaddr *>(&to6);
    auto refused = [](int result) {
        EXPECT_EQ(-1, result);
        EXPECT_EQ(EINVAL, errno);
    };
    refused(qv_sendto(fd, "x", 1, 0, name, sizeof to, 7));
    refused(qv_sendto_if(fd, "x", 1, 0, name, nullptr, sizeof to, 0, 7));
    refused(qv_ipv6_sendto(fd6, "x", 1, 0, name6, sizeof to6, 7));
    refused(qv_ipv6_sendto_if(fd6, "x", 1, 0, name6, nullptr, sizeof to6, 0, 7));
    ::close(fd);
    ::close(fd6);
}

TEST(VrsockStockKernel, ReceivingWorksWithoutAVr)
{
    int fd = ::socket(AF_INET, SOCK_DGRAM, 0);
    auto own = address4("127.0.0.1", 0);
    ASSERT_EQ(0, ::bind(fd, reinterpret_cast<sockaddr *>(&own), sizeof own));
    socklen_t length = sizeof own;
    ::getsockname(fd, reinterpret_cast<sockaddr *>(&own), &length);
    int on = 1;
    ::setsockopt(fd, IPPROTO_IP, IP_PKTINFO, &on, sizeof on);
    auto send = [&] { EXPECT_EQ(5, ::sendto(fd, "hello", 5, 0, reinterpret_cast<sockaddr *>(&own), sizeof own)); };
    char text[16];
    sockaddr_in from, to;
    socklen_t fromlen = sizeof from, tolen = sizeof to;
    unsigned vrid = 5;
    send();
    EXPECT_EQ(5, qv_recvfrom(fd, text, sizeof text, 0, reinterpret_cast<sockaddr *>(&from), &fromlen, &vrid));
    EXPECT_EQ(QV_NO_VR, vrid);
    int ifindex = 0;
    vrid = 5;
    send();
    EXPECT_EQ(5, qv_recvfromto(fd, text, sizeof text, 0, reinterpret_cast<sockaddr *>(&from), &fromlen, &to, &tolen,
                               &ifindex, &vrid));
    EXPECT_EQ(5u, vrid);
    EXPECT_EQ(bytes_of(to), bytes_of(own));
    EXPECT_GT(ifindex, 0);
    EXPECT_EQ(16u, tolen);
    ::close(fd);
}
