// SPDX-License-Identifier: Apache-2.0
// An implicit 4-ary heap of element pointers.
//
// Comparing two elements touches both, and in a large heap each is a cache miss; those misses are what an operation
// costs. Four children a node halve the depth, and the four are fetched at once while something else is looked at.
#include "heap.h"

#include <algorithm>
#include <climits>
#include <cstddef>
#include <cstdlib>

namespace {

constexpr std::size_t kArity = 4;

struct heap {
    heap_higher_priority_fn higher_priority;
    heap_set_index_fn set_index;
    void **elements; // in heap order: no element comes before its parent. Position p is elements[p - 1]
    std::size_t count;
    std::size_t capacity;
};

constexpr std::size_t parent_of(std::size_t i)
{
    return (i - 1) / kArity;
}

constexpr std::size_t first_child_of(std::size_t i)
{
    return i * kArity + 1;
}

void place(heap &h, std::size_t i, void *element)
{
    h.elements[i] = element;
    h.set_index(element, static_cast<unsigned>(i + 1));
}

// Moves the hole at i up until element may stand in it; returns where that is.
std::size_t hole_up(heap &h, std::size_t i, const void *element)
{
    while (i > 0 && h.higher_priority(element, h.elements[parent_of(i)]) != 0) {
        place(h, i, h.elements[parent_of(i)]);
        i = parent_of(i);
    }
    return i;
}

void prefetch_children(const heap &h, std::size_t i)
{
    std::size_t end = std::min(first_child_of(i) + kArity, h.count);
    for (std::size_t child = first_child_of(i); child < end; child++)
        __builtin_prefetch(h.elements[child]);
}

std::size_t earliest_child(const heap &h, std::size_t first)
{
    std::size_t end = std::min(first + kArity, h.count);
    std::size_t best = first;
    for (std::size_t i = first + 1; i < end; i++) {
        if (h.higher_priority(h.elements[i], h.elements[best]) != 0)
            best = i;
    }
    return best;
}

// Moves the hole at i down to a leaf. What is to fill it was a leaf before and will hardly stay higher up, so comparing
// with that on the way costs more than moving it up again from there.
std::size_t hole_down(heap &h, std::size_t i)
{
    for (std::size_t first; (first = first_child_of(i)) < h.count;) {
        std::size_t child = earliest_child(h, first);
        prefetch_children(h, child);
        place(h, i, h.elements[child]);
        i = child;
    }
    return i;
}

bool make_room(heap &h)
{
    if (h.count < h.capacity)
        return true;
    if (h.count >= UINT_MAX) // positions would no longer fit
        return false;
    std::size_t capacity = h.capacity * 2;
    auto *grown = static_cast<void **>(std::realloc(h.elements, capacity * sizeof(void *)));
    if (grown == nullptr)
        return false;
    h.elements = grown;
    h.capacity = capacity;
    return true;
}

} // namespace

extern "C" {

void *__heap_new(heap_higher_priority_fn higher_priority, heap_set_index_fn set_index, unsigned int initial_size)
{
    std::size_t capacity = std::max(initial_size, 1U);
    auto *h = static_cast<heap *>(std::malloc(sizeof(heap)));
    auto *elements = static_cast<void **>(std::malloc(capacity * sizeof(void *)));
    if (h == nullptr || elements == nullptr) {
        std::free(h);
        std::free(elements);
        return nullptr;
    }
    *h = {higher_priority, set_index, elements, 0, capacity};
    return h;
}

int __heap_insert(void *handle, void *element)
{
    auto *h = static_cast<heap *>(handle);
    if (h == nullptr || !make_room(*h))
        return -1;
    std::size_t last = h->count++;
    place(*h, hole_up(*h, last, element), element);
    return 0;
}

int __heap_delete(void *handle, unsigned int position)
{
    auto *h = static_cast<heap *>(handle);
    if (h == nullptr || position == 0 || position > h->count)
        return -1;
    std::size_t hole = position - 1;
    void *moved = h->elements[--h->count];
    if (hole == h->count)
        return 0;
    prefetch_children(*h, hole);
    std::size_t found = hole_up(*h, hole, moved);
    if (found == hole)
        found = hole_up(*h, hole_down(*h, hole), moved);
    place(*h, found, moved);
    return 0;
}

void *__heap_element(void *handle, unsigned int position)
{
    auto *h = static_cast<heap *>(handle);
    if (h == nullptr || position > h->count || h->count == 0)
        return nullptr;
    return h->elements[position == 0 ? 0 : position - 1];
}

void __heap_free(void *handle)
{
    auto *h = static_cast<heap *>(handle);
    if (h == nullptr)
        return;
    std::free(h->elements);
    std::free(h);
}
}
