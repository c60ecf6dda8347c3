/* SPDX-License-Identifier: Apache-2.0 */
/* idtable.h - sparse tables from 16- and 32-bit identifiers to values the size of a pointer, never 0.
 *
 * An idtable16 is a tree of three levels of small tables, made when the first value goes into them and freed when the
 * last leaves. An idtable32 is an idtable16 over the high half of its keys, with an idtable16 over the low half as each
 * value. Both kinds have the same root; only the functions called with it differ.
 *
 *     idtable16:  root [16] ──> table2 [64] ──> table3 [64] ──> value        key bits 15-12, 11-6, 5-0
 *
 *     struct idtable_node *peers = idtable_alloc_table();
 *     idtable16_insert_entry(peers, port, (uintptr_t)peer);
 *     struct peer *p = (struct peer *)idtable16_find_entry(peers, port);
 *
 * A lookup is three (six) dependent loads. Key bits above a table's width are ignored. Values belong to the caller; a
 * value of 0 would count as stored and read as missing. Failures are reported through console_print(). Not locked:
 * callers that share a table serialise their calls. Not for signal handlers.
 */
#ifndef LIBCOMMON_IDTABLE_H
#define LIBCOMMON_IDTABLE_H

#include "libcommon_api.h"

#include <stdint.h>

QV_BEGIN_DECLS

/** A node of a table. */
typedef struct idtable_node {
    uint16_t size;  /* slots */
    uint16_t count; /* of them in use */
    uint32_t reserved;
    uintptr_t slots[1]; /* size of them: nodes of the next level, or values in the last; 0 when empty */
} idtable_node;

/* ---- tables ---- */

/**
 * Makes an empty node.
 * @param order  log2 of its slots, up to 15. Any other order gives a node without slots
 * @return the node, for free(); null when there is no memory
 */
QV_API struct idtable_node *idtable_alloc_table_internal(int order);

/** Makes an empty root, of either kind of table. @return the root, for idtable_free_table(); null without memory */
QV_API struct idtable_node *idtable_alloc_table(void);

/**
 * Frees an idtable16 with its inner nodes; values are not touched. An idtable32 must be empty: the tables of its low
 * halves are not freed. Null is ignored.
 */
QV_API void idtable_free_table(struct idtable_node *root);

/* ---- 16-bit keys ---- */

/** Stores a value under a key that has none. @return 0; -1 for a key that has one, or without memory */
QV_API int idtable16_insert_entry(struct idtable_node *root, unsigned key, uintptr_t value);

/** Removes a key's value. @return 0, or -1 when there is none */
QV_API int idtable16_remove_entry(struct idtable_node *root, unsigned key);

/** @return the value of a key, or 0 */
QV_API uintptr_t idtable16_find_entry(const struct idtable_node *root, unsigned key);

/**
 * Finds a value at the key or after it, with a limited range. The search ends in the first inner table that exists: it
 * covers that table's block of 64 keys, from the key's own place in its block. Later blocks are not searched.
 * @return a value, or 0
 */
QV_API uintptr_t idtable16_find_next_entry(const struct idtable_node *root, unsigned key);

/** Replaces the value of a key that has one. @return 0, or -1 when there is none */
QV_API int idtable16_update_entry(struct idtable_node *root, unsigned key, uintptr_t value);

/* ---- 32-bit keys: as above ---- */

/** As the functions of the same name for 16-bit keys. */
QV_API int idtable32_insert_entry(struct idtable_node *root, unsigned key, uintptr_t value);
QV_API int idtable32_remove_entry(struct idtable_node *root, unsigned key);

/** Removes a key's value. @return the value, or 0 when there was none */
QV_API uintptr_t idtable32_find_and_remove_entry(struct idtable_node *root, unsigned key);

/** @return the value of a key, or 0 */
QV_API uintptr_t idtable32_find_entry(const struct idtable_node *root, unsigned key);

/** idtable16_find_next_entry() in the table of the key's high half, then in the tables of the following high halves
 * from 0. */
QV_API uintptr_t idtable32_find_next_entry(const struct idtable_node *root, unsigned key);

/** Replaces the value of a key that has one. @return 0, or -1 when there is none */
QV_API int idtable32_update_entry(struct idtable_node *root, unsigned key, uintptr_t value);

QV_END_DECLS

#endif
