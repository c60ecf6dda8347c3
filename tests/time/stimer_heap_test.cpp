// SPDX-License-Identifier: Apache-2.0
// What the sorted timers require of their heap library: every call, its arguments and the use of its result. The
// program defines the five functions itself, so the library's own heap is never called.
#include "stimer.h"

#include "debug_trace.h"
#include "heap.h"
#include "support/support.h"

#include <string>
#include <utility>
#include <vector>

using namespace support;

namespace {

std::vector<std::string> calls;
unsigned first_size = 0;
heap_higher_priority_fn first_order = nullptr;
heap_set_index_fn first_index = nullptr;
bool refuse_new = false, refuse_insert = false, refuse_delete = false;
std::vector<void *> sorted; // of the only heap
int handle;                 // its address is the heap's handle
long now_seconds = 1000;
int clock_reads = 0;

void tell_all()
{
    for (std::size_t i = 0; i < sorted.size(); i++)
        first_index(sorted[i], static_cast<unsigned>(i + 1));
}

std::vector<std::string> take_calls()
{
    return std::exchange(calls, {});
}

using Calls = std::vector<std::string>;

struct Context {
    void *cell = nullptr;
    Context()
    {
        EXPECT_EQ(0, stimer_context_init(&cell));
        take_calls();
    }
};

void nothing(void *) {}

} // namespace

extern "C" {

int clock_gettime(clockid_t, timespec *ts)
{
    clock_reads++;
    *ts = {now_seconds, 0};
    return 0;
}

void *__heap_new(heap_higher_priority_fn higher_priority, heap_set_index_fn set_index, unsigned int initial_size)
{
    calls.push_back("new");
    first_order = higher_priority;
    first_index = set_index;
    first_size = initial_size;
    return refuse_new ? nullptr : &handle;
}

int __heap_insert(void *heap, void *element)
{
    EXPECT_EQ(&handle, heap);
    calls.push_back("insert");
    if (refuse_insert)
        return -5;
    auto at = sorted.begin();
    while (at != sorted.end() && first_order(element, *at) == 0)
        ++at;
    sorted.insert(at, element);
    tell_all();
    return 3; // any result that is not negative
}

int __heap_delete(void *heap, unsigned int position)
{
    EXPECT_EQ(&handle, heap);
    calls.push_back("delete " + std::to_string(position));
    if (refuse_delete || position == 0 || position > sorted.size())
        return -5;
    sorted.erase(sorted.begin() + (position - 1));
    tell_all();
    return 3;
}

void *__heap_element(void *heap, unsigned int position)
{
    EXPECT_EQ(&handle, heap);
    calls.push_back("element " + std::to_string(position));
    std::size_t i = position == 0 ? 0 : position - 1;
    return i < sorted.size() ? sorted[i] : nullptr;
}

void __heap_free(void *heap)
{
    EXPECT_EQ(&handle, heap);
    calls.push_back("free");
}
}

TEST(TimersHeap, IsMadeWithTheTwoCallbacksAndRoomFor16)
{
    void *cell = nullptr;
    EXPECT_EQ(0, stimer_context_init(&cell));
    EXPECT_EQ(&handle, cell);
    EXPECT_EQ(Calls{"new"}, take_calls());
    EXPECT_EQ(stimer_higher_priority_func, first_order);
    EXPECT_EQ(stimer_index_func, first_index);
    EXPECT_EQ(16u, first_size);
    stimer_context_fini(&cell);
    EXPECT_EQ(Calls{"free"}, take_calls());
    EXPECT_EQ(&handle, cell);
}

TEST(TimersHeap, OneThatCannotBeMadeIsReported)
{
    void *cell = &cell;
    refuse_new = true;
    __qv_debug_detail = 0;
    EXPECT_EQ("Can not intialize stimer context\n", capture_stderr([&] { EXPECT_EQ(-1, stimer_context_init(&cell)); }));
    EXPECT_EQ(nullptr, cell);
    take_calls();
    stimer_context_fini(&cell);
    EXPECT_EQ(Calls{}, take_calls());
}

TEST(TimersHeap, StartInsertsAndStopDeletesAtTheIndexMinus1)
{
    Context context;
    stimer *a = create_stimer(&context.cell, 5, nothing, nullptr);
    stimer *b = create_stimer(&context.cell, 6, nothing, nullptr);
    start_stimer(a);
    start_stimer(b);
    EXPECT_EQ((Calls{"insert", "insert"}), take_calls());
    EXPECT_EQ(3, b->index);
    stop_stimer(b);
    EXPECT_EQ(Calls{"delete 2"}, take_calls());
    EXPECT_EQ(0, b->index);
    stop_stimer(b);
    EXPECT_EQ(Calls{}, take_calls());
    free_stimer(a);
    EXPECT_EQ(Calls{"delete 1"}, take_calls());
    free_stimer(b);
}

TEST(TimersHeap, RefusalsAreReportedByTheSameText)
{
    Context context;
    __qv_debug_detail = 0;
    stimer *t = create_stimer(&context.cell, 5, nothing, nullptr);
    refuse_insert = true;
    EXPECT_EQ("Can not start stimer\n", capture_stderr([&] { start_stimer(t); }));
    EXPECT_EQ(0, t->index);
    EXPECT_EQ(1005, t->expire.tv_sec) << "computed before";
    refuse_insert = false;
    start_stimer(t);
    refuse_delete = true;
    EXPECT_EQ("Can not start stimer\n", capture_stderr([&] { stop_stimer(t); }));
    EXPECT_EQ(2, t->index) << "it is still running";
    refuse_delete = false;
    free_stimer(t);
}

TEST(TimersHeap, TheNextExpiryIsReadAtPosition0)
{
    Context context;
    timeval out;
    EXPECT_EQ(-1, stimer_get_next_expire(&context.cell, &out));
    EXPECT_EQ(Calls{"element 0"}, take_calls());
}

TEST(TimersHeap, ProcessingReadsPosition1EveryRoundAndTheClockOnce)
{
    Context context;
    static stimer *t[4];
    auto later = [](void *) { now_seconds += 100; }; // handled by the next call
    int seconds = 1;
    for (stimer *&timer : t) {
        timer = create_stimer(&context.cell, seconds++, later, nullptr);
        start_stimer(timer);
    }
    now_seconds += 3;
    take_calls();
    clock_reads = 0;
    EXPECT_EQ(3, process_stimer(&context.cell));
    EXPECT_EQ(1, clock_reads);
    EXPECT_EQ((Calls{"element 1", "delete 1", "element 1", "delete 1", "element 1", "delete 1", "element 1"}),
              take_calls());
    EXPECT_GT(t[3]->index, 0) << "due by now, but not when the call started";
    for (stimer *timer : t)
        free_stimer(timer);
}

TEST(TimersHeap, OneWithoutCallbackDeletesOnceMore)
{
    Context context;
    stimer *silent = create_stimer(&context.cell, 0, nullptr, nullptr);
    start_stimer(silent);
    take_calls();
    EXPECT_EQ(1, process_stimer(&context.cell));
    EXPECT_EQ((Calls{"element 1", "delete 1", "delete 1", "element 1"}), take_calls());
    free_stimer(silent);
}
