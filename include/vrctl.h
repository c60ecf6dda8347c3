/* SPDX-License-Identifier: Apache-2.0 */
/* vrctl.h - the appliance kernel's tables of virtual routers (VR), virtual systems (vsys) and interfaces.
 *
 * A VR is a routing domain with a 16-bit id. Each VR belongs to a vsys, each vsys has a default VR, and the default VR
 * of vsys 0 is always 1. Interfaces are known to the kernel's private channel by a 16-bit id, to the interface requests
 * by their Linux name. Every call asks the kernel through a separate socket; nothing is cached.
 *
 *     unsigned short vrid = qv_vrname_2_id(0, "untrust");
 *     if (vrid != 0 && !qv_is_vr_shared(vrid))
 *         qv_set_vr_shared(vrid);
 *
 * There are two result conventions, and callers depend on both. The calls on the private channel return -1 (or null, or
 * 0, as each says) and keep the errno of the failed call; qv_get_if_vr() and qv_set_if_vr() return the positive errno
 * value itself. On a stock kernel every request fails.
 *
 * Any thread may call any function; the two that return names share one static buffer each. Not for signal handlers.
 */
#ifndef LIBCOMMON_VRCTL_H
#define LIBCOMMON_VRCTL_H

#include "libcommon_api.h"

QV_BEGIN_DECLS

/* ---- virtual routers and virtual systems ---- */

/** The vsys id (0 to 65535) of a VR, or -1. */
QV_API int qv_vrid_2_vsysid(unsigned short vrid);

/** The name of a VR, at most 31 characters, in a static buffer that the next call overwrites; null on failure. */
QV_API char *qv_vrid_2_name(unsigned short vrid);

/** The id of the VR with this name in a vsys; 0 on failure and for a null name. Names are cut to 31 characters. */
QV_API unsigned short qv_vrname_2_id(unsigned short vsysid, const char *name);

/** The name of a vsys, at most 31 characters, in a static buffer that the next call overwrites; null on failure. */
QV_API char *qv_vsysid_2_name(unsigned short vsysid);

/** The id (0 to 65535) of the vsys with this name; -1 on failure and for a null name. */
QV_API int qv_vsysname_2_id(const char *name);

/** The id of a vsys's default VR; 1 for vsys 0 without asking the kernel; 0 on failure. */
QV_API unsigned short qv_vsysid_2_default_vrid(unsigned short vsysid);

/** Whether a VR is shared between virtual systems: 2 if so, 0 if not or when the kernel does not know it. */
QV_API int qv_is_vr_shared(unsigned short vrid);

/** Sets or clears a VR's shared mark: reads its flags, changes the bit, writes them back. @return 0 or -1 */
QV_API int qv_set_vr_shared(unsigned short vrid);
QV_API int qv_set_vr_unshared(unsigned short vrid);

/* ---- interfaces by id ---- */

/**
 * Reads the vsys of an interface.
 * @param vsysid  receives the id; unchanged on failure
 * @return 0 or -1
 */
QV_API int qv_get_if_vsysid(unsigned short ifid, unsigned short *vsysid);

/** Whether an interface is shared between virtual systems: 2 if so, 0 if not or when the kernel does not know it. */
QV_API int qv_is_if_shared(unsigned short ifid);

/** Sets or clears an interface's shared mark: reads its flags, changes the bit, writes them back. @return 0 or -1 */
QV_API int qv_set_if_shared(unsigned short ifid);
QV_API int qv_set_if_unshared(unsigned short ifid);

/** Gives a cellular interface its MAC address; the kernel defines `value`. @return 0 or -1 */
QV_API int qv_set_cellular_if_mac(const unsigned char mac[6], unsigned short ifid, unsigned int value);

/** Sets up a Wi-Fi interface; the kernel defines `value`. @return 0 or -1 */
QV_API int qv_set_wifi_if(unsigned short ifid, unsigned int value);

/** Makes the kernel apply its MTU limit to an interface. @return 0 or -1 */
QV_API int qv_set_if_mtu_limit(unsigned short ifid);

/** Changes the device of a cellular interface; the first argument is ignored. @return 0 or -1 */
QV_API int qv_change_cellular_dev(const void *ignored, unsigned short ifid, unsigned int value);

/* ---- interfaces by name ---- */

/**
 * Reads the VR of an interface.
 * @param linux_name  its Linux name, cut to 15 characters
 * @param vrid        receives the id; 0xFFFFABCD when the kernel refuses; unchanged when no socket can be opened
 * @return 0; -1 for a null name; else the positive errno value
 */
QV_API int qv_get_if_vr(const char *linux_name, unsigned int *vrid);

/** Puts an interface into a VR. @return as qv_get_if_vr() */
QV_API int qv_set_if_vr(const char *linux_name, unsigned int vrid);

/** qv_get_if_vr() for an appliance interface name; -1 (reported on the console) when it cannot be converted. */
QV_API int qv_get_netif_vr(const char *ifp_name, unsigned int *vrid);

/** The vsys id of the VR of the interface with this appliance name, or -1. */
QV_API int qv_ifname_2_vsysid(const char *ifp_name);

/* ---- what the platform can do ---- */

/** Always 1: there are several virtual routers. */
QV_API int qv_is_support_multi_vrouter(void);

/** Always 0: virtual routers are not the kernel's VRF devices. */
QV_API int qv_is_support_vrf(void);

QV_END_DECLS

#endif
