/* SPDX-License-Identifier: Apache-2.0 */
/* encoding.h - base64, checksums, hexadecimal text and 64-bit byte order.
 *
 * All functions work on the caller's buffers, keep no state and may be called from any thread. For a buffer that is too
 * small they return -1; part of the output may have been written by then.
 *
 *     char text[64];
 *     int n = b64_ntop(key, key_length, text, sizeof text);       // n characters and a zero
 *     unsigned int crc = qv_crc32(0, head, head_length);
 *     crc = qv_crc32(crc, body, body_length);                     // the checksum of both
 *
 * The sources are util/encoding/.
 */
#ifndef LIBCOMMON_ENCODING_H
#define LIBCOMMON_ENCODING_H

#include "libcommon_api.h"

#include <stddef.h>
#include <stdint.h>

/* <resolv.h> defines these names as macros for the C library's functions. */
#undef b64_ntop
#undef b64_pton

QV_BEGIN_DECLS

/* ---- base64 ---- */

/* The alphabet, with a terminating zero. */
extern QV_API const char Base64[65];

/**
 * Encodes bytes as base64 text.
 * @param target    receives the text and a zero: (srclength + 2) / 3 * 4 + 1 bytes
 * @param targsize  room in target
 * @return the number of characters without the zero, or -1 without room
 */
QV_API int b64_ntop(const unsigned char *src, size_t srclength, char *target, size_t targsize);

/** The same with a newline after every 72 characters of whole groups. No newline follows a padded group. */
QV_API int b64_ntop_email(const unsigned char *src, size_t srclength, char *target, size_t targsize);

/**
 * Decodes base64 text. White space is skipped anywhere; padding must be complete.
 * @param src       text up to its zero
 * @param target    receives the bytes; null only counts them
 * @param targsize  room in target. A padded group needs room for one byte more than it decodes to
 * @return the number of bytes; -1 for malformed text or without room. The unused bits before the padding must be zero;
 *         this is not checked when only counting
 */
QV_API int b64_pton(const char *src, unsigned char *target, size_t targsize);

/* ---- checksums ---- */

/* The tables of the reflected polynomials 0xA001 and 0xEDB88320: entry i is the sum of the byte i that starts from 0.
 */
extern QV_API const uint16_t crc16_table[256];
extern QV_API const uint32_t crc_table[256];

/** Extends a CRC-16 over more bytes, without inversion. Start with 0 (ARC) or 0xFFFF (MODBUS). */
QV_API unsigned short qv_crc16(unsigned short crc, const unsigned char *buf, unsigned int len) QV_SIGNAL_SAFE;

/** Extends a CRC-32 (as in zip and PNG) over more bytes. Start with 0. */
QV_API unsigned int qv_crc32(unsigned int crc, const unsigned char *buf, size_t len) QV_SIGNAL_SAFE;

/**
 * The MD5 digest of a file. The digest functions come from the libcrypto that the host links, or from the system's.
 * @param dst     receives 32 lower-case hexadecimal digits and a zero
 * @param dstlen  room in dst, at least 33
 * @return 0; -1 without room, when the file cannot be opened, or without a libcrypto. A read error counts as the end of
 *         the file
 */
QV_API int filemd5str(const char *path, char *dst, size_t dstlen);

/* ---- text and byte order ---- */

/**
 * Writes bytes as lower-case hexadecimal digits and a zero.
 * @param dstlen  room in dst, more than twice len
 * @return 2 * len + 1, or -1 without room
 */
QV_API int hex_to_str(const unsigned char *src, char *dst, unsigned int len, unsigned int dstlen);

/** Reverses the order of 8 bytes, on any processor. */
QV_API uint64_t qv_ntoh64(uint64_t v) QV_SIGNAL_SAFE;
QV_API uint64_t qv_hton64(uint64_t v) QV_SIGNAL_SAFE; /**< the same */

QV_END_DECLS

#endif
