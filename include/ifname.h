/* SPDX-License-Identifier: Apache-2.0 */
/* ifname.h - conversion between the appliance's interface names and Linux's.
 *
 * The appliance's "ethernet0/1.100:3" is "eth0-1_100=3" in Linux: a short prefix for the known type words, and other
 * characters for '/', '.' and ':', which the kernel does not accept. The reverse conversion restores the characters
 * only: "eth0-1" becomes "eth0/1". Numbers are not checked; whatever follows a prefix is copied.
 *
 *     char name[32];
 *     if (ifpname2unixname("ethernet0/1", name, sizeof name) == 0)
 *         ...                                               // "eth0-1"
 *
 * No state; any thread. Failures are reported through console_print(), so not for signal handlers.
 */
#ifndef LIBCOMMON_IFNAME_H
#define LIBCOMMON_IFNAME_H

#include "libcommon_api.h"

#include <stddef.h>

QV_BEGIN_DECLS

/**
 * Converts an appliance interface name to the Linux name.
 * @param ifp_name  the name; cut to 31 characters where a type word is shortened
 * @param out       receives the Linux name. For the name "ha" outsize is ignored: out must have room for 16 bytes
 * @param outsize   room in out, terminator included
 * @return 0, or -1 (reported on the console) for a null name or one that does not fit; out then holds the cut text
 */
QV_API int ifpname2unixname(const char *ifp_name, char *out, int outsize);

/**
 * Converts the characters of a Linux interface name back to the appliance's.
 * @param linux_name  the name; the appliance's long type words are shortened here too
 * @param out         as for ifpname2unixname(); "ha" stays "ha"
 * @return as ifpname2unixname()
 */
QV_API int unixname2ifpname(const char *linux_name, char *out, int outsize);

/** The number after the first ':' of an interface name; 0 when there is none or the name is null. */
QV_API int ifpname2vfg(const char *ifp_name);

/** Makes 'A' to 'Z' lower case in the first n bytes of s, up to its end. A null s is ignored. */
QV_API void strllwr(char *s, size_t n);

/** Makes 'a' to 'z' upper case in the first n bytes of s, up to its end. A null s is ignored. */
QV_API void strlupr(char *s, size_t n);

QV_END_DECLS

#endif
