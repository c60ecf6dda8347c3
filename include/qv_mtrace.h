/* SPDX-License-Identifier: Apache-2.0 */
/* qv_mtrace.h - heap accounting: where did a running process's memory go?
 *
 * The library supplies malloc(), free(), realloc() and calloc() over the C library's allocator, and hook variables that
 * they read first. Three facilities use the hooks:
 *
 *   light statistics   counters by size class, on from load; no locks
 *   full tracing       from qv_mtrace_start() to qv_mtrace_stop(): a record of each live block with its size, its time
 *                      and its call chain. Reports list the call chains whose old blocks hold the most bytes
 *   a trace file       a line for each call, toggled by SIGUSR2; mtrace(1) reads it and lists what was not freed
 *
 *     struct mtrace_stat_record rec;
 *     qv_mtrace_start();
 *     ...
 *     if (qv_mtrace_stat(&rec, 0) == MTRACE_LEAK_GROUPS)
 *         for (uint32_t i = 0; i < rec.rows; i++)
 *             report(&rec.row.groups[i]);
 *
 * While full tracing is on, and from its stop until the process ends, the light counters do not change. The library
 * does not intercept a host that brings its own allocator, or one that loads the library by dlopen(). There it counts
 * only what passes through the hook functions themselves. If that allocator calls the hook variables, they hold the
 * hooks that were found at load for as long as the library calls it. A library that was loaded by dlopen() stays
 * loaded.
 *
 * A fork waits for a thread that starts or stops a trace, for a second at most. It waits for nothing else here.
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

#define MTRACE_TABLE_SIZE 65536 /* capacity of full tracing, in live blocks */
#define MTRACE_CHAIN_SIZE 8     /* return addresses of a call chain; a shorter one ends in a 0 */
#define MTRACE_ROWS 32          /* rows of a report */

/* A mode of qv_mtrace_stat(). */
#define MTRACE_MODE_TOTALS 7 /* the light totals alone */

/* Results of qv_mtrace_stat(): what the record holds. */
#define MTRACE_LEAK_GROUPS 4  /* the counters of full tracing, and leak groups as rows */
#define MTRACE_SIZE_CLASSES 6 /* the light totals, and size classes as rows */
#define MTRACE_TOTALS 8       /* the light totals */

/* ---- hooks ---- */

/* What malloc(), free() and realloc() call in place of the allocator; null for none. A hook reaches the allocator in
 * three steps: it stores the hook that it replaced, calls, and stores itself again. Meanwhile other threads' calls do
 * not reach it. calloc() calls __malloc_hook and clears the block. */
extern QV_API void *(*__malloc_hook)(size_t size, const void *caller);
extern QV_API void (*__free_hook)(void *ptr, const void *caller);
extern QV_API void *(*__realloc_hook)(void *ptr, size_t size, const void *caller);

/* The hooks that were found at load. SIGUSR2 exchanges them with the current ones. */
extern QV_API void *(*old_malloc_hook)(size_t size, const void *caller);
extern QV_API void (*old_free_hook)(void *ptr, const void *caller);
extern QV_API void *(*old_realloc_hook)(void *ptr, size_t size, const void *caller);

/** At load: keeps the current hooks as the old ones, clears the light statistics and installs the light hooks. */
QV_API void my_init_hook(void);

/* The light hooks. A host that calls one by its name gets the same service; the hooks then install themselves. A block
 * counts with the size that it takes in the heap, a failure with the requested size. A failed reallocation counts the
 * old block as released although it still exists. */
QV_API void *my_malloc_light_hook(size_t size, const void *caller);
QV_API void my_free_light_hook(void *ptr, const void *caller);
QV_API void *my_realloc_light_hook(void *ptr, size_t size, const void *caller);

/* The hooks of full tracing. Called by name they install themselves too, unless tracing is stopped. */
QV_API void *my_malloc_hook(size_t size, const void *caller);
QV_API void my_free_hook(void *ptr, const void *caller);
QV_API void *my_realloc_hook(void *ptr, size_t size, const void *caller);

/* ---- light statistics ---- */

/** The light counters of one size class. */
typedef struct mtrace_class_row {
    uint32_t lower_bound; /* 2^k: sizes from this to below its double; the first class holds 0 and 1 */
    uint32_t bytes;       /* held now */
    uint32_t blocks;      /* held now */
    uint32_t allocs;      /* since load; 32-bit counters wrap */
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
    uint64_t trace[MTRACE_CHAIN_SIZE]; /* trace[0] lies in the library's hook, trace[1] in malloc()'s caller */
} leak_group;

/* What the comparators compare: a block or a group of blocks, while a report is made. */
typedef struct malloc_stat_entry {
    uint32_t bytes;
    uint32_t blocks;
    const uint64_t *trace;
} malloc_stat_entry;

extern QV_API uint64_t time_wait; /* seconds after which a block may be a leak; 1800 at first */
/* Guards the table of live blocks and the switching of its hooks. A thread that holds it while full tracing is on must
 * not allocate. In a child that is forked while another thread holds it, it is unlocked. */
extern QV_API pthread_mutex_t mutex;

/** Starts full tracing, with an empty table if there is none. Without memory for a table, nothing is recorded. */
QV_API void qv_mtrace_start(void);

/** Ends full tracing and installs the old hooks. The table and its counters stay for reports and for the next start. */
QV_API void qv_mtrace_stop(void);

/** Ends full tracing, frees the table and clears its counters. */
QV_API void qv_mtrace_reset(void);

/**
 * Enters a block in the table. The caller holds `mutex`.
 * @param size    the requested size in bytes, cut to 32 bits
 * @param caller  not used
 * @param ptr     the block
 * @return 1; 0 if the table already holds MTRACE_TABLE_SIZE blocks, if there is no table, or if ptr is null
 */
QV_API int add_malloc_record(size_t size, const void *caller, void *ptr);

/**
 * Makes the report of the blocks that are at least time_wait seconds old, grouped by call chain, the largest first.
 * If there are younger blocks, a line on the console says so.
 * @param out  receives up to max groups; the chains end in a 0 if they are shorter than MTRACE_CHAIN_SIZE
 * @param max  0 or less for none
 * @return the number of groups
 */
QV_API int get_malloc_statistics(leak_group *out, int max);

/* For qsort() over struct malloc_stat_entry: by call chain, and by bytes with the most first. */
QV_API int my_compare_trace(const void *a, const void *b);
QV_API int my_compare_bytes(const void *a, const void *b);

/* ---- reports ---- */

/** A report. */
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
 * Reports what full tracing knows, or the light statistics if it has no table.
 * @param rec   receives the report; fields that the result does not name keep their values
 * @param mode  MTRACE_MODE_TOTALS, or any other value for a full report
 * @return MTRACE_TOTALS in that mode; MTRACE_LEAK_GROUPS while full tracing has a table; else MTRACE_SIZE_CLASSES
 */
QV_API int qv_mtrace_stat(mtrace_stat_record *rec, int mode);

/* ---- the trace file ----
 *
 * The library supplies mtrace() and muntrace() of <mcheck.h>. mtrace() starts a trace of every call into the file that
 * the environment variable MALLOC_TRACE names. It does nothing without that variable or while a trace is on. muntrace()
 * ends the trace. */

/**
 * The handler of SIGUSR2. The first signal exchanges the hooks with the old ones and starts a trace into
 * /etc/mtrace<pid>.log. The next one ends the trace, exchanges the hooks again and installs this handler again for sig.
 * Each writes a line to the console and to the mirror hook. If the signal interrupts malloc(), or another thread is
 * writing the trace, this is done at the end of that call.
 * @param sig  the signal
 */
QV_API void signal_mtrace(int sig) QV_SIGNAL_SAFE;

QV_END_DECLS

#endif
