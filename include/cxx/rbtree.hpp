// SPDX-License-Identifier: Apache-2.0
// rbtree.hpp - a typed view of the intrusive red-black tree for C++ hosts.
//
// The search, which the C functions leave to the caller, by a key function and an order; walking by range-for. Nothing
// is kept besides the C root; balancing and walking are the C functions.
//
//     struct route { unsigned prefix; rb_node node; };
//     qv::rb_tree<route, &route::node, &route::prefix> routes;
//     routes.insert(r);
//     for (route &r : routes) ...                            // by ascending prefix
//     route *found = routes.find(0x0A000000);
#ifndef LIBCOMMON_CXX_RBTREE_HPP
#define LIBCOMMON_CXX_RBTREE_HPP

#include "../rbtree.h"

#include <cstddef>
#include <cstdint>
#include <functional>
#include <iterator>
#include <utility>

namespace qv {

// Key is a member pointer or anything else that std::invoke() takes with a const T &. Objects with equal keys keep
// their order of insertion. The tree does not own them; one that is destroyed while it holds objects just forgets them.
template <typename T, rb_node T::*Node, auto Key, typename Less = std::less<>>
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
        U &operator*() const { return *object_of(node_); }
        U *operator->() const { return object_of(node_); }
        basic_iterator &operator++() { return node_ = rb_next(node_), *this; }
        basic_iterator operator++(int) { return std::exchange(*this, basic_iterator(rb_next(node_), root_)); }
        basic_iterator &operator--() { return node_ = node_ != nullptr ? rb_prev(node_) : rb_last(root_), *this; }
        basic_iterator operator--(int)
        {
            basic_iterator before = *this;
            --*this;
            return before;
        }
        bool operator==(const basic_iterator &other) const { return node_ == other.node_; }

    private:
        rb_node *node_ = nullptr; // null behind the last
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
    bool empty() const { return root_.node == nullptr; }

    iterator begin() { return {rb_first(&root_), &root_}; }
    iterator end() { return {nullptr, &root_}; }
    const_iterator begin() const { return {rb_first(&root_), &root_}; }
    const_iterator end() const { return {nullptr, &root_}; }

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

    // An object with the key, or null.
    template <typename K>
    T *find(const K &key) const
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

    // The first object whose key is not less, or null.
    template <typename K>
    T *lower_bound(const K &key) const
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

    // Empties the tree, handing each object to release(T &), which may free it.
    template <typename Release>
    void clear(Release &&release)
    {
        rb_node *next;
        for (rb_node *node = rb_first_postorder(&root_); node != nullptr; node = next) {
            next = rb_next_postorder(node);
            release(*object_of(node));
        }
        root_ = {};
    }

private:
    static decltype(auto) key_of(const T &object) { return std::invoke(Key, object); }

    static T *object_of(rb_node *node)
    {
        alignas(T) static char room[sizeof(T)];
        auto offset = reinterpret_cast<char *>(&(reinterpret_cast<T *>(room)->*Node)) - room;
        return reinterpret_cast<T *>(reinterpret_cast<char *>(node) - offset);
    }

    rb_root root_ = {};
};

} // namespace qv

#endif
