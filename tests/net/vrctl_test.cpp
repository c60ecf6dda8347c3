// SPDX-License-Identifier: Apache-2.0
// The requests byte for byte, with an ioctl() in place of the appliance kernel's, and the calls on the stock kernel.
#include "vrctl.h"

#include "support/next_function.h"
#include "support/support.h"
#include "vrsock.h"

#include <cerrno>
#include <cstdarg>
#include <cstddef>
#include <cstring>
#include <fcntl.h>
#include <net/if.h>
#include <pthread.h>
#include <sys/socket.h>
#include <thread>
#include <unistd.h>
#include <vector>

using namespace support;

namespace {

// ---- the interposed kernel ----

struct Request {
    unsigned long number;
    std::string device;
    std::vector<unsigned char> channel; // the ifreq, apart from its pointer to the record
    std::vector<unsigned char> record;
};

bool interposed = false;
std::vector<Request> requests;
std::function<int(unsigned char *record)> reply; // fills the record, returns the ioctl's result
int sockets_fail_with = 0;
int close_spoils_errno = 0;
int opened = 0, closed = 0;

std::uint64_t field(const Request &request, std::size_t offset, std::size_t width)
{
    std::uint64_t value = 0;
    std::memcpy(&value, request.record.data() + offset, width);
    return value;
}

template <typename T>
void put(unsigned char *record, std::size_t offset, T value)
{
    std::memcpy(record + offset, &value, sizeof value);
}

using Fields = std::initializer_list<std::pair<std::size_t, std::size_t>>; // offsets and widths

// Checks a request's code, and that every byte outside the named fields is zero.
void expect_command(const Request &request, unsigned code, Fields fields)
{
    EXPECT_EQ(0x89F0u, request.number);
    std::vector<unsigned char> channel(sizeof(ifreq), 0);
    std::memcpy(channel.data(), "pow0", 4);
    EXPECT_EQ(channel, request.channel);
    EXPECT_EQ(code, field(request, 0, 8));
    std::vector<unsigned char> rest = request.record;
    std::fill_n(rest.begin(), 8, 0);
    for (auto [offset, width] : fields)
        std::fill_n(rest.begin() + static_cast<long>(offset), width, 0);
    EXPECT_EQ(std::vector<unsigned char>(280, 0), rest) << "no byte of the stack may leak into a request";
}

// The only request made.
Request only(unsigned code, Fields fields)
{
    EXPECT_EQ(1u, requests.size());
    if (requests.empty())
        return {};
    Request request = requests.front();
    expect_command(request, code, fields);
    EXPECT_EQ(1, opened);
    EXPECT_EQ(1, closed);
    return request;
}

// Fills the stack where the next calls have their records.
[[gnu::noinline]] void dirty_stack()
{
    volatile unsigned char bytes[4096];
    for (volatile unsigned char &byte : bytes)
        byte = 0xA5;
}

struct Vrctl : testing::Test {
    void SetUp() override { interposed = true; }
    void TearDown() override { interposed = false; }

    void succeed(std::function<void(unsigned char *)> fill = {})
    {
        reply = [fill](unsigned char *record) {
            if (fill)
                fill(record);
            return 0;
        };
    }

    void fail(int error)
    {
        close_spoils_errno = EBADF;
        reply = [error](unsigned char *record) {
            std::memset(record, 0x5A, 20); // the result of a failed request is not used
            errno = error;
            return -1;
        };
    }
};

} // namespace

extern "C" int ioctl(int fd, unsigned long number, ...)
{
    va_list ap;
    va_start(ap, number);
    void *argument = va_arg(ap, void *);
    va_end(ap);
    static auto real = support::next_function<int(int, unsigned long, void *)>("ioctl");
    if (!interposed)
        return real(fd, number, argument);

    Request request{number, {}, {}, {}};
    unsigned char *record = static_cast<unsigned char *>(argument);
    if (number == 0x89F0) {
        ifreq channel;
        std::memcpy(&channel, argument, sizeof channel);
        request.device = std::string(channel.ifr_name, ::strnlen(channel.ifr_name, 16));
        request.channel.resize(sizeof channel);
        std::memcpy(request.channel.data(), &channel, sizeof channel);
        std::fill_n(request.channel.begin() + offsetof(ifreq, ifr_data), sizeof channel.ifr_data, 0);
        record = reinterpret_cast<unsigned char *>(channel.ifr_data);
        request.record.assign(record, record + 280);
    } else {
        request.record.assign(record, record + 56);
    }
    requests.push_back(request);
    return reply(record);
}

extern "C" int socket(int domain, int type, int protocol)
{
    static auto real = support::next_function<int(int, int, int)>("socket");
    if (!interposed)
        return real(domain, type, protocol);
    if (sockets_fail_with != 0) {
        errno = sockets_fail_with;
        return -1;
    }
    EXPECT_EQ(AF_INET, domain);
    EXPECT_EQ(SOCK_DGRAM, type);
    EXPECT_EQ(0, protocol);
    opened++;
    return real(domain, type, protocol);
}

extern "C" int close(int fd)
{
    static auto real = support::next_function<int(int)>("close");
    if (interposed) {
        EXPECT_GE(fd, 0);
        closed++;
    }
    int result = real(fd);
    if (interposed && close_spoils_errno != 0)
        errno = close_spoils_errno;
    return result;
}

// ---- virtual routers and virtual systems ----

TEST_F(Vrctl, VridToVsysid)
{
    succeed([](unsigned char *record) { put<std::uint16_t>(record, 10, 65535); });
    EXPECT_EQ(65535, qv_vrid_2_vsysid(0x1234));
    EXPECT_EQ(0x1234u, field(only(11, {{8, 2}}), 8, 2));
}

TEST_F(Vrctl, VridToName)
{
    succeed([](unsigned char *record) { std::strcpy(reinterpret_cast<char *>(record) + 16, "untrust"); });
    char *name = qv_vrid_2_name(7);
    EXPECT_STREQ("untrust", name);
    EXPECT_EQ(7u, field(only(11, {{8, 2}}), 8, 2));
    succeed([](unsigned char *record) { std::strcpy(reinterpret_cast<char *>(record) + 16, "b"); });
    EXPECT_EQ(name, qv_vrid_2_name(8)) << "one static buffer";
    EXPECT_STREQ("b", name);
}

TEST_F(Vrctl, NamesWithoutTerminatorAreCutAt31)
{
    succeed([](unsigned char *record) { std::memset(record, 'n', 280); });
    EXPECT_EQ(std::string(31, 'n'), qv_vrid_2_name(7));
    EXPECT_EQ(std::string(31, 'n'), qv_vsysid_2_name(7));
}

TEST_F(Vrctl, NamesOf30And31CharactersAreWhole)
{
    for (std::size_t length : {30u, 31u}) {
        std::string text(length, 'm');
        text.back() = 'z';
        // Only the terminator follows the name.
        succeed([&](unsigned char *record) {
            std::memset(record + 8, 'x', 272);
            std::strcpy(reinterpret_cast<char *>(record) + 16, text.c_str());
        });
        EXPECT_EQ(text, qv_vrid_2_name(7));
        succeed([&](unsigned char *record) {
            std::memset(record + 8, 'x', 272);
            std::strcpy(reinterpret_cast<char *>(record) + 10, text.c_str());
        });
        EXPECT_EQ(text, qv_vsysid_2_name(7));
    }
}

TEST_F(Vrctl, VrNameToId)
{
    succeed([](unsigned char *record) { put<std::uint16_t>(record, 8, 2080); });
    EXPECT_EQ(2080, qv_vrname_2_id(3, "trust"));
    Request request = only(12, {{10, 2}, {16, 32}});
    EXPECT_EQ(3u, field(request, 10, 2));
    EXPECT_STREQ("trust", reinterpret_cast<char *>(request.record.data()) + 16);
}

TEST_F(Vrctl, SentNamesAreCutAt31)
{
    succeed();
    for (std::size_t length : {31u, 32u, 300u}) {
        requests.clear();
        opened = closed = 0;
        qv_vrname_2_id(0, std::string(length, 'v').c_str());
        Request request = only(12, {{10, 2}, {16, 32}});
        EXPECT_EQ(std::string(reinterpret_cast<char *>(request.record.data()) + 16, 32), std::string(31, 'v') + '\0');
        requests.clear();
        opened = closed = 0;
        qv_vsysname_2_id(std::string(length, 'w').c_str());
        request = only(16, {{10, 32}});
        EXPECT_EQ(std::string(reinterpret_cast<char *>(request.record.data()) + 10, 32), std::string(31, 'w') + '\0');
    }
}

TEST_F(Vrctl, VsysIdToName)
{
    succeed([](unsigned char *record) { std::strcpy(reinterpret_cast<char *>(record) + 10, "root"); });
    EXPECT_STREQ("root", qv_vsysid_2_name(9));
    EXPECT_EQ(9u, field(only(15, {{8, 2}}), 8, 2));
}

TEST_F(Vrctl, TheTwoNameBuffersAreSeparate)
{
    succeed([](unsigned char *record) { std::strcpy(reinterpret_cast<char *>(record) + 10, "xxxxxxyyyy"); });
    char *vsys = qv_vsysid_2_name(1);
    char *vr = qv_vrid_2_name(1);
    EXPECT_NE(vsys, vr);
    EXPECT_STREQ("xxxxxxyyyy", vsys);
    EXPECT_STREQ("yyyy", vr);
}

TEST_F(Vrctl, VsysNameToId)
{
    succeed([](unsigned char *record) { put<std::uint16_t>(record, 8, 65535); });
    EXPECT_EQ(65535, qv_vsysname_2_id("root"));
    EXPECT_STREQ("root", reinterpret_cast<char *>(only(16, {{10, 32}}).record.data()) + 10);
}

TEST_F(Vrctl, NullNamesNeedNoSocket)
{
    EXPECT_EQ(-1, qv_vsysname_2_id(nullptr));
    EXPECT_EQ(0, qv_vrname_2_id(1, nullptr));
    unsigned vrid = 5;
    EXPECT_EQ(-1, qv_get_if_vr(nullptr, &vrid));
    EXPECT_EQ(-1, qv_set_if_vr(nullptr, 5));
    EXPECT_EQ(5u, vrid);
    EXPECT_EQ(0, opened);
    EXPECT_EQ(0, closed);
}

TEST_F(Vrctl, DefaultVr)
{
    EXPECT_EQ(1, qv_vsysid_2_default_vrid(0));
    EXPECT_EQ(0, opened);
    succeed([](unsigned char *record) { put<std::uint16_t>(record, 42, 77); });
    EXPECT_EQ(77, qv_vsysid_2_default_vrid(4));
    EXPECT_EQ(4u, field(only(17, {{8, 2}}), 8, 2));
}

// ---- flags ----

TEST_F(Vrctl, InterfaceSharedMark)
{
    succeed([](unsigned char *record) { put<std::uint32_t>(record, 268, 0xFFFFFFFF); });
    EXPECT_EQ(2, qv_is_if_shared(300));
    EXPECT_EQ(300u, field(only(6, {{264, 4}}), 264, 4));
    succeed([](unsigned char *record) { put<std::uint32_t>(record, 268, 0xFFFFFFFD); });
    EXPECT_EQ(0, qv_is_if_shared(300));
}

TEST_F(Vrctl, SettingAnInterfacesMarkReadsAndWritesBack)
{
    succeed([](unsigned char *record) {
        if (record[0] == 6)
            put<std::uint32_t>(record, 268, 0xA0000001);
    });
    EXPECT_EQ(0, qv_set_if_shared(300));
    ASSERT_EQ(2u, requests.size());
    EXPECT_EQ(6u, field(requests[0], 0, 8));
    EXPECT_EQ(4u, field(requests[1], 0, 8));
    EXPECT_EQ(300u, field(requests[1], 264, 4));
    EXPECT_EQ(0xA0000003u, field(requests[1], 268, 4));
    succeed([](unsigned char *record) {
        if (record[0] == 6)
            put<std::uint32_t>(record, 268, 0xA0000003);
    });
    EXPECT_EQ(0, qv_set_if_unshared(301));
    ASSERT_EQ(4u, requests.size());
    EXPECT_EQ(301u, field(requests[3], 264, 4));
    EXPECT_EQ(0xA0000001u, field(requests[3], 268, 4));
    for (std::size_t read : {0u, 2u}) {
        expect_command(requests[read], 6, {{264, 4}});
        expect_command(requests[read + 1], 4, {{264, 4}, {268, 4}});
    }
}

TEST_F(Vrctl, VrSharedMark)
{
    succeed([](unsigned char *record) { put<std::uint32_t>(record, 12, 2); });
    EXPECT_EQ(2, qv_is_vr_shared(9));
    EXPECT_EQ(9u, field(only(11, {{8, 2}}), 8, 2));
    succeed([](unsigned char *record) { put<std::uint32_t>(record, 12, 1); });
    EXPECT_EQ(0, qv_is_vr_shared(9));
}

TEST_F(Vrctl, SettingAVrsMarkReadsAndWritesBack)
{
    std::uint32_t flags = 0x80000005;
    succeed([&](unsigned char *record) {
        if (record[0] == 11)
            put(record, 12, flags);
        else
            std::memcpy(&flags, record + 12, 4);
    });
    EXPECT_EQ(0, qv_set_vr_shared(9));
    EXPECT_EQ(0x80000007u, flags);
    EXPECT_EQ(0, qv_set_vr_unshared(9));
    EXPECT_EQ(0x80000005u, flags);
    ASSERT_EQ(4u, requests.size());
    EXPECT_EQ(9u, field(requests[1], 0, 8));
    EXPECT_EQ(9u, field(requests[1], 8, 2));
    EXPECT_EQ(0u, field(requests[1], 10, 2));
    for (std::size_t read : {0u, 2u}) {
        expect_command(requests[read], 11, {{8, 2}});
        expect_command(requests[read + 1], 9, {{8, 2}, {12, 4}});
    }
}

TEST_F(Vrctl, AWriteThatFailsIsTheResult)
{
    reply = [](unsigned char *record) { return record[0] == 4 || record[0] == 9 ? -1 : 0; };
    EXPECT_EQ(-1, qv_set_if_shared(1));
    EXPECT_EQ(-1, qv_set_vr_unshared(1));
    EXPECT_EQ(4u, requests.size());
}

TEST_F(Vrctl, InterfacesVsys)
{
    unsigned short vsysid = 5;
    succeed([](unsigned char *record) { put<std::uint16_t>(record, 272, 65000); });
    EXPECT_EQ(0, qv_get_if_vsysid(65535, &vsysid));
    EXPECT_EQ(65000, vsysid);
    EXPECT_EQ(65535u, field(only(6, {{264, 4}}), 264, 4)) << "zero-extended";
}

// ---- the other interface commands ----

TEST_F(Vrctl, CellularMac)
{
    const unsigned char mac[6] = {1, 2, 3, 0xFD, 0xFE, 0xFF};
    succeed();
    EXPECT_EQ(0, qv_set_cellular_if_mac(mac, 12, 0xDEADBEEF));
    Request request = only(18, {{8, 2}, {12, 4}, {16, 6}});
    EXPECT_EQ(12u, field(request, 8, 2));
    EXPECT_EQ(0xDEADBEEFu, field(request, 12, 4));
    EXPECT_EQ(0, std::memcmp(request.record.data() + 16, mac, 6));
}

TEST_F(Vrctl, Wifi)
{
    succeed();
    EXPECT_EQ(0, qv_set_wifi_if(12, 0xDEADBEEF));
    Request request = only(19, {{8, 2}, {12, 4}});
    EXPECT_EQ(12u, field(request, 8, 2));
    EXPECT_EQ(0xDEADBEEFu, field(request, 12, 4));
}

TEST_F(Vrctl, MtuLimit)
{
    succeed();
    EXPECT_EQ(0, qv_set_if_mtu_limit(12));
    EXPECT_EQ(12u, field(only(22, {{8, 2}}), 8, 2));
}

TEST_F(Vrctl, CellularDevice)
{
    succeed();
    EXPECT_EQ(0, qv_change_cellular_dev(&requests, 12, 3));
    Request request = only(24, {{8, 2}, {12, 4}});
    EXPECT_EQ(12u, field(request, 8, 2));
    EXPECT_EQ(3u, field(request, 12, 4));
}

// ---- positive results, which only the interface requests take for failures ----

TEST_F(Vrctl, APositiveResultOfACommandIsSuccess)
{
    const unsigned char mac[6] = {};
    unsigned short vsysid = 5;
    reply = [](unsigned char *record) {
        if (record[0] == 12 || record[0] == 16)
            put<std::uint16_t>(record, 8, 9);
        else
            std::memset(record + 8, 2, 272);
        errno = EIO;
        return 1;
    };
    EXPECT_EQ(0x0202, qv_vrid_2_vsysid(1));
    EXPECT_STREQ(std::string(31, 2).c_str(), qv_vrid_2_name(1));
    EXPECT_EQ(9, qv_vrname_2_id(1, "x"));
    EXPECT_STREQ(std::string(31, 2).c_str(), qv_vsysid_2_name(1));
    EXPECT_EQ(9, qv_vsysname_2_id("x"));
    EXPECT_EQ(0x0202, qv_vsysid_2_default_vrid(1));
    EXPECT_EQ(2, qv_is_vr_shared(1));
    EXPECT_EQ(0, qv_set_vr_shared(1));
    EXPECT_EQ(0, qv_set_vr_unshared(1));
    EXPECT_EQ(0, qv_get_if_vsysid(1, &vsysid));
    EXPECT_EQ(0x0202, vsysid);
    EXPECT_EQ(2, qv_is_if_shared(1));
    EXPECT_EQ(0, qv_set_if_shared(1));
    EXPECT_EQ(0, qv_set_if_unshared(1));
    EXPECT_EQ(0, qv_set_cellular_if_mac(mac, 1, 1));
    EXPECT_EQ(0, qv_set_wifi_if(1, 1));
    EXPECT_EQ(0, qv_set_if_mtu_limit(1));
    EXPECT_EQ(0, qv_change_cellular_dev(nullptr, 1, 1));
}

TEST_F(Vrctl, APositiveResultOfAnInterfaceRequestIsAFailure)
{
    unsigned vrid = 5;
    reply = [](unsigned char *record) {
        put<std::uint32_t>(record, 16, 9);
        errno = EIO;
        return 1;
    };
    EXPECT_EQ(EIO, qv_get_if_vr("eth0", &vrid));
    EXPECT_EQ(QV_NO_VR, vrid);
    EXPECT_EQ(EIO, qv_set_if_vr("eth0", 5));
    vrid = 5;
    EXPECT_EQ(EIO, qv_get_netif_vr("ethernet0/1", &vrid));
    EXPECT_EQ(QV_NO_VR, vrid);
    EXPECT_EQ(-1, qv_ifname_2_vsysid("ethernet0/1"));
}

// ---- failures of the private channel ----

TEST_F(Vrctl, ARefusedCommandGivesEachCallItsFailureAndTheRequestsErrno)
{
    const unsigned char mac[6] = {};
    unsigned short vsysid = 5;
    fail(ENODEV);
    auto expect_errno = [](const char *call) {
        EXPECT_EQ(ENODEV, errno) << call;
        errno = 0;
    };
    EXPECT_EQ(-1, qv_vrid_2_vsysid(1)), expect_errno("vrid_2_vsysid");
    EXPECT_EQ(nullptr, qv_vrid_2_name(1)), expect_errno("vrid_2_name");
    EXPECT_EQ(0, qv_vrname_2_id(1, "x")), expect_errno("vrname_2_id");
    EXPECT_EQ(nullptr, qv_vsysid_2_name(1)), expect_errno("vsysid_2_name");
    EXPECT_EQ(-1, qv_vsysname_2_id("x")), expect_errno("vsysname_2_id");
    EXPECT_EQ(0, qv_vsysid_2_default_vrid(1)), expect_errno("default_vrid");
    EXPECT_EQ(0, qv_is_vr_shared(1)), expect_errno("is_vr_shared");
    EXPECT_EQ(-1, qv_set_vr_shared(1)), expect_errno("set_vr_shared");
    EXPECT_EQ(-1, qv_set_vr_unshared(1)), expect_errno("set_vr_unshared");
    EXPECT_EQ(-1, qv_get_if_vsysid(1, &vsysid)), expect_errno("get_if_vsysid");
    EXPECT_EQ(0, qv_is_if_shared(1)), expect_errno("is_if_shared");
    EXPECT_EQ(-1, qv_set_if_shared(1)), expect_errno("set_if_shared");
    EXPECT_EQ(-1, qv_set_if_unshared(1)), expect_errno("set_if_unshared");
    EXPECT_EQ(-1, qv_set_cellular_if_mac(mac, 1, 1)), expect_errno("cellular_mac");
    EXPECT_EQ(-1, qv_set_wifi_if(1, 1)), expect_errno("wifi");
    EXPECT_EQ(-1, qv_set_if_mtu_limit(1)), expect_errno("mtu");
    EXPECT_EQ(-1, qv_change_cellular_dev(nullptr, 1, 1)), expect_errno("cellular_dev");
    EXPECT_EQ(5, vsysid) << "unchanged";
    EXPECT_EQ(17, opened);
    EXPECT_EQ(17, closed);
}

TEST_F(Vrctl, WithoutASocketNothingIsClosed)
{
    sockets_fail_with = EMFILE;
    unsigned vrid = 5;
    EXPECT_EQ(-1, qv_vrid_2_vsysid(1));
    EXPECT_EQ(EMFILE, errno);
    EXPECT_EQ(0, qv_vsysid_2_default_vrid(1));
    EXPECT_EQ(EMFILE, qv_get_if_vr("eth0", &vrid));
    EXPECT_EQ(EMFILE, qv_set_if_vr("eth0", 5));
    EXPECT_EQ(5u, vrid) << "unchanged";
    EXPECT_EQ(0, closed);
    EXPECT_TRUE(requests.empty());
}

// ---- interfaces by name ----

TEST_F(Vrctl, InterfacesVr)
{
    unsigned vrid = 5;
    succeed([](unsigned char *record) { put<std::uint32_t>(record, 16, 0x12345678); });
    EXPECT_EQ(0, qv_get_if_vr("eth0", &vrid));
    EXPECT_EQ(0x12345678u, vrid);
    ASSERT_EQ(1u, requests.size());
    EXPECT_EQ(0x89A4u, requests[0].number);
    std::vector<unsigned char> wanted(56, 0);
    std::memcpy(wanted.data(), "eth0", 4);
    EXPECT_EQ(wanted, requests[0].record);
    EXPECT_EQ(1, opened);
    EXPECT_EQ(1, closed);
}

TEST_F(Vrctl, SettingAnInterfacesVr)
{
    succeed();
    EXPECT_EQ(0, qv_set_if_vr("a-name-of-16-cha", 0x12345678));
    ASSERT_EQ(1u, requests.size());
    EXPECT_EQ(0x89A5u, requests[0].number);
    std::vector<unsigned char> wanted(56, 0);
    std::memcpy(wanted.data(), "a-name-of-16-ch", 15);
    put<std::uint32_t>(wanted.data(), 16, 0x12345678);
    EXPECT_EQ(wanted, requests[0].record);
}

TEST_F(Vrctl, InterfaceRequestsAreCleared)
{
    unsigned vrid;
    succeed();
    for (const char *name : {"", "e", "fifteen-charact"}) {
        requests.clear();
        dirty_stack();
        EXPECT_EQ(0, qv_get_if_vr(name, &vrid));
        dirty_stack();
        EXPECT_EQ(0, qv_set_if_vr(name, 0x01020304));
        dirty_stack();
        EXPECT_EQ(0, qv_get_netif_vr(name, &vrid));
        std::vector<unsigned char> wanted(56, 0);
        std::strcpy(reinterpret_cast<char *>(wanted.data()), name);
        EXPECT_EQ(wanted, requests.at(0).record);
        EXPECT_EQ(wanted, requests.at(2).record);
        put<std::uint32_t>(wanted.data(), 16, 0x01020304);
        EXPECT_EQ(wanted, requests.at(1).record);
    }
}

TEST_F(Vrctl, CommandsAreCleared)
{
    const unsigned char mac[6] = {1, 1, 1, 1, 1, 1};
    unsigned short vsysid;
    succeed();
    auto cleared = [](const std::function<void()> &call, unsigned code, Fields fields) {
        requests.clear();
        dirty_stack();
        call();
        ASSERT_EQ(1u, requests.size());
        expect_command(requests[0], code, fields);
    };
    cleared([] { qv_vrid_2_vsysid(0xFFFF); }, 11, {{8, 2}});
    cleared([] { qv_vrid_2_name(0xFFFF); }, 11, {{8, 2}});
    cleared([] { qv_vrname_2_id(0xFFFF, "x"); }, 12, {{10, 2}, {16, 1}});
    cleared([] { qv_vsysid_2_name(0xFFFF); }, 15, {{8, 2}});
    cleared([] { qv_vsysname_2_id("x"); }, 16, {{10, 1}});
    cleared([] { qv_vsysid_2_default_vrid(0xFFFF); }, 17, {{8, 2}});
    cleared([] { qv_is_vr_shared(0xFFFF); }, 11, {{8, 2}});
    cleared([] { qv_is_if_shared(0xFFFF); }, 6, {{264, 2}});
    cleared([&] { qv_get_if_vsysid(0xFFFF, &vsysid); }, 6, {{264, 2}});
    cleared([&] { qv_set_cellular_if_mac(mac, 0xFFFF, ~0U); }, 18, {{8, 2}, {12, 4}, {16, 6}});
    cleared([] { qv_set_wifi_if(0xFFFF, ~0U); }, 19, {{8, 2}, {12, 4}});
    cleared([] { qv_set_if_mtu_limit(0xFFFF); }, 22, {{8, 2}});
    cleared([] { qv_change_cellular_dev("x", 0xFFFF, ~0U); }, 24, {{8, 2}, {12, 4}});
}

TEST_F(Vrctl, ARefusedInterfaceRequestGivesThePositiveErrno)
{
    unsigned vrid = 5;
    fail(ENXIO);
    EXPECT_EQ(ENXIO, qv_get_if_vr("eth0", &vrid));
    EXPECT_EQ(QV_NO_VR, vrid);
    EXPECT_EQ(ENXIO, qv_set_if_vr("eth0", 5));
    EXPECT_EQ(2, closed);
}

TEST_F(Vrctl, TheApplianceNameIsConverted)
{
    unsigned vrid = 5;
    succeed([](unsigned char *record) { put<std::uint32_t>(record, 16, 9); });
    EXPECT_EQ(0, qv_get_netif_vr("ethernet0/1", &vrid));
    EXPECT_EQ(9u, vrid);
    EXPECT_STREQ("eth0-1", reinterpret_cast<char *>(requests.at(0).record.data()));
}

TEST_F(Vrctl, ANameThatCannotBeConvertedMakesNoRequest)
{
    unsigned vrid = 5;
    std::string name = "tunnel" + std::string(26, '1');
    EXPECT_EQ(-1, qv_get_netif_vr(name.c_str(), &vrid));
    EXPECT_EQ(-1, qv_get_netif_vr(nullptr, &vrid));
    EXPECT_EQ(-1, qv_ifname_2_vsysid(name.c_str()));
    EXPECT_EQ(5u, vrid);
    EXPECT_TRUE(requests.empty());
    interposed = false;
    EXPECT_EQ("Can not convert ifp name: " + name + "\nNULL ifp name, can not convert\n" +
                  "Can not convert ifp name: " + name + "\n",
              read_file(kConsole));
}

TEST_F(Vrctl, IfnameToVsysid)
{
    reply = [](unsigned char *record) {
        if (requests.back().number == 0x89A4)
            put<std::uint32_t>(record, 16, 0xABCD0009);
        else
            put<std::uint16_t>(record, 10, 4);
        return 0;
    };
    EXPECT_EQ(4, qv_ifname_2_vsysid("ethernet0/1"));
    ASSERT_EQ(2u, requests.size());
    EXPECT_EQ(11u, field(requests[1], 0, 8));
    EXPECT_EQ(9u, field(requests[1], 8, 2)) << "the low 16 bits of the VR id";
    fail(EINVAL);
    EXPECT_EQ(-1, qv_ifname_2_vsysid("ethernet0/1"));
}

TEST(VrctlProbes, WhatThePlatformCanDo)
{
    EXPECT_EQ(1, qv_is_support_multi_vrouter());
    EXPECT_EQ(0, qv_is_support_vrf());
}

// ---- the stock kernel, which has none of this ----

TEST(VrctlStockKernel, EveryCallGivesItsFailure)
{
    unsigned short vsysid = 5;
    unsigned vrid = 5;
    EXPECT_EQ(-1, qv_vrid_2_vsysid(1));
    EXPECT_EQ(nullptr, qv_vrid_2_name(1));
    EXPECT_EQ(0, qv_vrname_2_id(0, "x"));
    EXPECT_EQ(nullptr, qv_vsysid_2_name(0));
    EXPECT_EQ(-1, qv_vsysname_2_id("x"));
    EXPECT_EQ(0, qv_vsysid_2_default_vrid(1));
    EXPECT_EQ(0, qv_is_vr_shared(1));
    EXPECT_EQ(-1, qv_set_vr_shared(1));
    EXPECT_EQ(-1, qv_get_if_vsysid(1, &vsysid));
    EXPECT_EQ(0, qv_is_if_shared(1));
    EXPECT_EQ(-1, qv_set_if_shared(1));
    EXPECT_GT(qv_get_if_vr("lo", &vrid), 0);
    EXPECT_EQ(QV_NO_VR, vrid);
    EXPECT_GT(qv_set_if_vr("lo", 1), 0);
    EXPECT_EQ(5, vsysid);
}

TEST(VrctlStockKernel, NoDescriptorIsLeftOpen)
{
    int before = ::open("/dev/null", O_RDONLY);
    ::close(before);
    unsigned vrid;
    qv_vrid_2_vsysid(1);
    qv_get_if_vr("lo", &vrid);
    qv_set_if_vr("lo", 1);
    int after = ::open("/dev/null", O_RDONLY);
    EXPECT_EQ(before, after);
}

TEST(VrctlStockKernel, ACancelledThreadLeavesNoDescriptorOpen)
{
    int before = ::open("/dev/null", O_RDONLY);
    ::close(before);
    std::thread thread([] {
        ::pthread_cancel(::pthread_self());
        qv_vrid_2_vsysid(1);
        qv_set_if_vr("lo", 1);
    });
    thread.join();
    int after = ::open("/dev/null", O_RDONLY);
    EXPECT_EQ(before, after);
    ::close(after);
}
