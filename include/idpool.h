/* SPDX-License-Identifier: Apache-2.0 */
/* idpool.h - named pools of identifiers in a closed range, a bit each.
 *
 * idpool_alloc_id() goes on from where it last stood (next-fit), so that an identifier that was freed is not handed out
 * again at once; idpool_alloc_id_slow() takes the lowest that is free; idpool_alloc_specific_id() takes a given one.
 *
 *     struct idpool *pool = idpool_create("session", 1, 100000);
 *     int id;
 *     if (idpool_alloc_id(pool, &id) == 0) { ... idpool_free_id(pool, id); }
 *
 * A pool is made by idpool_create(), or laid by idpool_init() into the caller's memory, with its bitmap right behind
 * the record, for example in memory that processes share (at one address: the record holds a pointer). Such a pool is
 * neither destroyed nor resized. Ranges go from 0 to INT_MAX at the most. Not locked: callers that share a pool
 * serialise their calls. Not for signal handlers.
 */
#ifndef LIBCOMMON_IDPOOL_H
#define LIBCOMMON_IDPOOL_H

#include "libcommon_api.h"

#include <stdint.h>

QV_BEGIN_DECLS

#define IDPOOL_NAME_SIZE 32 /* terminator included */

typedef struct idpool {
    char name[IDPOOL_NAME_SIZE];
    int32_t min_id;
    int32_t max_id;
    uint32_t *bitmap; /* bit o % 32 of word o / 32 is set while min_id + o is allocated; bits behind max_id are set */
    int32_t words;    /* of the bitmap as it was made; a resize leaves it */
    int32_t next;     /* the cursor: where the next allocation starts, counted from min_id */
} idpool;

/** Bytes that a laid pool takes; 0 for an invalid range (0 <= min <= max is valid). */
QV_API int idpool_get_pool_size(int min, int max);

/**
 * Lays a pool into the caller's memory; nothing for an invalid range.
 * @param block  idpool_get_pool_size(min, max) bytes, aligned for a pointer
 * @param name   cut to 31 characters
 */
QV_API void idpool_init(struct idpool *block, const char *name, int min, int max);

/** Makes a pool. @return the pool; null for an invalid range or without memory (the latter said on standard output) */
QV_API struct idpool *idpool_create(const char *name, int min, int max);

/** Next-fit allocation. @param id_out receives the identifier @return 0, or -1 when none is free */
QV_API int idpool_alloc_id(struct idpool *pool, int *id_out);

/** Allocates the lowest free identifier; the cursor stays. @return 0, or -1 when none is free */
QV_API int idpool_alloc_id_slow(struct idpool *pool, int *id_out);

/** Allocates this identifier. @return 0; -1 when it is out of range or taken */
QV_API int idpool_alloc_specific_id(struct idpool *pool, int id);

/** Frees an identifier. @return 0; -1 when it is out of range or not taken */
QV_API int idpool_free_id(struct idpool *pool, int id);

/** @return 1 when the identifier is taken, 0 when it is free, -1 when it is out of range */
QV_API int idpool_is_id_allocated(const struct idpool *pool, int id);

/**
 * Finds the lowest identifier taken from id on. To walk all, begin with min_id and go on from one beyond each.
 * @param id_out  receives it
 * @return 0, or -1 when there is none or id is out of range
 */
QV_API int idpool_get_next_allocated_id(const struct idpool *pool, int id, int *id_out);

/** Frees a pool from idpool_create(); null is let pass. */
QV_API void idpool_destroy(struct idpool *pool);

/**
 * Gives a pool from idpool_create() another size; never one from idpool_init(). min_id stays.
 *
 * Two results are contracts and not what a caller expects. The number of bitmap words is used as a number of bytes when
 * the old bitmap is copied: of a pool that had n words only the first 8 * n bits survive (of 64 identifiers, the first
 * 16). All identifiers after them come back free; a pool of fewer than 8 identifiers that grows gets those from the old
 * end up to the 8th allocated. And idpool_alloc_id() goes on searching as many words as the pool was made with.
 * @param count  identifiers from now on, at least 1; min_id + count - 1 at most INT_MAX
 * @return 1, also when nothing changes; 0 for a bad count, a null pool or without memory (the latter is logged)
 */
QV_API int idpool_resize(struct idpool *pool, int count);

QV_END_DECLS

#endif
