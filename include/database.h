/* SPDX-License-Identifier: Apache-2.0 */
/* database.h - records that are found by several keys at once.
 *
 * A database is a list of indexes, each a hash table of 1,024 buckets with its own hash of a record. A record that is
 * inserted goes into every index and leaves every index when it is removed; a lookup goes through one of them. The
 * database never reads records, which belong to the caller.
 *
 *     struct database *sessions = db_create_database();
 *     struct database_index *by_name = db_create_database_index(sessions, hash_of_name);
 *     struct database_index *by_address = db_create_database_index(sessions, hash_of_address);
 *     database_insert(sessions, s);
 *     s = database_find(by_name, name_hash(name), has_name, name);
 *
 * Records with the same hash keep their order of insertion. An index that is added later does not hold earlier records;
 * indexes are removed only with the database. What an index hashes must not change while the
 * record is in. Not locked: callers that share a database serialise their calls. Not for signal handlers.
 */
#ifndef LIBCOMMON_DATABASE_H
#define LIBCOMMON_DATABASE_H

#include "libcommon_api.h"

#include <stdint.h>

QV_BEGIN_DECLS

/** A record's place in one index. */
typedef struct database_node {
    void *record;
    struct database_node *next;
    struct database_node **prev; /* the pointer that points here */
} database_node;

/** The records with one hash of an index. */
typedef struct database_bucket {
    struct database_node *first;
    struct database_node **last; /* the last node's next; first when empty */
} database_bucket;

/** An index: a hash table of the records by its own hash function. */
typedef struct database_index {
    struct database *db;
    uint32_t (*hash_fn)(void *record);
    struct database_bucket *buckets;
    uint32_t log_size; /* 10 */
    uint32_t mask;     /* 1023 */
    struct database_index *next_index;
} database_index;

/** A database: its indexes. */
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
 * Frees the database and its indexes. Nodes of records that are still in them leak: call database_remove_all() first.
 * @return 0, or -1 for null
 */
QV_API int db_destroy_database(struct database *db);

/**
 * Inserts a record into every index, or into none. A record may be inserted several times; database_remove() then
 * removes the oldest first.
 * @return 0; -1 when there is no memory: the database is then as it was before the call
 */
QV_API int database_insert(struct database *db, void *record);

/** Removes a record from every index. @return 0; -1 when an index did not hold it */
QV_API int database_remove(struct database *db, void *record);

/**
 * Searches one index.
 * @param hash   of the record, as the index's hash_fn returns it
 * @param match  returns non-zero for a record that matches the key
 * @return the first record that matches, or null
 */
QV_API void *database_find(struct database_index *index, uint32_t hash, int (*match)(void *record, void *key),
                           void *key);

/**
 * Removes all records from all indexes.
 * @param release  called with each record once for each index; may be null
 * @return -1 for a database with indexes, also on success; 0 for one without
 */
QV_API int database_remove_all(struct database *db, void (*release)(void *record));

/** database_insert() for one index, with a hash that the caller computed. @return 0; -1 when there is no memory */
QV_API int database_index_insert(struct database_index *index, void *record, uint32_t hash);

/** database_remove() for one index, with a hash that the caller computed. @return 0; -1 when the record is not in it */
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
