/* SPDX-License-Identifier: Apache-2.0 */
/* A host whose malloc() asks the hook variables as the library's does: the C library's checker is preloaded. Prints
 * "good". */
#include <qv_mtrace.h>

#include <malloc.h>
#include <pthread.h>
#include <signal.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>

static void *allocate(void *arg)
{
    for (int i = 0; i < 2000; i++) {
        void *volatile block = calloc(1, 10 + (size_t)i);
        block = realloc(block, 3000);
        free(block);
    }
    return arg;
}

int main(void)
{
    mtrace_stat_record before, after;
    qv_mtrace_stat_min(&before);
    void *volatile block = malloc(100);
    block = realloc(block, 5000);
    free(block);
    free(memalign(256, 1000));
    qv_mtrace_stat_min(&after);
    if (after.light_allocs != before.light_allocs + 1 || after.light_frees != before.light_frees + 2 ||
        after.light_products != before.light_products + 1)
        return puts("counted otherwise"), 1;

    pthread_t threads[3];
    for (int i = 0; i < 3; i++)
        pthread_create(&threads[i], NULL, allocate, NULL);
    for (int i = 0; i < 3; i++)
        pthread_join(threads[i], NULL);

    unsigned counters[7];
    time_wait = 0;
    qv_mtrace_start();
    block = malloc(100);
    block = realloc(block, 300);
    qv_mtrace_stat_internal(counters, NULL, 0);
    if (counters[0] != 1 || counters[1] != 300)
        return puts("recorded otherwise"), 1;
    free(block);
    for (int i = 0; i < 3; i++)
        pthread_create(&threads[i], NULL, allocate, NULL);
    for (int i = 0; i < 3; i++)
        pthread_join(threads[i], NULL);
    qv_mtrace_reset();
    free(malloc(10));
    signal_mtrace(SIGUSR2);
    free(malloc(10));
    signal_mtrace(SIGUSR2);
    free(malloc(10));
    puts("good");
    return 0;
}
