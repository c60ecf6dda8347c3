// SPDX-License-Identifier: Apache-2.0
// rbtree.hpp - a typed view of the intrusive red-black tree for C++ hosts.
//
// The C functions leave the search to the caller; the view searches by a key function and an order, and supports
// range-for. A view holds only the C root, and the C functions may be used on get() too. Searches and walks are inline;
// the C functions balance.
//
//     struct route { unsigned prefix; rb_node node; };
//     qv::rb_tree<route, &route::node, &route::prefix> routes;
//     routes.insert(r);
//     for (route &r : routes) ...                            // by ascending prefix
//     route *found = routes.find(0x0A000000);
//     for (auto i = routes.iterator_to(routes.lower_bound(prefix)); i != routes.end(); )
//         i = is_stale(*i) ? routes.erase(i) : std::next(i);
//
// The key function and the order may throw; the tree is then as it was before the call.
#ifndef LIBCOMMON_CXX_RBTREE_HPP
#define LIBCOMMON_CXX_RBTREE_HPP

#include "../rbtree.h"
#include "member_object.hpp"

#include <concepts>
#include <cstddef>
#include <cstdint>
#include <functional>
#include <iterator>
#include <type_traits>
#include <utility>

namespace qv {

namespace detail {

using rb_child = rb_node *rb_node::*;

inline rb_node *rb_parent(const rb_node *node)
{
    constexpr std::uintptr_t kColorBits = 3;
    return reinterpret_cast<rb_node *>(node->parent_color & ~kColorBits);
}

// The last node on the path down one side; null for null.
template <rb_child Side>
rb_node *rb_outermost(rb_node *node)
{
    while (node != nullptr && node->*Side != nullptr)
        node = node->*Side;
    return node;
}

// The neighbour of a node that is in a tree: rb_next() with Forward the right child, rb_prev() with the left.
template <rb_child Forward, rb_child Back>
rb_node *rb_neighbour(rb_node *node)
{
    if (rb_node *below = node->*Forward; below != nullptr) {
        while (below->*Back != nullptr)
            below = below->*Back;
        return below;
    }
    // In this form the compiler keeps one copy of the climb, which walks large trees a quarter faster than a while loop
    // with its first round peeled off.
    for (;;) {
        rb_node *parent = rb_parent(node);
        if (parent == nullptr || parent->*Forward != node)
            return parent;
        node = parent;
    }
}

} // namespace detail

// Node is the pointer to the objects' rb_node, which may lie in a base class of T. Key is a member pointer or anything
// else that std::invoke() accepts with a const T &. Objects with equal keys keep their order of insertion. The tree
// does not own them; a tree that is destroyed while it holds objects does not touch them. Moving a tree invalidates its
// iterators.
template <typename T, auto Node, auto Key, typename Less = std::less<>>
requires detail::member_of<Node, rb_node, T>
class rb_tree {
public:
    template <typename U>
    class basic_iterator {
    public:
        using iterator_category = std::bidirectional_iterator_tag;
        using value_type = T;
        using difference_type = std::ptrdiff_t;
        using pointer = U *;
        using reference = U &;

        basic_iterator() = default;
        basic_iterator(rb_node *node, const rb_root *root) : node_(node), root_(root) {}
        // An iterator converts to a const_iterator.
        template <typename V>
        requires std::same_as<U, const V> basic_iterator(const basic_iterator<V> &other)
            : node_(other.node_), root_(other.root_)
        {}

        U &operator*() const { return *object_of(node_); }
        U *operator->() const { return object_of(node_); }
        basic_iterator &operator++()
        {
            node_ = detail::rb_neighbour<&rb_node::right, &rb_node::left>(node_);
            return *this;
        }
        basic_iterator operator++(int)
        {
            basic_iterator before = *this;
            ++*this;
            return before;
        }
        basic_iterator &operator--()
        {
            node_ = node_ != nullptr ? detail::rb_neighbour<&rb_node::left, &rb_node::right>(node_)
                                     : detail::rb_outermost<&rb_node::right>(root_->node);
            return *this;
        }
        basic_iterator operator--(int)
        {
            basic_iterator before = *this;
            --*this;
            return before;
        }
        friend bool operator==(const basic_iterator &a, const basic_iterator &b) { return a.node_ == b.node_; }

    private:
        friend rb_tree;
        template <typename>
        friend class basic_iterator;

        rb_node *node_ = nullptr; // null after the last
        const rb_root *root_ = nullptr;
    };
    using iterator = basic_iterator<T>;
    using const_iterator = basic_iterator<const T>;

    rb_tree() = default;
    rb_tree(rb_tree &&other) noexcept : root_(std::exchange(other.root_, {})) {}
    rb_tree &operator=(rb_tree &&other) noexcept
    {
        std::swap(root_, other.root_);
        return *this;
    }

    rb_root *get() { return &root_; }
    const rb_root *get() const { return &root_; }
    bool empty() const { return root_.node == nullptr; }

    iterator begin() { return {first(), &root_}; }
    iterator end() { return {nullptr, &root_}; }
    const_iterator begin() const { return {first(), &root_}; }
    const_iterator end() const { return {nullptr, &root_}; }
    const_iterator cbegin() const { return begin(); }
    const_iterator cend() const { return end(); }

    // The iterator at an object of this tree; of a search's result, end() for null.
    iterator iterator_to(T &object) { return {&(object.*Node), &root_}; }
    const_iterator iterator_to(const T &object) const { return {node_of(object), &root_}; }
    iterator iterator_to(T *found) { return found != nullptr ? iterator_to(*found) : end(); }
    const_iterator iterator_to(const T *found) const { return found != nullptr ? iterator_to(*found) : end(); }

    void insert(T &object)
    {
        rb_node *parent = nullptr;
        bool goes_left = false;
        for (rb_node *node = root_.node; node != nullptr;) {
            parent = node;
            goes_left = Less{}(key_of(object), key_of(*object_of(node)));
            node = goes_left ? node->left : node->right;
        }
        rb_node *node = &(object.*Node);
        *node = {reinterpret_cast<std::uintptr_t>(parent), nullptr, nullptr};
        (parent == nullptr ? root_.node : goes_left ? parent->left : parent->right) = node;
        rb_insert_color(node, &root_);
    }

    void erase(T &object) { rb_erase(&(object.*Node), &root_); }

    // Returns the iterator at the next object.
    iterator erase(const_iterator at)
    {
        iterator next = {detail::rb_neighbour<&rb_node::right, &rb_node::left>(at.node_), &root_};
        rb_erase(at.node_, &root_);
        return next;
    }

    // An object with the key, or null.
    template <typename K>
    T *find(const K &key)
    {
        return search(key);
    }
    template <typename K>
    const T *find(const K &key) const
    {
        return search(key);
    }

    // The first object whose key is not less, or null.
    template <typename K>
    T *lower_bound(const K &key)
    {
        return search_from(key);
    }
    template <typename K>
    const T *lower_bound(const K &key) const
    {
        return search_from(key);
    }

    // Empties the tree, then hands each object to release(object), which may free it, or insert it here again. Children
    // come before their parents. Objects that are left when release throws are in no tree.
    template <typename Release>
    requires std::invocable<Release &, T &>
    void clear(Release &&release)
    {
        const rb_root detached = std::exchange(root_, {});
        rb_node *next;
        for (rb_node *node = rb_first_postorder(&detached); node != nullptr; node = next) {
            next = rb_next_postorder(node);
            std::invoke(release, *object_of(node));
        }
    }

private:
    static decltype(auto) key_of(const T &object) { return std::invoke(Key, object); }
    static T *object_of(rb_node *node) { return detail::object_of<T, Node>(node); }
    // The tree may change nodes also through a const object.
    static rb_node *node_of(const T &object) { return &(const_cast<T &>(object).*Node); }

    rb_node *first() const { return detail::rb_outermost<&rb_node::left>(root_.node); }

    template <typename K>
    T *search(const K &key) const
    {
        for (rb_node *node = root_.node; node != nullptr;) {
            T *object = object_of(node);
            if (Less{}(key, key_of(*object)))
                node = node->left;
            else if (Less{}(key_of(*object), key))
                node = node->right;
            else
                return object;
        }
        return nullptr;
    }

    template <typename K>
    T *search_from(const K &key) const
    {
        T *found = nullptr;
        for (rb_node *node = root_.node; node != nullptr;) {
            T *object = object_of(node);
            if (Less{}(key_of(*object), key)) {
                node = node->right;
            } else {
                found = object;
                node = node->left;
            }
        }
        return found;
    }

    rb_root root_ = {};
};

namespace detail {

struct rb_sample {
    rb_node node;
    int key;
};
using rb_sample_tree = rb_tree<rb_sample, &rb_sample::node, &rb_sample::key>;
using rb_sample_iterator = rb_sample_tree::iterator;
using rb_sample_const_iterator = rb_sample_tree::const_iterator;

static_assert(std::bidirectional_iterator<rb_sample_iterator> && !std::random_access_iterator<rb_sample_iterator>);
static_assert(std::bidirectional_iterator<rb_sample_const_iterator>);
static_assert(std::sentinel_for<rb_sample_const_iterator, rb_sample_iterator>);
static_assert(std::convertible_to<rb_sample_iterator, rb_sample_const_iterator>);
static_assert(!std::convertible_to<rb_sample_const_iterator, rb_sample_iterator>);

} // namespace detail

} // namespace qv

#endif
