/* SPDX-License-Identifier: Apache-2.0 */
/* qv_mtrace.h - heap accounting: light statistics by size class, always on from load.
 *
 *     mtrace_stat_record rec;
 *     qv_mtrace_stat_min(&rec);    // rec.light_bytes, rec.light_blocks, ...
 *
 * Any thread; only signal_mtrace() is for signal handlers.
 */
#ifndef LIBCOMMON_QV_MTRACE_H
#define LIBCOMMON_QV_MTRACE_H

#include "libcommon_api.h"

#include <stddef.h>
#include <stdint.h>

QV_BEGIN_DECLS

typedef struct leak_group {
    uint32_t bytes;
    uint32_t blocks;
    uint64_t trace[8];
} leak_group;

typedef struct mtrace_class_row {
    uint32_t lower_bound, bytes, blocks, allocs, frees, realloc_releases, realloc_products, failures;
} mtrace_class_row;

typedef struct mtrace_stat_record {
    uint32_t reserved0;
    uint32_t full[7]; /* live records, live bytes, allocations, frees, unmatched frees, reallocations, unmatched ones */
    uint32_t reserved1;
    uint32_t light_bytes, light_blocks, light_allocs, light_frees, light_releases, light_products, light_failures;
    uint32_t rows;
    union {
        leak_group groups[32];
        mtrace_class_row classes[32];
    } row;
} mtrace_stat_record;

/** Light totals only; sets the row count to 1. @return 1 */
QV_API int qv_mtrace_stat_min(mtrace_stat_record *rec);

/** Mode 7: light totals, returns 8; any other: 32 size-class rows and the light totals, returns 6. */
QV_API int qv_mtrace_stat(mtrace_stat_record *rec, int mode);

/* Allocate, free and count, as the library's malloc(), free() and realloc() do. The caller is not read. */
QV_API void *my_malloc_light_hook(size_t size, const void *caller);
QV_API void my_free_light_hook(void *ptr, const void *caller);
QV_API void *my_realloc_light_hook(void *ptr, size_t size, const void *caller);

/** Takes SIGUSR2. */
QV_API void signal_mtrace(int sig) QV_SIGNAL_SAFE;

QV_END_DECLS

#endif
