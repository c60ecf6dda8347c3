// SPDX-License-Identifier: Apache-2.0
#include "ip_addr.h"

#include "support/support.h"

#include <arpa/inet.h>
#include <array>
#include <climits>
#include <cstring>
#include <set>

namespace {

constexpr unsigned kHost = 0xFFFFFFFF; // the mask of a single host
constexpr unsigned kAllFlags = 0xFFF;

std::array<unsigned char, 16> v6(const char *text)
{
    std::array<unsigned char, 16> addr{};
    EXPECT_EQ(1, inet_pton(AF_INET6, text, addr.data()));
    return addr;
}

std::string masked_v6(const char *text, unsigned len)
{
    auto addr = v6(text);
    qv_apply_mask_ipv6(addr.data(), len);
    char out[INET6_ADDRSTRLEN];
    return inet_ntop(AF_INET6, addr.data(), out, sizeof out);
}

unsigned masked(unsigned ip, unsigned len)
{
    qv_apply_mask_ipv4(&ip, len);
    return ip;
}

} // namespace

TEST(IpText, HostAndNetworkOrder)
{
    for (auto *print : {hl_ip_sprintf, hl_ip_sprintf2, hl_ip_sprintf3, hl_ip_sprintf4}) {
        EXPECT_STREQ("192.168.0.1", print(0xC0A80001));
        EXPECT_STREQ("255.255.255.255", print(kHost));
        EXPECT_STREQ("0.0.0.0", print(0));
    }
    for (auto *print : {nl_ip_sprintf, nl_ip_sprintf2, nl_ip_sprintf3, nl_ip_sprintf4})
        EXPECT_STREQ("10.1.2.3", print(htonl(0x0A010203)));
}

TEST(IpText, EachFunctionHasItsOwnBuffer)
{
    std::set<std::string> texts = {hl_ip_sprintf(1), hl_ip_sprintf2(2), hl_ip_sprintf3(3), hl_ip_sprintf4(4)};
    EXPECT_EQ(4U, texts.size());
    std::set<const char *> buffers = {hl_ip_sprintf(1), hl_ip_sprintf2(1), hl_ip_sprintf3(1), hl_ip_sprintf4(1),
                                      nl_ip_sprintf(1), nl_ip_sprintf2(1), nl_ip_sprintf3(1), nl_ip_sprintf4(1)};
    EXPECT_EQ(8U, buffers.size());
    EXPECT_EQ(hl_ip_sprintf(1), hl_ip_sprintf(2));
}

TEST(IpText, ReentrantFormIsCutToItsBuffer)
{
    char out[16];
    EXPECT_EQ(out, nl_ip_sprintf_r(htonl(0x0A010203), out, sizeof out));
    EXPECT_STREQ("10.1.2.3", out);
    std::memset(out, '#', sizeof out);
    EXPECT_EQ(out, nl_ip_sprintf_r(htonl(0x0A010203), out, 5));
    EXPECT_STREQ("10.1", out);
    EXPECT_EQ('#', out[5]);
    std::memset(out, '#', sizeof out);
    EXPECT_EQ(out, nl_ip_sprintf_r(htonl(0x0A010203), out, 1));
    EXPECT_EQ('\0', out[0]) << "room for the terminator";
    EXPECT_EQ('#', out[1]);
    EXPECT_EQ(out, nl_ip_sprintf_r(htonl(0x0A010203), out, 5));
    EXPECT_EQ(nullptr, nl_ip_sprintf_r(1, nullptr, 16));
    EXPECT_EQ(nullptr, nl_ip_sprintf_r(1, out, 0));
    EXPECT_EQ(nullptr, nl_ip_sprintf_r(1, out, -1));
    EXPECT_STREQ("10.1", out);
}

TEST(Masks, LowestZeroBit)
{
    EXPECT_EQ(0, ffz(0));
    EXPECT_EQ(1, ffz(1));
    EXPECT_EQ(2, ffz(0xB));
    EXPECT_EQ(63, ffz(ULONG_MAX >> 1));
    EXPECT_EQ(64, ffz(ULONG_MAX));
}

TEST(Masks, LengthsAndMasks)
{
    EXPECT_EQ(0, inet_mask_len(0));
    EXPECT_EQ(24, inet_mask_len(htonl(0xFF00FF00))); // only trailing zeros count
    EXPECT_EQ(0U, qv_masklen2mask_v4(0));
    EXPECT_EQ(kHost, qv_masklen2mask_v4(33));
    EXPECT_EQ(kHost, qv_masklen2mask_v4(UINT_MAX));
    for (unsigned len = 1; len <= 32; len++) {
        unsigned mask = qv_masklen2mask_v4(len);
        EXPECT_EQ(static_cast<unsigned>(0xFFFFFFFF00000000ULL >> len), mask) << len;
        EXPECT_EQ(static_cast<int>(len), inet_mask_len(htonl(mask)));
        EXPECT_EQ(0, qv_check_mask_valid(mask)) << len;
    }
    for (unsigned n = 0; n <= 8; n++)
        EXPECT_EQ(0xFF00 >> n & 0xFF, qv_addr_maskbit_array[n]);
}

TEST(Masks, OnlyContiguousOnesAreValid)
{
    EXPECT_EQ(0, qv_check_mask_valid(0));
    EXPECT_EQ(0, qv_check_mask_valid(kHost));
    for (unsigned mask : {0xFFFF00FFU, 1U, 0x7FFFFFFFU, 0x40000000U, 0xFFFFFFFDU, 0xBFFFFFFFU})
        EXPECT_EQ(-1, qv_check_mask_valid(mask)) << mask;
}

TEST(Masks, Ipv4AddressIsCut)
{
    EXPECT_EQ(0x0A000000U, masked(0x0A010203, 12));
    EXPECT_EQ(0x0A010203U, masked(0x0A010203, UINT_MAX));
    for (unsigned len = 0; len <= 33; len++)
        EXPECT_EQ(qv_masklen2mask_v4(len), masked(kHost, len)) << len;
    unsigned ip = 0x0A010203;
    qv_convert_ipv4_addr_2_prefix(&ip, 24);
    EXPECT_EQ(0x0A010200U, ip);
}

TEST(Masks, Ipv6AddressIsCut)
{
    constexpr const char *kAddress = "2001:db8:ffff:ffff:ffff:ffff:ffff:ffff";
    EXPECT_EQ("::", masked_v6(kAddress, 0));
    EXPECT_EQ("2001:db8:8000::", masked_v6(kAddress, 33));
    EXPECT_EQ("2001:db8:ffff:ffff::", masked_v6(kAddress, 64));
    EXPECT_EQ("2001:db8:ffff:ffff:ffff:ffff:ffff:fffe", masked_v6(kAddress, 127));
    EXPECT_EQ(kAddress, masked_v6(kAddress, 128));
    EXPECT_EQ(kAddress, masked_v6(kAddress, UINT_MAX));
}

TEST(CheckIp, EachRule)
{
    struct Case {
        unsigned ip, mask, flags;
        int result;
    };
    constexpr unsigned k24 = 0xFFFFFF00;
    constexpr Case kCases[] = {
        {0, k24, 0x001, -1},
        {1, 0, 0x001, -1},
        {1, 1, 0x001, 0},
        {1, 0xFFFF00FF, 0x002, -2},
        {1, 0, 0x002, 0},
        {0xE0000001, kHost, 0x004, -3},
        {0xEFFFFFFF, kHost, 0x004, -3},
        {0xDFFFFFFF, kHost, 0x004, 0},
        {0xF0000000, kHost, 0x004, 0},
        {0xFFFFFFFF, kHost, 0x008, -4},
        {0xFFFFFFFE, kHost, 0x008, 0},
        {0xF0000000, kHost, 0x010, -5},
        {0xEFFFFFFF, kHost, 0x010, 0},
        {0x7F000000, kHost, 0x020, -6},
        {0x7FFFFFFF, kHost, 0x020, -6},
        {0x80000000, kHost, 0x020, 0},
        {0x0A000000, k24, 0x040, -7},
        {0x0A000001, k24, 0x040, 0},
        {0x0A000000, 0xFFFFFFFE, 0x040, -7},
        {0x0A000001, 0xFFFFFFFE, 0x040, 0},
        {0x0A000000, kHost, 0x040, 0},
        {0x0A000000, 0, 0x040, 0},
        {0, k24, 0x040, 0},
        {0x000000FF, k24, 0x080, -8},
        {0x000001FF, k24, 0x080, 0},
        {0, k24, 0x080, 0},
        {1, 0, 0x080, 0},
        {0x0A0000FF, k24, 0x100, -9},
        {0x0A0000FE, k24, 0x100, 0},
        {0x0A000001, 0xFFFFFFFE, 0x100, 0},
        {0x0A000001, kHost, 0x100, 0},
        {0x0A000003, 0xFFFFFFFC, 0x100, -9},
        {0xFFFFFFFF, 0, 0x100, -9},
        {0x00FFFFFF, k24, 0x200, -10},
        {0x01000000, k24, 0x200, 0},
        {0, k24, 0x200, 0},
        {1, 0, 0x200, 0},
        {0xFFFFFFFF, kHost, 0xC00, 0},
    };
    for (const Case &c : kCases) {
        EXPECT_EQ(c.result, qv_check_ip_valid(c.ip, c.mask, c.flags))
            << hl_ip_sprintf(c.ip) << ' ' << hl_ip_sprintf2(c.mask) << ' ' << c.flags;
        EXPECT_EQ(0, qv_check_ip_valid(c.ip, c.mask, 0));
    }
}

TEST(CheckIp, FirstRuleDecides)
{
    EXPECT_EQ(-1, qv_check_ip_valid(0, 0xFFFF00FF, kAllFlags));
    EXPECT_EQ(-2, qv_check_ip_valid(kHost, 0xFFFF00FF, kAllFlags));
    EXPECT_EQ(-4, qv_check_ip_valid(kHost, kHost, kAllFlags));
    EXPECT_EQ(-5, qv_check_ip_valid(kHost, kHost, kAllFlags & ~0x008U));
    EXPECT_EQ(-6, qv_check_ip_valid(0x7F000000, 0xFF000000, kAllFlags));
    EXPECT_EQ(-8, qv_check_ip_valid(0x000000FF, 0xFFFFFF00, kAllFlags));
    EXPECT_EQ(-9, qv_check_ip_valid(0x000001FF, 0xFFFFFF00, kAllFlags));
    EXPECT_EQ(-10, qv_check_ip_valid(0x00000101, 0xFFFFFF00, kAllFlags));
    EXPECT_EQ(0, qv_check_ip_valid(0x0A000001, 0xFFFFFF00, kAllFlags));
}

// An address that breaks two rules gets the code of the earlier one in this list.
TEST(CheckIp, OrderOfTheRules)
{
    struct Rule {
        unsigned flag;
        int code;
    };
    constexpr Rule kRules[] = {{0x001, -1}, {0x002, -2}, {0x004, -3}, {0x008, -4}, {0x010, -5},
                               {0x020, -6}, {0x040, -7}, {0x080, -8}, {0x100, -9}, {0x200, -10}};
    constexpr unsigned kIps[] = {0,          1,          0x000000FF, 0x00FFFFFF, 0x0A000000, 0x0A0000FF, 0x7F000000,
                                 0x7FFFFFFF, 0xE0000000, 0xEFFFFFFF, 0xF0000000, 0xFFFFFFFE, 0xFFFFFFFF, 0x01000000};
    constexpr unsigned kMasks[] = {0,          1,          0xFF,       0xFF000000, 0xFFFF00FF, 0xFFFFFF00,
                                   0xFFFFFFFE, 0xFFFFFFFF, 0x00FFFFFF, 0x80000000, 0x7FFFFFFF};
    int pairs = 0;
    for (unsigned ip : kIps) {
        for (unsigned mask : kMasks) {
            for (const Rule &first : kRules) {
                for (const Rule &second : kRules) {
                    bool both = qv_check_ip_valid(ip, mask, first.flag) != 0 &&
                                qv_check_ip_valid(ip, mask, second.flag) != 0 && first.flag < second.flag;
                    if (!both)
                        continue;
                    pairs++;
                    EXPECT_EQ(first.code, qv_check_ip_valid(ip, mask, first.flag | second.flag));
                    EXPECT_EQ(second.code, qv_check_ip_valid(ip, mask, second.flag));
                }
            }
        }
    }
    EXPECT_GT(pairs, 200);
}

TEST(CheckIpv6, OrderOfTheRules)
{
    const unsigned all = 0xFFF;
    EXPECT_EQ(-1, qv_check_ipv6_valid(v6("::").data(), 200, all));
    EXPECT_EQ(-2, qv_check_ipv6_valid(v6("::").data(), 200, all & ~1U));
    EXPECT_EQ(-1, qv_check_ipv6_valid(v6("ff00::").data(), 0, all));
    EXPECT_EQ(-2, qv_check_ipv6_valid(v6("ff00::").data(), 129, all));
    EXPECT_EQ(-3, qv_check_ipv6_valid(v6("ff00::").data(), 129, all & ~2U));
    EXPECT_EQ(-2, qv_check_ipv6_valid(v6("::1").data(), 129, all));
    EXPECT_EQ(-6, qv_check_ipv6_valid(v6("::1").data(), 129, all & ~2U));
    EXPECT_EQ(-2, qv_check_ipv6_valid(v6("fec0::").data(), 129, all));
    EXPECT_EQ(-1, qv_check_ipv6_valid(v6("fe80::").data(), 0, all));
    EXPECT_EQ(0, qv_check_ipv6_valid(v6("fe80::").data(), 64, 0x800));
    EXPECT_EQ(0, qv_check_ipv6_valid(v6("fec0::").data(), 64, 0x400));
}

TEST(CheckIpv6, EachRule)
{
    struct Case {
        const char *addr;
        unsigned len, flags;
        int result;
    };
    constexpr Case kCases[] = {
        {"::", 64, 0x001, -1},         {"::1", 0, 0x001, -1},          {"::2", 64, kAllFlags, 0},
        {"2001::1", 129, 0x002, -2},   {"2001::1", 128, 0x002, 0},     {"ff02::1", 64, 0x004, -3},
        {"fe02::1", 64, 0x004, 0},     {"::1", 128, 0x020, -6},        {"::101", 128, 0x020, 0},
        {"fec0::1", 64, 0x800, -12},   {"feff::1", 64, 0x800, -12},    {"febf::1", 64, 0x800, 0},
        {"fe80::1", 64, 0x400, -11},   {"febf::1", 64, 0x400, -11},    {"fec0::1", 64, 0x400, 0},
        {"fe7f::1", 64, kAllFlags, 0}, {"::", 64, 0x7D8 & ~0x400U, 0}, {"fec0::1", 64, kAllFlags, -12},
    };
    for (const Case &c : kCases) {
        EXPECT_EQ(c.result, qv_check_ipv6_valid(v6(c.addr).data(), c.len, c.flags)) << c.addr << ' ' << c.flags;
        EXPECT_EQ(0, qv_check_ipv6_valid(v6(c.addr).data(), c.len, 0));
    }
    EXPECT_EQ(-2, qv_check_ipv6_valid(v6("ff02::1").data(), 200, kAllFlags));
}

TEST(CheckAddr, ReadsTheRecordAtAnyAlignment)
{
    unsigned char room[1 + sizeof(qv_addr_record)];
    qv_addr_record record{};
    auto check = [&](unsigned flags) {
        std::memcpy(room + 1, &record, sizeof record);
        return qv_check_addr_valid(room + 1, flags);
    };
    record.family = 10;
    std::memcpy(record.address.ipv6, v6("::1").data(), 16);
    EXPECT_EQ(-6, check(kAllFlags));
    EXPECT_EQ(0, check(0x002));
    record.family = 2;
    record.address.ipv4 = 0xE0000001;
    EXPECT_EQ(-3, check(kAllFlags));
    record.address.ipv4 = 0x0A000000;
    EXPECT_EQ(0, check(kAllFlags)); // a single host is no network address
}

TEST(HostString, Shapes)
{
    auto network = [](unsigned ip) { return static_cast<int>(htonl(ip)); };
    EXPECT_EQ(network(0x01020304), validate_ipv4_host_address_str("1.2.3.4"));
    EXPECT_EQ(network(0xE0000001), validate_ipv4_host_address_str("224.0.0.1"));
    EXPECT_EQ(network(0x7F000001), validate_ipv4_host_address_str("127.0.0.1"));
    EXPECT_EQ(network(0xFFFFFFFE), validate_ipv4_host_address_str("255.255.255.254"));
    for (const char *zero : {"0.1.2.3", "0.0.0.0", "255.255.255.255", "256.1.1.1", "1..2.3", "...", "1.2.3.999"})
        EXPECT_EQ(0, validate_ipv4_host_address_str(zero)) << zero;
    for (const char *bad : {"", "1.2.3", "1.2.3.4.5", "1.2.3.4 ", "a.b.c.d", "1.2.3.x", "0x1.2.3.4", "-1.2.3.4", "1234",
                            "001.002.003.0004"})
        EXPECT_EQ(-1, validate_ipv4_host_address_str(bad)) << bad;
    EXPECT_EQ(-1, validate_ipv4_host_address_str(nullptr));
    EXPECT_EQ(network(0x01020304), validate_ipv4_host_address_str("001.002.003.004")); // 15 characters
}

TEST(HostString, ALeadingZeroMakesAnOctalNumber)
{
    auto network = [](unsigned ip) { return static_cast<int>(htonl(ip)); };
    EXPECT_EQ(network(0x08010203), validate_ipv4_host_address_str("010.1.2.3"));
    EXPECT_EQ(network(0x0A081018), validate_ipv4_host_address_str("10.010.020.030"));
    EXPECT_EQ(network(0xFF010101), validate_ipv4_host_address_str("0377.1.1.1"));
    EXPECT_EQ(0, validate_ipv4_host_address_str("0400.1.1.1")) << "too large in octal";
    EXPECT_EQ(0, validate_ipv4_host_address_str("08.1.2.3")) << "no octal digit";
    EXPECT_EQ(0, validate_ipv4_host_address_str("1.2.3.09"));
    EXPECT_EQ(0, validate_ipv4_host_address_str("00.1.2.3"));
}

// The shape is checked first: text that is no dotted quad gives -1 even where its value alone would give 0.
TEST(HostString, OrderOfTheRefusals)
{
    for (const char *bad : {"0.0.0", "0.0.0.0.0", "0.a.0.0", "255.255.255.x", "0000.0000.0000.0", "256.256.256.256.",
                            "0.1.2.3456789012", "999.999.999 999"})
        EXPECT_EQ(-1, validate_ipv4_host_address_str(bad)) << bad;
    for (const char *zero : {"0.999.1.1", "0000.000.000.00", "255.255.255.255", "999.999.999.999", "...1"})
        EXPECT_EQ(0, validate_ipv4_host_address_str(zero)) << zero;
}

TEST(Email, Valid)
{
    for (const char *s : {"a.b@c.d", "A_z-0.9@x-y.Z", ".a@c.d", "a..b@c.d", "a@c.", "a@-.-", R"(\abc\@c.d)",
                          R"(\\@c.d)", R"(\a@b\@c.d)", R"(\!~\.x@c.d)", R"(a.\q\@c.d)", R"(\a\.\b\@c.d)"})
        EXPECT_EQ(0, validate_email_address_str(s)) << s;
}

TEST(Email, Invalid)
{
    for (const char *s : {"",
                          "@",
                          "a",
                          "a@",
                          "@c.d",
                          "a.@c.d",
                          "a@cd",
                          "a@c..d",
                          "a@.c.d",
                          "a@.",
                          "a b@c.d",
                          "a@c d.e",
                          "a@c_d.e",
                          "a@b@c.d",
                          "a+b@c.d",
                          R"(\a c\@c.d)",
                          R"(\abc)",
                          R"(\abc@c.d)",
                          R"(a\b\@c.d)",
                          R"(\a\b@c.d)",
                          R"(\a\\b\@c.d)",
                          R"(\a\)",
                          R"(\a\.@c.d)",
                          "\\a\x7f\\@c.d",
                          "\xe9@c.d",
                          "a@\xe9.d",
                          "\\\xe9\\@c.d",
                          "\\"})
        EXPECT_EQ(-1, validate_email_address_str(s)) << s;
}
