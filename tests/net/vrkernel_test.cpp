// SPDX-License-Identifier: Apache-2.0
// The stand-in kernel: processes that run on it, its command, and its configuration file.
#include "support/support.h"

#include <csignal>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <fcntl.h>
#include <memory>
#include <net/if.h>
#include <netinet/in.h>
#include <poll.h>
#include <sched.h>
#include <sys/file.h>
#include <sys/ioctl.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <thread>
#include <unistd.h>
#include <utility>

using namespace support;
using testing::HasSubstr;
using testing::StartsWith;

namespace {

constexpr const char *kConfig = "/tmp/vrkernel.conf";
constexpr const char *kTables = R"(# for the experiments here
vsys       root       id=0     default-vr=1
vsys       branch     id=3     default-vr=7
vr         default    id=1     vsys=0
vr         trust      id=7     vsys=3
vr         guests     id=8     vsys=3  shared
vr         trust      id=2080  vsys=0
interface  eth0-1     id=17    vsys=3  vr=7
interface  eth0-2     id=18    vsys=3  vr=8  shared
interface  cellular0  id=65535 vsys=0  vr=1
)";
constexpr int kAnswerMs = 60000;

// A process that makes one call per line and prints its result (see vrkernel_peer.cpp).
class Peer {
public:
    explicit Peer(bool with_kernel = true, bool with_config = true)
    {
        int in[2], out[2];
        EXPECT_EQ(0, ::pipe2(in, O_CLOEXEC));
        EXPECT_EQ(0, ::pipe2(out, O_CLOEXEC));
        pid_ = ::fork();
        if (pid_ == 0) {
            ::dup2(in[0], 0);
            ::dup2(out[1], 1);
            ::close_range(3, ~0U, 0); // its first socket is 3
            if (with_kernel)
                enter(with_config);
            std::string program = build_dir() + "/tests/vrkernel_peer";
            ::execl(program.c_str(), "peer", static_cast<char *>(nullptr));
            ::_exit(127);
        }
        ::close(in[0]);
        ::close(out[1]);
        to_ = in[1];
        from_ = out[0];
    }

    ~Peer()
    {
        ::close(to_);
        ::close(from_);
        ::waitpid(pid_, nullptr, 0);
    }

    Peer(const Peer &) = delete;
    Peer &operator=(const Peer &) = delete;

    // Programs that this process starts from now on run on the stand-in kernel.
    static void enter(bool with_config = true)
    {
        ::setenv("LD_PRELOAD", (build_dir() + "/libvrkernel.so").c_str(), 1);
        if (with_config)
            ::setenv("VRKERNEL_CONFIG", kConfig, 1);
        if (under_sanitizer()) // it requires to be loaded first
            ::setenv("ASAN_OPTIONS", "verify_asan_link_order=0:detect_leaks=0", 1);
    }

    std::string operator()(const std::string &call)
    {
        std::string line = call + "\n";
        EXPECT_EQ(static_cast<ssize_t>(line.size()), ::write(to_, line.data(), line.size()));
        std::string answer;
        for (;;) {
            pollfd one = {from_, POLLIN, 0};
            char c;
            if (::poll(&one, 1, kAnswerMs) <= 0 || ::read(from_, &c, 1) <= 0)
                return "no answer";
            if (c == '\n')
                return answer;
            answer += c;
        }
    }

    // A UDP socket, in a VR unless it is 0, bound to an address unless it is "-". Returns "ADDRESS PORT".
    std::string open(int family, int vr, const std::string &name = "-")
    {
        std::string fd = (*this)("socket " + std::to_string(family));
        if (vr != 0) {
            EXPECT_EQ("0", (*this)("bindvr " + fd + " " + std::to_string(vr)));
        }
        return name != "-" ? (*this)("bind " + fd + " " + name) : (*this)("own " + fd);
    }

private:
    pid_t pid_;
    int to_, from_;
};

// A network namespace with its own loopback interface: cases run at the same time on the same ports.
void own_loopback()
{
    ASSERT_EQ(0, ::unshare(CLONE_NEWNET));
    int fd = ::socket(AF_INET, SOCK_DGRAM, 0);
    ifreq request{};
    std::strcpy(request.ifr_name, "lo");
    request.ifr_flags = IFF_UP | IFF_RUNNING;
    ASSERT_EQ(0, ::ioctl(fd, SIOCSIFFLAGS, &request));
    ::close(fd);
}

class Vrkernel : public testing::Test {
protected:
    void SetUp() override
    {
        std::signal(SIGPIPE, SIG_IGN);
        mount_tmpfs("/dev/shm"); // what remains there ends with the sandbox
        own_loopback();
        write_file(kConfig, kTables);
    }
};

// The port of "ADDRESS PORT".
std::string port_of(const std::string &name)
{
    return name.substr(name.find(' ') + 1);
}

// ---- datagrams ----

TEST_F(Vrkernel, TwoProcessesOnOnePortInTwoVrs)
{
    Peer seven, eight, sender;
    ASSERT_EQ("127.0.0.1 5000", seven.open(4, 7, "0.0.0.0 5000"));
    ASSERT_EQ("127.0.0.1 5000", eight.open(4, 8, "0.0.0.0 5000"));
    std::string port = port_of(sender.open(4, 0, "0.0.0.0 0"));

    EXPECT_EQ("0", sender("send 3 127.0.0.1 5000 7 first"));
    EXPECT_EQ("0", eight("readable 3")); // it does not even wake up
    EXPECT_EQ("-1 EAGAIN", eight("recv 3"));
    EXPECT_EQ("1", seven("readable 3"));
    EXPECT_EQ("first 127.0.0.1 " + port + " vr 7", seven("recv 3"));

    EXPECT_EQ("0", sender("send 3 127.0.0.1 5000 8 second"));
    EXPECT_EQ("-1 EAGAIN", seven("recv 3"));
    EXPECT_EQ("second 127.0.0.1 " + port + " vr 8", eight("recv 3"));
}

TEST_F(Vrkernel, AnAnswerGoesBackInTheVrOfTheQuestion)
{
    Peer server, client;
    std::string at = server.open(4, 7, "127.0.0.1 0");
    client.open(4, 7);
    ASSERT_EQ("8", client("sendplain 3 " + at + " question"));
    std::string asked = server("recv 3");
    ASSERT_THAT(asked, StartsWith("question 127.0.0.1 "));
    ASSERT_THAT(asked, HasSubstr(" vr 7"));
    std::string client_port = port_of(client("own 3"));
    EXPECT_EQ("0", server("send 3 127.0.0.1 " + client_port + " 7 answer"));
    EXPECT_EQ("answer " + at + " vr 7", client("recv 3"));
}

TEST_F(Vrkernel, ASocketInAVrSendsInItByDefault)
{
    Peer seven, eight, sender;
    std::string at = seven.open(4, 7, "127.0.0.1 0");
    eight.open(4, 8, at);
    sender.open(4, 8);
    EXPECT_EQ("5", sender("sendplain 3 " + at + " plain"));
    EXPECT_EQ("-1 EAGAIN", seven("recv 3"));
    EXPECT_THAT(eight("recv 3"), StartsWith("plain 127.0.0.1 "));
}

TEST_F(Vrkernel, ADatagramsVrOverridesItsSockets)
{
    Peer seven, sender;
    std::string at = seven.open(4, 7, "127.0.0.1 0");
    sender.open(4, 8);
    EXPECT_EQ("0", sender("send 3 " + at + " 7 across"));
    EXPECT_THAT(seven("recv 3"), HasSubstr(" vr 7"));
}

TEST_F(Vrkernel, ASocketInNoVrReceivesFromAll)
{
    Peer listener, sender;
    std::string port = port_of(listener.open(4, -1, "0.0.0.0 0"));
    sender.open(4, 0);
    EXPECT_EQ("0", sender("send 3 127.0.0.1 " + port + " 7 a"));
    EXPECT_EQ("0", sender("send 3 127.0.0.1 " + port + " 2080 b"));
    EXPECT_EQ("1", sender("sendplain 3 127.0.0.1 " + port + " c"));
    EXPECT_THAT(listener("recvto 3"), testing::EndsWith(" to 127.0.0.1 " + port + " through lo vr 7"));
    EXPECT_THAT(listener("recvto 3"), testing::EndsWith(" to 127.0.0.1 " + port + " through lo vr 2080"));
    EXPECT_THAT(listener("recvto 3"), testing::EndsWith(" to 127.0.0.1 " + port + " through lo vr none"));
}

TEST_F(Vrkernel, SourceDestinationAndInterface)
{
    Peer receiver, sender;
    std::string at = receiver.open(4, 7, "127.0.0.9 0");
    std::string port = port_of(sender.open(4, 0, "0.0.0.0 0"));
    EXPECT_EQ("0", sender("sendfrom 3 " + at + " 127.0.0.5 0 0 7 chosen"));
    EXPECT_EQ("chosen 127.0.0.5 " + port + " to " + at + " through lo vr 7", receiver("recvto 3"));
    EXPECT_EQ("0", sender("sendfrom 3 " + at + " - 1 7 interface"));
    EXPECT_EQ("interface 127.0.0.1 " + port + " to " + at + " through lo vr 7", receiver("recvto 3"));

    EXPECT_EQ("-1 EINVAL", sender("sendfrom 3 " + at + " 10.0.0.1 0 0 7 x"));
    EXPECT_EQ("-1 ENODEV", sender("sendfrom 3 " + at + " - 99 7 x"));
    EXPECT_EQ("-1 ENETUNREACH", sender("sendfrom 3 10.0.0.1 5000 - 0 7 x"));
    EXPECT_EQ("-1 ENETUNREACH", sender("sendfrom 3 127.0.0.255 5000 - 0 7 x"));
    EXPECT_EQ("-1 EAGAIN", receiver("recvto 3"));
}

TEST_F(Vrkernel, TheBoundAddressIsTheSource)
{
    Peer receiver, sender;
    std::string at = receiver.open(4, 7, "0.0.0.0 0");
    std::string from = sender.open(4, 7, "127.0.0.20 0");
    EXPECT_EQ("0", sender("send 3 " + at + " 7 x"));
    EXPECT_EQ("x " + from + " vr 7", receiver("recv 3"));
}

TEST_F(Vrkernel, ABoundAddressThatNoVrHasIsNotTheSource)
{
    Peer receiver, sender;
    std::string at = receiver.open(4, 7, "0.0.0.0 0");
    std::string port = port_of(sender.open(4, 0, "127.1.0.1 0"));
    EXPECT_EQ("0", sender("send 3 " + at + " 7 x"));
    EXPECT_EQ("x 127.0.0.1 " + port + " vr 7", receiver("recv 3"));
}

TEST_F(Vrkernel, Ipv6)
{
    Peer seven, eight, sender;
    ASSERT_EQ("::1 5000", seven.open(6, 7, ":: 5000"));
    ASSERT_EQ("::1 5000", eight.open(6, 8, "::1 5000"));
    sender.open(6, 0);
    EXPECT_EQ("0", sender("send 3 ::1 5000 8 six"));
    EXPECT_EQ("-1 EAGAIN", seven("recvto 3"));
    EXPECT_EQ("six ::1 " + port_of(sender("own 3")) + " to ::1 5000 through lo vr 8", eight("recvto 3"));

    EXPECT_EQ("0", sender("sendfrom 3 ::1 5000 ::5 0 1 7 chosen"));
    EXPECT_THAT(seven("recvto 3"), StartsWith("chosen ::5 "));

    // The message has the IPv6 level, which qv_recvfrom6() ignores.
    EXPECT_EQ("0", sender("send 3 ::1 5000 7 six"));
    EXPECT_THAT(seven("recv 3"), testing::EndsWith(" vr none"));

    EXPECT_EQ("-1 ENETUNREACH", sender("send 3 2001:db8::1 5000 7 x"));
    EXPECT_EQ("-1 ENETUNREACH", sender("send 3 ::ff 5000 7 x"));
}

TEST_F(Vrkernel, TheFamiliesHaveTheirOwnPorts)
{
    Peer four, six, sender;
    four.open(4, 7, "0.0.0.0 5000");
    ASSERT_EQ("::1 5000", six.open(6, 7, ":: 5000"));
    sender.open(6, 0);
    EXPECT_EQ("0", sender("send 3 ::1 5000 7 x"));
    EXPECT_EQ("-1 EAGAIN", four("recv 3"));
    EXPECT_EQ("0", sender("send 3 ::ffff:127.0.0.1 5000 7 y"));
    EXPECT_THAT(four("recv 3"), StartsWith("y 127.0.0.1 "));
    EXPECT_THAT(six("recv 3"), StartsWith("x ::1 "));
}

TEST_F(Vrkernel, ConnectedSockets)
{
    Peer server, client;
    std::string at = server.open(4, 7, "0.0.0.0 0");
    client.open(4, 7);
    ASSERT_EQ("0", client("connect 3 " + at));
    EXPECT_EQ(at, client("peer 3"));
    EXPECT_EQ("1", client("sendplain 3 - x"));
    EXPECT_EQ("x " + client("own 3") + " vr 7", server("recv 3"));

    // Connected in no VR, sending in one.
    client.open(4, 0);
    ASSERT_EQ("0", client("connect 4 " + at));
    EXPECT_EQ("0", client("send 4 - 7 y"));
    EXPECT_THAT(server("recv 3"), testing::EndsWith(" vr 7"));
    EXPECT_EQ("-1 ENETUNREACH", client("connect 3 10.0.0.1 5000"));
    EXPECT_EQ("-1 EDESTADDRREQ", server("send 3 - 7 z"));
}

TEST_F(Vrkernel, APortWithoutASocketRefuses)
{
    Peer server, client;
    std::string at = server.open(4, 7, "0.0.0.0 0");
    client.open(4, 8);
    ASSERT_EQ("0", client("connect 3 " + at));
    EXPECT_EQ("1", client("sendplain 3 - x"));
    EXPECT_EQ("-1 ECONNREFUSED", client("recvplain 3"));
}

TEST_F(Vrkernel, APortOfAVrIsBoundOnce)
{
    Peer first, second;
    std::string at = first.open(4, 7, "0.0.0.0 0");
    EXPECT_EQ("-1 EADDRINUSE", second.open(4, 7, at));
    EXPECT_EQ("-1 EADDRNOTAVAIL", second.open(4, 7, "10.0.0.1 5000"));
}

TEST_F(Vrkernel, OrdinaryTrafficIsUntouched)
{
    Peer on_kernel;
    Peer stock(false);
    std::string at = on_kernel.open(4, 0, "127.0.0.1 0");
    std::string from = stock.open(4, 0, "127.0.0.1 0");
    EXPECT_EQ("4", stock("sendplain 3 " + at + " ping"));
    EXPECT_EQ("ping " + from, on_kernel("recvplain 3"));
    EXPECT_EQ("4", on_kernel("sendplain 3 " + from + " pong"));
    EXPECT_EQ("pong " + at, stock("recvplain 3"));

    // Datagrams cross the border of a VR in neither direction.
    Peer seven;
    seven.open(4, 7, at);
    EXPECT_EQ("1", stock("sendplain 3 " + at + " x"));
    EXPECT_EQ("-1 EAGAIN", seven("recv 3"));
    EXPECT_EQ("x " + from + " vr none", on_kernel("recv 3"));
    EXPECT_EQ("0", seven("send 3 " + at + " 7 y"));
    EXPECT_EQ("-1 EAGAIN", on_kernel("recv 3"));
}

TEST_F(Vrkernel, Ipv6OrdinaryTrafficIsUntouched)
{
    Peer on_kernel;
    Peer stock(false);
    std::string at = on_kernel.open(6, 0, "::1 0");
    std::string from = stock.open(6, 0, "::1 0");
    EXPECT_EQ("4", stock("sendplain 3 " + at + " ping"));
    EXPECT_EQ("ping " + from + " to - 0 through none vr none", on_kernel("recvto 3"));
}

TEST_F(Vrkernel, TheVrMessageIsSentWithTheFlagWhereItFits)
{
    Peer receiver, sender;
    std::string at = receiver.open(4, 7, "0.0.0.0 0");
    sender.open(4, 7);
    // The receive call's flag and size of control data, and its result: packet info needs 32 bytes, the VR message 24.
    const std::vector<std::pair<std::string, std::string>> cases = {
        {"0 256", "whole 0/8"},
        {"65536 256", "whole 0/8 0/30"},
        {"65536 56", "whole 0/8 0/30"},
        {"65536 52", "whole 0/8 0/30"},
        {"65536 51", "cut 0/8"},
        {"65536 0", "cut"},
        {"0 10", "cut"},
    };
    for (const auto &[call, expected] : cases) {
        ASSERT_EQ("1", sender("sendplain 3 " + at + " x"));
        EXPECT_EQ(expected, receiver("recvmessages 3 " + call)) << call;
    }
}

TEST_F(Vrkernel, MalformedControlDataIsRefused)
{
    Peer sender;
    sender.open(4, 0);
    // Level, type, claimed length, length of the control data.
    for (const char *message : {"0 31 0 24", "0 31 15 24", "0 31 16 24", "0 31 17 24", "0 31 19 24", "0 31 21 24",
                                "0 31 24 24", "0 31 18446744073709551615 24", "0 31 18446744073709551608 24",
                                "0 31 20 19", "41 91 24 24", "0 8 27 32", "0 8 29 32", "41 50 35 40"})
        EXPECT_EQ("-1 EINVAL", sender("sendmessage 3 127.0.0.1 5000 " + std::string(message))) << message;
    EXPECT_EQ("-1 ENOENT", sender("sendmessage 3 127.0.0.1 5000 0 31 20 24")); // VR 0 does not exist
}

TEST_F(Vrkernel, NamesOfOtherLengthsStayInTheVrOrAreRefused)
{
    Peer seven, ordinary;
    std::string at = seven.open(6, 7, "::1 0");
    ordinary.open(6, 0, at);
    std::string at4 = seven.open(4, 7, "127.0.0.1 0");
    seven.open(6, 7);
    seven.open(4, 7);
    for (const char *length : {"24", "28", "128"})
        EXPECT_EQ("1", seven("sendtolength 5 " + at + " " + length)) << length;
    EXPECT_EQ("1", seven("sendmsglength 5 " + at + " 200")); // sendmsg() truncates it
    for (const char *length : {"16", "17", "128"})
        EXPECT_EQ("1", seven("sendtolength 6 " + at4 + " " + length)) << length;
    EXPECT_EQ("1", seven("sendmsglength 6 " + at4 + " 200"));
    for (const char *length : {"2", "15", "129", "200", "4294967295"}) {
        EXPECT_EQ("-1 EINVAL", seven("sendtolength 5 " + at + " " + length)) << length;
        EXPECT_EQ("-1 EINVAL", seven("sendtolength 6 " + at4 + " " + length)) << length;
    }
    EXPECT_EQ("-1 EAGAIN", ordinary("recvplain 3"));
    for (int i = 0; i < 4; i++)
        EXPECT_THAT(seven("recvplain 3"), StartsWith("x ::1 "));
}

// ---- control data ----

// A control message with its padding, or the last one without, as two digits per byte.
std::string message(int level, int type, const std::vector<std::int32_t> &data, bool is_padded = true,
                    std::uint64_t length = 0)
{
    std::string bytes(16 + data.size() * 4, '\0');
    if (length == 0)
        length = bytes.size();
    std::memcpy(bytes.data(), &length, 8);
    std::memcpy(bytes.data() + 8, &level, 4);
    std::memcpy(bytes.data() + 12, &type, 4);
    std::memcpy(bytes.data() + 16, data.data(), data.size() * 4);
    if (is_padded)
        bytes.resize((bytes.size() + 7) / 8 * 8);
    std::string digits;
    for (char byte : bytes) {
        char text[3];
        std::snprintf(text, sizeof text, "%02x", static_cast<unsigned char>(byte));
        digits += text;
    }
    return digits;
}

TEST_F(Vrkernel, OtherControlMessagesPassThrough)
{
    Peer receiver, sender;
    std::string at = receiver.open(4, 7, "127.0.0.1 0");
    ASSERT_EQ("0", receiver("setoption 3 0 12 1")); // IP_RECVTTL
    sender.open(4, 0);
    const std::string vr = message(0, 31, {7}), ttl = message(0, 2, {33});
    for (const std::string &control : {vr + ttl, ttl + vr, vr + message(0, 2, {33}, false),
                                       ttl + message(0, 31, {7}, false), vr + ttl + "0000000000000000"}) {
        ASSERT_EQ("1", sender("sendcontrol 3 " + at + " " + control)) << control;
        EXPECT_THAT(receiver("recvcontrol 3 65536"), testing::EndsWith(", info 127.0.0.1 127.0.0.1, ttl 33, 0/30"));
    }
    // The same without a VR, packet info included.
    Peer ordinary;
    at = ordinary.open(4, 0, "127.0.0.1 0");
    std::string info = message(0, 8, {0, static_cast<int>(htonl(0x7F000005)), 0});
    ASSERT_EQ("1", sender("sendcontrol 3 " + at + " " + message(0, 31, {-1}) + info));
    EXPECT_THAT(ordinary("recvplain 3"), StartsWith("x 127.0.0.5 "));
    ordinary("setoption 3 0 12 1");
    for (const std::string &control : {ttl, message(0, 31, {-1}) + ttl, ttl + message(0, 31, {-1}, false)}) {
        ASSERT_EQ("1", sender("sendcontrol 3 " + at + " " + control)) << control;
        EXPECT_THAT(ordinary("recvcontrol 3 65536"), testing::EndsWith(", ttl 33"));
    }
}

TEST_F(Vrkernel, AnUnpaddedPacketInfoCounts)
{
    Peer receiver, sender;
    std::string at = receiver.open(4, 7, "127.0.0.1 0");
    std::string port = port_of(sender.open(4, 0, "0.0.0.0 0"));
    std::string control = message(0, 31, {7}) + message(0, 8, {0, static_cast<int>(htonl(0x7F000005)), 0}, false);
    ASSERT_EQ("1", sender("sendcontrol 3 " + at + " " + control));
    EXPECT_EQ("x 127.0.0.5 " + port, receiver("recvplain 3"));
}

TEST_F(Vrkernel, AMalformedSecondMessageIsRefused)
{
    Peer sender;
    sender.open(4, 0);
    for (std::uint64_t length : {1ULL, 15ULL, 21ULL, 25ULL, 1000ULL, ~0ULL, ~0ULL - 7, 1ULL << 63})
        EXPECT_EQ("-1 EINVAL",
                  sender("sendcontrol 3 127.0.0.1 5000 " + message(0, 31, {7}) + message(0, 2, {33}, false, length)))
            << length;
    // For IPv4 packet info has exactly one length; for IPv6 its length is a minimum.
    for (std::uint64_t length : {16ULL, 27ULL, 29ULL, 32ULL})
        EXPECT_EQ("-1 EINVAL", sender("sendcontrol 3 127.0.0.1 5000 " + message(0, 31, {7}) +
                                      message(0, 8, {0, 0, 0, 0}, true, length)))
            << length;
    EXPECT_EQ("-1 EINVAL", sender("sendcontrol 3 127.0.0.1 5000 " + message(0, 31, {7}) +
                                  message(41, 50, {0, 0, 0, 0, 0}, true, 35)));
}

TEST_F(Vrkernel, TooMuchControlDataHasNoRoom)
{
    Peer receiver, sender;
    std::string at = receiver.open(4, 7, "127.0.0.1 0");
    sender.open(4, 0);
    // Packet info needs 32 of 1024 bytes, like each of these, which the real kernel ignores for their level.
    const std::string filler = message(77, 1, {1, 2, 3, 4});
    std::string control = message(0, 31, {7});
    for (int i = 0; i < 31; i++)
        control += filler;
    EXPECT_EQ("1", sender("sendcontrol 3 " + at + " " + control));
    EXPECT_EQ("-1 ENOBUFS", sender("sendcontrol 3 " + at + " " + control + filler));
    control = message(0, 31, {-1}) + control.substr(48) + filler;
    EXPECT_EQ("1", sender("sendcontrol 3 " + at + " " + control));
    EXPECT_EQ("-1 ENOBUFS", sender("sendcontrol 3 " + at + " " + control + filler));
    std::string huge;
    for (int i = 0; i < 640; i++)
        huge += filler;
    EXPECT_EQ("-1 ENOBUFS", sender("sendcontrol 3 " + at + " " + huge + filler)); // 20480 and 32
    EXPECT_THAT(receiver("recvplain 3"), StartsWith("x 127.0.0.1 "));
    EXPECT_EQ("-1 EAGAIN", receiver("recvplain 3"));
}

TEST_F(Vrkernel, DestinationsAreTranslated)
{
    constexpr const char *kOriginal = " 0 20 1"; // IP_RECVORIGDSTADDR
    Peer seven, everywhere, sender;
    std::string at = seven.open(4, 7, "127.0.0.9 0");
    std::string port = port_of(everywhere.open(4, -1, "0.0.0.0 0"));
    ASSERT_EQ("0", seven("setoption 3" + std::string(kOriginal)));
    ASSERT_EQ("0", everywhere("setoption 3" + std::string(kOriginal)));
    std::string from = sender.open(4, 7, "127.0.0.3 0");
    ASSERT_EQ("1", sender("sendplain 3 " + at + " x"));
    EXPECT_EQ(from + ", info 127.0.0.9 127.0.0.9, original " + at, seven("recvcontrol 3 0"));
    ASSERT_EQ("1", sender("sendplain 3 127.0.0.8 " + port + " x"));
    EXPECT_EQ(from + ", info 127.0.0.8 127.0.0.8, original 127.0.0.8 " + port, everywhere("recvcontrol 3 0"));

    // An IPv6 socket that requests the IPv4 information.
    std::string at6 = seven.open(6, 7, "::9 0");
    ASSERT_EQ("0", seven("setoption 4" + std::string(kOriginal)));
    sender.open(6, 7);
    ASSERT_EQ("1", sender("sendplain 4 " + at6 + " x"));
    EXPECT_THAT(seven("recvcontrol 4 0"), HasSubstr(", original 127.0.0.9 " + port_of(at6)));
}

TEST_F(Vrkernel, TheErrorQueueIsTranslated)
{
    Peer client;
    client.open(4, 7, "127.0.0.3 0");
    ASSERT_EQ("0", client("setoption 3 0 11 1")); // IP_RECVERR
    ASSERT_EQ("1", client("sendplain 3 127.0.0.9 5000 x"));
    EXPECT_THAT(client("recvcontrol 3 8192"), // MSG_ERRQUEUE
                testing::AllOf(StartsWith("127.0.0.9 5000, "), HasSubstr("error from 127.0.0.9 0")));

    // IPv6, before and after it is bound to the VR.
    ASSERT_EQ("4", client("socket 6"));
    ASSERT_EQ("0", client("setoption 4 41 25 1")); // IPV6_RECVERR
    ASSERT_EQ("0", client("bindvr 4 7"));
    client.open(6, 7);
    ASSERT_EQ("0", client("setoption 5 41 25 1"));
    for (const std::string fd : {"4", "5"}) {
        ASSERT_EQ("1", client("sendplain " + fd + " ::9 5000 x"));
        EXPECT_THAT(client("recvcontrol " + fd + " 8192"),
                    testing::AllOf(StartsWith("::9 5000, "), HasSubstr("error from ::9 0")));
    }
    ASSERT_EQ("0", client("setoption 5 41 25 0"));
    ASSERT_EQ("1", client("sendplain 5 ::9 5000 x"));
    EXPECT_EQ("-1 EAGAIN", client("recvcontrol 5 8192"));
}

// ---- names without a family ----

TEST_F(Vrkernel, NamesWithoutAFamilyStayInTheVr)
{
    Peer seven, ordinary, sender;
    std::string at = seven.open(4, 7, "127.0.0.1 0");
    ordinary.open(4, 0, at);
    sender.open(4, 7);
    EXPECT_EQ("1", sender("sendunspecified 3 " + at));
    EXPECT_EQ("-1 EAGAIN", ordinary("recvplain 3"));
    EXPECT_EQ("x " + sender("own 3"), seven("recvplain 3"));

    // bind() accepts only the wildcard in this form.
    EXPECT_EQ("4", sender("socket 4"));
    EXPECT_EQ("0", sender("bindvr 4 7"));
    EXPECT_EQ("-1 EAFNOSUPPORT", sender("bindunspecified 4 127.0.0.1 0"));
    EXPECT_THAT(sender("bindunspecified 4 0.0.0.0 0"), StartsWith("127.0.0.1 "));

    // An IPv6 socket refuses it as a name.
    std::string at6 = seven.open(6, 7, "::1 0");
    ordinary.open(6, 0, at6);
    sender.open(6, 7);
    EXPECT_EQ("-1 EDESTADDRREQ", sender("sendunspecified 5 " + at6));
    EXPECT_EQ("0", sender("connect 5 " + at6));
    EXPECT_EQ("1", sender("sendunspecified 5 ::7 77"));
    EXPECT_EQ("-1 EAGAIN", ordinary("recvplain 4"));
    EXPECT_EQ("x " + sender("own 5"), seven("recvplain 4"));
}

TEST_F(Vrkernel, ANameOfNoLengthIsIgnored)
{
    Peer seven, ordinary, sender;
    std::string at = seven.open(4, 7, "127.0.0.1 0");
    ordinary.open(4, 0, at);
    sender.open(4, 0);
    EXPECT_EQ("-1 EDESTADDRREQ", sender("sendcontrol 3 - " + message(0, 31, {7})));
    ASSERT_EQ("0", sender("connect 3 " + at));
    EXPECT_EQ("1", sender("sendcontrol 3 - " + message(0, 31, {7})));
    EXPECT_EQ("-1 EAGAIN", ordinary("recvplain 3"));
    EXPECT_THAT(seven("recvplain 3"), StartsWith("x 127.0.0.1 "));
}

TEST_F(Vrkernel, AddressesOutsideDoNotExistInAVr)
{
    Peer sender;
    sender.open(4, 7, "127.0.0.1 0");
    sender.open(4, 0);
    EXPECT_EQ("-1 ENETUNREACH", sender("sendplain 3 127.128.7.1 5000 x"));
    EXPECT_EQ("-1 ENETUNREACH", sender("send 4 127.128.8.1 5000 7 x"));
    EXPECT_EQ("-1 ENETUNREACH", sender("connect 3 127.128.7.1 5000"));
    EXPECT_EQ("-1 EINVAL", sender("sendfrom 4 127.0.0.1 5000 127.128.7.1 0 0 7 x"));
    EXPECT_EQ("-1 EADDRNOTAVAIL", sender.open(4, 7, "127.128.7.1 0"));
}

// ---- sockets without an address ----

TEST_F(Vrkernel, ASenderWithoutAnAddressGetsOneOfItsVr)
{
    Peer seven, sender, stock(false);
    std::string at = seven.open(4, 7, "127.0.0.1 0");
    for (const char *send : {"sendplain 3 127.0.0.1 5000 x", "send 3 127.0.0.1 5000 8 x", "connect 3 127.0.0.1 5000",
                             "send 3 127.0.0.1 5000 4294967295 x"}) {
        Peer fresh;
        fresh.open(4, 7);
        ASSERT_THAT(fresh(send), testing::Not(StartsWith("-"))) << send;
        std::string own = fresh("own 3");
        EXPECT_THAT(own, StartsWith("127.0.0.1 ")) << send;
        // It receives from its VR there, and nothing from outside.
        stock.open(4, 0);
        EXPECT_EQ("7", stock("sendplain 3 " + own + " outside"));
        EXPECT_EQ("0", fresh("readable 3")) << send;
    }
    // A refused send assigns no address.
    sender.open(4, 7);
    EXPECT_EQ("-1 ENETUNREACH", sender("sendplain 3 10.0.0.1 5000 x"));
    EXPECT_EQ("-1 ENETUNREACH", sender("connect 3 10.0.0.1 5000"));
    EXPECT_EQ("0.0.0.0 0", sender("own 3"));
}

TEST_F(Vrkernel, TwoThreadsMaySendFirst)
{
    Peer receiver, sender;
    std::string at = receiver.open(4, 7, "127.0.0.1 0");
    EXPECT_EQ("0", sender("firstsends 7 " + at + " 100"));
}

TEST_F(Vrkernel, Disconnecting)
{
    Peer seven;
    std::string at = seven.open(4, 7, "127.0.0.1 0");
    for (const char *own : {"-", "127.0.0.5 0", "127.0.0.5 6000"}) {
        SCOPED_TRACE(own);
        Peer client;
        client.open(4, 7, own);
        ASSERT_EQ("0", client("connect 3 " + at));
        EXPECT_EQ("1", client("sendplain 3 - x"));
        EXPECT_THAT(seven("recvplain 3"), StartsWith("x "));
        EXPECT_EQ("0", client("connectunspecified 3 0.0.0.0 0"));
        EXPECT_EQ("-1 ENOTCONN", client("peer 3"));
        EXPECT_EQ("-1 EDESTADDRREQ", client("sendplain 3 - x"));
        EXPECT_EQ("0 7", client("getvr 3"));
        EXPECT_EQ("1", client("sendplain 3 " + at + " y"));
        EXPECT_EQ("y " + client("own 3"), seven("recvplain 3"));
        EXPECT_THAT(client("own 3"), StartsWith(*own == '-' ? "127.0.0.1 " : "127.0.0.5 "));
        EXPECT_EQ("0", client("connect 3 " + at));
    }
    // A socket whose address came only from its connection loses it and is unbound again.
    Peer client;
    client.open(4, 7);
    client.open(6, 7);
    ASSERT_EQ("0", client("connect 3 " + at));
    ASSERT_EQ("0", client("connect 4 ::1 5000"));
    EXPECT_EQ("0", client("connectunspecified 3 0.0.0.0 0"));
    EXPECT_EQ("0", client("connectunspecified 4 0.0.0.0 0"));
    EXPECT_EQ("0.0.0.0 0", client("own 3"));
    EXPECT_EQ(":: 0", client("own 4"));
    EXPECT_EQ("0", client("bindvr 3 8"));
    EXPECT_EQ("1", client("sendplain 3 " + at + " x"));
    EXPECT_EQ("-1 EAGAIN", seven("recvplain 3"));
}

TEST_F(Vrkernel, SocketsForIpv6OnlyCanSend)
{
    Peer seven, bound, only, both, in_vr;
    std::string at = seven.open(6, 7, "::1 0");
    std::string from = bound.open(6, 0, "::1 0");
    EXPECT_EQ("0", bound("send 3 " + at + " 7 a"));
    EXPECT_EQ("a " + from, seven("recvplain 3"));
    EXPECT_EQ("0", bound("sendfrom 3 " + at + " ::5 0 0 7 b"));
    EXPECT_EQ("b ::5 " + port_of(from), seven("recvplain 3"));
    EXPECT_EQ("0", bound("connect 3 " + at));
    EXPECT_EQ("0", bound("send 3 - 7 c"));
    EXPECT_EQ("c " + from, seven("recvplain 3"));
    EXPECT_EQ("-1 ENETUNREACH", bound("send 3 2001:db8::1 5000 7 x"));

    only.open(6, 0);
    ASSERT_EQ("0", only("setoption 3 41 26 1")); // IPV6_V6ONLY
    EXPECT_EQ("0", only("send 3 " + at + " 7 d"));
    EXPECT_EQ("d ::1 " + port_of(only("own 3")), seven("recvplain 3"));
    EXPECT_NE("0", port_of(only("own 3")));

    // Also to IPv4, like to any address of the VR. The VR's own port is taken.
    std::string at4 = seven.open(4, 7, "127.0.0.1 0");
    EXPECT_EQ("0", bound("send 3 ::ffff:" + at4 + " 7 e"));
    EXPECT_EQ("e 127.0.0.1 " + port_of(from), seven("recvplain 4"));
    ASSERT_EQ("3", both("socket 6"));
    ASSERT_EQ("0", both("setoption 3 1 15 1")); // SO_REUSEPORT, as another such sender has
    ASSERT_EQ("0", both("bindvr 3 7"));
    ASSERT_EQ(from, both("bind 3 " + from));
    EXPECT_EQ("0", bound("send 3 " + at + " 7 f"));
    ASSERT_EQ("0", both("setoption 3 1 15 0"));
    EXPECT_EQ("-1 EADDRINUSE", bound("send 3 " + at + " 7 g"));

    // In a VR the option has no effect.
    ASSERT_EQ("3", in_vr("socket 6"));
    ASSERT_EQ("0", in_vr("setoption 3 41 26 1"));
    ASSERT_EQ("0", in_vr("bindvr 3 7"));
    ASSERT_EQ("::1 6000", in_vr("bind 3 ::1 6000"));
    EXPECT_EQ("1", in_vr("sendplain 3 " + at + " h"));
}

// ---- ordinary calls ----

TEST_F(Vrkernel, OrdinaryCallsGetTheRealKernelsAnswers)
{
    if (under_sanitizer())
        GTEST_SKIP() << "the sanitizer treats a truncated name as fully written";
    const std::vector<const char *> calls = {
        // UDP: names that are too short, too long, and absent.
        "socket 4", "setoption 3 1 2 1", "bind 3 127.0.0.1 5000", "sendtolength 3 127.0.0.1 5000 0",
        "sendtolength 3 127.0.0.1 5000 8", "sendtolength 3 127.0.0.1 5000 16", "sendtolength 3 127.0.0.1 5000 128",
        "sendtolength 3 127.0.0.1 5000 129", "sendtolength 3 127.0.0.1 5000 200",
        "sendtolength 3 127.0.0.1 5000 4294967295", "sendmsglength 3 127.0.0.1 5000 200",
        "sendmsglength 3 127.0.0.1 5000 4294967295", "recvintolength 3 16", "recvintolength 3 4",
        "recvintolength 3 4294967295", "sendunspecified 3 127.0.0.1 5000", "recvintolength 3 null",
        "sendplain 3 127.0.0.1 5000 x", "recvintolength 3 0", "recvintolength 3 0", "ownintolength 3 16",
        "ownintolength 3 4", "ownintolength 3 0", "ownintolength 3 4294967295",
        // Times of several receives.
        "sendseveral 3 127.0.0.1 5000 3", "recvcutnames 3 4 65536 0", "sendseveral 3 127.0.0.1 5000 3",
        "recvwithin 3 2 -1 0", "recvwithin 3 2 0 -1", "recvwithin 3 2 0 1000000000",
        "recvwithin 3 2 9223372036854775807 999999999", "recvwithin 3 2 0 0", "recvwithin 3 2 0 0",
        "recvseveral 99 1 64 0", "sendseveral 99 127.0.0.1 5000 1",
        // The outside address of a VR, used without a VR.
        "socket 4", "bind 4 127.128.7.1 5001", "own 4", "connect 4 127.128.8.1 5002", "peer 4",
        // TCP, and the protocol of UDP on a raw socket.
        "tcp", "bind 5 127.128.7.1 5003", "own 5", "listen 5", "tcp", "connect 6 127.128.7.1 5003", "peer 6",
        "sendplain 6 - x", "sendtolength 6 127.0.0.1 5000 200", "recvwithin 6 1 -1 0", "recvintolength 6 null",
        "setoption 6 1 18 1448214535", "getvr 6", "connectunspecified 6 0.0.0.0 0", // SO_RCVLOWAT as in VR 7
        "unix", "setoption 7 1 18 1448214535", "connect 7 10.0.0.1 5000", "getvr 7", "raw", "bindvr 8 7", "getvr 8",
        "bind 8 127.128.7.1 0", "own 8"};
    std::vector<std::string> expected;
    Peer stock(false);
    for (const char *call : calls)
        expected.push_back(stock(call));
    own_loopback(); // to use the same ports again
    Peer on_kernel;
    for (std::size_t i = 0; i < calls.size(); i++)
        EXPECT_EQ(expected[i], on_kernel(calls[i])) << calls[i];
}

TEST_F(Vrkernel, TimesOfSeveralReceives)
{
    Peer seven;
    std::string at = seven.open(4, 7, "127.0.0.1 0");
    EXPECT_EQ("-1 EINVAL -1", seven("recvwithin 3 2 -1 0"));
    EXPECT_EQ("-1 EINVAL 0", seven("recvwithin 3 2 0 1000000000"));
    EXPECT_EQ("-1 EINVAL 0", seven("recvwithin 3 2 0 -1"));
    seven("sendseveral 3 " + at + " 4");
    EXPECT_EQ("2 many", seven("recvwithin 3 2 9223372036854775807 999999999"));
    EXPECT_EQ("1 0", seven("recvwithin 3 2 0 0"));
    EXPECT_EQ("1 0", seven("recvwithin 3 2 0 1"));
}

TEST_F(Vrkernel, NamesThatAreCutAreTranslated)
{
    Peer seven;
    std::string port = port_of(seven.open(4, 7, "127.0.0.1 0"));
    seven("sendseveral 3 127.0.0.1 " + port + " 2");
    std::string two = "2 16: 127 0 238 238 238 238 16: 127 0 238 238 238 238";
    EXPECT_EQ(two, seven("recvcutnames 3 6 65536 0")); // MSG_WAITFORONE
    seven("sendseveral 3 127.0.0.1 " + port + " 2");
    EXPECT_EQ("1 16: 127 0 238 238 238 238", seven("recvcutnames 3 6 64 1")); // expires at once
    EXPECT_EQ("1 16: 127 0 238 238 238 238", seven("recvcutnames 3 6 64 0"));
    EXPECT_EQ("-1 EAGAIN", seven("recvcutnames 3 6 64 0"));
    seven("sendplain 3 127.0.0.1 " + port + " x");
    EXPECT_EQ("1 16", seven("recvintolength 3 6")); // the full length, though the name is cut
}

TEST_F(Vrkernel, BlockingCallsAreCancellationPoints)
{
    Peer on_kernel, without_config(true, false);
    on_kernel.open(4, 7);
    on_kernel.open(6, 0, "::1 0");
    without_config.open(4, 0);
    for (const char *call : {"connect", "sendto", "sendmsg", "sendmmsg", "recvfrom", "recvmsg", "recvmmsg"}) {
        EXPECT_EQ("cancelled", on_kernel("cancel 3 " + std::string(call))) << call;
        EXPECT_EQ("cancelled", without_config("cancel 3 " + std::string(call))) << call;
    }
    EXPECT_EQ("cancelled", on_kernel("cancel 4 vr"));
    EXPECT_EQ("5", on_kernel("socket 4")); // no descriptor is left behind
    EXPECT_EQ("returned", on_kernel("cancel 3 nothing"));
}

// ---- several at a time, and the VR of a socket ----

TEST_F(Vrkernel, SeveralAtATime)
{
    constexpr const char *kDontWait = "64", *kWaitForOne = "65536";
    ASSERT_EQ(kDontWait, std::to_string(MSG_DONTWAIT));
    ASSERT_EQ(kWaitForOne, std::to_string(MSG_WAITFORONE));
    for (bool with_config : {true, false}) {
        Peer receiver(true, with_config), sender(true, with_config);
        std::string at = receiver.open(4, with_config ? 7 : 0, "127.0.0.1 0");
        std::string from = sender.open(4, with_config ? 7 : 0, "127.0.0.3 0");
        EXPECT_EQ("-1 EAGAIN", receiver(std::string("recvseveral 3 3 ") + kDontWait + " 0"));
        EXPECT_EQ("2", sender("sendseveral 3 " + at + " 2"));
        EXPECT_EQ("2 0 " + from + " 1 " + from, receiver(std::string("recvseveral 3 3 ") + kWaitForOne + " 0"));
        EXPECT_EQ("3", sender("sendseveral 3 " + at + " 3"));
        EXPECT_EQ("2 0 " + from + " 1 " + from, receiver("recvseveral 3 2 0 0"));
        EXPECT_EQ("1 2 " + from, receiver("recvseveral 3 2 0 1")); // the time expires after the first
        EXPECT_EQ("0", sender("sendseveral 3 " + at + " 0"));
        EXPECT_EQ("1024", sender("sendseveral 3 127.0.0.1 9 1030")); // the most in one call
    }
    Peer sender;
    sender.open(4, 7);
    EXPECT_EQ("-1 ENETUNREACH", sender("sendseveral 3 10.0.0.1 5000 2"));
}

TEST_F(Vrkernel, UnknownVrs)
{
    Peer peer;
    peer.open(4, 0);
    peer.open(6, 0);
    EXPECT_EQ("2", peer("bindvr 3 9"));
    EXPECT_EQ("2", peer("bindvr 4 9"));
    EXPECT_EQ("0 -1", peer("getvr 3"));
    EXPECT_EQ("-1 ENOENT", peer("send 3 127.0.0.1 5000 9 x"));
    EXPECT_EQ("-1 ENOENT", peer("send 4 ::1 5000 65543 x")); // the high bits are not cut off to 7
    EXPECT_THAT(peer("bindvr 3 2081"), StartsWith("-1 "));   // the library's own refusal
}

TEST_F(Vrkernel, TheVrOfASocket)
{
    Peer peer;
    peer.open(4, 7);
    peer.open(6, 2080);
    EXPECT_EQ("0 7", peer("getvr 3"));
    EXPECT_EQ("0 2080", peer("getvr 4"));
    EXPECT_EQ("0", peer("bindvr 3 8"));
    EXPECT_EQ("0 8", peer("getvr 3"));
    EXPECT_EQ("0", peer("bindvr 3 -1"));
    EXPECT_EQ("0 -1", peer("getvr 3"));

    // A socket with an address stays in its VR.
    ASSERT_EQ("127.0.0.1 5000", peer.open(4, 7, "127.0.0.1 5000"));
    EXPECT_EQ("0", peer("bindvr 5 7"));
    EXPECT_EQ("22", peer("bindvr 5 8"));
    EXPECT_EQ("22", peer("bindvr 5 -1"));
    EXPECT_EQ("0 7", peer("getvr 5"));
}

TEST_F(Vrkernel, TheVrLastsThroughDupForkAndExec)
{
    Peer peer;
    peer.open(4, 7);
    ASSERT_EQ("4", peer("dup 3"));
    EXPECT_EQ("0 7", peer("getvr 4"));
    EXPECT_EQ("0 7", peer("askafterexec 3"));
}

TEST_F(Vrkernel, OtherSocketsUseTheRealKernel)
{
    Peer peer;
    Peer stock(false);
    ASSERT_EQ("3", peer("tcp"));
    ASSERT_EQ("3", stock("tcp"));
    EXPECT_EQ(stock("bindvr 3 7"), peer("bindvr 3 7"));
    EXPECT_EQ(stock("getvr 3"), peer("getvr 3"));
    EXPECT_EQ("9", peer("bindvr 99 7")); // EBADF
}

TEST_F(Vrkernel, WithoutAConfigurationItIsTheRealKernel)
{
    Peer peer(true, false);
    Peer stock(false);
    for (const char *call :
         {"socket 4", "bindvr 3 7", "getvr 3", "vrid_2_name 7", "get_if_vr eth0-1", "send 3 127.0.0.1 1 7 x", "recv 3"})
        EXPECT_EQ(stock(call), peer(call)) << call;
    EXPECT_NE("0", peer("bindvr 3 7"));
    EXPECT_EQ("null ENODEV", peer("vrid_2_name 7"));
}

// ---- requests ----

TEST_F(Vrkernel, VrRequests)
{
    Peer peer;
    EXPECT_EQ("3", peer("vrid_2_vsysid 7"));
    EXPECT_EQ("0", peer("vrid_2_vsysid 2080"));
    EXPECT_EQ("-1 ENOENT", peer("vrid_2_vsysid 9"));
    EXPECT_EQ("-1 ENOENT", peer("vrid_2_vsysid 0"));
    EXPECT_EQ("-1 ENOENT", peer("vrid_2_vsysid 65535"));
    EXPECT_EQ("trust", peer("vrid_2_name 7"));
    EXPECT_EQ("null ENOENT", peer("vrid_2_name 9"));
    EXPECT_EQ("7", peer("vrname_2_id 3 trust"));
    EXPECT_EQ("2080", peer("vrname_2_id 0 trust"));
    EXPECT_EQ("0", peer("vrname_2_id 0 guests"));
    EXPECT_EQ("0", peer("vrname_2_id 9 trust"));
    EXPECT_EQ("0", peer("vrname_2_id 3 trus"));
}

TEST_F(Vrkernel, VsysRequests)
{
    Peer peer;
    EXPECT_EQ("branch", peer("vsysid_2_name 3"));
    EXPECT_EQ("root", peer("vsysid_2_name 0"));
    EXPECT_EQ("null ENOENT", peer("vsysid_2_name 4"));
    EXPECT_EQ("3", peer("vsysname_2_id branch"));
    EXPECT_EQ("-1 ENOENT", peer("vsysname_2_id nobody"));
    EXPECT_EQ("7", peer("default_vrid 3"));
    EXPECT_EQ("1", peer("default_vrid 0"));
    EXPECT_EQ("0", peer("default_vrid 4"));
}

TEST_F(Vrkernel, InterfaceRequests)
{
    Peer peer;
    EXPECT_EQ("3", peer("if_vsysid 17"));
    EXPECT_EQ("0", peer("if_vsysid 65535"));
    EXPECT_EQ("-1 ENODEV", peer("if_vsysid 16"));
    EXPECT_EQ("7", peer("get_if_vr eth0-1"));
    EXPECT_EQ("ENODEV none", peer("get_if_vr eth0-3"));
    EXPECT_EQ("0", peer("set_if_vr eth0-1 8"));
    EXPECT_EQ("8", peer("get_if_vr eth0-1"));
    EXPECT_EQ("ENOENT", peer("set_if_vr eth0-1 9"));
    EXPECT_EQ("EINVAL", peer("set_if_vr eth0-1 1")); // of another vsys
    EXPECT_EQ("0", peer("set_if_vr cellular0 8"));   // of another vsys, but shared
    EXPECT_EQ("ENODEV", peer("set_if_vr eth0-3 7"));
    EXPECT_EQ("8", peer("get_if_vr eth0-1"));
    EXPECT_EQ("3", peer("ifname_2_vsysid ethernet0/1"));
    EXPECT_EQ("-1 ENODEV", peer("ifname_2_vsysid ethernet0/3"));
}

TEST_F(Vrkernel, SharedMarks)
{
    Peer peer;
    EXPECT_EQ("0", peer("is_vr_shared 7"));
    EXPECT_EQ("2", peer("is_vr_shared 8"));
    EXPECT_EQ("0", peer("is_vr_shared 9"));
    EXPECT_EQ("0", peer("set_vr_shared 7"));
    EXPECT_EQ("2", peer("is_vr_shared 7"));
    EXPECT_EQ("0", peer("set_vr_unshared 7"));
    EXPECT_EQ("0", peer("is_vr_shared 7"));
    EXPECT_EQ("-1 ENOENT", peer("set_vr_shared 9"));

    EXPECT_EQ("0", peer("is_if_shared 17"));
    EXPECT_EQ("2", peer("is_if_shared 18"));
    EXPECT_EQ("0", peer("is_if_shared 19"));
    EXPECT_EQ("0", peer("set_if_shared 17"));
    EXPECT_EQ("2", peer("is_if_shared 17"));
    EXPECT_EQ("0", peer("set_if_unshared 17"));
    EXPECT_EQ("0", peer("is_if_shared 17"));
    EXPECT_EQ("-1 ENODEV", peer("set_if_shared 19"));
}

TEST_F(Vrkernel, ChangesAreSeenByAllAndOutlastTheirProcess)
{
    Peer other;
    {
        Peer peer;
        EXPECT_EQ("0", peer("set_if_vr eth0-1 8"));
        EXPECT_EQ("0", peer("set_vr_shared 7"));
    }
    EXPECT_EQ("8", other("get_if_vr eth0-1"));
    EXPECT_EQ("2", other("is_vr_shared 7"));
    Peer later;
    EXPECT_EQ("8", later("get_if_vr eth0-1"));
}

TEST_F(Vrkernel, ProcessesThatStartAtTheSameTimeShareTheirTables)
{
    std::vector<std::unique_ptr<Peer>> peers;
    for (int i = 0; i < 8; i++)
        peers.push_back(std::make_unique<Peer>());
    EXPECT_EQ("0", (*peers[3])("set_if_vr eth0-1 8"));
    for (auto &peer : peers)
        EXPECT_EQ("8", (*peer)("get_if_vr eth0-1"));
}

TEST_F(Vrkernel, InterfaceSetUpRequestsKnowTheirInterface)
{
    Peer peer;
    EXPECT_EQ("0", peer("set_mac 65535 5"));
    EXPECT_EQ("0", peer("set_wifi 17 6"));
    EXPECT_EQ("0", peer("set_mtu_limit 17"));
    EXPECT_EQ("0", peer("change_device 65535 9"));
    for (const char *call : {"set_mac 1 5", "set_wifi 1 6", "set_mtu_limit 1", "change_device 1 9"})
        EXPECT_EQ("-1 ENODEV", peer(call)) << call;
}

TEST_F(Vrkernel, StrayRequests)
{
    Peer peer;
    for (const char *code : {"0", "5", "7", "25", "18446744073709551615"})
        EXPECT_EQ("-1 EOPNOTSUPP", peer("command " + std::string(code) + " pow0 record")) << code;
    EXPECT_EQ("-1 EFAULT", peer("command 11 pow0 nothing"));
    EXPECT_EQ("-1 ENODEV", peer("command 11 pow1 record")); // the real kernel's answer
    EXPECT_EQ("-1 ENOTTY", peer("fileioctl"));
}

// ---- the command ----

class VrkernelCommand : public Vrkernel {
protected:
    static ChildResult command(std::vector<std::string> words)
    {
        words.insert(words.begin(), build_dir() + "/vrkernel");
        return run_program(words);
    }

    static std::string peer() { return build_dir() + "/tests/vrkernel_peer"; }
};

TEST_F(VrkernelCommand, ShowsTheTablesAsTheyAre)
{
    auto before = command({"show", "-c", kConfig});
    EXPECT_TRUE(before.exited(0));
    EXPECT_EQ("vsys      root            id=0 default-vr=1\n"
              "vsys      branch          id=3 default-vr=7\n"
              "vr        default         id=1 vsys=0\n"
              "vr        trust           id=7 vsys=3\n"
              "vr        guests          id=8 vsys=3 shared\n"
              "vr        trust           id=2080 vsys=0\n"
              "interface eth0-1          id=17 vsys=3 vr=7\n"
              "interface eth0-2          id=18 vsys=3 vr=8 shared\n"
              "interface cellular0       id=65535 vsys=0 vr=1\n",
              before.out);
    Peer peer;
    peer("set_mac 65535 5");
    peer("set_wifi 17 6");
    peer("set_mtu_limit 17");
    peer("change_device 65535 9");
    peer("set_if_vr eth0-1 8");
    auto after = command({"show", "-c", kConfig});
    EXPECT_THAT(after.out, HasSubstr("interface eth0-1          id=17 vsys=3 vr=8 # wifi=6 mtu-limits=1\n"));
    EXPECT_THAT(after.out, HasSubstr("id=65535 vsys=0 vr=1 # mac=02:00:00:00:00:17 cellular=5 device=9\n"));
}

TEST_F(VrkernelCommand, WhatShowWritesIsAFileOfTheSameTables)
{
    Peer peer;
    peer("set_mac 65535 5");
    peer("set_mtu_limit 17");
    peer("set_if_vr eth0-1 8");
    peer("set_if_shared 17");
    peer("set_vr_shared 7");
    auto shown = command({"show", "-c", kConfig});
    EXPECT_THAT(shown.out, HasSubstr("vr=8 shared # mtu-limits=1\n"));

    constexpr const char *kShown = "/tmp/shown.conf";
    write_file(kShown, shown.out);
    auto again = command({"show", "-c", kShown});
    EXPECT_TRUE(again.exited(0)) << again.err;
    EXPECT_EQ("", again.err);
    // What programs have set is not in the file.
    std::string without_comments;
    for (const std::string &line : lines(shown.out))
        without_comments += line.substr(0, line.find(" #")) + "\n";
    EXPECT_EQ(without_comments, again.out);
}

TEST_F(VrkernelCommand, RunSaysWhyAProgramDoesNotStart)
{
    auto absent = command({"run", "-c", kConfig, "--", "/tmp/absent"});
    EXPECT_TRUE(absent.exited(127)) << absent.status;
    EXPECT_EQ("vrkernel: /tmp/absent: No such file or directory\n", absent.err);
    EXPECT_TRUE(command({"run", "-c", kConfig, "no-such-program"}).exited(127));
    auto unfit = command({"run", "-c", kConfig, "--", kConfig});
    EXPECT_TRUE(unfit.exited(126)) << unfit.status;
    EXPECT_EQ("vrkernel: " + std::string(kConfig) + ": Permission denied\n", unfit.err);
}

TEST_F(VrkernelCommand, HelpGoesToStandardOutput)
{
    auto wrong = command({});
    EXPECT_TRUE(wrong.exited(2));
    EXPECT_EQ("", wrong.out);
    EXPECT_THAT(wrong.err, StartsWith("usage: vrkernel run "));
    for (const char *option : {"-h", "--help"}) {
        auto help = command({option});
        EXPECT_TRUE(help.exited(0)) << option;
        EXPECT_THAT(help.out, StartsWith(wrong.err));
        EXPECT_EQ("", help.err);
    }
}

TEST_F(VrkernelCommand, ResetAndAChangedFileStartOver)
{
    Peer peer;
    peer("set_if_vr eth0-1 8");
    EXPECT_TRUE(command({"reset", "-c", kConfig}).exited(0));
    EXPECT_EQ("8", peer("get_if_vr eth0-1")); // running processes keep their tables
    Peer fresh;
    EXPECT_EQ("7", fresh("get_if_vr eth0-1"));

    write_file(kConfig, "vsys root id=0 default-vr=1\nvr default id=1 vsys=0\ninterface eth0-1 id=1 vsys=0 vr=1\n");
    Peer changed;
    EXPECT_EQ("1", changed("get_if_vr eth0-1"));
    EXPECT_TRUE(command({"reset", "-c", kConfig}).exited(0));
    EXPECT_TRUE(command({"reset", "-c", kConfig}).exited(0)); // no segment is no error
}

std::vector<std::string> segments()
{
    std::vector<std::string> found;
    for (const std::string &name : list_dir("/dev/shm")) {
        if (name.rfind("vrkernel.", 0) == 0)
            found.push_back("/dev/shm/" + name);
    }
    return found;
}

TEST_F(VrkernelCommand, ResetRemovesTheSegmentsOfRemovedFiles)
{
    auto replace = [] { // like editors do
        write_file("/tmp/new.conf", kTables);
        ASSERT_EQ(0, ::rename("/tmp/new.conf", kConfig));
    };
    Peer first;
    EXPECT_EQ("7", first("get_if_vr eth0-1"));
    for (int i = 0; i < 2; i++) {
        replace();
        EXPECT_TRUE(command({"show", "-c", kConfig}).exited(0));
    }
    write_file("/tmp/other.conf", kTables);
    EXPECT_TRUE(command({"show", "-c", "/tmp/other.conf"}).exited(0));
    write_file("/tmp/removed.conf", kTables);
    EXPECT_TRUE(command({"show", "-c", "/tmp/removed.conf"}).exited(0));
    write_file("/tmp/before.conf", kTables);
    EXPECT_TRUE(command({"show", "-c", "/tmp/before.conf"}).exited(0));
    ASSERT_EQ(0, ::rename("/tmp/before.conf", "/tmp/after.conf"));
    EXPECT_TRUE(command({"show", "-c", "/tmp/after.conf"}).exited(0));
    ::unlink("/tmp/removed.conf");
    write_file("/dev/shm/vrkernel.strange", "not tables");
    EXPECT_EQ(7u, segments().size());

    EXPECT_TRUE(command({"reset", "-c", kConfig}).exited(0));
    EXPECT_EQ(3u, segments().size()); // the segments of other files remain, and files that are no segments
    EXPECT_TRUE(command({"reset", "-c", "/tmp/other.conf"}).exited(0));
    EXPECT_TRUE(command({"reset", "-c", "/tmp/after.conf"}).exited(0));
    EXPECT_EQ(std::vector<std::string>{"/dev/shm/vrkernel.strange"}, segments());
    EXPECT_EQ("7", first("get_if_vr eth0-1"));
}

TEST_F(VrkernelCommand, ASegmentOfAnotherFileIsReplaced)
{
    struct stat st;
    write_file(kConfig, kTables); // with a known modification time
    const timespec times[2] = {{1000, 5}, {1000, 5}};
    ASSERT_EQ(0, ::utimensat(AT_FDCWD, kConfig, times, 0));
    auto touch = [](time_t seconds, long nanoseconds) {
        const timespec changed[2] = {{seconds, nanoseconds}, {seconds, nanoseconds}};
        EXPECT_EQ(0, ::utimensat(AT_FDCWD, kConfig, changed, 0));
    };
    auto is_kept_after = [](const std::function<void(const std::string &)> &spoil) {
        {
            Peer before;
            EXPECT_EQ("0", before("set_if_vr eth0-1 8"));
        }
        EXPECT_EQ(1u, segments().size());
        spoil(segments().at(0));
        Peer after;
        std::string vr = after("get_if_vr eth0-1");
        EXPECT_EQ("0", after("set_if_vr eth0-1 7"));
        EXPECT_THAT(vr, testing::AnyOf("7", "8"));
        return vr == "8";
    };
    auto overwrite = [](const std::string &path, const std::string &bytes) {
        int fd = ::open(path.c_str(), O_WRONLY);
        EXPECT_EQ(static_cast<ssize_t>(bytes.size()), ::pwrite(fd, bytes.data(), bytes.size(), 0));
        ::close(fd);
    };
    EXPECT_TRUE(is_kept_after([](const std::string &) {}));
    EXPECT_FALSE(is_kept_after([](const std::string &path) { EXPECT_EQ(0, ::chown(path.c_str(), 1000, 1000)); }));
    EXPECT_FALSE(is_kept_after([](const std::string &path) { EXPECT_EQ(0, ::truncate(path.c_str(), 100)); }));
    EXPECT_FALSE(is_kept_after([&](const std::string &path) {
        ASSERT_EQ(0, ::stat(path.c_str(), &st));
        EXPECT_EQ(0, ::truncate(path.c_str(), st.st_size + 4096));
    }));
    EXPECT_FALSE(is_kept_after([&](const std::string &path) { overwrite(path, std::string(4, '\0')); }));
    EXPECT_FALSE(is_kept_after([&](const std::string &path) { overwrite(path, "abcd"); }));
    EXPECT_FALSE(is_kept_after([&](const std::string &) { touch(1001, 5); }));
    EXPECT_FALSE(is_kept_after([&](const std::string &) { touch(1001, 6); }));
    EXPECT_FALSE(is_kept_after([&](const std::string &) {
        write_file(kConfig, std::string(kTables) + "\n");
        touch(1001, 6);
    }));
    EXPECT_TRUE(is_kept_after([&](const std::string &) { touch(1001, 6); }));
}

// A process of the test holds the lock until the starting process waits for it.
TEST_F(VrkernelCommand, ProcessesThatStartWaitForTheLockOfTheFile)
{
    for (const char *word : {"show", "reset"}) {
        write_file(kConfig, "nonsense\n");
        int fd = ::open(kConfig, O_RDWR | O_CLOEXEC);
        ASSERT_EQ(0, ::flock(fd, LOCK_EX));
        std::thread holder([fd] {
            for (int waited = 0; waited < kAnswerMs && read_file("/proc/locks").find("-> FLOCK") == std::string::npos;
                 waited += 5)
                ::usleep(5000);
            EXPECT_THAT(read_file("/proc/locks"), HasSubstr("-> FLOCK"));
            std::string tables = kTables;
            EXPECT_EQ(static_cast<ssize_t>(tables.size()), ::pwrite(fd, tables.data(), tables.size(), 0));
            ::flock(fd, LOCK_UN);
        });
        auto result = command({word, "-c", kConfig});
        holder.join();
        ::close(fd);
        EXPECT_TRUE(result.exited(0)) << result.err;
        if (word == std::string("reset"))
            continue;
        // The tables are those of the file at that time.
        struct stat made, later;
        ASSERT_EQ(0, ::stat(segments().at(0).c_str(), &made));
        EXPECT_TRUE(command({word, "-c", kConfig}).exited(0));
        ASSERT_EQ(0, ::stat(segments().at(0).c_str(), &later));
        EXPECT_EQ(made.st_ino, later.st_ino);
    }
}

TEST_F(VrkernelCommand, APathThatCannotBePreloadedIsRefused)
{
    for (const char *folder : {"/tmp/a b", "/tmp/a:b", "/tmp/c"}) {
        ASSERT_EQ(0, ::mkdir(folder, 0755));
        for (const char *file : {"/vrkernel", "/libvrkernel.so"}) {
            write_file(folder + std::string(file), read_file(build_dir() + file));
            ASSERT_EQ(0, ::chmod((folder + std::string(file)).c_str(), 0755));
        }
        auto result = run_program({folder + std::string("/vrkernel"), "run", "-c", kConfig, "--", "/bin/true"});
        if (std::string(folder) == "/tmp/c") {
            EXPECT_TRUE(under_sanitizer() || result.exited(0)) << result.err;
            continue;
        }
        EXPECT_TRUE(result.exited(125)) << folder;
        EXPECT_EQ("vrkernel: " + std::string(folder) +
                      "/libvrkernel.so: a path with a blank or a colon cannot be preloaded\n",
                  result.err);
    }
    // The tables' file may have any name.
    write_file("/tmp/a b/my tables.conf", kTables);
    EXPECT_TRUE(command({"show", "-c", "/tmp/a b/my tables.conf"}).exited(0));
}

TEST_F(VrkernelCommand, ALibraryThatOthersCanChangeIsRefused)
{
    ASSERT_EQ(0, ::mkdir("/tmp/open", 0755));
    for (const char *file : {"/vrkernel", "/libvrkernel.so"}) {
        write_file("/tmp/open" + std::string(file), read_file(build_dir() + file));
        ASSERT_EQ(0, ::chmod(("/tmp/open" + std::string(file)).c_str(), 0757));
    }
    // A user who can change the program needs no library. A tree that was built with umask 0 has such modes.
    auto trusting = run_program({"/tmp/open/vrkernel", "run", "-c", kConfig, "--", "/bin/true"});
    EXPECT_TRUE(under_sanitizer() || trusting.exited(0)) << trusting.err;

    ASSERT_EQ(0, ::chmod("/tmp/open/vrkernel", 0755));
    auto result = run_program({"/tmp/open/vrkernel", "run", "-c", kConfig, "--", "/bin/true"});
    EXPECT_TRUE(result.exited(125));
    EXPECT_EQ("vrkernel: /tmp/open/libvrkernel.so: other users can change it\n", result.err);
}

TEST_F(VrkernelCommand, RunsAProgramAndWhatItStarts)
{
    if (under_sanitizer())
        GTEST_SKIP() << "a library with the sanitizer cannot be preloaded into a shell without it";
    auto result = command({"run", "-c", kConfig, "--", "/bin/sh", "-c", "echo vrid_2_name 7 | " + peer()});
    EXPECT_TRUE(result.exited(0)) << result.err;
    EXPECT_EQ("trust\n", result.out);
    EXPECT_TRUE(command({"run", "-c", kConfig, "/bin/sh", "-c", "exit 9"}).exited(9));
    EXPECT_TRUE(command({"run", "-c", kConfig, "--", "/no/such/program"}).exited(127));
    EXPECT_EQ("vrkernel: /tmp/none.conf: No such file or directory\n",
              command({"run", "-c", "/tmp/none.conf", "--", "/bin/sh"}).err);
}

TEST_F(VrkernelCommand, WrongUseShowsTheUsage)
{
    ::unsetenv("VRKERNEL_CONFIG");
    for (const std::vector<std::string> &words : {std::vector<std::string>{},
                                                  {"show"},
                                                  {"run"},
                                                  {"run", "-c", kConfig},
                                                  {"run", "-c", kConfig, "--"},
                                                  {"show", "-c"},
                                                  {"show", "-c", kConfig, "more"},
                                                  {"stop", "-c", kConfig}}) {
        auto result = command(words);
        EXPECT_TRUE(result.exited(2)) << testing::PrintToString(words);
        EXPECT_THAT(result.err, StartsWith("usage: vrkernel run -c FILE"));
    }
}

// ---- the sample daemon ----

class VrkernelSample : public VrkernelCommand {
protected:
    void SetUp() override
    {
        VrkernelCommand::SetUp();
        if (!exists(build_dir() + "/examples/sampled"))
            GTEST_SKIP() << "built without the examples";
        if (under_sanitizer())
            ::setenv("ASAN_OPTIONS", "verify_asan_link_order=0", 1);
    }

    void TearDown() override
    {
        if (daemon_ > 0)
            stop();
    }

    static std::vector<std::string> on_kernel(const std::vector<std::string> &words)
    {
        std::vector<std::string> all = {build_dir() + "/vrkernel", "run", "-c", kConfig, "--"};
        all.push_back(build_dir() + "/examples/" + words[0]);
        all.insert(all.end(), words.begin() + 1, words.end());
        return all;
    }

    // Starts the daemon and waits until its log contains the text.
    void start(const std::vector<std::string> &words, const std::string &ready)
    {
        daemon_ = ::fork();
        if (daemon_ == 0) {
            std::vector<char *> argv;
            auto all = on_kernel(words);
            for (std::string &word : all)
                argv.push_back(word.data());
            argv.push_back(nullptr);
            ::execv(argv[0], argv.data());
            ::_exit(127);
        }
        for (int waited = 0; waited < kAnswerMs && log().find(ready) == std::string::npos; waited += 10)
            ::usleep(10000);
    }

    int stop()
    {
        int status = 0;
        ::kill(std::exchange(daemon_, 0), SIGTERM);
        while (::wait(&status) < 0 && errno == EINTR)
            ;
        return status;
    }

    static std::string log() { return exists("/etc/consolelog") ? read_file("/etc/consolelog") : ""; }

private:
    pid_t daemon_ = 0;
};

TEST_F(VrkernelSample, AnswersInTheVrsThatItServes)
{
    start({"sampled", "--ifname", "ethernet0/1", "--vr", "2080"}, "echo in VR 2080, trust of vsys 0\n");
    EXPECT_THAT(log(), HasSubstr("sampled: ethernet0/1 is eth0-1 in VR 7\n"));
    EXPECT_THAT(log(), HasSubstr("sampled: echo in VR 7, trust of vsys 3\n"));

    for (const char *vr : {"7", "2080"}) {
        ChildResult asked = run_program(on_kernel({"vrecho", vr}));
        EXPECT_TRUE(asked.exited(0));
        EXPECT_EQ("VR " + std::string(vr) + ": answered in VR " + vr + "\n", asked.out);
    }
    ChildResult unserved = run_program(on_kernel({"vrecho", "8"}));
    EXPECT_TRUE(unserved.exited(1));
    EXPECT_EQ("VR 8: no answer\n", unserved.out);
    EXPECT_THAT(log(), HasSubstr("sampled: VR 7: 7 bytes from 127.0.0.1 to 127.0.0.1 through lo\n"));
    EXPECT_EQ(0, stop());
}

TEST_F(VrkernelSample, ReportsWhatItCannotServe)
{
    EXPECT_TRUE(run_program(on_kernel({"sampled", "--vr", "9"})).exited(1));
    EXPECT_THAT(log(), HasSubstr("sampled: VR 9: No such file or directory\n"));
    EXPECT_TRUE(run_program(on_kernel({"sampled", "--vr", "2081"})).exited(1));
    EXPECT_THAT(log(), HasSubstr("sampled: VR 2081: Invalid argument\n"));
    EXPECT_TRUE(run_program(on_kernel({"sampled", "--ifname", "ethernet0/9"})).exited(1));
    EXPECT_THAT(log(), HasSubstr("sampled: ethernet0/9: no such interface\n"));
    EXPECT_TRUE(run_program({build_dir() + "/examples/sampled", "--vr", "7"}).exited(1));
    EXPECT_THAT(log(), HasSubstr("sampled: VR 7: Protocol not available\n"));
}

// ---- the file ----

class VrkernelConfig : public Vrkernel {
protected:
    // The message about a file, without the file's name.
    static std::string said_of(const std::string &text)
    {
        write_file(kConfig, text);
        auto result = run_program({build_dir() + "/vrkernel", "show", "-c", kConfig});
        EXPECT_TRUE(result.exited(result.err.empty() ? 0 : 125)) << result.err;
        std::string said;
        for (const std::string &line : lines(result.err)) {
            EXPECT_THAT(line, StartsWith(std::string(kConfig) + ":"));
            said += line.substr(std::string(kConfig).size() + 1) + "\n";
        }
        return said;
    }
};

constexpr const char *kLeast = "vsys root id=0 default-vr=1\nvr default id=1 vsys=0\n";

TEST_F(VrkernelConfig, EveryMistakeIsReportedWithItsLine)
{
    const std::vector<std::pair<std::string, std::string>> cases = {
        {"router x id=1", "unknown entry \"router\", want vsys, vr or interface"},
        {"vr", "vr without a name"},
        {"vr a vsys=0", "vr \"a\" without id"},
        {"vr a id=2", "vr \"a\" without vsys"},
        {"vsys a id=2", "vsys \"a\" without default-vr"},
        {"interface a id=2 vsys=0", "interface \"a\" without vr"},
        {"vr a id=2 vsys=0 vr=1", "unknown attribute \"vr\" of vr"},
        {"vsys a id=2 default-vr=1 shared", "unknown attribute \"shared\" of vsys"},
        {"vr a id=2 vsys=0 color=red", "unknown attribute \"color\" of vr"},
        {"vr a id=2 id=3 vsys=0", "id given twice"},
        {"vr a id vsys=0", "id needs a number from 0 to 65535"},
        {"vr a id= vsys=0", "id needs a number from 0 to 65535"},
        {"vr a id=-2 vsys=0", "id needs a number from 0 to 65535"},
        {"vr a id=2x vsys=0", "id needs a number from 0 to 65535"},
        {"vr a id=65536 vsys=0", "id needs a number from 0 to 65535"},
        {"vr a id=99999999999999999999999 vsys=0", "id needs a number from 0 to 65535"},
        {"vr a id=2 vsys=0 shared=1", "shared takes no value"},
        {"vr a id=0 vsys=0", "VR id 0 out of range, 1 to 2080"},
        {"vr a id=2081 vsys=0", "VR id 2081 out of range, 1 to 2080"},
        {"vr a id=1 vsys=0", "VR id 1 already taken"},
        {"vr default id=2 vsys=0", "VR name \"default\" already taken in vsys 0"},
        {"vsys a id=0 default-vr=1", "vsys id 0 already taken"},
        {"vsys root id=2 default-vr=1", "vsys name \"root\" already taken"},
        {"interface 1234567890123456 id=2 vsys=0 vr=1", "name \"1234567890123456\" too long, at most 15 characters"},
        {"vr 12345678901234567890123456789012 id=2 vsys=0",
         "name \"12345678901234567890123456789012\" too long, at most 31 characters"},
        {"vr a id=2 vsys=9", "there is no vsys 9"},
        {"vsys a id=2 default-vr=9", "there is no VR 9"},
        {"interface a id=2 vsys=0 vr=9", "there is no VR 9"},
        {"vsys b id=2 default-vr=1 # and\ninterface a id=2 vsys=2 vr=1", "VR 1 belongs to vsys 0 and is not shared"},
    };
    for (const auto &[line, message] : cases)
        EXPECT_EQ((line.find('\n') == std::string::npos ? "4: " : "5: ") + message + "\n",
                  said_of(std::string(kLeast) + "\n" + line + "\n"))
            << line;
    EXPECT_EQ("1: the default VR of vsys 0 is always 1\n", said_of("vsys root id=0 default-vr=2\nvr a id=2 vsys=0\n"));
}

TEST_F(VrkernelConfig, AllMistakesAreReported)
{
    EXPECT_EQ("1: vr \"a\" without vsys\n3: unknown entry \"x\", want vsys, vr or interface\n",
              said_of("vr a id=2\n\nx\n"));
    EXPECT_EQ("1: there is no vsys 5\n2: there is no vsys 6\n2: there is no VR 9\n",
              said_of("vr a id=2 vsys=5\ninterface b id=1 vsys=6 vr=9\n"));
    EXPECT_EQ("3: interface id 2 already taken\n4: interface name \"a\" already taken\n",
              said_of(std::string("vsys a id=0 default-vr=1\ninterface a id=2 vsys=0 vr=1\n") +
                      "interface b id=2 vsys=0 vr=1\ninterface a id=3 vsys=0 vr=1\nvr a id=1 vsys=0\n"));
}

TEST_F(VrkernelConfig, CommentsBlanksOrderAndLongestNames)
{
    EXPECT_EQ("", said_of("  # nothing\n\n\tinterface 123456789012345 vr=2080 id=65535 shared vsys=65535 # behind\r\n"
                          "vsys 1234567890123456789012345678901 default-vr=2080 id=65535\n"
                          "vr 1234567890123456789012345678901 id=2080 vsys=65535"));
    EXPECT_EQ("", said_of(""));
    EXPECT_EQ("", said_of(std::string(510, '#') + "\n"));
    EXPECT_EQ("2: line too long, at most 510 characters\n", said_of("\n" + std::string(511, '#') + "\n"));
}

TEST_F(VrkernelConfig, TablesHaveTheirLimits)
{
    std::string vsys = "vr a id=1 vsys=0\n", interfaces = kLeast;
    for (int i = 0; i < 256; i++)
        vsys += "vsys v" + std::to_string(i) + " id=" + std::to_string(i) + " default-vr=1\n";
    for (int i = 0; i < 1024; i++)
        interfaces += "interface i" + std::to_string(i) + " id=" + std::to_string(i) + " vsys=0 vr=1\n";
    EXPECT_EQ("", said_of(vsys));
    EXPECT_EQ("258: too many vsys, at most 256\n", said_of(vsys + "vsys one-more id=999 default-vr=1\n"));
    EXPECT_EQ("", said_of(interfaces));
    EXPECT_EQ("1027: too many interfaces, at most 1024\n",
              said_of(interfaces + "interface one-more id=9999 vsys=0 vr=1\n"));
}

TEST_F(VrkernelConfig, AnInterfaceMayBeInASharedVrOfAnotherVsys)
{
    EXPECT_EQ("", said_of(std::string(kLeast) + "vsys b id=2 default-vr=1\nvr c id=2 vsys=0 shared\n" +
                          "interface a id=2 vsys=2 vr=2\n"));
}

TEST_F(VrkernelConfig, ZeroBytesAreRefused)
{
    EXPECT_EQ("3: zero byte in the line\n", said_of(std::string(kLeast) + std::string("# a\0b\n", 6)));
    EXPECT_EQ("3: zero byte in the line\n", said_of(std::string(kLeast) + '\0'));
    EXPECT_EQ("1: zero byte in the line\n", said_of(std::string(4096, '\0')));
}

TEST_F(VrkernelConfig, EndlessFilesAreRefused)
{
    EXPECT_EQ(0, ::mkfifo("/tmp/pipe.conf", 0600));
    for (const char *path : {"/dev/zero", "/tmp/pipe.conf", "/tmp"}) {
        auto result = run_program({build_dir() + "/vrkernel", "show", "-c", path});
        EXPECT_TRUE(result.exited(125)) << path;
        EXPECT_EQ("vrkernel: " + std::string(path) + ": not a regular file\n", result.err);
    }
    std::string comments;
    for (int i = 0; i < 4 << 14; i++)
        comments += std::string(63, '#') + "\n";
    EXPECT_EQ("", said_of(comments));
    EXPECT_EQ("65537: file too long, at most 4194304 bytes\n", said_of(comments + "\n"));
}

TEST_F(VrkernelConfig, AProgramWithoutItsTablesDoesNotRun)
{
    write_file(kConfig, "nonsense\n");
    auto result = run_child([] {
        Peer::enter();
        std::string program = build_dir() + "/tests/vrkernel_peer";
        ::execl(program.c_str(), "peer", static_cast<char *>(nullptr));
    });
    EXPECT_TRUE(result.exited(125));
    EXPECT_EQ("/tmp/vrkernel.conf:1: unknown entry \"nonsense\", want vsys, vr or interface\n", result.err);
}

} // namespace
