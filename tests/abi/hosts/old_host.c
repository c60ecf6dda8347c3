/* SPDX-License-Identifier: Apache-2.0 */
/* A host that was linked with a libcommon without symbol versions: reads and writes variables of the library, replaces
 * a function, and allocates. Its variables are copies, since it is not position-independent.
 */
#include <debug_trace.h>
#include <hashtbl.h>
#include <mcache.h>
#include <qv_mtrace.h>
#include <stdio.h>
#include <stdlib.h>

static int asked_for_folder;

int qv_get_basedir(char *buf, size_t size)
{
    (void)buf, (void)size;
    asked_for_folder = 1;
    return -1;
}

static int fail(const char *what)
{
    printf("%s\n", what);
    return 1;
}

int main(void)
{
    if (qv_string_hash("abc", 3) == 4)
        return fail("the stub is loaded");
    if (time_wait != 1800)
        return fail("a variable has no initial value");
    struct mcache *cache = mcache_create("old", 16, NULL, 0, 1);
    if (cache == NULL || zlist != cache)
        return fail("the library and the host have different variables");
    __qv_debug_where = 1;
    __qv_print_prefix(2, "old_host", 1);
    if (!asked_for_folder)
        return fail("the library does not call the host's function");
    mtrace_stat_record before = {0}, after = {0};
    qv_mtrace_stat_min(&before);
    void *volatile block = malloc(100);
    qv_mtrace_stat_min(&after);
    free(block);
    if (after.light_bytes - before.light_bytes < 100)
        return fail("the library does not see the host's allocation");
    puts("good");
    return 0;
}
