/* SPDX-License-Identifier: Apache-2.0 */
/* sysmem.h - small memory services: dropping the page cache, a hex dump to the console, named shared memory.
 *
 *     mem_dump(packet, length);
 *     void *shared = init_shared_mem("/counters", 4096);   // null and MAP_FAILED are both failures
 *
 * No state. Any thread; not for signal handlers.
 */
#ifndef LIBCOMMON_SYSMEM_H
#define LIBCOMMON_SYSMEM_H

#include "libcommon_api.h"

QV_BEGIN_DECLS

/**
 * Drops page cache, dentries and inodes.
 * @param do_sync  non-zero: call sync() first
 * @return 0, or -1 without the privilege
 */
QV_API int clear_sys_pagecache(int do_sync);

/** Prints len bytes to the console, 16 in a line; nothing for len below 1. */
QV_API void mem_dump(const void *addr, int len);

/**
 * Maps the shared-memory object `name`, which is created if missing and resized to size bytes. Nothing removes it: it
 * lasts until shm_unlink() or a restart of the system.
 * @param name  begins with '/' and has no other; the C library also takes a name without it, for the same object
 * @param size  in bytes. All processes give the same: a smaller one cuts the object under the others
 * @return the address; null when the object cannot be opened, MAP_FAILED when it cannot be mapped
 */
QV_API void *init_shared_mem(const char *name, unsigned int size);

QV_END_DECLS

#endif
