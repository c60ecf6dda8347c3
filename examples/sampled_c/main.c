/* SPDX-License-Identifier: Apache-2.0 */
/* sampled_c - the sample daemon in C, in one file: it takes samples of its clients, keeps a session for each, reports
 * through the console, answers dump requests and leaves a crash log.
 *
 *     sampled_c [--period SECONDS] [--clients N] [--run-for SECONDS] [--crash-after SECONDS]
 *
 * One thread, which sleeps until the earliest timer expires. SIGINT and SIGTERM stop it. Times may have fractions.
 * Unlike sampled, it serves no virtual routers and shows no leak.
 */
#include <console_print.h>
#include <crash_details.h>
#include <hashtbl.h>
#include <idpool.h>
#include <qv_time.h>
#include <sighandler.h>
#include <signal_printf.h>
#include <stimer.h>
#include <strutil.h>

#include <signal.h>
#include <stddef.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <sys/time.h>
#include <time.h>
#include <unistd.h>

enum { MOST_SESSIONS = 10000, CLIENT_NAME_SIZE = 32, MICROS_PER_SECOND = 1000000 };

struct session {
    struct hashtbl_link link; /* by the client's name */
    int id;
    char client[CLIENT_NAME_SIZE];
};

struct options {
    double period;
    unsigned long clients;
    double run_for;     /* 0: until a signal asks to stop */
    double crash_after; /* 0: never */
};

static void *timers;
static struct stimer next_sample, crash, end;
static struct hashtbl *sessions;
static struct idpool *ids;
static struct options options = {1.0, 4, 0.0, 0.0};
static volatile unsigned long samples; /* the crash callback reads it: stored where the code says so */
static unsigned long last_sample;
static volatile sig_atomic_t stopping;

/* ---- its share of a crash log: plain numbers, so that the callback takes no lock ---- */

static long add_state(unsigned int phase, unsigned long arg, void *record)
{
    (void)record;
    if (phase == QV_COREDUMP_LAST)
        signal_printf((int)arg, "sampled_c: %lu samples\n", samples);
    return 0;
}
QV_COREDUMP_CALLBACK(add_state);
QV_CRASH_DETAILS;

/* ---- sessions ---- */

static int is_of_client(void *object, void *key)
{
    return strcmp(((struct session *)object)->client, key) == 0;
}

/* Null without memory, and when all identifiers are in use. */
static struct session *open_session(const char *client, unsigned hash)
{
    struct session *opened = calloc(1, sizeof *opened);
    if (opened == NULL || idpool_alloc_id(ids, &opened->id) != 0) {
        free(opened);
        return NULL;
    }
    strlcpy(opened->client, client, sizeof opened->client);
    hashtbl_insert(sessions, hash, opened);
    return opened;
}

/* The number of the client's session, which is opened if need be; 0 when that fails. */
static int touch_session(char *client)
{
    unsigned hash = qv_string_hash(client, (int)strlen(client));
    struct session *known = hashtbl_find(sessions, client, hash, is_of_client);
    if (known == NULL)
        known = open_session(client, hash);
    return known != NULL ? known->id : 0;
}

static void close_session(void *object, void *arg)
{
    (void)arg;
    idpool_free_id(ids, ((struct session *)object)->id);
    free(object);
}

/* ---- the work ---- */

__attribute__((noinline)) static void take_sample(volatile unsigned long *slot)
{
    char client[CLIENT_NAME_SIZE];
    snprintf(client, sizeof client, "client-%lu", samples % options.clients);
    *slot = samples + 1;
    samples++;
    console_print("sampled_c: sample %lu of %s, session %d\n", samples, client, touch_session(client));
}

static void take_next_sample(void *arg)
{
    (void)arg;
    take_sample(&last_sample);
    start_stimer(&next_sample);
}

/* The bug that --crash-after asks for: a sample is stored where no memory is. */
static void take_bad_sample(void *arg)
{
    unsigned long *volatile nowhere = (unsigned long *)0x10;
    (void)arg;
    take_sample(nowhere);
    last_sample = 0; /* never reached */
}

static void stop(void *arg)
{
    (void)arg;
    stopping = 1;
}

static void stop_by_signal(int number)
{
    (void)number;
    stopping = 1;
}

/* ---- the loop ---- */

static void start_after(struct stimer *timer, double seconds, void (*callback)(void *arg))
{
    int whole = (int)seconds;
    init_stimer(timer, &timers, whole, callback, NULL);
    timer->interval.tv_usec = (long)((seconds - whole) * MICROS_PER_SECOND);
    start_stimer(timer);
}

/* Sleeps until the earliest timer is due or a signal arrives. The stop signals are unblocked only here, so that none is
 * missed between the test of `stopping` and the sleep. */
static void wait_for_timer(const sigset_t *unblocked)
{
    struct timeval next, now;
    struct timespec wait = {0, 0};
    long micros;
    if (stimer_get_next_expire(&timers, &next) != 0)
        return;
    qv_gettimeofday(&now);
    micros = (next.tv_sec - now.tv_sec) * MICROS_PER_SECOND + (next.tv_usec - now.tv_usec);
    if (micros > 0) {
        wait.tv_sec = micros / MICROS_PER_SECOND;
        wait.tv_nsec = micros % MICROS_PER_SECOND * 1000;
    }
    pselect(0, NULL, NULL, NULL, &wait, unblocked);
}

/* Has SIGINT and SIGTERM stop the loop. They stay blocked but for its sleep. */
static void accept_stop_signals(sigset_t *unblocked)
{
    struct sigaction action;
    sigset_t stops;
    memset(&action, 0, sizeof action);
    action.sa_handler = stop_by_signal;
    sigaction(SIGINT, &action, NULL);
    sigaction(SIGTERM, &action, NULL);
    sigemptyset(&stops);
    sigaddset(&stops, SIGINT);
    sigaddset(&stops, SIGTERM);
    sigprocmask(SIG_BLOCK, &stops, unblocked);
}

static void run(const sigset_t *unblocked)
{
    while (!stopping) {
        wait_for_timer(unblocked);
        process_stimer(&timers);
    }
}

static int parse(int argc, char **argv)
{
    for (int i = 1; i < argc; i += 2) {
        if (i + 1 == argc)
            return 0;
        if (strcmp(argv[i], "--period") == 0)
            options.period = atof(argv[i + 1]);
        else if (strcmp(argv[i], "--clients") == 0)
            options.clients = strtoul(argv[i + 1], NULL, 10);
        else if (strcmp(argv[i], "--run-for") == 0)
            options.run_for = atof(argv[i + 1]);
        else if (strcmp(argv[i], "--crash-after") == 0)
            options.crash_after = atof(argv[i + 1]);
        else
            return 0;
    }
    return options.period > 0 && options.clients > 0;
}

int main(int argc, char **argv)
{
    sigset_t unblocked;
    if (!parse(argc, argv)) {
        fprintf(stderr, "usage: sampled_c [--period S] [--clients N] [--run-for S] [--crash-after S]\n");
        return 2;
    }
    install_sighandler();
    ids = idpool_create("sampled_c", 1, MOST_SESSIONS);
    sessions = hashtbl_init((unsigned)qv_hashtbl_get_log2(MOST_SESSIONS), offsetof(struct session, link), 0);
    if (ids == NULL || sessions == NULL || stimer_context_init(&timers) != 0)
        return 1;
    accept_stop_signals(&unblocked);
    console_print("sampled_c: started, pid %d\n", getpid());
    start_after(&next_sample, options.period, take_next_sample);
    if (options.run_for > 0)
        start_after(&end, options.run_for, stop);
    if (options.crash_after > 0)
        start_after(&crash, options.crash_after, take_bad_sample);
    run(&unblocked);
    console_print("sampled_c: stopping after %lu samples\n", samples);
    hashtbl_free_all_objects(sessions, close_session, NULL);
    hashtbl_destroy(sessions);
    idpool_destroy(ids);
    return 0;
}
