/* SPDX-License-Identifier: Apache-2.0 */
/* rbtree.h - an intrusive red-black tree: balancing, erasing and walking.
 *
 * A node is embedded in the caller's object. The tree neither compares keys nor allocates: the caller searches, links
 * the new leaf and has the tree rebalanced.
 *
 *     struct rb_node **slot = &tree.node, *parent = NULL;
 *     while (*slot != NULL) {
 *         parent = *slot;
 *         slot = key < object_of(parent)->key ? &parent->left : &parent->right;
 *     }
 *     object->node = (struct rb_node){(uintptr_t)parent, NULL, NULL};      // red: bit 0 is clear
 *     *slot = &object->node;
 *     rb_insert_color(&object->node, &tree);
 *
 * Insertion and erasing cost O(log n) and at most three rotations; a whole walk costs O(n). A node whose parent_color
 * holds its own address counts as being in no tree. Not locked: callers that share a tree serialise their
 * calls.
 */
#ifndef LIBCOMMON_RBTREE_H
#define LIBCOMMON_RBTREE_H

#include "libcommon_api.h"

#include <stdint.h>

QV_BEGIN_DECLS

/** An object's place in a tree: a member of the object. */
typedef struct rb_node {
    uintptr_t parent_color; /* the parent's address, null for the root; bit 0: 0 red, 1 black; bit 1 is 0 */
    struct rb_node *right;
    struct rb_node *left;
} rb_node;

/** A tree. */
typedef struct rb_root {
    struct rb_node *node; /* null when the tree is empty */
} rb_root;

/** Restores the balance after the caller has linked a red leaf. */
QV_API void rb_insert_color(struct rb_node *node, struct rb_root *root);

/** Removes a node. Only links of other nodes change; its own fields are unchanged. */
QV_API void rb_erase(struct rb_node *node, struct rb_root *root);

/** The leftmost and the rightmost node; null for an empty tree. */
QV_API struct rb_node *rb_first(const struct rb_root *root);
QV_API struct rb_node *rb_last(const struct rb_root *root);

/** The node after or before in order; null at the end, or for a node that is in no tree. */
QV_API struct rb_node *rb_next(const struct rb_node *node);
QV_API struct rb_node *rb_prev(const struct rb_node *node);

/**
 * Replaces a node by another, without rebalancing. The caller ensures that the order still holds.
 * @param replacement  receives all fields of old, which stay unchanged
 */
QV_API void rb_replace_node(const struct rb_node *old, struct rb_node *replacement, struct rb_root *root);

/**
 * Postorder walk: every node comes after its children, so each may be freed once the next is known.
 *
 *     for (n = rb_first_postorder(&tree); n != NULL; n = next) { next = rb_next_postorder(n); free(object_of(n)); }
 *
 * @return the first node, the next one; null for an empty tree, after the root, and for null
 */
QV_API struct rb_node *rb_first_postorder(const struct rb_root *root);
QV_API struct rb_node *rb_next_postorder(const struct rb_node *node);

/** Move a node down to the left (right) and its right (left) child up into its place. Balancing uses only these. */
QV_API void __rb_rotate_left(struct rb_node *node, struct rb_root *root);
QV_API void __rb_rotate_right(struct rb_node *node, struct rb_root *root);

QV_END_DECLS

#endif
