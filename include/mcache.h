/* SPDX-License-Identifier: Apache-2.0 */
/* mcache.h - an allocator for objects of one fixed size, which catches double frees, foreign pointers and overruns.
 *
 * A cache carves pages of 1 to 16 units of 8 KiB into equal slots. A page goes back to the heap with its last object.
 * Misuse crashes the process at the point of detection. Any thread may allocate and free; not for signal handlers.
 *
 *     struct mcache *cache = mcache_create("session", sizeof(struct session), NULL, 0, 1);
 *     struct session *s = mcache_alloc(cache);
 *     mcache_free(cache, s);
 */
#ifndef LIBCOMMON_MCACHE_H
#define LIBCOMMON_MCACHE_H

#include "libcommon_api.h"

#include <stdint.h>

QV_BEGIN_DECLS

struct mcache_page;

typedef struct mcache {
    uint32_t objs_per_page; /* sets up the free count of a page */
    int lock;               /* a pthread spin lock, shared between processes; strict C11 has no name for its type */
    struct mcache *next_cache;
    struct mcache_page *full_pages;
    struct mcache_page *partial_head;
    struct mcache_page *partial_tail;
    struct mcache_page *spare_page; /* taken only when no page can be had from the heap */
    char name[64];
    uint32_t page_count; /* the spare included */
    uint32_t flags;      /* the caller's; bit 0x40: keep a spare page */
    uint32_t in_use;
    uint32_t obj_size;
    uint32_t slot_size;
    uint32_t page_units;
    uint32_t objs_per_slab;
    uint32_t id; /* unique in the process; each page holds that of its cache */
} mcache;

/* The cache made last; the others follow by next_cache. Caches live as long as the process. */
extern QV_API struct mcache *zlist;

/**
 * Makes a cache.
 * @param name        cut to 63 characters
 * @param size        bytes of an object, rounded up to a multiple of 8
 * @param reserved    not read
 * @param flags       stored; bit 0x40 is decided here
 * @param page_units  page size in units of 8192 bytes; 0 counts as 1, above 16 as 16
 * @return the cache, or null: a negative page_units, an object larger than a page, no memory
 */
QV_API struct mcache *mcache_create(const char *name, unsigned size, void *reserved, unsigned flags, int page_units);

/** An object, its bytes undefined; null when there is no memory. A null cache crashes. */
QV_API void *mcache_alloc(struct mcache *cache);

/**
 * Gives an object of this cache back; a null object is ignored. A null cache, an object of another cache or of none, a
 * second free and an overrun crash.
 */
QV_API void mcache_free(struct mcache *cache, void *object);

/** Crashes on purpose for the codes 1 to 5; @return code - 1 for any other. */
QV_API int mcache_error(int code);

QV_END_DECLS

#endif
