// SPDX-License-Identifier: Apache-2.0
// The red-black tree. The root is black, no red node has a red child, and all paths from a node down to its missing
// children hold the same number of black nodes.
//
// Each rotation and each repair exists in two mirrored forms. They are written once, as templates over a Near and a Far
// side.
#include "rbtree.h"

#include <cstddef>
#include <cstdint>

static_assert(offsetof(rb_node, right) == 8 && offsetof(rb_node, left) == 16 && sizeof(rb_node) == 24);

namespace {

constexpr std::uintptr_t kRed = 0;
constexpr std::uintptr_t kBlack = 1;
constexpr std::uintptr_t kColorBits = 3;

using child = rb_node *rb_node::*;

rb_node *parent_of(const rb_node *node)
{
    return reinterpret_cast<rb_node *>(node->parent_color & ~kColorBits);
}

void set_parent(rb_node *node, const rb_node *parent)
{
    node->parent_color = reinterpret_cast<std::uintptr_t>(parent) | (node->parent_color & kColorBits);
}

bool is_red(const rb_node *node)
{
    return (node->parent_color & kBlack) == 0;
}

// A missing child counts as black.
bool is_black(const rb_node *node)
{
    return node == nullptr || !is_red(node);
}

void set_red(rb_node *node)
{
    node->parent_color &= ~kBlack;
}

void set_black(rb_node *node)
{
    // NOLINTNEXTLINE(clang-analyzer-core.NullDereference): settle_short() passes a child after it found it red
    node->parent_color |= kBlack;
}

void copy_color(rb_node *to, const rb_node *from)
{
    to->parent_color = (to->parent_color & ~kBlack) | (from->parent_color & kBlack);
}

// Replaces the child `before` of parent by `now`. A null parent means that `before` is the root.
void replace_child(rb_node *parent, const rb_node *before, rb_node *now, rb_root *root)
{
    if (parent == nullptr)
        root->node = now;
    else if (parent->left == before)
        parent->left = now;
    else
        parent->right = now;
}

// Sets the parent and the color, whatever they were.
void link_up(rb_node *node, const rb_node *parent, std::uintptr_t color)
{
    node->parent_color = reinterpret_cast<std::uintptr_t>(parent) | color;
}

// Makes a black or missing node the child of parent.
template <child Side>
void hang(rb_node *parent, rb_node *below)
{
    parent->*Side = below;
    if (below != nullptr)
        link_up(below, parent, kBlack);
}

template <child Side>
rb_node *outermost(rb_node *node)
{
    while (node != nullptr && node->*Side != nullptr)
        node = node->*Side;
    return node;
}

// Moves the node down to the near side and its far child up into its place.
template <child Near, child Far>
void rotate(rb_node *node, rb_root *root)
{
    rb_node *up = node->*Far;
    rb_node *parent = parent_of(node);
    node->*Far = up->*Near;
    if (up->*Near != nullptr)
        set_parent(up->*Near, node);
    up->*Near = node;
    set_parent(node, up);
    set_parent(up, parent);
    replace_child(parent, node, up, root);
}

// Repairs a red node with a red parent, which is the near child of the black grandparent. Returns the node that may now
// have a red parent, or null when the tree is in order. All colors are known here, so links and colors are stored
// together and not read back.
template <child Near, child Far>
rb_node *settle_red(rb_node *node, rb_node *parent, rb_node *grandparent, rb_root *root)
{
    rb_node *great = parent_of(grandparent);
    rb_node *uncle = grandparent->*Far;
    if (uncle != nullptr && is_red(uncle)) {
        link_up(uncle, grandparent, kBlack);
        link_up(parent, grandparent, kBlack);
        link_up(grandparent, great, kRed);
        return grandparent;
    }
    if (parent->*Far == node) {
        // A first rotation puts node above its parent.
        hang<Far>(parent, node->*Near);
        node->*Near = parent;
        link_up(parent, node, kRed);
        parent = node;
    }
    hang<Near>(grandparent, parent->*Far);
    parent->*Far = grandparent;
    link_up(grandparent, parent, kRed);
    link_up(parent, great, kBlack);
    replace_child(great, grandparent, parent, root);
    return nullptr;
}

// The other child of a node whose near side lacks a black node. It exists: the far side has that many black nodes.
template <child Far>
rb_node *sibling_of_short(rb_node *parent)
{
    rb_node *sibling = parent->*Far;
    if (sibling == nullptr)
        __builtin_unreachable();
    return sibling;
}

// Repairs the paths through the parent's near child, which lack one black node. Returns true when the tree is in order;
// otherwise all paths through the parent now lack one.
template <child Near, child Far>
bool settle_short(rb_node *parent, rb_root *root)
{
    rb_node *sibling = sibling_of_short<Far>(parent);
    if (is_red(sibling)) {
        set_black(sibling);
        set_red(parent);
        rotate<Near, Far>(parent, root);
        sibling = sibling_of_short<Far>(parent);
    }
    if (is_black(sibling->*Near) && is_black(sibling->*Far)) {
        set_red(sibling);
        return false;
    }
    if (is_black(sibling->*Far)) {
        set_black(sibling->*Near);
        set_red(sibling);
        rotate<Far, Near>(sibling, root);
        sibling = sibling_of_short<Far>(parent);
    }
    copy_color(sibling, parent);
    set_black(parent);
    set_black(sibling->*Far);
    rotate<Near, Far>(parent, root);
    return true;
}

// Repairs the paths through node, which lack one black node. node is a child of parent and may be null.
void rebalance_short(rb_node *node, rb_node *parent, rb_root *root)
{
    while (parent != nullptr && is_black(node)) {
        bool settled = parent->left == node ? settle_short<&rb_node::left, &rb_node::right>(parent, root)
                                            : settle_short<&rb_node::right, &rb_node::left>(parent, root);
        if (settled)
            return;
        node = parent;
        parent = parent_of(node);
    }
    if (node != nullptr)
        set_black(node);
}

// Unlinks a node that has at most one child.
void unlink_single(rb_node *node, rb_root *root)
{
    rb_node *below = node->left != nullptr ? node->left : node->right;
    rb_node *parent = parent_of(node);
    if (below != nullptr)
        set_parent(below, parent);
    replace_child(parent, node, below, root);
    if (!is_red(node))
        rebalance_short(below, parent, root);
}

// Unlinks a node that has two children. Its successor, which has no left child, replaces it. The links change, not the
// contents, because callers point at the objects.
void unlink_double(rb_node *node, rb_root *root)
{
    rb_node *successor = outermost<&rb_node::left>(node->right);
    rb_node *below = successor->right;
    rb_node *parent = parent_of(successor);
    bool was_black = !is_red(successor);
    if (parent == node) {
        parent = successor;
    } else {
        if (below != nullptr)
            set_parent(below, parent);
        parent->left = below;
        successor->right = node->right;
        set_parent(node->right, successor);
    }
    successor->left = node->left;
    set_parent(node->left, successor);
    successor->parent_color = node->parent_color;
    replace_child(parent_of(node), node, successor, root);
    if (was_black)
        rebalance_short(below, parent, root);
}

// The in-order successor when Forward is the right child, the predecessor when it is the left.
template <child Forward, child Back>
rb_node *neighbour(const rb_node *node)
{
    if (parent_of(node) == node)
        return nullptr;
    if (node->*Forward != nullptr)
        return outermost<Back>(node->*Forward);
    for (;;) {
        rb_node *parent = parent_of(node);
        if (parent == nullptr || parent->*Forward != node)
            return parent;
        node = parent;
    }
}

// Down to a leaf, left where possible.
rb_node *first_leaf(rb_node *node)
{
    while (node != nullptr) {
        rb_node *below = node->left != nullptr ? node->left : node->right;
        if (below == nullptr)
            break;
        node = below;
    }
    return node;
}

} // namespace

extern "C" {

void rb_insert_color(struct rb_node *node, struct rb_root *root)
{
    while (node != nullptr) {
        rb_node *parent = parent_of(node);
        rb_node *grandparent = parent != nullptr ? parent_of(parent) : nullptr;
        if (grandparent == nullptr || !is_red(parent))
            break;
        node = grandparent->left == parent
                   ? settle_red<&rb_node::left, &rb_node::right>(node, parent, grandparent, root)
                   : settle_red<&rb_node::right, &rb_node::left>(node, parent, grandparent, root);
    }
    set_black(root->node);
}

void rb_erase(struct rb_node *node, struct rb_root *root)
{
    if (node->left != nullptr && node->right != nullptr)
        unlink_double(node, root);
    else
        unlink_single(node, root);
}

struct rb_node *rb_first(const struct rb_root *root)
{
    return outermost<&rb_node::left>(root->node);
}

struct rb_node *rb_last(const struct rb_root *root)
{
    return outermost<&rb_node::right>(root->node);
}

struct rb_node *rb_next(const struct rb_node *node)
{
    return neighbour<&rb_node::right, &rb_node::left>(node);
}

struct rb_node *rb_prev(const struct rb_node *node)
{
    return neighbour<&rb_node::left, &rb_node::right>(node);
}

void rb_replace_node(const struct rb_node *old, struct rb_node *replacement, struct rb_root *root)
{
    replace_child(parent_of(old), old, replacement, root);
    if (old->left != nullptr)
        set_parent(old->left, replacement);
    if (old->right != nullptr)
        set_parent(old->right, replacement);
    *replacement = *old;
}

struct rb_node *rb_first_postorder(const struct rb_root *root)
{
    return first_leaf(root->node);
}

struct rb_node *rb_next_postorder(const struct rb_node *node)
{
    if (node == nullptr)
        return nullptr;
    rb_node *parent = parent_of(node);
    if (parent != nullptr && parent->left == node && parent->right != nullptr)
        return first_leaf(parent->right);
    return parent;
}

void __rb_rotate_left(struct rb_node *node, struct rb_root *root)
{
    rotate<&rb_node::left, &rb_node::right>(node, root);
}

void __rb_rotate_right(struct rb_node *node, struct rb_root *root)
{
    rotate<&rb_node::right, &rb_node::left>(node, root);
}

} // extern "C"
