/* SPDX-License-Identifier: Apache-2.0 */
/* database.h - records that are found by several keys at once.
 *
 * A database is a list of indexes, each a hash table of 1,024 buckets with its own hash of a record. A record that is
 * inserted goes into every index and leaves every index when it is removed; a lookup goes through one of them. The
 * database never looks into records, which stay the caller's.
 *
 *     struct database *sessions = db_create_database();
 *     struct database_index *by_name = db_create_database_index(sessions, hash_of_name);
 *     struct database_index *by_address = db_create_database_index(sessions, hash_of_address);
 *     database_insert(sessions, s);
 *     s = database_find(by_name, name_hash(name), has_name, name);
 *
 * Records with the same hash keep their order of insertion. An index that is added later does not hold the records
 * that are already there; no index is removed but with the database. What an index hashes must not change while the
 * record is in. Not locked: callers that share a database serialise their calls. Not for signal handlers.
 */
#ifndef LIBCOMMON_DATABASE_H
#define LIBCOMMON_DATABASE_H

#include "libcommon_api.h"

#include <stdint.h>

QV_BEGIN_DECLS

typedef struct database_node {
    void *record;
    struct database_node *next;
    struct database_node **prev; /* the pointer that points here */
} database_node;

typedef struct database_bucket {
    struct database_node *first;
    struct database_node **last; /* the last node's next; first when empty */
} database_bucket;

typedef struct database_index {
    struct database *db;
    uint32_t (*hash_fn)(void *record);
    struct database_bucket *buckets;
    uint32_t log_size; /* 10 */
    uint32_t mask;     /* 1023 */
    struct database_index *next_index;
} database_index;

typedef struct database {
    struct database_index *indexes; /* the newest first; null when there is none */
} database;

/** Makes a database without an index. @return the database, or null when there is no memory */
QV_API struct database *db_create_database(void);

/**
 * Adds an empty index.
 * @param hash_fn  the index's hash of a record
 * @return the index, which the database owns; null when there is no memory
 */
QV_API struct database_index *db_create_database_index(struct database *db, uint32_t (*hash_fn)(void *record));

/**
 * Frees the database and its indexes. What holds records in them is not freed: empty the database first, with
 * database_remove_all().
 * @return 0, or -1 for null
 */
QV_API int db_destroy_database(struct database *db);

/**
 * Puts a record into every index, or into none. A record may be put in several times; database_remove() then takes the
 * oldest out first.
 * @return 0; -1 when there is no memory: the database is then as it was before the call
 */
QV_API int database_insert(struct database *db, void *record);

/** Takes a record out of every index. @return 0; -1 when an index did not hold it */
QV_API int database_remove(struct database *db, void *record);

/**
 * Looks through one index.
 * @param hash   of the record that is sought, as the index's hash_fn would give it
 * @param match  non-zero for the record that the key stands for
 * @return the first record that matches, or null
 */
QV_API void *database_find(struct database_index *index, uint32_t hash, int (*match)(void *record, void *key),
                           void *key);

/**
 * Takes all records out of all indexes.
 * @param release  called with each record once for each index; may be null
 * @return -1 for a database with indexes, though all went well; 0 for one without
 */
QV_API int database_remove_all(struct database *db, void (*release)(void *record));

/** database_insert() for one index, under a hash that the caller has. @return 0; -1 when there is no memory */
QV_API int database_index_insert(struct database_index *index, void *record, uint32_t hash);

/** database_remove() for one index, under a hash that the caller has. @return 0; -1 when the record is not there */
QV_API int database_index_remove(struct database_index *index, void *record, uint32_t hash);

/** database_remove_all() for one index. @return -1, always */
QV_API int database_index_remove_all(struct database_index *index, void (*release)(void *record));

/**
 * Visits the records of an index: bucket after bucket, each in the order of insertion.
 * @param visit  may be null; must not remove records
 * @return 0
 */
QV_API int database_index_walk_all(struct database_index *index, void (*visit)(void *record));

QV_END_DECLS

#endif
