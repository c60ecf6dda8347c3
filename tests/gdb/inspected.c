/* SPDX-License-Identifier: Apache-2.0 */
/* A program with one of each record that gdb prints; it stops in all_made(). With any argument it aborts there, so that
 * it leaves a core. */
#include <atimer.h>
#include <database.h>
#include <hashtbl.h>
#include <idpool.h>
#include <idtable.h>
#include <mcache.h>
#include <name2id.h>
#include <qv_mtrace.h>
#include <rbtree.h>
#include <simphash.h>
#include <stddef.h>
#include <stdlib.h>
#include <stimer.h>

struct object {
    struct hashtbl_link link;
    struct rb_node node;
};

static struct object objects[3];
struct hashtbl *table;
struct rb_root tree;
struct idpool *pool;
struct idtable_node *ids;
struct name2id_tbl *names;
struct simphash *simple;
struct database *db;
struct mcache *cache;
void *timers;
struct stimer *sorted;
struct atimer_context wheel;
struct atimer *coarse;
struct atimer_context broken;

void on_timeout(void *arg)
{
    (void)arg;
}

static uint32_t hash_of_record(void *record)
{
    return (uint32_t)(uintptr_t)record;
}

/* Nodes are linked in order of their addresses. */
static void link_node(struct rb_node *node)
{
    struct rb_node **slot = &tree.node, *parent = NULL;
    while (*slot != NULL) {
        parent = *slot;
        slot = &parent->right;
    }
    *node = (struct rb_node){(uintptr_t)parent, NULL, NULL};
    *slot = node;
    rb_insert_color(node, &tree);
}

void *kept;

/* Two blocks that full tracing records. */
__attribute__((noinline)) static void keep_some(void)
{
    kept = malloc(3000);
    void *second = malloc(1500);
    *(void **)kept = second;
}

__attribute__((noinline)) void all_made(void)
{
    __asm__ volatile("");
}

int main(int argc, char **argv)
{
    int id;
    (void)argv;
    table = hashtbl_init(4, offsetof(struct object, link), 0);
    pool = idpool_create("sessions", 10, 99);
    ids = idtable_alloc_table();
    names = name2id_tbl_create(4, 0);
    simple = simphash_create(4);
    db = db_create_database();
    db_create_database_index(db, hash_of_record);
    cache = mcache_create("objects", 40, NULL, 0, 1);
    stimer_context_init(&timers);
    atimer_init(&wheel, 2, 4);
    for (unsigned i = 0; i < 3; i++) {
        hashtbl_insert(table, i, &objects[i]);
        link_node(&objects[i].node);
        idpool_alloc_id(pool, &id);
        simphash_insert(simple, i, 100 + i);
        database_insert(db, &objects[i]);
    }
    idpool_alloc_specific_id(pool, 50);
    idtable16_insert_entry(ids, 7, 1);
    name2id_entry_insert(names, name2id_entry_create("trust", 7));
    name2id_entry_insert(names, name2id_entry_create("untrust", 8));
    mcache_alloc(cache);
    mcache_alloc(cache);
    start_stimer(sorted = create_stimer(&timers, 30, on_timeout, NULL));
    start_atimer(&wheel, coarse = create_atimer(40, on_timeout, NULL));
    start_atimer(&wheel, create_atimer(3, NULL, NULL));
    broken = wheel;
    broken.levels = (struct atimer_level *)8;
    qv_mtrace_start();
    keep_some();
    all_made();
    if (argc > 1)
        abort();
    return 0;
}
