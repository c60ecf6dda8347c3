/* SPDX-License-Identifier: Apache-2.0 */
/* The records can be named without "struct" in C too. */
#include "atimer.h"
#include "backtrace.h"
#include "cp_rwlock.h"
#include "database.h"
#include "hashtbl.h"
#include "idpool.h"
#include "idtable.h"
#include "ip_addr.h"
#include "mcache.h"
#include "name2id.h"
#include "qv_mtrace.h"
#include "rbtree.h"
#include "sighandler.h"
#include "simphash.h"
#include "stimer.h"

struct records {
    atimer_bucket *bucket;
    atimer_level *level;
    atimer_context *context;
    atimer *tick_timer;
    section_record *section;
    qv_cp_rwlock *lock;
    database_node *node;
    database_bucket *chain;
    database_index *index;
    database *base;
    hashtbl_link *link;
    hashtbl *table;
    idpool *pool;
    idtable_node *slots;
    qv_addr_record *address;
    mcache *cache;
    name2id_entry *entry;
    name2id_tbl *names;
    name2id_key2 *key;
    leak_group *leaks;
    malloc_stat_entry *block;
    mtrace_class_row *row;
    mtrace_stat_record *report;
    rb_node *member;
    rb_root *root;
    crash_record *crash;
    simphash_entry *value;
    simphash *values;
    stimer *timer;
};
