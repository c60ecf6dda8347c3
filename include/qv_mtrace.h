/* SPDX-License-Identifier: Apache-2.0 */
/* qv_mtrace.h - heap accounting: where did a running process's memory go?
 *
 * The library supplies malloc(), free(), realloc() and calloc() over the C library's allocator, and hook variables that
 * they ask first. Three things use the hooks:
 *
 *   light statistics   counters by size class, on from load; no locks
 *   full tracing       from qv_mtrace_start() to qv_mtrace_stop(): a record of each live block with its size, its time
 *                      and its call chain. Reports name the groups of blocks that stayed longest and hold most
 *   a trace file       of every single call, toggled by SIGUSR2; mtrace(1) reads it and names what was not freed
 *
 *     struct mtrace_stat_record rec;
 *     qv_mtrace_start();
 *     ...
 *     if (qv_mtrace_stat(&rec, 0) == 4)
 *         for (uint32_t i = 0; i < rec.rows; i++)
 *             report(&rec.row.groups[i]);
 *
 * While full tracing is on, and from its stop until the process ends, the light counters stand still. A host that
 * brings an allocator of its own, and one that loads the library by dlopen(), is not intercepted: then nothing is
 * counted but what goes through the hook functions themselves. If that allocator asks the hook variables, they hold
 * the hooks that were found at load while it is called. A library that was loaded by dlopen() stays loaded.
 *
 * A fork waits for a thread that starts or stops a trace, for a second at most, and for nothing else here.
 *
 * Any thread may call any function; only signal_mtrace() is for signal handlers.
 */
#ifndef LIBCOMMON_QV_MTRACE_H
#define LIBCOMMON_QV_MTRACE_H

#include "libcommon_api.h"

#include <mcheck.h>
#include <pthread.h>
#include <stddef.h>
#include <stdint.h>

QV_BEGIN_DECLS

#define MTRACE_TABLE_SIZE 65536 /* live blocks that full tracing knows at most */
#define MTRACE_CHAIN_SIZE 8     /* return addresses of a call chain; a shorter one ends in a 0 */
#define MTRACE_ROWS 32

/* ---- hooks ---- */

/* What malloc() and its kin call in place of the allocator, null for none. A hook that wants the allocator puts the
 * hook back that it found, calls, and puts itself in again; other threads are not served by it meanwhile. calloc() asks
 * __malloc_hook and clears the block. */
extern QV_API void *(*__malloc_hook)(size_t size, const void *caller);
extern QV_API void (*__free_hook)(void *ptr, const void *caller);
extern QV_API void *(*__realloc_hook)(void *ptr, size_t size, const void *caller);

/* The hooks that were found at load. SIGUSR2 exchanges them with the current ones. */
extern QV_API void *(*old_malloc_hook)(size_t size, const void *caller);
extern QV_API void (*old_free_hook)(void *ptr, const void *caller);
extern QV_API void *(*old_realloc_hook)(void *ptr, size_t size, const void *caller);

/** At load: keeps the current hooks as the old ones, clears the light statistics and installs the light hooks. */
QV_API void my_init_hook(void);

/* The light hooks. Called by themselves they allocate, free and count in the same way, and install themselves. A size
 * is counted as the block takes it in the heap, a failure as it was asked for. A failed reallocation counts the old
 * block as released although it lives. */
QV_API void *my_malloc_light_hook(size_t size, const void *caller);
QV_API void my_free_light_hook(void *ptr, const void *caller);
QV_API void *my_realloc_light_hook(void *ptr, size_t size, const void *caller);

/* The hooks of full tracing. Called by themselves they install themselves too, unless tracing is stopped. */
QV_API void *my_malloc_hook(size_t size, const void *caller);
QV_API void my_free_hook(void *ptr, const void *caller);
QV_API void *my_realloc_hook(void *ptr, size_t size, const void *caller);

/* ---- light statistics ---- */

typedef struct mtrace_class_row {
    uint32_t lower_bound; /* 2^k: the class of sizes from here to twice this; the first holds 0 and 1 */
    uint32_t bytes;       /* held now */
    uint32_t blocks;
    uint32_t allocs; /* since load; 32-bit counters wrap */
    uint32_t frees;
    uint32_t realloc_releases;
    uint32_t realloc_products;
    uint32_t failures;
} mtrace_class_row;

/* ---- full tracing ---- */

/* The blocks of one call chain. */
typedef struct leak_group {
    uint32_t bytes;
    uint32_t blocks;
    uint64_t trace[MTRACE_CHAIN_SIZE];
} leak_group;

/* What the comparators compare: a block or a group of them in a report that is being made. */
typedef struct malloc_stat_entry {
    uint32_t bytes;
    uint32_t blocks;
    const uint64_t *trace;
} malloc_stat_entry;

extern QV_API uint64_t time_wait;    /* seconds after which a block may be a leak; 1800 at first */
/* Guards the table of live blocks and the switching of its hooks. A thread that holds it while full tracing is on must
 * not allocate. A child that is forked while another thread holds it finds it free. */
extern QV_API pthread_mutex_t mutex;

/** Starts full tracing, with a fresh table when there is none. Without memory for one, nothing is recorded. */
QV_API void qv_mtrace_start(void);

/** Ends full tracing and puts the old hooks in. The table and its counters stay for reports and for the next start. */
QV_API void qv_mtrace_stop(void);

/** Ends full tracing, frees the table and clears its counters. */
QV_API void qv_mtrace_reset(void);

/**
 * Enters a block in the table. For a caller that has `mutex`.
 * @return 1; 0 when the table holds 65,536 blocks already, and for no table or no block
 */
QV_API int add_malloc_record(size_t size, const void *caller, void *ptr);

/**
 * Makes the report of the blocks that are at least time_wait seconds old, grouped by call chain, the largest first.
 * Blocks that are younger are told of on the console.
 * @param out  receives up to max groups
 * @return how many
 */
QV_API int get_malloc_statistics(leak_group *out, int max);

/* For qsort() over struct malloc_stat_entry: by call chain, and by bytes with the most first. */
QV_API int my_compare_trace(const void *a, const void *b);
QV_API int my_compare_bytes(const void *a, const void *b);

/* ---- reports ---- */

typedef struct mtrace_stat_record {
    uint32_t reserved0;
    uint32_t full[7]; /* live blocks, live bytes, allocations, frees, unmatched frees, reallocations, unmatched ones */
    uint32_t reserved1;
    uint32_t light_bytes;
    uint32_t light_blocks;
    uint32_t light_allocs;
    uint32_t light_frees;
    uint32_t light_releases;
    uint32_t light_products;
    uint32_t light_failures;
    uint32_t rows;
    union {
        leak_group groups[MTRACE_ROWS];
        mtrace_class_row classes[MTRACE_ROWS];
    } row; /* 8-byte aligned */
} mtrace_stat_record;

/** The counters of full tracing into counters[7], in the order of mtrace_stat_record, then get_malloc_statistics(). */
QV_API int qv_mtrace_stat_internal(unsigned int *counters, leak_group *out, int max);

/** The light totals alone; the row count becomes 1. @return 1 */
QV_API int qv_mtrace_stat_min(mtrace_stat_record *rec);

/**
 * @param mode  7 for the light totals alone
 * @return 8 for those; 4 with the counters of full tracing and up to 32 leak groups, while there is a table; else 6
 * with the light totals and the 32 size classes
 */
QV_API int qv_mtrace_stat(mtrace_stat_record *rec, int mode);

/* ---- the trace file ----
 *
 * mtrace() and muntrace() of <mcheck.h> are the library's: the one starts a trace of every call into the file that
 * MALLOC_TRACE names (nothing happens without that variable, or when a trace is on), the other ends it. */

/**
 * The handler of SIGUSR2: starts a trace into /etc/mtrace<pid>.log in place of the library's hooks, or ends it, puts
 * them back and installs itself again for sig; either is told of on the console, and to the mirror hook. When the
 * signal meets its thread inside malloc(), or another one inside the trace, it is done at the end of that call.
 */
QV_API void signal_mtrace(int sig) QV_SIGNAL_SAFE;

QV_END_DECLS

#endif
