/* SPDX-License-Identifier: Apache-2.0 */
/* mcache.h - an allocator for objects of one fixed size. It detects double frees, foreign pointers and overruns.
 *
 * A cache divides pages of 1 to 16 units of 8 KiB into equal slots: a header, the object, a guard word. A page is freed
 * with its last object. Misuse crashes the process at the point of detection. Any thread may allocate and free; not
 * for signal handlers.
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

/* The codes of mcache_error(). All but the last crash. */
enum mcache_error_code {
    MCACHE_NULL_CACHE = 1,     /* a call without a cache */
    MCACHE_LOST_FREE_LIST = 2, /* a page with free slots has an empty free list: freed memory was written to */
    MCACHE_SLOT_IN_USE = 3,    /* a slot of the free list is marked allocated: freed memory was written to */
    MCACHE_FOREIGN_OBJECT = 4, /* the freed pointer is not an object of this cache */
    MCACHE_BAD_OBJECT = 5,     /* the freed object is free already, or the guard word after it was overwritten */
    MCACHE_NO_MEMORY = 6       /* no memory for a new cache */
};

/* The guard word after each allocated object. */
#define MCACHE_GUARD UINT64_C(0xdeaddeaddeaddead)

/** A cache. */
typedef struct mcache {
    uint32_t objs_per_page; /* the free count of a new page */
    int lock;               /* a pthread spin lock, shared between processes; strict C11 has no name for its type */
    struct mcache *next_cache;
    struct mcache_page *full_pages;
    struct mcache_page *partial_head;
    struct mcache_page *partial_tail;
    struct mcache_page *spare_page; /* used only when the heap has no memory for a page */
    char name[64];
    uint32_t page_count; /* with the spare page */
    uint32_t flags;      /* the caller's; bit 0x40: keep a spare page */
    uint32_t in_use;
    uint32_t obj_size;
    uint32_t slot_size;
    uint32_t page_units;
    uint32_t objs_per_slab;
    uint32_t id; /* unique in the process; each page holds the id of its cache */
} mcache;

/* The newest cache; next_cache leads to the others. Caches live as long as the process. */
extern QV_API struct mcache *zlist;

/**
 * Makes a cache.
 * @param name        cut to 63 characters
 * @param size        bytes of an object, rounded up to a multiple of 8
 * @param reserved    not read
 * @param flags       stored, except bit 0x40, which depends on the size
 * @param page_units  page size in units of 8192 bytes; 0 counts as 1, more than 16 as 16
 * @return the cache; null for a negative page_units, for an object larger than a page and without memory
 */
QV_API struct mcache *mcache_create(const char *name, unsigned size, void *reserved, unsigned flags, int page_units);

/**
 * Allocates an object with undefined content.
 * @param cache  null crashes
 * @return the object; null without memory
 */
QV_API void *mcache_alloc(struct mcache *cache);

/**
 * Frees an object. A null cache, an object of another cache or of none, a second free and an overrun crash.
 *
 * An object is foreign if the words before it do not lead to a page of this cache. That finds objects of other caches,
 * and pointers from malloc() or to the stack by their content, which is nearly always another. The words before any
 * readable pointer are read; one that cannot be read crashes there. A second free after the whole page was freed counts
 * as foreign; one after the slot was allocated again cannot be found. An overrun is found if it changed the guard word.
 * @param object  from mcache_alloc() with this cache; null is ignored
 */
QV_API void mcache_free(struct mcache *cache, void *object);

/**
 * Reports misuse: crashes for the codes from MCACHE_NULL_CACHE to MCACHE_BAD_OBJECT.
 * @param code  an enum mcache_error_code
 * @return code - 1 for every other code
 */
QV_API int mcache_error(int code);

QV_END_DECLS

#endif
