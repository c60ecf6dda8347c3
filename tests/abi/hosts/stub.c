/* SPDX-License-Identifier: Apache-2.0 */
/* Replaces a libcommon without symbol versions while a host is linked. Never loaded. */
#include <debug_trace.h>
#include <hashtbl.h>
#include <mcache.h>
#include <qv_mtrace.h>
#include <stddef.h>

uint64_t time_wait;
struct mcache *zlist;
int __qv_debug_where;

unsigned qv_string_hash(const char *data, int len)
{
    return (unsigned)(len + (data != NULL));
}

struct mcache *mcache_create(const char *name, unsigned size, void *reserved, unsigned flags, int page_units)
{
    (void)name, (void)size, (void)reserved, (void)flags, (void)page_units;
    return NULL;
}

int __qv_print_prefix(int level, const char *file, int line)
{
    (void)level, (void)file, (void)line;
    return 0;
}

int qv_get_basedir(char *buf, size_t size)
{
    (void)buf, (void)size;
    return 0;
}

int qv_mtrace_stat_min(mtrace_stat_record *rec)
{
    (void)rec;
    return 0;
}
