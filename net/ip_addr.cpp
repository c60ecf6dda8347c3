// SPDX-License-Identifier: Apache-2.0
// IPv4 and IPv6 addresses: text, masks, checks.
#include "ip_addr.h"

#include <arpa/inet.h>
#include <array>
#include <bit>
#include <cstddef>
#include <cstdint>
#include <cstdio>
#include <cstring>

static_assert(offsetof(qv_addr_record, family) == 0);
static_assert(offsetof(qv_addr_record, address) == 8);
static_assert(sizeof(qv_addr_record) == 24);

namespace {

constexpr std::uint32_t kAllOnes = 0xFFFFFFFFU;
constexpr std::uint32_t kPointToPointMask = 0xFFFFFFFEU; // a /31 has no broadcast address
constexpr std::size_t kIpv6Bytes = 16;
constexpr unsigned kIpv6Bits = 128;
constexpr unsigned char kIpv6Family = 10;

// ---- text ----

constexpr std::size_t kTextSize = 20; // the part of a buffer that is written
using text_buffer = std::array<char, kTextSize + 1>;

// One for each formatting function. A caller that prints several addresses at once uses several functions.
text_buffer host_text[4];
text_buffer network_text[4];

using octets = std::array<unsigned char, 4>;

octets octets_of(unsigned network_ip)
{
    return std::bit_cast<octets>(network_ip);
}

char *format(char *dst, std::size_t size, unsigned network_ip)
{
    octets o = octets_of(network_ip);
    std::snprintf(dst, size, "%d.%d.%d.%d", o[0], o[1], o[2], o[3]);
    return dst;
}

char *format_host(text_buffer &buffer, unsigned ip)
{
    return format(buffer.data(), kTextSize, htonl(ip));
}

char *format_network(text_buffer &buffer, unsigned ip)
{
    return format(buffer.data(), kTextSize, ip);
}

// ---- masks ----

template <std::size_t Size>
void apply_mask(unsigned char (&bytes)[Size], unsigned len)
{
    if (len >= 8 * Size)
        return;
    std::size_t boundary = len / 8;
    bytes[boundary] &= qv_addr_maskbit_array[len % 8];
    std::memset(bytes + boundary + 1, 0, Size - boundary - 1);
}

// ---- e-mail ----

bool is_letter_or_digit(char c)
{
    return (c >= 'a' && c <= 'z') || (c >= 'A' && c <= 'Z') || (c >= '0' && c <= '9');
}

bool is_local_char(char c)
{
    return is_letter_or_digit(c) || c == '_' || c == '-' || c == '.';
}

// The closing backslash of a quoted section that starts at p; null when there is none or a character is not allowed.
// The section may be empty.
const char *end_of_quoted(const char *p)
{
    for (p++; *p != '\\'; p++) {
        if (*p < '!' || *p > '~')
            return nullptr;
    }
    return p;
}

// The '@' that ends the local part, or null.
const char *end_of_local_part(const char *s)
{
    const char *p = s;
    for (; *p != '@'; p++) {
        if (*p == '\\') {
            if (p != s && p[-1] != '.')
                return nullptr;
            p = end_of_quoted(p);
            if (p == nullptr || (p[1] != '@' && p[1] != '.'))
                return nullptr;
        } else if (!is_local_char(*p)) { // also the terminator: there is no '@'
            return nullptr;
        }
    }
    if (p == s || p[-1] == '.')
        return nullptr;
    return p;
}

// A '.' at the end is accepted: it is the name of the root.
bool is_domain(const char *s)
{
    bool has_dot = false;
    for (const char *p = s; *p != '\0'; p++) {
        if (*p == '.') {
            if (p == s || p[-1] == '.')
                return false;
            has_dot = true;
        } else if (!is_letter_or_digit(*p) && *p != '-') {
            return false;
        }
    }
    return has_dot;
}

} // namespace

extern "C" {

char *hl_ip_sprintf(unsigned int ip)
{
    return format_host(host_text[0], ip);
}

char *hl_ip_sprintf2(unsigned int ip)
{
    return format_host(host_text[1], ip);
}

char *hl_ip_sprintf3(unsigned int ip)
{
    return format_host(host_text[2], ip);
}

char *hl_ip_sprintf4(unsigned int ip)
{
    return format_host(host_text[3], ip);
}

char *nl_ip_sprintf(unsigned int ip)
{
    return format_network(network_text[0], ip);
}

char *nl_ip_sprintf2(unsigned int ip)
{
    return format_network(network_text[1], ip);
}

char *nl_ip_sprintf3(unsigned int ip)
{
    return format_network(network_text[2], ip);
}

char *nl_ip_sprintf4(unsigned int ip)
{
    return format_network(network_text[3], ip);
}

char *nl_ip_sprintf_r(unsigned int ip, char *dst, int size)
{
    if (dst == nullptr || size <= 0)
        return nullptr;
    return format(dst, static_cast<std::size_t>(size), ip);
}

const unsigned char qv_addr_maskbit_array[9] = {0x00, 0x80, 0xC0, 0xE0, 0xF0, 0xF8, 0xFC, 0xFE, 0xFF};

int ffz(unsigned long x)
{
    return std::countr_one(x);
}

int inet_mask_len(unsigned int mask)
{
    return 32 - std::countr_zero(ntohl(mask));
}

int qv_check_mask_valid(unsigned int mask)
{
    // The inverse of a contiguous mask is one less than a power of two, or all ones.
    std::uint32_t host_bits = ~mask;
    return (host_bits & (host_bits + 1)) == 0 ? 0 : -1;
}

unsigned int qv_masklen2mask_v4(unsigned int len)
{
    if (len == 0)
        return 0;
    return len >= 32 ? kAllOnes : kAllOnes << (32 - len);
}

void qv_apply_mask_ipv4(unsigned int *ip, unsigned int len)
{
    unsigned char bytes[4];
    std::uint32_t network = htonl(*ip);
    std::memcpy(bytes, &network, sizeof bytes);
    apply_mask(bytes, len);
    std::memcpy(&network, bytes, sizeof bytes);
    *ip = ntohl(network);
}

void qv_convert_ipv4_addr_2_prefix(unsigned int *ip, unsigned int len)
{
    qv_apply_mask_ipv4(ip, len);
}

void qv_apply_mask_ipv6(unsigned char addr[16], unsigned int len)
{
    apply_mask(*reinterpret_cast<unsigned char(*)[kIpv6Bytes]>(addr), len);
}

int qv_check_ip_valid(unsigned int ip, unsigned int mask, unsigned int flags)
{
    const std::uint32_t host_mask = ~mask;
    const bool both_set = ip != 0 && mask != 0;

    if ((flags & QV_ADDR_UNSET) && !both_set)
        return -1;
    if ((flags & QV_ADDR_BAD_MASK) && qv_check_mask_valid(mask) != 0)
        return -2;
    if ((flags & QV_ADDR_MULTICAST) && ip >> 28 == 0xE)
        return -3;
    if ((flags & QV_ADDR_ALL_ONES) && ip == kAllOnes)
        return -4;
    if ((flags & QV_ADDR_CLASS_E) && ip >> 28 == 0xF)
        return -5;
    if ((flags & QV_ADDR_LOOPBACK) && ip >> 24 == 127)
        return -6;
    if ((flags & QV_ADDR_NETWORK) && both_set && mask != kAllOnes && (ip & host_mask) == 0)
        return -7;
    if ((flags & QV_ADDR_NO_NETWORK_BITS) && both_set && (ip & mask) == 0)
        return -8;
    if ((flags & QV_ADDR_BROADCAST) && mask != kAllOnes && mask != kPointToPointMask && (ip & host_mask) == host_mask)
        return -9;
    if ((flags & QV_ADDR_ZERO_NETWORK) && both_set && ip >> 24 == 0)
        return -10;
    return 0;
}

int qv_check_ipv6_valid(const unsigned char addr[16], unsigned int prefixlen, unsigned int flags)
{
    static constexpr unsigned char kUnspecified[kIpv6Bytes] = {};
    static constexpr unsigned char kLoopback[kIpv6Bytes] = {0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 1};
    const unsigned ten_bits = (unsigned{addr[0]} << 8U | addr[1]) & 0xFFC0U;

    if ((flags & QV_ADDR_UNSET) && (prefixlen == 0 || std::memcmp(addr, kUnspecified, kIpv6Bytes) == 0))
        return -1;
    if ((flags & QV_ADDR_BAD_MASK) && prefixlen > kIpv6Bits)
        return -2;
    if ((flags & QV_ADDR_MULTICAST) && addr[0] == 0xFF)
        return -3;
    if ((flags & QV_ADDR_LOOPBACK) && std::memcmp(addr, kLoopback, kIpv6Bytes) == 0)
        return -6;
    if ((flags & QV_ADDR_SITE_LOCAL) && ten_bits == 0xFEC0)
        return -12;
    if ((flags & QV_ADDR_LINK_LOCAL) && ten_bits == 0xFE80)
        return -11;
    return 0;
}

int qv_check_addr_valid(const void *record, unsigned int flags)
{
    auto *bytes = static_cast<const unsigned char *>(record);
    auto *address = bytes + offsetof(qv_addr_record, address);
    if (bytes[offsetof(qv_addr_record, family)] == kIpv6Family)
        return qv_check_ipv6_valid(address, kIpv6Bits, flags);

    std::uint32_t ip;
    std::memcpy(&ip, address, sizeof ip);
    return qv_check_ip_valid(ip, kAllOnes, flags);
}

int validate_ipv4_host_address_str(const char *s)
{
    constexpr std::size_t kLongest = 15;
    if (s == nullptr)
        return -1;
    std::size_t length = ::strnlen(s, kLongest + 1);
    if (length == 0 || length > kLongest)
        return -1;

    int dots = 0;
    for (const char *p = s; *p != '\0'; p++) {
        if (*p == '.')
            dots++;
        else if (*p < '0' || *p > '9')
            return -1;
    }
    if (dots != 3)
        return -1;

    // inet_addr() returns 255.255.255.255 for what it refuses.
    std::uint32_t network = ::inet_addr(s);
    std::uint32_t ip = ntohl(network);
    if (ip >> 24 == 0 || ip == kAllOnes)
        return 0;
    // Contract: only -1 refuses, which is not returned for these flags. Configurations use multicast, loopback and
    // class E addresses as hosts.
    if (qv_check_ip_valid(ip, kAllOnes, 0xFFF) == -1)
        return 0;
    return static_cast<int>(network);
}

int validate_email_address_str(const char *s)
{
    const char *at = end_of_local_part(s);
    return at != nullptr && is_domain(at + 1) ? 0 : -1;
}

} // extern "C"
