/* SPDX-License-Identifier: Apache-2.0 */
/* A host that is linked with the library and brings its own allocator: it serves both. Prints "good". */
#include <idpool.h>
#include <qv_mtrace.h>

#include <errno.h>
#include <malloc.h>
#include <stdio.h>
#include <string.h>
#include <unistd.h>

static _Alignas(16) char arena[1 << 24];
static size_t used;
static int taken, freed;

static int is_own(const void *block)
{
    return (const char *)block >= arena && (const char *)block < arena + sizeof arena;
}

/* Blocks are laid one behind the other, each behind its size, and never used again. */
void *malloc(size_t size)
{
    size_t room = (size + 31) / 16 * 16;
    if (room < size || room > sizeof arena - used) {
        errno = ENOMEM;
        return NULL;
    }
    char *block = arena + used + 16;
    used += room;
    memcpy(block - 16, &size, sizeof size);
    taken++;
    return block;
}

void free(void *block)
{
    if (block == NULL)
        return;
    if (!is_own(block)) {
        static const char text[] = "a foreign block is freed\n";
        _exit((int)write(1, text, sizeof text - 1) + 1);
    }
    freed++;
}

size_t malloc_usable_size(void *block)
{
    size_t size = 0;
    if (block != NULL)
        memcpy(&size, (char *)block - 16, sizeof size);
    return size;
}

void *realloc(void *block, size_t size)
{
    void *moved = malloc(size);
    if (moved != NULL && block != NULL) {
        size_t before = malloc_usable_size(block);
        memcpy(moved, block, before < size ? before : size);
        free(block);
    }
    return moved;
}

void *calloc(size_t count, size_t size)
{
    return malloc(count * size); /* fresh memory is zero here */
}

int main(void)
{
    mtrace_stat_record before, after;
    qv_mtrace_stat_min(&before);
    int taken_before = taken;
    struct idpool *pool = idpool_create("own", 0, 100000);
    if (taken != taken_before + 2 || !is_own(pool) || !is_own(pool->bitmap))
        return puts("the library has another allocator"), 1;
    idpool_destroy(pool);
    qv_mtrace_stat_min(&after);
    if (after.light_allocs != before.light_allocs)
        return puts("intercepted"), 1;

    void *block = my_malloc_light_hook(100, NULL);
    if (!is_own(block))
        return puts("a hook has another allocator"), 1;
    block = my_realloc_light_hook(block, 300, NULL);
    free(block);
    qv_mtrace_start();
    block = my_malloc_hook(50, NULL);
    my_free_hook(block, NULL);
    qv_mtrace_reset();
    puts(is_own(block) ? "good" : "a full hook has another allocator");
    return 0;
}
