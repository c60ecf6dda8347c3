/* SPDX-License-Identifier: Apache-2.0 */
/* simphash.h - a small chained hash table of values the size of a pointer.
 *
 * The table allocates its entries itself; hash and comparison come from the caller with each call. The entry inserted
 * last is found first, and duplicates are kept. Tables are never destroyed.
 *
 *     struct simphash *peers = simphash_create(8);                 // 256 buckets
 *     simphash_insert(peers, hash_of(&key), (uintptr_t)peer);
 *     struct peer *p = (struct peer *)simphash_find(peers, hash_of(&key), compare, &key);
 *
 * Values belong to the caller. The value 0 cannot be distinguished from a failure. Failures are reported through
 * debug_trace.h at error level. Not locked: callers that share a table serialise their calls. Not for signal handlers.
 */
#ifndef LIBCOMMON_SIMPHASH_H
#define LIBCOMMON_SIMPHASH_H

#include "libcommon_api.h"

#include <stdint.h>

QV_BEGIN_DECLS

/** A value's place in a table. */
typedef struct simphash_entry {
    struct simphash_entry *next;
    struct simphash_entry **pprev; /* the pointer that points here: a bucket or another entry's next */
    uintptr_t value;
} simphash_entry;

/** A table. */
typedef struct simphash {
    struct simphash_entry **buckets;
    uint32_t log_size; /* as it was given */
    uint32_t mask;     /* buckets - 1 */
} simphash;

/** Returns 0 when the value matches the key. */
typedef int (*simphash_cmp_fn)(uintptr_t value, void *key);

/**
 * Makes an empty table.
 * @param log_size  2 to the power of its low 5 bits is the number of buckets: 33 makes two
 * @return the table, or null when there is no memory
 */
QV_API struct simphash *simphash_create(unsigned log_size);

/** Inserts a value at the head of its bucket. @return 0, or -1 when there is no memory */
QV_API int simphash_insert(struct simphash *table, unsigned hash, uintptr_t value);

/** Removes the first value that matches. @return the value; 0, after a report, when there is none */
QV_API uintptr_t simphash_remove(struct simphash *table, unsigned hash, void *key, simphash_cmp_fn cmp);

/** Finds the first value that matches. Unlike simphash_remove(), key comes last. @return the value; 0 when there is
 * none */
QV_API uintptr_t simphash_find(struct simphash *table, unsigned hash, simphash_cmp_fn cmp, void *key);

QV_END_DECLS

#endif
