/* SPDX-License-Identifier: Apache-2.0 */
/* name2id.h - tables from names of up to 255 characters to 32-bit identifiers.
 *
 * Two families: the first keys on the name alone, the second (its functions end in 2) on the name and a scope number,
 * so that one name has an identifier in each scope. A table is a hash table over its entries for lookups and a list of
 * them in the order of insertion. An inserted entry belongs to the table, which frees it and its data block.
 *
 *     struct name2id_tbl *zones = name2id_tbl_create(8, 0);
 *     name2id_entry_insert(zones, name2id_entry_create("trust", 7));
 *     int id = name2id(zones->hashtbl, "trust");             // 7; -1 for an unknown name
 *     name2id_tbl_destory(zones);
 *
 * Lookups accept the inner hash table, the table's hashtbl field, not the table. Of two entries with the same key they
 * find the one inserted last. The key fields of an inserted entry must not change. Not locked: callers that share
 * a table serialise their calls.
 */
#ifndef LIBCOMMON_NAME2ID_H
#define LIBCOMMON_NAME2ID_H

#include "hashtbl.h"
#include "libcommon_api.h"

#include <stdint.h>

QV_BEGIN_DECLS

#define NAME2ID_NAME_SIZE 256 /* terminator included */

/** A name with its identifier. */
typedef struct name2id_entry {
    char name[NAME2ID_NAME_SIZE];
    uint32_t id;               /* first family: the identifier; second: the scope */
    uint32_t id2;              /* second family: the identifier */
    void *data;                /* the caller's; null at first */
    void (*data_free)(void *); /* releases data; free() at first, and when null */
    struct name2id_entry *next;
    struct name2id_entry **prev; /* the pointer that points here */
    struct hashtbl_link link;
} name2id_entry;

/** A table: the list of its entries, and a hash table that finds them by name. */
typedef struct name2id_tbl {
    struct name2id_entry *first;
    struct name2id_entry **last; /* the last entry's next; first when empty */
    struct hashtbl *hashtbl;
} name2id_tbl;

/* What name2id_comp2() compares with. */
typedef struct name2id_key2 {
    const char *name;
    uint32_t scope;
} name2id_key2;

/* ---- names alone ---- */

/** A hash table for entries, as hashtbl_init() makes it. @return the table or null */
QV_API struct hashtbl *create_name2id_hash_tbl(unsigned log_size, int flag);

/**
 * Makes an empty table.
 * @param log_size  0 to 20: two to its power is the number of buckets; see qv_hashtbl_get_log2()
 * @param flag      kept in the hash table as 0 or 1
 * @return the table, for name2id_tbl_destory(), or null
 */
QV_API struct name2id_tbl *name2id_tbl_create(unsigned log_size, int flag);

/** Releases every entry's data, in the order of insertion, and frees the entries and the table. Null is ignored. */
QV_API void name2id_tbl_destory(struct name2id_tbl *table);

/** Makes an entry; the name is cut to 255 characters. Until it is inserted the caller owns it, for free(). */
QV_API struct name2id_entry *name2id_entry_create(const char *name, unsigned id);

/** Hands an entry over to the table. @return 0; -1 for null arguments */
QV_API int name2id_entry_insert(struct name2id_tbl *table, struct name2id_entry *entry);

/** @return the entry of a name or null */
QV_API struct name2id_entry *name2id_entry_find(struct hashtbl *index, const char *name);

/** @return the identifier of a name; -1 (all ones) when there is none */
QV_API int name2id(struct hashtbl *index, const char *name);

/**
 * Removes an entry from the table, releases its data and frees it. The data's function may search the table, where the
 * entry is no longer found. An entry that is not in this table is ignored.
 * @return 0; -1 for null arguments
 */
QV_API int name2id_entry_remove(struct name2id_tbl *table, struct name2id_entry *entry);

/** The hash of len bytes of a name: that of qv_string_hash(). */
QV_API unsigned name2id_string_hash(const char *data, int len);

/** 1 if both names are given and equal, else 0. */
QV_API int name2id_comp(const char *entry_name, const char *name);

/* ---- names in scopes ---- */

/** As the functions above, for names in scopes: each scope may give the same name another identifier. */
QV_API struct hashtbl *create_name2id_hash_tbl2(unsigned log_size, int flag);
QV_API struct name2id_tbl *name2id_tbl_create2(unsigned log_size, int flag);
QV_API void name2id_tbl_destory2(struct name2id_tbl *table);
QV_API struct name2id_entry *name2id_entry_create2(const char *name, unsigned scope, unsigned id);
QV_API int name2id_entry_insert2(struct name2id_tbl *table, struct name2id_entry *entry);
QV_API struct name2id_entry *name2id_entry_find2(struct hashtbl *index, const char *name, unsigned scope);
QV_API int name2id2(struct hashtbl *index, const char *name, unsigned scope);
QV_API int name2id_entry_remove2(struct name2id_tbl *table, struct name2id_entry *entry);

/**
 * 1 if both are given, the names are equal and the entry is of the key's scope, else 0.
 * @param entry_name  the name field of a struct name2id_entry, whose id is read too
 * @param key         a struct name2id_key2
 */
QV_API int name2id_comp2(const char *entry_name, const void *key);

QV_END_DECLS

#endif
