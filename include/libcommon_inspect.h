/* SPDX-License-Identifier: Apache-2.0 */
/* libcommon_inspect.h - what another process may read of a process that has the library loaded.
 *
 * The library exports one constant record. It holds the addresses of the library's statistics in the process, and their
 * layouts as sizes, counts and offsets, so that a reader needs nothing else of the library's version. A tool finds the
 * record by its symbol, qv_inspect, or by the ELF note that the object has: owner "libcommon", type QV_INSPECT_NOTE,
 * the record's distance from the content as 8 bytes. A program that holds the library has the note alone. Everything is
 * read with process_vm_readv(2): the process is not stopped, gets no signal and does not notice. qvstat(1) is such a
 * tool.
 *
 * Nothing is locked while it is read. A reader checks what it gets: sums may be a few calls apart, a block may be freed
 * while its record is copied, and the memory of a damaged process holds anything. Fields are only ever added at the end
 * of the record; any other change changes QV_INSPECT_VERSION.
 *
 * Pointers are addresses in the process. Offsets ("_at") and sizes are in bytes; every number that they lead to is in
 * the machine's byte order, 32 bits wide where nothing else is said.
 */
#ifndef LIBCOMMON_INSPECT_H
#define LIBCOMMON_INSPECT_H

#include "libcommon_api.h"

#include <stdint.h>

QV_BEGIN_DECLS

/** How the record is recognised: its first word, and the version of its layout. */
#define QV_INSPECT_MAGIC UINT64_C(0x3154434550534e49) /* "INSPECT1" in memory */
#define QV_INSPECT_VERSION 1

/** The type of the ELF note that leads to the record. */
#define QV_INSPECT_NOTE 2

/* Light statistics: one table of size classes in each shard. A counter's value is the sum over `shards` and `common`
 * less `cleared`, modulo 2^32. Class k counts blocks of 2^k to 2^(k+1)-1 bytes, class 0 those of 0 bytes too. */
typedef struct qv_inspect_light {
    const void *shards;  /* shard_count tables of shard_size bytes */
    const void *common;  /* one more table */
    const void *cleared; /* the sums at the last clear, as a table */
    const void *is_on;   /* a byte: 0 if the process has another allocator, whose calls are not counted */
    uint32_t shard_count;
    uint32_t shard_size;
    uint32_t class_count;
    uint32_t class_size;
    uint32_t allocs_at; /* in a class, as the following */
    uint32_t frees_at;
    uint32_t releases_at;
    uint32_t products_at;
    uint32_t failures_at;
    uint32_t bytes_taken_at;
    uint32_t bytes_returned_at;
    uint32_t reserved;
} qv_inspect_light;

/* Full tracing: the state, and the table of live blocks that it points to. */
typedef struct qv_inspect_tracing {
    const void *state;
    const void *time_wait; /* a 64-bit number: the age in seconds from which a block may be a leak */
    uint32_t table_at;     /* in the state: a pointer to the records, null for no table */
    uint32_t blocks_at;    /* in the state, as the following: live blocks in the table */
    uint32_t bytes_at;
    uint32_t allocs_at;
    uint32_t frees_at;
    uint32_t reallocs_at;
    uint32_t unmatched_frees_at;
    uint32_t unmatched_reallocs_at;
    uint32_t record_count;
    uint32_t record_size;
    uint32_t block_at;      /* in a record: a pointer, null in a record that is not in use */
    uint32_t block_size_at; /* in a record, as the following */
    uint32_t time_at;       /* a 64-bit number: seconds of the wall clock */
    uint32_t chain_at;      /* chain_length return addresses; a 0 ends a shorter chain */
    uint32_t chain_length;
    uint32_t reserved;
} qv_inspect_tracing;

/* Which hooks are installed, and the trace file. */
typedef struct qv_inspect_hooks {
    const void *malloc_hook;      /* a pointer: the installed hook, null for none */
    const void *light_hook;       /* a pointer: what it is while light statistics are kept */
    const void *full_hook;        /* a pointer: what it is while full tracing is on */
    const void *below_trace;      /* a pointer: the hook below the trace file's, while there is a trace file */
    const void *trace_file;       /* a number: the descriptor of the trace file, -1 while there is none */
    const void *signals_armed_by; /* a number: one of enum qv_inspect_armed */
    const void *attach_signal;    /* a number: the signal that requests a dump */
} qv_inspect_hooks;

/* Which of the library's handlers were armed last. */
enum qv_inspect_armed {
    QV_ARMED_BY_NOBODY = 0,
    QV_ARMED_FOR_CRASHES = 1,    /* install_sighandler(): dump requests, and SIGUSR2 for the trace file */
    QV_ARMED_FOR_TERMINATION = 2 /* pstrace_terminate_signal(): these signals end the process */
};

/* Object caches: a list that grows at its head and never shrinks. */
typedef struct qv_inspect_caches {
    const void *list; /* a pointer to the newest cache */
    uint32_t cache_size;
    uint32_t next_at; /* in a cache, as the following: a pointer to the next older cache */
    uint32_t name_at; /* text, terminated */
    uint32_t name_size;
    uint32_t page_count_at;
    uint32_t in_use_at;
    uint32_t object_size_at;
    uint32_t page_units_at; /* how many units of unit_size bytes a page has */
    uint32_t objects_per_page_at;
    uint32_t unit_size;
} qv_inspect_caches;

/** What an outsider may read: where each subject lies, and how it is laid out. */
typedef struct qv_inspect_record {
    uint64_t magic;           /* QV_INSPECT_MAGIC */
    uint32_t version;         /* QV_INSPECT_VERSION */
    uint32_t size;            /* of this record */
    char library_version[16]; /* "1.0.0", terminated */
    qv_inspect_light light;
    qv_inspect_tracing tracing;
    qv_inspect_hooks hooks;
    qv_inspect_caches caches;
} qv_inspect_record;

/** The record of the process that has loaded the library. Another process finds it by this symbol. */
extern QV_API const qv_inspect_record qv_inspect;

QV_END_DECLS

#endif
