/* SPDX-License-Identifier: Apache-2.0 */
/* A host whose malloc() asks the hook variables as the library's does: the C library's checker is preloaded. Prints
 * "good".
 *   checked_host FORKS */
#include <qv_mtrace.h>

#include <malloc.h>
#include <pthread.h>
#include <signal.h>
#include <stdio.h>
#include <stdlib.h>
#include <sys/wait.h>
#include <unistd.h>

static void *allocate(void *arg)
{
    for (int i = 0; i < 2000; i++) {
        void *volatile block = calloc(1, 10 + (size_t)i);
        block = realloc(block, 3000);
        free(block);
    }
    return arg;
}

static volatile int stop;

static void *allocate_on(void *arg)
{
    while (!stop)
        free(malloc(50));
    return arg;
}

/* Whether children that are forked while another thread allocates go on counting. */
static int children_count(int forks)
{
    pthread_t thread;
    int good = 1;
    pthread_create(&thread, NULL, allocate_on, NULL);
    for (int i = 0; i < forks && good; i++) {
        pid_t child = fork();
        if (child == 0) {
            mtrace_stat_record before, after;
            qv_mtrace_stat_min(&before);
            free(malloc(20));
            qv_mtrace_stat_min(&after);
            _exit(after.light_allocs != before.light_allocs + 1);
        }
        int status = -1;
        good = waitpid(child, &status, 0) == child && status == 0;
    }
    stop = 1;
    pthread_join(thread, NULL);
    return good;
}

int main(int argc, char **argv)
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

    if (!children_count(atoi(argv[argc - 1])))
        return puts("a child does not count"), 1;

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
