/* SPDX-License-Identifier: Apache-2.0 */
/* ip_addr.h - IPv4 and IPv6 addresses: text, masks, and checks of what a user configures.
 *
 * hl_ functions accept an IPv4 address in host byte order, nl_ functions one in network byte order. The qv_ functions
 * accept IPv4 addresses and masks in host byte order and IPv6 addresses as their 16 bytes.
 *
 *     printf("%s -> %s\n", nl_ip_sprintf(from), nl_ip_sprintf2(to));
 *     if (qv_check_ip_valid(ip, mask, QV_ADDR_UNSET | QV_ADDR_MULTICAST) != 0)
 *         ...                                       // not an address for an interface
 *
 * Nothing is allocated. All functions are pure except the eight that format into a static buffer: only one thread may
 * call each of these.
 */
#ifndef LIBCOMMON_IP_ADDR_H
#define LIBCOMMON_IP_ADDR_H

#include "libcommon_api.h"

QV_BEGIN_DECLS

/* ---- text ---- */

/**
 * The dotted quad of an address in host byte order. Each function has a separate static buffer, so that four addresses
 * fit into one argument list. A function's next call overwrites its text.
 */
QV_API char *hl_ip_sprintf(unsigned int ip);
QV_API char *hl_ip_sprintf2(unsigned int ip);
QV_API char *hl_ip_sprintf3(unsigned int ip);
QV_API char *hl_ip_sprintf4(unsigned int ip);

/** The same for an address in network byte order. */
QV_API char *nl_ip_sprintf(unsigned int ip);
QV_API char *nl_ip_sprintf2(unsigned int ip);
QV_API char *nl_ip_sprintf3(unsigned int ip);
QV_API char *nl_ip_sprintf4(unsigned int ip);

/**
 * The dotted quad of an address in network byte order, in the caller's buffer and cut to it; any thread.
 * @param size  bytes in dst; 16 hold every address
 * @return dst; null (and nothing written) for a null dst or a size that is not positive
 */
QV_API char *nl_ip_sprintf_r(unsigned int ip, char *dst, int size);

/* ---- masks ---- */

/* The byte with n leading one bits, n 0 to 8. */
extern QV_API const unsigned char qv_addr_maskbit_array[9];

/** Index of the lowest zero bit; 64 when there is none. */
QV_API int ffz(unsigned long x);

/** Prefix length of a mask in network byte order: 32 less its trailing zero bits; 0 for no mask. */
QV_API int inet_mask_len(unsigned int mask);

/** 0 when the ones of a host-order mask are contiguous from the top (0 and all ones included), else -1. */
QV_API int qv_check_mask_valid(unsigned int mask);

/** The host-order mask of a prefix length; all ones above 32. */
QV_API unsigned int qv_masklen2mask_v4(unsigned int len);

/** Clears the host bits of a host-order address in place; a length of 32 or more leaves it as it is. */
QV_API void qv_apply_mask_ipv4(unsigned int *ip, unsigned int len);

/** Another name of qv_apply_mask_ipv4(). */
QV_API void qv_convert_ipv4_addr_2_prefix(unsigned int *ip, unsigned int len);

/** Clears the bits after the first len of an IPv6 address in place; a length of 128 or more leaves it as it is. */
QV_API void qv_apply_mask_ipv6(unsigned char addr[16], unsigned int len);

/* ---- checks ---- */

/* What a check refuses. The rules are tried in this order, except that IPv6 tries the last two in reverse; the first
 * rule that fails gives the result. Those marked 4 have no IPv6 form, those marked 6 no IPv4 form. */
enum {
    QV_ADDR_UNSET = 0x001,           /* -1: address or mask (prefix length) is 0 */
    QV_ADDR_BAD_MASK = 0x002,        /* -2: mask not contiguous, prefix length above 128 */
    QV_ADDR_MULTICAST = 0x004,       /* -3: 224.0.0.0/4, ff00::/8 */
    QV_ADDR_ALL_ONES = 0x008,        /* -4: 255.255.255.255 (4) */
    QV_ADDR_CLASS_E = 0x010,         /* -5: 240.0.0.0/4 (4) */
    QV_ADDR_LOOPBACK = 0x020,        /* -6: 127.0.0.0/8, ::1 */
    QV_ADDR_NETWORK = 0x040,         /* -7: host part all zeros, mask not 0 or /32; a /31 counts (4) */
    QV_ADDR_NO_NETWORK_BITS = 0x080, /* -8: address and mask not 0, network part all zeros (4) */
    QV_ADDR_BROADCAST = 0x100,       /* -9: host part all ones, mask not /31 or /32 (4) */
    QV_ADDR_ZERO_NETWORK = 0x200,    /* -10: 0.0.0.0/8, address and mask not 0 (4) */
    QV_ADDR_LINK_LOCAL = 0x400,      /* -11: fe80::/10 (6) */
    QV_ADDR_SITE_LOCAL = 0x800,      /* -12: fec0::/10 (6) */
};

/** Checks a host-order address and mask. @return 0, or the code of the first rule that fails */
QV_API int qv_check_ip_valid(unsigned int ip, unsigned int mask, unsigned int flags);

/** Checks an IPv6 address and prefix length. @return 0, or the code of the first rule that fails */
QV_API int qv_check_ipv6_valid(const unsigned char addr[16], unsigned int prefixlen, unsigned int flags);

/* An address of either family. Functions accept it as const void * at any alignment and read only the address of its
 * family. */
typedef struct qv_addr_record {
    unsigned char family; /* 10: IPv6; anything else: IPv4 */
    unsigned char reserved[7];
    union {
        unsigned int ipv4; /* host byte order */
        unsigned char ipv6[16];
    } address;
} qv_addr_record;

/** Checks the address of a struct qv_addr_record as a single host (mask of /32 or /128). @return as above */
QV_API int qv_check_addr_valid(const void *record, unsigned int flags);

/**
 * Checks that a string is an IPv4 address for a host: 15 characters at most, digits and three dots. Multicast,
 * loopback and class E addresses are accepted.
 * @return the address in network byte order; 0 when it lies in 0.0.0.0/8, is 255.255.255.255 or has a bad octet; -1
 *         when the string has another shape or is null
 */
QV_API int validate_ipv4_host_address_str(const char *s);

/**
 * Checks the syntax of an e-mail address. The local part is made of letters, digits, '_', '-', '.' and sections quoted
 * between backslashes, at its start or after a '.'; the domain of letters, digits, '-' and at least one '.'.
 * @param s  not null
 * @return 0 if valid, else -1
 */
QV_API int validate_email_address_str(const char *s);

QV_END_DECLS

#endif
