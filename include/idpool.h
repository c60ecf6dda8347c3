/* SPDX-License-Identifier: Apache-2.0 */
/* idpool.h - named pools of identifiers in a closed range, a bit each.
 *
 * idpool_alloc_id() continues from its last position (next-fit), so that an identifier that was freed is not allocated
 * again at once; idpool_alloc_id_slow() allocates the lowest free one; idpool_alloc_specific_id() a given one.
 *
 *     struct idpool *pool = idpool_create("session", 1, 100000);
 *     int id;
 *     if (idpool_alloc_id(pool, &id) == 0) { ... idpool_free_id(pool, id); }
 *
 * A pool is made by idpool_create(), or by idpool_init() in caller-provided memory, with its bitmap directly after the
 * record. That memory may be shared by processes, at the same address in each: the record holds a pointer. A pool in
 * caller-provided memory is neither destroyed nor resized. Ranges lie within 0 to INT_MAX. Not locked: callers that
 * share a pool serialise their calls. Not for signal handlers.
 */
#ifndef LIBCOMMON_IDPOOL_H
#define LIBCOMMON_IDPOOL_H

#include "libcommon_api.h"

#include <stdint.h>

QV_BEGIN_DECLS

#define IDPOOL_NAME_SIZE 32 /* terminator included */

/** A pool: a bit for each identifier of its range. */
typedef struct idpool {
    char name[IDPOOL_NAME_SIZE];
    int32_t min_id;
    int32_t max_id;
    uint32_t *bitmap; /* bit o % 32 of word o / 32 is set while min_id + o is allocated; bits after max_id are set */
    int32_t words;    /* of the original bitmap; a resize does not change it */
    int32_t next;     /* the cursor: where the next allocation starts, counted from min_id */
} idpool;

/** Size in bytes of a pool in caller-provided memory; 0 for an invalid range (0 <= min <= max is valid). */
QV_API int idpool_get_pool_size(int min, int max);

/**
 * Makes a pool in caller-provided memory; nothing for an invalid range.
 * @param block  idpool_get_pool_size(min, max) bytes, aligned for a pointer
 * @param name   cut to 31 characters
 */
QV_API void idpool_init(struct idpool *block, const char *name, int min, int max);

/** Makes a pool. @return the pool; null for an invalid range or without memory (the latter after a line on standard
 * output) */
QV_API struct idpool *idpool_create(const char *name, int min, int max);

/** Next-fit allocation. @param id_out receives the identifier @return 0, or -1 when none is free */
QV_API int idpool_alloc_id(struct idpool *pool, int *id_out);

/** Allocates the lowest free identifier; the cursor stays. @return 0, or -1 when none is free */
QV_API int idpool_alloc_id_slow(struct idpool *pool, int *id_out);

/** Allocates this identifier. @return 0; -1 when it is out of range or allocated */
QV_API int idpool_alloc_specific_id(struct idpool *pool, int id);

/** Frees an identifier. @return 0; -1 when it is out of range or free */
QV_API int idpool_free_id(struct idpool *pool, int id);

/** @return 1 when the identifier is allocated, 0 when it is free, -1 when it is out of range */
QV_API int idpool_is_id_allocated(const struct idpool *pool, int id);

/**
 * Finds the lowest allocated identifier that is not below id. To visit all, start with min_id and continue with each
 * result plus 1.
 * @param id_out  receives the identifier
 * @return 0, or -1 when there is none or id is out of range
 */
QV_API int idpool_get_next_allocated_id(const struct idpool *pool, int id, int *id_out);

/** Frees a pool from idpool_create(); null is ignored. */
QV_API void idpool_destroy(struct idpool *pool);

/**
 * Changes the size of a pool from idpool_create(); a pool from idpool_init() must not be resized. min_id stays.
 *
 * Two results are contracts, though a caller would not expect them. The number of bitmap words is used as a number of
 * bytes when the old bitmap is copied: of a pool that had n words only the first 8 * n bits survive (of 64 identifiers,
 * the first 16). All identifiers after them become free; a pool of fewer than 8 identifiers that grows gets those from
 * the old end up to the 8th allocated. And idpool_alloc_id() still searches as many words as the pool was made with.
 * @param count  identifiers from now on, at least 1; min_id + count - 1 at most INT_MAX
 * @return 1, also when nothing changes; 0 for a bad count, a null pool or without memory (the latter is logged)
 */
QV_API int idpool_resize(struct idpool *pool, int count);

QV_END_DECLS

#endif
