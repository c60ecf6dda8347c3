/* SPDX-License-Identifier: Apache-2.0 */
/* A host that may be run with a tagged heap (GLIBC_TUNABLES=glibc.mem.tagging=1 or 3). Prints "plain" or "tagged" when
 * all blocks were counted by their size in the heap.
 *   tagged_host small    blocks of the least size only, and no stdio: some emulators' tags are right for these alone
 *   tagged_host all */
#include <qv_mtrace.h>

#include <malloc.h>
#include <stdint.h>
#include <stdlib.h>
#include <string.h>
#include <unistd.h>

static int say(const char *text)
{
    return write(STDOUT_FILENO, text, strlen(text)) < 0;
}

static uint32_t bytes_held(void)
{
    mtrace_stat_record rec;
    qv_mtrace_stat_min(&rec);
    return rec.light_bytes;
}

/* Blocks of the C library have their size at a multiple of 16, which is at most two words more than what is usable. */
static int is_size_of(uint32_t counted, void *block)
{
    size_t usable = malloc_usable_size(block);
    return counted % 16 == 0 && counted >= usable + sizeof(size_t) && counted <= usable + 2 * sizeof(size_t);
}

static int counts(size_t size)
{
    uint32_t before = bytes_held();
    void *volatile block = malloc(size);
    int good = is_size_of(bytes_held() - before, block);
    block = realloc(block, size + 1);
    good = good && is_size_of(bytes_held() - before, block);
    free(block);
    block = calloc(1, size);
    good = good && is_size_of(bytes_held() - before, block);
    free(block);
    return good && bytes_held() == before;
}

static int records(void)
{
    unsigned counters[7];
    time_wait = 0;
    qv_mtrace_start();
    void *volatile block = malloc(100);
    block = realloc(block, 70);
    qv_mtrace_stat_internal(counters, NULL, 0);
    int good = counters[0] == 1 && counters[1] == 70;
    free(block);
    qv_mtrace_stat_internal(counters, NULL, 0);
    good = good && counters[0] == 0 && counters[4] == 0;
    qv_mtrace_reset();
    return good;
}

int main(int argc, char **argv)
{
    static const size_t sizes[] = {1, 10, 24, 100, 5000, 300000};
    const int small = strcmp(argv[argc - 1], "small") == 0;
    int tagged = 0;
    for (size_t i = 0; i < (small ? 2 : sizeof sizes / sizeof *sizes); i++) {
        void *volatile block = malloc(sizes[i]);
        tagged = tagged || (uintptr_t)block >> 56 != 0;
        free(block);
        if (!counts(sizes[i]))
            return say("counted otherwise\n"), 1;
    }
    if (!small && !records())
        return say("recorded otherwise\n"), 1;
    return say(tagged ? "tagged\n" : "plain\n");
}
