/* SPDX-License-Identifier: Apache-2.0 */
/* vrsock.h - sockets that know their virtual router (VR).
 *
 * The appliance kernel keeps a VR id with every socket and carries one with every datagram, in private socket options
 * and control messages. These calls set and read them. The IPv4 and the IPv6 functions differ in the
 * level and type numbers that they use, and, by contract, in the test described at qv_recvfrom6().
 *
 *     int fd = socket(AF_INET, SOCK_DGRAM, 0);
 *     qv_bindvr(fd, 7);                                      // 0, or a positive errno value
 *     unsigned int vrid;
 *     ssize_t n = qv_recvfrom(fd, buf, sizeof buf, 0, from, &fromlen, &vrid);
 *     if (n >= 0)
 *         qv_sendto(fd, buf, (size_t)n, 0, from, fromlen, vrid);   // 0, not the byte count
 *
 * Nothing here keeps state: every function may be called on any thread. Descriptors and buffers stay the caller's. On a
 * stock kernel the options fail with its errno, and sending is refused or ignores the VR.
 */
#ifndef LIBCOMMON_VRSOCK_H
#define LIBCOMMON_VRSOCK_H

#include "libcommon_api.h"

#include <netinet/in.h>
#include <stddef.h>
#include <sys/socket.h>
#include <sys/types.h>

QV_BEGIN_DECLS

/* The VR id of a datagram without a VR message. */
#define QV_NO_VR 0xFFFFABCDu

/* Ids that a socket may be bound to. -1 is passed to the kernel too. */
#define QV_VRID_MIN 1
#define QV_VRID_MAX 2080

/* What qv_recvfrom() and qv_recvfrom6() return for a VR message of the wrong length. */
#define QV_BAD_VR_MESSAGE (-22)

/**
 * Binds a socket to a VR.
 * @param vrid  1 to 2080, or -1
 * @return 0; -1 for an id out of range, before any system call; else the positive errno value
 */
QV_API int qv_bindvr(int fd, int vrid);
QV_API int qv_bindvr6(int fd, int vrid); /**< the same for an IPv6 socket */

/**
 * Reads the VR that a socket is bound to.
 * @param vrid  receives the id
 * @return 0; -1 when vrid is null; else the positive errno value
 */
QV_API int qv_getvr(int fd, int *vrid);
QV_API int qv_getvr6(int fd, int *vrid); /**< the same for an IPv6 socket */

/**
 * Sends a datagram in a VR.
 * @param flags  as for sendmsg(); the kernel's private VR flag is added
 * @param to     destination, tolen bytes; may be null on a connected socket
 * @return 0 when it was sent, else sendmsg()'s negative result with errno set
 */
QV_API int qv_sendto(int fd, const void *buf, size_t len, int flags, const struct sockaddr *to, socklen_t tolen,
                     unsigned int vrid);
QV_API int qv_ipv6_sendto(int fd, const void *buf, size_t len, int flags, const struct sockaddr *to, socklen_t tolen,
                          unsigned int vrid); /**< the same for an IPv6 socket */

/**
 * Sends a datagram in a VR through a given interface.
 * @param from     the source address to use (its port is ignored), or null to let the kernel choose
 * @param ifindex  the interface, 0 for any
 * @return as qv_sendto()
 */
QV_API int qv_sendto_if(int fd, const void *buf, size_t len, int flags, const struct sockaddr *to,
                        const struct sockaddr_in *from, socklen_t tolen, int ifindex, unsigned int vrid);
QV_API int qv_ipv6_sendto_if(int fd, const void *buf, size_t len, int flags, const struct sockaddr *to,
                             const struct sockaddr_in6 *from, socklen_t tolen, int ifindex,
                             unsigned int vrid); /**< the same for an IPv6 socket */

/**
 * Receives a datagram and the VR it arrived in.
 * @param flags    as for recvmsg(); the kernel's private VR flag is added
 * @param from     receives the sender; at most *fromlen bytes. *fromlen is NOT updated. Both may be null
 * @param vrid     receives the VR id, QV_NO_VR when the datagram has none; unchanged when nothing was received
 * @return the byte count; recvmsg()'s negative result with errno set; -22 when the kernel's VR message has a wrong
 * length (the data is in buf then, *vrid is QV_NO_VR)
 */
QV_API ssize_t qv_recvfrom(int fd, void *buf, size_t len, int flags, struct sockaddr *from, socklen_t *fromlen,
                           unsigned int *vrid);

/**
 * The same for an IPv6 socket, except that a VR message of the IPv6 level is NOT accepted: contract, the test requires
 * any other level. Callers that need the VR of an IPv6 datagram use qv_recvfromto_v6().
 */
QV_API ssize_t qv_recvfrom6(int fd, void *buf, size_t len, int flags, struct sockaddr *from, socklen_t *fromlen,
                            unsigned int *vrid);

/**
 * Receives a datagram with its VR, the interface that it arrived through and the address that it was sent to. The
 * latter two require the socket's packet-info option (IP_PKTINFO, IPV6_RECVPKTINFO).
 * @param from     receives the sender; at most *fromlen bytes
 * @param fromlen  in: room in from; out: the sender's length. Both may be null
 * @param to       a whole record, whatever *tolen says: receives the destination address with the socket's own port
 * @param tolen    in: 8 or more requests the destination; out: sizeof *to, or 0 without a destination
 * @param ifindex  receives the arrival interface together with the destination, else unchanged
 * @param vrid     receives the VR id, 1 when the kernel's VR message has a wrong length; unchanged when there is none
 * @return the byte count; recvmsg()'s negative result with errno set; -1 when the socket's own address cannot be
 *         read, after a line on standard output
 */
QV_API ssize_t qv_recvfromto(int fd, void *buf, size_t len, int flags, struct sockaddr *from, socklen_t *fromlen,
                             struct sockaddr_in *to, socklen_t *tolen, int *ifindex, unsigned int *vrid);
QV_API ssize_t qv_recvfromto_v6(int fd, void *buf, size_t len, int flags, struct sockaddr *from, socklen_t *fromlen,
                                struct sockaddr_in6 *to, socklen_t *tolen, int *ifindex,
                                unsigned int *vrid); /**< the same for an IPv6 socket */

QV_END_DECLS

#endif
