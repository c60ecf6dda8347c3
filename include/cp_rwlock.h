/* SPDX-License-Identifier: Apache-2.0 */
/* cp_rwlock.h - a spinning reader-writer lock between processes.
 *
 * The whole lock is three words in memory that the processes share. Writers draw tickets and are served in that order;
 * a reader waits until no writer holds the lock or queues for it, and readers hold it together. Nothing sleeps, yields
 * or gives up: hold it for instructions, not for system calls, and only where each contender has a processor to itself.
 * A process that dies with the lock leaves it held for ever.
 *
 *     struct qv_cp_rwlock *lock = init_shared_mem("/counters", sizeof *lock);  // sysmem.h
 *     qv_cp_rwlock_init(lock);              // in every process, before any of them uses the lock
 *     qv_cp_rdlock(); ...read...; qv_cp_rdunlock();
 *     qv_cp_wtlock(); ...write...; qv_cp_wtunlock();
 *
 * Workers that are forked after their parent's qv_cp_rwlock_init() have the lock already, with `rwlock` and the
 * mapping: they must not call it again, because it would release what the others hold.
 *
 * Every function acts on the one record that `rwlock` points to, may be called from any thread of any process that
 * shares it, and must not be called before qv_cp_rwlock_init(). Neither side may ask again for what it holds.
 */
#ifndef LIBCOMMON_CP_RWLOCK_H
#define LIBCOMMON_CP_RWLOCK_H

#include "libcommon_api.h"

#include <stdint.h>

QV_BEGIN_DECLS

/* The shared record. Bit 0 of lock_state is the writer's hold; each reader's hold adds 2. */
typedef struct qv_cp_rwlock {
    uint32_t lock_state;
    uint32_t next_ticket; /* handed to the next writer that asks */
    uint32_t now_serving; /* the ticket whose turn it is */
} qv_cp_rwlock;

/* The lock that this process uses. */
extern QV_API struct qv_cp_rwlock *rwlock;

/**
 * Points this process at a lock record and clears the record. A call while another process holds the lock or waits for
 * it wipes that state: all processes call it first, and only then may any of them use the lock.
 * @param record  12 bytes, 4-aligned, shared and writable; stays the caller's
 * @return record
 */
QV_API void *qv_cp_rwlock_init(void *record);

/** Acquires the lock for writing, after every writer that asked before. @return always 1 */
QV_API int qv_cp_wtlock(void);

/** Releases the lock held for writing and admits the next ticket. */
QV_API void qv_cp_wtunlock(void);

/** Acquires the lock for reading, after every writer that asked before. */
QV_API void qv_cp_rdlock(void);

/** Releases the lock held for reading. */
QV_API void qv_cp_rdunlock(void);

QV_END_DECLS

#endif
