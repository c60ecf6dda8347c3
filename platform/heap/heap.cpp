// SPDX-License-Identifier: Apache-2.0
// An implicit 4-ary heap of element pointers, ordered by a callback or by a time inside the elements.
//
// Comparing two elements by a callback touches both, and in a large heap each is a cache miss; those misses are what an
// operation costs. Four children a node halve the depth, and the four are fetched at once while something else is read.
//
// A keyed heap keeps a 64-bit rank of the element's time beside the pointer, so that a comparison touches the heap's
// own array only, and stores positions itself. A node's four children share one cache line:
//
//     slot    0    1    2     3      4     5     6     7      8 ...
//           [ -  | -  | -  | root ][ c1  | c2  | c3  | c4  ][ c1's children ...
//           ^ cache line            ^ cache line             ^ cache line
//
// A keyed heap sorts late. A new element that is not the earliest waits at the end, unsorted. If it is deleted there,
// at most one other element moves. When an element in heap order is deleted, the last unsorted one fills its place, so
// that re-arming sifts once instead of twice. All are sorted before the earliest one leaves.
//
//     [ root ... in heap order ... | unsorted, none before the root ]
//                                  ^ sorted                         ^ count
#include "heap.h"

#include "time/timeval.h"

#include <algorithm>
#include <climits>
#include <cstddef>
#include <cstdint>
#include <cstdlib>
#include <cstring>
#include <sys/time.h>

using namespace qv;

extern "C" {

// This library's five functions, whatever the process binds their names to.
[[gnu::alias("__heap_new"), gnu::visibility("hidden")]] decltype(__heap_new) own_new;
[[gnu::alias("__heap_insert"), gnu::visibility("hidden")]] decltype(__heap_insert) own_insert;
[[gnu::alias("__heap_delete"), gnu::visibility("hidden")]] decltype(__heap_delete) own_delete;
[[gnu::alias("__heap_element"), gnu::visibility("hidden")]] decltype(__heap_element) own_element;
[[gnu::alias("__heap_free"), gnu::visibility("hidden")]] decltype(__heap_free) own_free;
}

namespace {

constexpr std::size_t kArity = 4;
constexpr std::size_t kCacheLine = 64;
constexpr std::size_t kMaxUnsorted = 64;      // bounds the work of one call
constexpr std::size_t kRootSlot = kArity - 1; // puts every group of siblings at a multiple of four slots

// A value that the compiler knows nothing about.
template <typename Value>
Value opaque(Value value)
{
    asm("" : "+r"(value));
    return value;
}

struct heap {
    heap_higher_priority_fn higher_priority = nullptr; // null in a keyed heap
    heap_set_index_fn set_index = nullptr;
    heap_layout layout = {};  // of a keyed heap's elements
    bool ranks_decide = true; // keyed: no two different times in the heap share a rank
    void *block = nullptr;    // the allocation that holds nodes
    void *nodes = nullptr;    // nodes[p - 1] is at position p. Of those in heap order none comes before its parent
    std::size_t count = 0;
    std::size_t capacity = 0;
    std::size_t sorted = 0; // keyed: the number of nodes in heap order. None of the others comes before the root
};

// ---- ranks ----
//
// A rank orders as the time does: a smaller time never has the larger rank. Seconds of 43 bits above microseconds of 21
// bits; both fields keep their ends for what does not fit, so that only there different times share a rank.

constexpr int kMicrosecondBits = 21;
constexpr std::int64_t kMicrosecondsEnd = (std::int64_t{1} << kMicrosecondBits) - 1;
constexpr std::int64_t kSecondsOffset = std::int64_t{1} << (62 - kMicrosecondBits + 1);

const timeval &time_of(const void *element, std::size_t offset)
{
    return *reinterpret_cast<const timeval *>(static_cast<const char *>(element) + offset);
}

struct rank {
    std::uint64_t value;
    bool exact; // no other time has this value
};

// The ends of the fields.
[[gnu::cold, gnu::noinline]] rank shared_rank_of(const timeval &time)
{
    if (time.tv_sec <= -kSecondsOffset)
        return {0, false};
    if (time.tv_sec >= kSecondsOffset - 1)
        return {UINT64_MAX, false};
    std::uint64_t seconds = static_cast<std::uint64_t>(time.tv_sec + kSecondsOffset) << kMicrosecondBits;
    return {time.tv_usec < 0 ? seconds : seconds + kMicrosecondsEnd, false};
}

rank rank_of(const timeval &time)
{
    // Both fields from 1 on, so that one unsigned comparison each finds what does not fit.
    std::uint64_t seconds = static_cast<std::uint64_t>(time.tv_sec) + kSecondsOffset;
    std::uint64_t microseconds = static_cast<std::uint64_t>(time.tv_usec) + 1;
    if (seconds - 1 >= 2 * kSecondsOffset - 2 || microseconds - 1 >= kMicrosecondsEnd - 1)
        return shared_rank_of(time);
    return {(seconds << kMicrosecondBits) + microseconds, true};
}

// ---- the three orders ----
//
// Each names the node it works on, how two of them compare, what placing one entails and what to fetch ahead of a
// comparison. They hold copies of what they need of the heap, since the compiler takes every store of a position for
// one that may change it.

struct by_callback {
    using node = void *;
    static constexpr bool kCheap = false;

    heap_higher_priority_fn higher_priority;
    heap_set_index_fn set_index;

    explicit by_callback(const heap &h) : higher_priority(h.higher_priority), set_index(h.set_index) {}

    bool before(const void *a, const void *b) const { return higher_priority(a, b) != 0; }
    void placed(node n, std::size_t i) const { set_index(n, static_cast<unsigned>(i + 1)); }

    // The elements of the children.
    void fetch_ahead(const node *nodes, std::size_t first, std::size_t count) const
    {
        std::size_t end = std::min(first + kArity, count);
        for (std::size_t child = first; child < end; child++)
            __builtin_prefetch(nodes[child]);
    }
};

struct keyed_node {
    std::uint64_t rank;
    void *element;
};

struct by_rank {
    using node = keyed_node;
    static constexpr bool kCheap = true;

    std::size_t position_offset;
    unsigned first_position;

    explicit by_rank(const heap &h)
        : position_offset(h.layout.position_offset), first_position(1 + h.layout.position_bias)
    {}

    bool before(const node &a, const node &b) const { return a.rank < b.rank; }

    void placed(const node &n, std::size_t i) const
    {
        unsigned position = first_position + static_cast<unsigned>(i);
        std::memcpy(static_cast<char *>(n.element) + position_offset, &position, sizeof position);
    }

    // The nodes of the grandchildren, four lines in a row. Those near the root are cached.
    void fetch_ahead(const node *nodes, std::size_t first, std::size_t count) const
    {
        constexpr std::size_t kCached = 1 << 13;
        std::size_t grandchild = first * kArity + 1;
        if (grandchild < kCached || grandchild + kArity * kArity > count)
            return;
        for (std::size_t line = 0; line < kArity; line++)
            __builtin_prefetch(&nodes[grandchild + line * kArity]);
    }
};

struct by_time : by_rank {
    std::size_t time_offset;

    explicit by_time(const heap &h) : by_rank(h), time_offset(h.layout.time_offset) {}

    bool before(const node &a, const node &b) const
    {
        if (a.rank != b.rank)
            return a.rank < b.rank;
        return timers::is_later(time_of(b.element, time_offset), time_of(a.element, time_offset));
    }
};

// ---- the heap ----

constexpr std::size_t parent_of(std::size_t i)
{
    return (i - 1) / kArity;
}

constexpr std::size_t first_child_of(std::size_t i)
{
    return i * kArity + 1;
}

// Both return the index of the earliest of four nodes in a row; the first one has the given index. The outcome is as
// good as random: a branch by it costs more than computing both sides.

template <typename Order>
std::size_t earliest_of_four(const Order &order, const typename Order::node *nodes, std::size_t first)
{
    std::size_t a = order.before(nodes[1], nodes[0]);
    std::size_t b = std::size_t{2} + order.before(nodes[3], nodes[2]);
    std::size_t mask = 0 - std::size_t{order.before(nodes[b], nodes[a])};
    return first + a + ((b - a) & mask);
}

// With the ranks in registers: the next level waits for the result. The compiler would select a rank and its index by
// one branch if it knew that both depend on the same comparison.
std::size_t earliest_of_four(const by_rank &, const keyed_node *nodes, std::size_t first)
{
    std::uint64_t r0 = nodes[0].rank, r1 = nodes[1].rank, r2 = nodes[2].rank, r3 = nodes[3].rank;
    std::size_t a = opaque(first + (r1 < r0));
    std::size_t b = opaque(first + 2 + (r3 < r2));
    return std::min(r2, r3) < std::min(r0, r1) ? b : a;
}

// The first count nodes of a heap, which are in heap order, while a node enters or leaves.
template <typename Order>
class sifter {
    using node = typename Order::node;

public:
    sifter(const heap &h, std::size_t count) : order_(h), nodes_(static_cast<node *>(h.nodes)), count_(count) {}

    // The node takes the place after the last, or one further up.
    void insert(node n) { place(hole_up(count_++, n), n); }

    // The node takes the place of the one that leaves, or one further up or down.
    void replace(std::size_t hole, node n)
    {
        std::size_t found = hole_up(hole, n);
        if (found == hole)
            found = hole_down(hole, n);
        place(found, n);
    }

    void place(std::size_t i, node n)
    {
        nodes_[i] = n;
        order_.placed(n, i);
    }

private:
    // Moves the hole at i up until n may take it; returns where that is.
    std::size_t hole_up(std::size_t i, node n)
    {
        while (i > 0 && order_.before(n, nodes_[parent_of(i)])) {
            place(i, nodes_[parent_of(i)]);
            i = parent_of(i);
        }
        return i;
    }

    // The earliest of the last siblings, less than four.
    std::size_t earliest_of_last(std::size_t first) const
    {
        std::size_t best = first;
        for (std::size_t i = first + 1; i < count_; i++)
            best = order_.before(nodes_[i], nodes_[best]) ? i : best;
        return best;
    }

    // Moves the hole at i down until n may take it; returns where that is. n was a leaf and usually belongs near the
    // bottom: where comparisons are calls, going down to a leaf first and then up takes fewer of them.
    std::size_t hole_down(std::size_t i, node n)
    {
        order_.fetch_ahead(nodes_, first_child_of(i), count_);
        std::size_t with_all_children = (count_ - 1) / kArity; // the nodes before this one
        while (i < with_all_children) {
            // One shift of i: the level waits for this address.
            const node *children = nodes_ + 1 + i * kArity;
            std::size_t child = earliest_of_four(order_, children, first_child_of(i));
            if (Order::kCheap && !order_.before(nodes_[child], n))
                return i;
            order_.fetch_ahead(nodes_, first_child_of(child), count_);
            place(i, nodes_[child]);
            i = child;
        }
        if (first_child_of(i) < count_) {
            std::size_t child = earliest_of_last(first_child_of(i));
            if (Order::kCheap && !order_.before(nodes_[child], n))
                return i;
            place(i, nodes_[child]);
            i = child;
        }
        return Order::kCheap ? i : hole_up(i, n);
    }

    Order order_;
    node *nodes_;
    std::size_t count_;
};

// Some are out of line so that the others need not save registers for them.

[[gnu::noinline]] int insert_by_callback(heap &h, void *element)
{
    sifter<by_callback>(h, h.count++).insert(element);
    return 0;
}

[[gnu::noinline]] int remove_by_callback(heap &h, std::size_t hole)
{
    std::size_t count = --h.count;
    if (hole != count)
        sifter<by_callback>(h, count).replace(hole, static_cast<by_callback::node *>(h.nodes)[count]);
    return 0;
}

// Puts the unsorted nodes in heap order.
template <typename Order>
[[gnu::noinline]] int sort(heap &h)
{
    sifter<Order> sorted(h, h.sorted);
    for (; h.sorted < h.count; h.sorted++)
        sorted.insert(static_cast<keyed_node *>(h.nodes)[h.sorted]);
    return 0;
}

template <typename Order>
int insert_keyed(heap &h, keyed_node n)
{
    auto *nodes = static_cast<keyed_node *>(h.nodes);
    Order order(h);
    std::size_t i = h.count++;
    nodes[i] = n;
    order.placed(n, i);
    if (i - h.sorted < kMaxUnsorted && !order.before(n, nodes[0]))
        return 0;
    return sort<Order>(h);
}

template <typename Order>
[[gnu::noinline]] int remove_sorted(heap &h, std::size_t hole)
{
    keyed_node last = static_cast<keyed_node *>(h.nodes)[--h.count];
    h.sorted = std::min(h.sorted, h.count);
    if (hole == 0 && h.sorted != h.count)
        sort<Order>(h);
    if (hole != h.count)
        sifter<Order>(h, h.sorted).replace(hole, last);
    return 0;
}

template <typename Order>
int remove_keyed(heap &h, std::size_t hole)
{
    if (hole < std::max<std::size_t>(h.sorted, 1))
        return remove_sorted<Order>(h, hole);
    auto *nodes = static_cast<keyed_node *>(h.nodes);
    std::size_t last = --h.count;
    nodes[hole] = nodes[last];
    if (hole != last)
        Order(h).placed(nodes[hole], hole);
    return 0;
}

// ---- memory ----

std::size_t node_size(const heap &h)
{
    return h.higher_priority != nullptr ? sizeof(by_callback::node) : sizeof(keyed_node);
}

std::size_t block_size(const heap &h, std::size_t capacity)
{
    return kCacheLine - 1 + (kRootSlot + capacity) * node_size(h);
}

std::size_t root_offset(const heap &h, const void *block)
{
    return (0 - reinterpret_cast<std::uintptr_t>(block)) % kCacheLine + kRootSlot * node_size(h);
}

void adopt_block(heap &h, void *block, std::size_t capacity)
{
    h.block = block;
    h.nodes = static_cast<char *>(block) + root_offset(h, block);
    h.capacity = capacity;
}

[[gnu::noinline]] bool grow(heap &h)
{
    if (h.count >= UINT_MAX) // positions would no longer fit
        return false;
    std::size_t capacity = h.capacity * 2;
    std::size_t root_before = root_offset(h, h.block);
    void *grown = std::realloc(h.block, block_size(h, capacity));
    if (grown == nullptr)
        return false;
    adopt_block(h, grown, capacity);
    // The new block may begin elsewhere in its cache line.
    std::memmove(h.nodes, static_cast<char *>(grown) + root_before, h.count * node_size(h));
    return true;
}

[[gnu::cold, gnu::noinline]] int grow_and_insert(heap &h, void *element)
{
    return grow(h) ? own_insert(&h, element) : -1;
}

void *make_heap(const heap &empty, unsigned initial_size)
{
    std::size_t capacity = std::max(initial_size, 1U);
    auto *h = static_cast<heap *>(std::malloc(sizeof(heap)));
    void *block = std::malloc(block_size(empty, capacity));
    if (h == nullptr || block == nullptr) {
        std::free(h);
        std::free(block);
        return nullptr;
    }
    *h = empty;
    adopt_block(*h, block, capacity);
    return h;
}

// The compiler may hold two names of one function to be different, and a function that the process can replace to be
// this file's.
template <typename Function>
bool is_replaced(Function *bound, Function *own)
{
    return opaque(bound) != opaque(own);
}

} // namespace

extern "C" {

void *__heap_new(heap_higher_priority_fn higher_priority, heap_set_index_fn set_index, unsigned int initial_size)
{
    return make_heap({.higher_priority = higher_priority, .set_index = set_index}, initial_size);
}

void *__heap_new_keyed(heap_higher_priority_fn higher_priority, heap_set_index_fn set_index, unsigned int initial_size,
                       const struct heap_layout *layout)
{
    // A program may define some of the five itself, to watch or to replace them. They must see what they expect.
    if (is_replaced(__heap_new, own_new) || is_replaced(__heap_insert, own_insert) ||
        is_replaced(__heap_delete, own_delete) || is_replaced(__heap_element, own_element) ||
        is_replaced(__heap_free, own_free))
        return opaque(&__heap_new)(higher_priority, set_index, initial_size);
    return make_heap({.layout = *layout}, initial_size);
}

int __heap_insert(void *handle, void *element)
{
    auto *h = static_cast<heap *>(handle);
    if (h == nullptr)
        return -1;
    if (h->count == h->capacity) [[unlikely]]
        return grow_and_insert(*h, element);
    if (h->higher_priority != nullptr)
        return insert_by_callback(*h, element);
    rank r = rank_of(time_of(element, h->layout.time_offset));
    h->ranks_decide = r.exact && (h->ranks_decide || h->count == 0);
    if (h->ranks_decide)
        return insert_keyed<by_rank>(*h, {r.value, element});
    return insert_keyed<by_time>(*h, {r.value, element});
}

int __heap_delete(void *handle, unsigned int position)
{
    auto *h = static_cast<heap *>(handle);
    if (h == nullptr || position == 0 || position > h->count)
        return -1;
    std::size_t hole = position - 1;
    if (h->higher_priority != nullptr)
        return remove_by_callback(*h, hole);
    if (h->ranks_decide)
        return remove_keyed<by_rank>(*h, hole);
    return remove_keyed<by_time>(*h, hole);
}

void *__heap_element(void *handle, unsigned int position)
{
    auto *h = static_cast<heap *>(handle);
    if (h == nullptr || position > h->count || h->count == 0)
        return nullptr;
    std::size_t i = position == 0 ? 0 : position - 1;
    if (h->higher_priority != nullptr)
        return static_cast<by_callback::node *>(h->nodes)[i];
    return static_cast<keyed_node *>(h->nodes)[i].element;
}

void __heap_free(void *handle)
{
    auto *h = static_cast<heap *>(handle);
    if (h == nullptr)
        return;
    std::free(h->block);
    std::free(h);
}
}
