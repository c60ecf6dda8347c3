// SPDX-License-Identifier: Apache-2.0
// The contract of the heap library as heap.h documents it.
#include "heap.h"

#include "support/next_function.h"
#include "support/random.h"
#include "support/support.h"

#include <algorithm>
#include <climits>
#include <cstddef>
#include <cstdlib>
#include <set>
#include <utility>

using namespace support;

namespace {

struct Element {
    int key = 0;
    unsigned position = 0; // as last reported
    int told = 0;
};

int before(const void *a, const void *b)
{
    return static_cast<const Element *>(a)->key < static_cast<const Element *>(b)->key ? 1 : 0;
}

void tell(void *element, unsigned position)
{
    auto *e = static_cast<Element *>(element);
    e->position = position;
    e->told++;
}

struct Heap {
    void *handle = __heap_new(before, tell, 16);
    ~Heap() { __heap_free(handle); }
    Element *at(unsigned position) { return static_cast<Element *>(__heap_element(handle, position)); }
};

bool no_memory = false;

} // namespace

extern "C" void *realloc(void *block, std::size_t size)
{
    static auto real = support::next_function<void *(void *, std::size_t)>("realloc");
    return no_memory ? nullptr : real(block, size);
}

TEST(HeapLibrary, AnEmptyHeapReturnsNothing)
{
    Heap heap;
    ASSERT_NE(nullptr, heap.handle);
    for (unsigned position : {0u, 1u, 2u, UINT_MAX}) {
        EXPECT_EQ(nullptr, heap.at(position));
        EXPECT_LT(__heap_delete(heap.handle, position), 0);
    }
}

TEST(HeapLibrary, TheEarliestIsAtPositions0And1)
{
    Heap heap;
    Element five{5}, three{3}, four{4};
    for (Element *e : {&five, &three, &four})
        EXPECT_EQ(0, __heap_insert(heap.handle, e));
    EXPECT_EQ(heap.at(1), &three);
    EXPECT_EQ(heap.at(0), &three);
    EXPECT_EQ(nullptr, heap.at(4));
    EXPECT_EQ(nullptr, heap.at(UINT_MAX));
}

TEST(HeapLibrary, PositionsOutsideReturnANegativeResult)
{
    Heap heap;
    Element one{1}, two{2};
    __heap_insert(heap.handle, &one);
    __heap_insert(heap.handle, &two);
    for (unsigned position : {0u, 3u, 4u, 1000u, UINT_MAX})
        EXPECT_LT(__heap_delete(heap.handle, position), 0) << position;
    EXPECT_EQ(heap.at(2), &two);
}

TEST(HeapLibrary, TheReportedPositionDeletes)
{
    Heap heap;
    std::vector<Element> elements(100);
    for (int i = 0; i < 100; i++)
        elements[static_cast<std::size_t>(i)].key = (i * 37) % 100;
    for (Element &e : elements)
        __heap_insert(heap.handle, &e);
    for (Element &e : elements) {
        EXPECT_EQ(heap.at(e.position), &e);
        EXPECT_EQ(0, __heap_delete(heap.handle, e.position));
    }
    EXPECT_EQ(nullptr, heap.at(1));
}

TEST(HeapLibrary, ARemovedElementGetsNoPosition)
{
    Heap heap;
    Element one{1}, two{2};
    __heap_insert(heap.handle, &one);
    __heap_insert(heap.handle, &two);
    int told = one.told;
    __heap_delete(heap.handle, one.position);
    EXPECT_EQ(one.told, told);
    EXPECT_EQ(1u, one.position) << "stale after the removal";
    EXPECT_EQ(1u, two.position) << "moved up, and reported";
    EXPECT_EQ(-1, __heap_delete(heap.handle, 2));
}

TEST(HeapLibrary, GrowthThatFailsLeavesTheHeapAsItWas)
{
    void *handle = __heap_new(before, tell, 2);
    Element elements[3] = {{3}, {2}, {1}};
    EXPECT_EQ(0, __heap_insert(handle, &elements[0]));
    EXPECT_EQ(0, __heap_insert(handle, &elements[1]));
    no_memory = true;
    EXPECT_LT(__heap_insert(handle, &elements[2]), 0);
    no_memory = false;
    EXPECT_EQ(0, elements[2].told);
    EXPECT_EQ(__heap_element(handle, 1), &elements[1]);
    EXPECT_EQ(0, __heap_insert(handle, &elements[2]));
    EXPECT_EQ(__heap_element(handle, 1), &elements[2]);
    __heap_free(handle);
}

TEST(HeapLibrary, AnInitialSizeOf0Works)
{
    void *handle = __heap_new(before, tell, 0);
    Element elements[5] = {{3}, {2}, {1}, {5}, {4}};
    for (Element &e : elements)
        EXPECT_EQ(0, __heap_insert(handle, &e));
    EXPECT_EQ(__heap_element(handle, 1), &elements[2]);
    __heap_free(handle);
}

TEST(HeapLibrary, NullHandlesFail)
{
    Element one;
    EXPECT_LT(__heap_insert(nullptr, &one), 0);
    EXPECT_LT(__heap_delete(nullptr, 1), 0);
    EXPECT_EQ(nullptr, __heap_element(nullptr, 1));
    __heap_free(nullptr);
}

TEST(HeapLibraryModel, RandomWorkComesOutInOrder)
{
    for (unsigned seed = 1; seed <= 3; seed++) {
        support::Random random(seed);
        Heap heap;
        std::vector<Element> elements(500);
        std::vector<Element *> in, out;
        for (Element &e : elements)
            out.push_back(&e);
        std::multiset<int> keys;
        for (std::size_t step = 0; step < effort(300000); step++) {
            bool insert = in.empty() || (!out.empty() && random() % 2 == 0);
            random.doing(insert ? "insert into a heap of" : "delete from a heap of", in.size());
            if (insert) {
                std::swap(out[random() % out.size()], out.back());
                Element *e = out.back();
                out.pop_back();
                e->key = static_cast<int>(random() % 200);
                ASSERT_EQ(0, __heap_insert(heap.handle, e));
                in.push_back(e);
                keys.insert(e->key);
            } else {
                std::size_t which = random() % in.size();
                if (random() % 2 == 0) // the earliest, like timers
                    which = static_cast<std::size_t>(std::find(in.begin(), in.end(), heap.at(1)) - in.begin());
                Element *e = in[which];
                ASSERT_EQ(heap.at(e->position), e);
                ASSERT_EQ(0, __heap_delete(heap.handle, e->position));
                keys.erase(keys.find(e->key));
                in[which] = in.back();
                in.pop_back();
                out.push_back(e);
            }
            ASSERT_EQ(heap.at(1) == nullptr, keys.empty());
            if (!keys.empty()) {
                ASSERT_EQ(heap.at(1)->key, *keys.begin());
            }
            ASSERT_EQ(nullptr, heap.at(static_cast<unsigned>(in.size()) + 1));
            if (step % 1000 == 0) {
                for (Element *e : in)
                    ASSERT_EQ(heap.at(e->position), e);
            }
        }
    }
}

// ---- heaps that know the key ----

namespace {

struct Timed {
    char before = 0;
    int position = -1; // plus 1
    timeval time = {};
};

int timed_before(const void *a, const void *b)
{
    auto key = [](const void *t) {
        const timeval &time = static_cast<const Timed *>(t)->time;
        return std::pair(time.tv_sec, time.tv_usec);
    };
    return key(a) < key(b) ? 1 : 0;
}

int told = 0;

void timed_tell(void *t, unsigned position)
{
    told++;
    static_cast<Timed *>(t)->position = static_cast<int>(position + 1);
}

constexpr heap_layout kTimedLayout = {offsetof(Timed, time), offsetof(Timed, position), 1};

struct KeyedHeap {
    void *handle = __heap_new_keyed(timed_before, timed_tell, 16, &kTimedLayout);
    ~KeyedHeap() { __heap_free(handle); }
    Timed *at(unsigned position) { return static_cast<Timed *>(__heap_element(handle, position)); }
    bool holds(Timed &t) { return at(static_cast<unsigned>(t.position - 1)) == &t; }
};

} // namespace

TEST(KeyedHeap, OrdersAndStoresPositionsWithoutACall)
{
    KeyedHeap heap;
    Timed five, three, four;
    five.time = {5, 0};
    three.time = {3, 999999};
    four.time = {4, -1};
    for (Timed *t : {&five, &three, &four})
        EXPECT_EQ(0, __heap_insert(heap.handle, t));
    EXPECT_EQ(heap.at(0), &three);
    EXPECT_EQ(heap.at(1), &three);
    EXPECT_EQ(2, three.position);
    EXPECT_EQ(0, __heap_delete(heap.handle, 1));
    EXPECT_EQ(heap.at(1), &four);
    EXPECT_EQ(0, __heap_delete(heap.handle, static_cast<unsigned>(five.position - 1)));
    EXPECT_EQ(-1, __heap_delete(heap.handle, 2));
    EXPECT_EQ(heap.at(1), &four);
    EXPECT_EQ(0, told);
}

TEST(KeyedHeap, BehavesLikeTheHeapWithoutAKey)
{
    KeyedHeap heap;
    for (unsigned position : {0u, 1u, 2u, UINT_MAX}) {
        EXPECT_EQ(nullptr, heap.at(position));
        EXPECT_LT(__heap_delete(heap.handle, position), 0);
    }
    Timed one;
    EXPECT_EQ(0, __heap_insert(heap.handle, &one));
    for (unsigned position : {0u, 2u, UINT_MAX})
        EXPECT_LT(__heap_delete(heap.handle, position), 0) << position;
    EXPECT_EQ(nullptr, heap.at(2));
}

TEST(KeyedHeap, GrowthThatFailsLeavesTheHeapAsItWas)
{
    void *handle = __heap_new_keyed(timed_before, timed_tell, 0, &kTimedLayout);
    Timed first, second;
    first.time = {2, 0};
    second.time = {1, 0};
    EXPECT_EQ(0, __heap_insert(handle, &first));
    no_memory = true;
    EXPECT_LT(__heap_insert(handle, &second), 0);
    no_memory = false;
    EXPECT_EQ(-1, second.position);
    EXPECT_EQ(__heap_element(handle, 1), &first);
    EXPECT_EQ(0, __heap_insert(handle, &second));
    EXPECT_EQ(__heap_element(handle, 1), &second);
    __heap_free(handle);
}

namespace {

std::vector<Timed> random_times(std::size_t count, unsigned seed)
{
    support::Random random(seed);
    std::vector<Timed> times(count);
    for (Timed &t : times)
        t.time = {static_cast<long>(random() % 1000), static_cast<long>(random() % 1000000)};
    return times;
}

} // namespace

// Without a request for the earliest element: deletion by position alone keeps the positions valid.
TEST(KeyedHeap, PositionsStayValidWithDeletionByPosition)
{
    for (std::size_t count : {2U, 5U, 64U, 65U, 66U, 300U}) {
        KeyedHeap heap;
        std::vector<Timed> elements = random_times(count, 7);
        for (Timed &t : elements) {
            ASSERT_EQ(0, __heap_insert(heap.handle, &t));
            ASSERT_TRUE(heap.holds(t));
        }
        for (Timed &t : elements)
            ASSERT_TRUE(heap.holds(t));
        for (std::size_t i = 0; i < count; i++) {
            Timed &t = elements[i * 7 % count];
            if (t.position == -1)
                continue;
            ASSERT_TRUE(heap.holds(t));
            ASSERT_EQ(0, __heap_delete(heap.handle, static_cast<unsigned>(t.position - 1)));
            t.position = -1;
        }
    }
}

TEST(KeyedHeap, Position1IsAlwaysTheEarliest)
{
    for (std::size_t waiting : {0U, 1U, 2U, 63U, 64U, 65U, 200U}) {
        KeyedHeap heap;
        std::vector<Timed> elements = random_times(100 + waiting, 9);
        std::vector<Timed *> in;
        auto earlier = [](const Timed *a, const Timed *b) { return timed_before(a, b) != 0; };
        for (std::size_t i = 0; i < elements.size(); i++) {
            ASSERT_EQ(0, __heap_insert(heap.handle, &elements[i]));
            in.push_back(&elements[i]);
            if (i == 99) // some are removed before the others are inserted
                for (int k = 0; k < 50; k++) {
                    ASSERT_EQ(*std::min_element(in.begin(), in.end(), earlier), heap.at(1));
                    std::erase(in, heap.at(1));
                    ASSERT_EQ(0, __heap_delete(heap.handle, 1));
                }
        }
        std::sort(in.begin(), in.end(), earlier);
        for (Timed *t : in) {
            ASSERT_EQ(t, heap.at(0));
            ASSERT_EQ(2, t->position);
            ASSERT_EQ(0, __heap_delete(heap.handle, 1));
        }
        ASSERT_EQ(nullptr, heap.at(1));
    }
}

// Times outside any valid range, mixed: the order is exact at the ends of the range and between any two neighbours.
TEST(KeyedHeapModel, RandomWorkComesOutInOrder)
{
    constexpr long kSeconds[] = {
        LONG_MIN,   LONG_MIN + 1,   -(1L << 43),    -(1L << 42) - 1, -(1L << 42), -(1L << 42) + 1, -1,      0, 1, 1000,
        (1L << 41), (1L << 42) - 3, (1L << 42) - 2, (1L << 42) - 1,  1L << 42,    LONG_MAX - 1,    LONG_MAX};
    constexpr long kMicroseconds[] = {
        LONG_MIN,       -2,       -1,       0,       1, 999999, 1000000, (1L << 21) - 4, (1L << 21) - 3,
        (1L << 21) - 2, 1L << 21, 1L << 22, LONG_MAX};
    for (unsigned seed = 1; seed <= 6; seed++) {
        support::Random random(seed);
        KeyedHeap heap;
        std::vector<Timed> elements(seed * 60);
        std::vector<Timed *> in, out;
        for (Timed &t : elements)
            out.push_back(&t);
        auto some_time = [&](std::size_t step) -> timeval {
            if (seed % 2 == 0 || step / 2000 % 2 == 0) // ordinary times
                return {static_cast<long>(random() % 20), static_cast<long>(random() % 20)};
            return {kSeconds[random() % std::size(kSeconds)], kMicroseconds[random() % std::size(kMicroseconds)]};
        };
        auto earlier = [](const Timed *a, const Timed *b) { return timed_before(a, b) != 0; };
        for (std::size_t step = 0; step < effort(60000); step++) {
            // Alternates between mostly filling and mostly emptying.
            bool filling = random() % 16 < (step / 1000 % 2 == 0 ? 12U : 4U);
            bool insert_timed = in.empty() || (!out.empty() && filling);
            random.doing(insert_timed ? "insert into a heap of" : "delete from a heap of", in.size());
            if (insert_timed) {
                std::swap(out[random() % out.size()], out.back());
                Timed *t = out.back();
                out.pop_back();
                t->time = some_time(step);
                ASSERT_EQ(0, __heap_insert(heap.handle, t));
                in.push_back(t);
            } else {
                std::size_t which = random() % in.size();
                if (random() % 2 == 0)
                    which = static_cast<std::size_t>(std::find(in.begin(), in.end(), heap.at(1)) - in.begin());
                ASSERT_TRUE(heap.holds(*in[which]));
                ASSERT_EQ(0, __heap_delete(heap.handle, static_cast<unsigned>(in[which]->position - 1)));
                out.push_back(in[which]);
                in[which] = in.back();
                in.pop_back();
            }
            ASSERT_EQ(heap.at(1) == nullptr, in.empty());
            if (!in.empty()) {
                ASSERT_FALSE(earlier(*std::min_element(in.begin(), in.end(), earlier), heap.at(1)));
            }
            if (step % 1000 == 0) {
                for (Timed *t : in)
                    ASSERT_TRUE(heap.holds(*t));
            }
        }
        ASSERT_EQ(0, told);
    }
}
