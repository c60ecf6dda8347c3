/* SPDX-License-Identifier: Apache-2.0 */
/* hashtbl.h - a chained hash table whose links live inside the caller's objects, and hash functions for its keys.
 *
 * The table never hashes and never allocates for an object: each object embeds a struct hashtbl_link, whose offset is
 * given when the table is created, and every call receives the key's full 32-bit hash. The bucket is the hash's low
 * bits; all 32 are kept in the link and compared before the caller's comparison is called. The number of buckets never
 * changes.
 *
 *     buckets[b] ──> link <──> link <──> link ──> null       newest first; the head's prev is null
 *
 *     struct session { struct hashtbl_link link; unsigned id; };
 *     static int same_id(void *object, void *key) { return ((struct session *)object)->id == *(unsigned *)key; }
 *
 *     struct hashtbl *table = hashtbl_init(qv_hashtbl_get_log2(100000), offsetof(struct session, link), 0);
 *     hashtbl_insert(table, qv_hash_uint32(s->id, 0), s);
 *     struct session *found = hashtbl_find(table, &id, qv_hash_uint32(id, 0), same_id);
 *
 * Objects belong to the caller throughout and may lie at any alignment. Not locked: callers that share a table
 * serialise their calls. Tables are not null unless a function accepts null.
 */
#ifndef LIBCOMMON_HASHTBL_H
#define LIBCOMMON_HASHTBL_H

#include "libcommon_api.h"

#include <stdint.h>

QV_BEGIN_DECLS

/** An object's place in a table: a member of the object. */
typedef struct hashtbl_link {
    struct hashtbl_link *prev; /* null in the head of a chain */
    struct hashtbl_link *next;
    uint32_t hash; /* as given at insertion */
} hashtbl_link;

/** A table. */
typedef struct hashtbl {
    uint8_t log_size; /* 2^log_size buckets, 0 to 20 */
    uint8_t flag;     /* 0 or 1, kept for the caller */
    uint16_t link_offset;
    uint32_t count; /* objects in the table */
    struct hashtbl_link **buckets;
} hashtbl;

/* ---- life ---- */

/**
 * Makes an empty table.
 * @param log_size     0 to 20: two to its power is the number of buckets, 1 to 2^20 as the message has it
 * @param link_offset  0 to 65535: where in each object its link lies
 * @param flag         kept as 0 or 1
 * @return the table, for hashtbl_destroy(); null, with a console message, for bad arguments or without memory
 */
QV_API struct hashtbl *hashtbl_init(unsigned log_size, unsigned link_offset, int flag);

/** Frees the table; objects still in it are not touched. @return 0 */
QV_API int hashtbl_destroy(struct hashtbl *table);

/** Forgets all objects without touching them. @return 0 */
QV_API int hashtbl_reset(struct hashtbl *table);

/** Does nothing: a table keeps the size that it was made with. @return 0 */
QV_API int hashtbl_grow(struct hashtbl *table);

/**
 * Empties the table, handing each object to release, which may free it but must leave the table alone. Nothing happens
 * for a null table or a count of 0.
 * @param release  may be null
 * @return 0
 */
QV_API int hashtbl_free_all_objects(struct hashtbl *table, void (*release)(void *object, void *arg), void *arg);

/* ---- objects ---- */

/** Links an object that is in no table at the head of its bucket; constant time, equal keys allowed. @return 0 */
QV_API int hashtbl_insert(struct hashtbl *table, unsigned hash, void *object);

/** Unlinks an object if it is in the bucket of hash; otherwise nothing happens. Walks that bucket. @return 0 */
QV_API int hashtbl_remove(struct hashtbl *table, unsigned hash, void *object);

/**
 * Finds an object; of several with the same key, the one inserted last.
 * @param match  called for objects with exactly this hash; returns non-zero for a match
 * @return the object or null
 */
QV_API void *hashtbl_find(struct hashtbl *table, void *key, unsigned hash, int (*match)(void *object, void *key));

/**
 * The same for a comparison like strcmp()'s. Its result has the opposite meaning to that of match.
 * @param compare  called for objects with exactly this hash; returns 0 for a match
 * @return the object or null
 */
QV_API void *hashtbl_find2(struct hashtbl *table, void *key, unsigned hash,
                           int (*compare)(void *object, void *key, void *arg), void *arg);

/**
 * Calls visit for each object, bucket by bucket; visit must not unlink it. A null table or visit is accepted and does
 * nothing.
 * @return 0, or -1 as soon as visit returns non-zero
 */
QV_API int hashtbl_traverse_each(struct hashtbl *table, int (*visit)(void *object, void *arg), void *arg);

/** The same, but visit may unlink or free the object given to it, and its result is ignored. @return 0 */
QV_API int hashtbl_traverse_each_safe(struct hashtbl *table, int (*visit)(void *object, void *arg), void *arg);

/* ---- hashes ----
 *
 * Functions with a size return the remainder of the 32-bit hash divided by it. For a size of 0, which a table requires,
 * they return the whole hash. Data may lie at any alignment. */

/**
 * A log_size for about n objects: below one object a bucket for small tables, up to 32 for the largest. It does not
 * increase steadily, and from n = 2^25 on it is more than hashtbl_init() accepts.
 */
QV_API int qv_hashtbl_get_log2(unsigned n);

/** Hash of len bytes, never reduced; 0 for null or a len below 1. */
QV_API unsigned qv_string_hash(const char *data, int len);

/**
 * Hash of len bytes; 0 for null or a len below 1. It differs from qv_string_hash() when one or three bytes remain
 * after the last block of four and the last byte is 0x80 or more.
 */
QV_API unsigned qv_hash_data(const void *data, int len, unsigned size);

/** Hash of a number; distinct numbers have distinct unreduced hashes. */
QV_API unsigned qv_hash_uint32(unsigned value, unsigned size);

/** Hash of the address in a struct qv_addr_record (ip_addr.h); of IPv6 only the interface half counts. */
QV_API unsigned qv_hash_ip(const void *address, unsigned size);

/** Hash of a hardware address of 6 bytes; 16 bits at most. */
QV_API unsigned qv_hash_mac(const void *mac, unsigned size);

QV_END_DECLS

#endif
