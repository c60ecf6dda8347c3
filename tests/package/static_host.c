/* SPDX-License-Identifier: Apache-2.0 */
/* A host that holds the library: it uses the families, reports what worked, and fails. With an argument it only
 * reports, and writes no file; with a second one it then maps its own file and waits. */
#include <console_print.h>
#include <crash_details.h>
#include <encoding.h>
#include <fcntl.h>
#include <hashtbl.h>
#include <mcache.h>
#include <qv_mtrace.h>
#include <sighandler.h>
#include <signal_printf.h>
#include <stdio.h>
#include <stdlib.h>
#include <stimer.h>
#include <string.h>
#include <sys/mman.h>
#include <unistd.h>

/* Fails once more, in its part of the log. */
static long add_state(unsigned int phase, unsigned long arg, void *record)
{
    int *volatile nothing = NULL;
    (void)record;
    if (phase != QV_COREDUMP_LAST)
        return 0;
    signal_printf((int)arg, "sessions: 1\n");
    *nothing = 1;
    return 0;
}
QV_CRASH_DETAILS;
QV_COREDUMP_CALLBACK(add_state);

struct session {
    struct hashtbl_link link;
    unsigned id;
};

static int fired;

static void on_timeout(void *arg)
{
    fired += *(int *)arg;
}

static int use_timer(void)
{
    void *timers;
    int one = 1;
    if (stimer_context_init(&timers) != 0)
        return 0;
    start_stimer(create_stimer(&timers, 0, on_timeout, &one));
    process_stimer(&timers);
    stimer_context_fini(&timers);
    return fired;
}

static int same_id(void *object, void *key)
{
    return ((struct session *)object)->id == *(unsigned *)key;
}

/* A name that libheap.a has inside. */
void own_free(struct mcache *cache, struct session *session);
void own_free(struct mcache *cache, struct session *session)
{
    mcache_free(cache, session);
}

static int use_containers(void)
{
    unsigned id = 17;
    struct hashtbl *table = hashtbl_init(4, offsetof(struct session, link), 0);
    struct mcache *cache = mcache_create("sessions", sizeof(struct session), NULL, 0, 1);
    struct session *session = mcache_alloc(cache);
    session->id = id;
    hashtbl_insert(table, qv_hash_uint32(id, 0), session);
    int found = hashtbl_find(table, &id, qv_hash_uint32(id, 0), same_id) == session;
    own_free(cache, mcache_alloc(cache));
    return found;
}

/* The blocks that the process holds, as the library counts them. */
static unsigned count_blocks(void)
{
    static struct mtrace_stat_record record;
    qv_mtrace_stat_min(&record);
    return record.light_blocks;
}

/* Also of the C library's own calls. */
static int is_counted(void)
{
    unsigned before = count_blocks();
    char *volatile copy = strdup("session");
    unsigned between = count_blocks();
    free(copy);
    return between == before + 1 && count_blocks() == before;
}

static __attribute__((noinline)) void store(int *slot)
{
    *slot = 1; /* line: failure */
    __asm__ volatile("" ::: "memory");
}

static __attribute__((noinline)) void serve(int *slot)
{
    store(slot); /* line: caller */
    __asm__ volatile("" ::: "memory");
}

/* The start of this program as data, which may lie below the program itself. */
static void map_program(void)
{
    int fd = open("/proc/self/exe", O_RDONLY);
    if (mmap(NULL, 4096, PROT_READ, MAP_PRIVATE, fd, 0) == MAP_FAILED)
        abort();
    close(fd);
}

int main(int argc, char **argv)
{
    (void)argv;
    char digest[33];
    int *volatile nothing = NULL;
    if (argc > 2)
        map_program();
    int timer = use_timer(), containers = use_containers(), counted = is_counted();
    printf("timer %d containers %d allocations %d digest %d\n", timer, containers, counted,
           filemd5str("/proc/self/exe", digest, sizeof digest));
    fflush(stdout);
    if (argc > 2)
        pause();
    if (argc > 1)
        return 0;
    console_print("static host %d\n", 1);
    install_sighandler();
    qv_crash_note("serving session %d", 17);
    serve(nothing);
    return 0;
}
