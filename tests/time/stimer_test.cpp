// SPDX-License-Identifier: Apache-2.0
#include "stimer.h"

#include "debug_trace.h"
#include "heap.h"
#include "support/random.h"
#include "support/scarce_memory.h"
#include "support/support.h"

#include <algorithm>
#include <climits>
#include <csignal>
#include <cstdlib>
#include <cstring>
#include <dlfcn.h>
#include <vector>

using namespace support;

namespace {

// ---- time and memory as the tests tell them ----

timespec now = {1000, 500000};
bool clock_fails = false;

void at(long seconds, long microseconds = 0)
{
    now = {seconds, microseconds * 1000};
}

// The messages that the body traces, without their prefixes.
std::string reported(const std::function<void()> &body)
{
    __qv_debug_detail = 0;
    return capture_stderr(body);
}

struct Timers : testing::Test {
    void *ctx = nullptr;
    void SetUp() override { ASSERT_EQ(0, stimer_context_init(&ctx)); }
    void TearDown() override { stimer_context_fini(&ctx); }
};

int fired = 0;

void count_up(void *)
{
    fired++;
}

} // namespace

extern "C" int clock_gettime(clockid_t, timespec *ts)
{
    if (clock_fails)
        return -1;
    *ts = now;
    return 0;
}

// ---- records ----

TEST_F(Timers, CreateSetsAllFields)
{
    int arg = 0;
    stimer *t = create_stimer(&ctx, 7, count_up, &arg);
    ASSERT_NE(nullptr, t);
    EXPECT_EQ(&ctx, t->ctx);
    EXPECT_EQ(0, t->index);
    EXPECT_EQ(7, t->interval.tv_sec);
    EXPECT_EQ(0, t->interval.tv_usec);
    EXPECT_EQ(0, t->expire.tv_sec);
    EXPECT_EQ(0, t->expire.tv_usec);
    EXPECT_EQ(count_up, t->callback);
    EXPECT_EQ(&arg, t->arg);
    EXPECT_EQ(0, stimer_isruning(t));
    free_stimer(t);
}

TEST_F(Timers, SecondsKeepTheirSign)
{
    stimer *t = create_stimer(&ctx, INT_MIN, nullptr, nullptr);
    EXPECT_EQ(INT_MIN, t->interval.tv_sec);
    free_stimer(t);
}

TEST_F(Timers, InitLeavesTheExpiry)
{
    stimer t;
    std::memset(&t, 0x5A, sizeof t);
    timeval expire = t.expire;
    init_stimer(&t, &ctx, -3, count_up, &t);
    EXPECT_EQ(&ctx, t.ctx);
    EXPECT_EQ(0, t.index);
    EXPECT_EQ(-3, t.interval.tv_sec);
    EXPECT_EQ(0, t.interval.tv_usec);
    EXPECT_EQ(expire.tv_sec, t.expire.tv_sec);
    EXPECT_EQ(expire.tv_usec, t.expire.tv_usec);
    EXPECT_EQ(&t, t.arg);
}

TEST(TimersMemory, FailuresAreReported)
{
    if (under_sanitizer())
        GTEST_SKIP() << "a sanitizer's allocator cannot be replaced";
    void *ctx = &ctx;
    void *good;
    stimer_context_init(&good);
    __qv_debug_detail = 3;
    std::string said = capture_stderr([&] {
        allocations_left = 0;
        int result = stimer_context_init(&ctx);
        allocations_left = -1;
        EXPECT_EQ(-1, result);
        EXPECT_EQ(nullptr, ctx);
    });
    EXPECT_THAT(said,
                testing::MatchesRegex("\\[..:..:..\\] Error: qv_stimer:[0-9]+: Can not intialize stimer context\n"));
    EXPECT_EQ(0, __qv_print_val);
    EXPECT_EQ("Can not allocate stimer\n", reported([&] {
                  allocations_left = 0;
                  stimer *timer = create_stimer(&good, 5, count_up, nullptr);
                  allocations_left = -1;
                  EXPECT_EQ(nullptr, timer);
              }));
    stimer_context_fini(&good);
}

// The cases run once with this tree's heap library and once with one that has only the documented functions.
TEST(TimersContext, TheHeapLibraryIsTheOneToTest)
{
    const char *path = std::getenv("LD_LIBRARY_PATH");
    bool plain = path != nullptr && std::strstr(path, "plain_heap") != nullptr;
    EXPECT_EQ(plain, ::dlsym(RTLD_DEFAULT, "__heap_new_keyed") == nullptr);
}

// ---- starting and stopping ----

TEST_F(Timers, StartComputesTheExpiry)
{
    stimer *t = create_stimer(&ctx, 5, count_up, nullptr);
    at(1000, 999999);
    start_stimer(t);
    EXPECT_EQ(1005, t->expire.tv_sec);
    EXPECT_EQ(999999, t->expire.tv_usec);
    EXPECT_EQ(1, stimer_isruning(t));
    EXPECT_GT(t->index, 0);
    stop_stimer(t);
    EXPECT_EQ(0, t->index);
    t->interval.tv_usec = 1;
    start_stimer(t);
    EXPECT_EQ(1006, t->expire.tv_sec) << "carried";
    EXPECT_EQ(0, t->expire.tv_usec);
    stop_stimer(t);
    t->interval.tv_usec = 3000000;
    start_stimer(t);
    EXPECT_EQ(1006, t->expire.tv_sec) << "only once";
    EXPECT_EQ(2999999, t->expire.tv_usec);
    free_stimer(t);
}

TEST_F(Timers, HandSetIntervalsDoNotOverflow)
{
    stimer *t = create_stimer(&ctx, 0, count_up, nullptr);
    t->interval = {LONG_MAX, LONG_MAX};
    start_stimer(t);
    EXPECT_EQ(LONG_MAX, t->expire.tv_sec);
    EXPECT_EQ(0, process_stimer(&ctx));
    stop_stimer(t);
    t->interval = {LONG_MIN, 0};
    at(-5);
    start_stimer(t);
    EXPECT_EQ(LONG_MIN, t->expire.tv_sec);
    EXPECT_EQ(1, process_stimer(&ctx));
    free_stimer(t);
}

TEST_F(Timers, StartingARunningOneReportsAndKeepsItsExpiry)
{
    stimer *t = create_stimer(&ctx, 5, count_up, nullptr);
    start_stimer(t);
    timeval expire = t->expire;
    at(2000);
    EXPECT_EQ("stimer already started\n", reported([&] { start_stimer(t); }));
    EXPECT_EQ(expire.tv_sec, t->expire.tv_sec);
    __qv_debug_level = QV_TRACE_FATAL;
    EXPECT_EQ("", reported([&] { start_stimer(t); })) << "only at level 2 and above";
    free_stimer(t);
}

TEST_F(Timers, StoppingAnIdleOneIsSilent)
{
    stimer *t = create_stimer(&ctx, 5, count_up, nullptr);
    stimer without{};
    without.index = 3;
    EXPECT_EQ("", reported([&] {
                  stop_stimer(t);
                  stop_stimer(&without);
              }));
    EXPECT_EQ(3, without.index);
    free_stimer(t);
}

TEST_F(Timers, AFailedStopReportsLikeAFailedStart)
{
    stimer *t = create_stimer(&ctx, 5, count_up, nullptr);
    t->index = 9; // no such position
    EXPECT_EQ("Can not start stimer\n", reported([&] { stop_stimer(t); }));
    EXPECT_EQ(9, t->index);
    t->index = 0;
    void *none = nullptr;
    t->ctx = &none;
    EXPECT_EQ("Can not start stimer\n", reported([&] { start_stimer(t); }));
    EXPECT_EQ(0, t->index);
    free_stimer(t);
}

TEST_F(Timers, StartingWithoutAContextAborts)
{
    stimer t{};
    ChildResult child = run_child([&] { start_stimer(&t); });
    EXPECT_TRUE(child.killed_by(SIGABRT));
    EXPECT_THAT(child.err, testing::MatchesRegex(".*qv_stimer:[0-9]+: start_stimer: Assertion `ctx' failed\\.\n"));
}

// ---- the next expiry ----

TEST_F(Timers, NextExpiryIsTheEarliest)
{
    timeval out = {7, 7};
    EXPECT_EQ(-1, stimer_get_next_expire(&ctx, &out));
    EXPECT_EQ(7, out.tv_sec);
    std::vector<stimer *> timers;
    for (int seconds : {30, 10, 20}) {
        timers.push_back(create_stimer(&ctx, seconds, count_up, nullptr));
        start_stimer(timers.back());
    }
    EXPECT_EQ(0, stimer_get_next_expire(&ctx, &out));
    EXPECT_EQ(1010, out.tv_sec);
    EXPECT_EQ(500, out.tv_usec);
    for (stimer *t : timers)
        free_stimer(t);
    EXPECT_EQ(-1, stimer_get_next_expire(&ctx, &out));
}

TEST(TimersContext, FiniAcceptsNull)
{
    void *ctx = nullptr;
    stimer_context_fini(&ctx);
    stimer_context_init(&ctx);
    void *before = ctx;
    stimer_context_fini(&ctx);
    EXPECT_EQ(before, ctx) << "the cell is not cleared";
}

// ---- processing ----

TEST_F(Timers, DueOnesFireInOrderAndOthersStay)
{
    static std::vector<long> order;
    auto note = [](void *arg) { order.push_back(reinterpret_cast<long>(arg)); };
    std::vector<stimer *> timers;
    for (long seconds : {3L, 1L, 2L, 100L}) {
        timers.push_back(create_stimer(&ctx, static_cast<int>(seconds), note, reinterpret_cast<void *>(seconds)));
        start_stimer(timers.back());
    }
    EXPECT_EQ(0, process_stimer(&ctx));
    at(1050);
    EXPECT_EQ(3, process_stimer(&ctx));
    EXPECT_EQ((std::vector<long>{1, 2, 3}), order);
    EXPECT_EQ(0, stimer_isruning(timers[0]));
    EXPECT_EQ(1, stimer_isruning(timers[3]));
    EXPECT_EQ(0, process_stimer(&ctx));
    for (stimer *t : timers)
        free_stimer(t);
}

TEST_F(Timers, AnExpiryOfNowIsDue)
{
    stimer *t = create_stimer(&ctx, 5, count_up, nullptr);
    start_stimer(t);
    at(1005, 499);
    EXPECT_EQ(0, process_stimer(&ctx));
    at(1005, 500);
    EXPECT_EQ(1, process_stimer(&ctx));
    free_stimer(t);
}

TEST_F(Timers, NegativeAndZeroSecondsAreDueAtOnce)
{
    stimer *negative = create_stimer(&ctx, -1, count_up, nullptr);
    stimer *zero = create_stimer(&ctx, 0, count_up, nullptr);
    start_stimer(negative);
    start_stimer(zero);
    EXPECT_EQ(2, process_stimer(&ctx));
    free_stimer(negative);
    free_stimer(zero);
}

TEST_F(Timers, ACallbackMayStartItsTimerAgain)
{
    static stimer *t;
    t = create_stimer(
        &ctx, 1, [](void *) { start_stimer(t), fired++; }, nullptr);
    start_stimer(t);
    at(1001, 500);
    EXPECT_EQ(1, process_stimer(&ctx)) << "the rest is left for the next call";
    EXPECT_EQ(1, stimer_isruning(t));
    at(1002, 500);
    EXPECT_EQ(1, process_stimer(&ctx));
    stop_stimer(t);
    static int rounds = 0;
    stimer *again = create_stimer(&ctx, 0, nullptr, nullptr);
    again->arg = again;
    again->callback = [](void *self) {
        if (++rounds < 5)
            start_stimer(static_cast<stimer *>(self));
    };
    start_stimer(again);
    EXPECT_EQ(5, process_stimer(&ctx)) << "unless its new expiry is not later than the start of the call";
    free_stimer(again);
    free_stimer(t);
}

TEST_F(Timers, ACallbackMayFreeItsTimerAndOthers)
{
    static stimer *other;
    other = create_stimer(&ctx, 1, count_up, nullptr);
    stimer *t = create_stimer(&ctx, 0, nullptr, nullptr);
    t->arg = t;
    t->callback = [](void *self) {
        free_stimer(static_cast<stimer *>(self));
        free_stimer(other);
    };
    start_stimer(t);
    start_stimer(other);
    at(2000);
    fired = 0;
    EXPECT_EQ(1, process_stimer(&ctx));
    EXPECT_EQ(0, fired);
}

TEST_F(Timers, ATimerWithoutCallbackRemovesTheNextToo)
{
    stimer *silent = create_stimer(&ctx, 1, nullptr, nullptr);
    stimer *next = create_stimer(&ctx, 2, count_up, nullptr);
    stimer *third = create_stimer(&ctx, 3, count_up, nullptr);
    for (stimer *t : {silent, next, third})
        start_stimer(t);
    at(1001, 500);
    fired = 0;
    EXPECT_EQ(1, process_stimer(&ctx));
    EXPECT_EQ(0, stimer_isruning(silent));
    EXPECT_EQ(1, stimer_isruning(next)) << "reported as running, but no longer queued";
    timeval out;
    EXPECT_EQ(0, stimer_get_next_expire(&ctx, &out));
    EXPECT_EQ(1003, out.tv_sec);
    stop_stimer(third);
    EXPECT_EQ("Can not start stimer\n", reported([&] { stop_stimer(next); })) << "a stale position is refused";
    EXPECT_EQ(1, stimer_isruning(next));
    next->index = 0;
    for (stimer *t : {silent, next, third})
        free_stimer(t);
    EXPECT_EQ(-1, stimer_get_next_expire(&ctx, &out));
}

TEST_F(Timers, AStaleTimerCanBeFreed)
{
    std::vector<stimer *> timers;
    for (int i = 0; i < 20; i++) {
        timers.push_back(create_stimer(&ctx, i, i == 0 ? nullptr : count_up, nullptr));
        start_stimer(timers.back());
    }
    at(1000, 500);
    EXPECT_EQ(1, process_stimer(&ctx));
    reported([&] { free_stimer(timers[1]); }); // no longer queued, with a stale index
    timers.erase(timers.begin() + 1);
    at(5000);
    process_stimer(&ctx);
    for (stimer *t : timers)
        reported([&] { free_stimer(t); });
    timeval out;
    EXPECT_EQ(-1, stimer_get_next_expire(&ctx, &out));
}

TEST_F(Timers, ATimerWithoutCallbackMayBeTheOnlyOne)
{
    stimer *silent = create_stimer(&ctx, 0, nullptr, nullptr);
    start_stimer(silent);
    EXPECT_EQ(1, process_stimer(&ctx));
    EXPECT_EQ(0, process_stimer(&ctx));
    free_stimer(silent);
}

// ---- the clock ----

TEST_F(Timers, AFailingClockReadsAsZero)
{
    stimer *t = create_stimer(&ctx, 5, count_up, nullptr);
    clock_fails = true;
    start_stimer(t);
    EXPECT_EQ(5, t->expire.tv_sec);
    EXPECT_EQ(0, process_stimer(&ctx));
    clock_fails = false;
    EXPECT_EQ(1, process_stimer(&ctx));
    free_stimer(t);
}

TEST_F(Timers, AClockThatJumpsBackDelays)
{
    stimer *t = create_stimer(&ctx, 5, count_up, nullptr);
    start_stimer(t);
    at(10);
    EXPECT_EQ(0, process_stimer(&ctx));
    at(1006);
    EXPECT_EQ(1, process_stimer(&ctx));
    free_stimer(t);
}

// ---- the heap's callbacks ----

TEST(TimerOrder, StrictlyBefore)
{
    auto before = [](timeval x, timeval y) {
        stimer a{}, b{};
        a.expire = x;
        b.expire = y;
        return stimer_higher_priority_func(&a, &b);
    };
    EXPECT_EQ(1, before({1, 5}, {2, 0}));
    EXPECT_EQ(0, before({2, 0}, {1, 5}));
    EXPECT_EQ(1, before({1, 4}, {1, 5}));
    EXPECT_EQ(0, before({1, 5}, {1, 5}));
    EXPECT_EQ(1, before({-1, 0}, {0, 0}));
}

TEST(TimerOrder, IndexIsThePositionPlusOne)
{
    stimer t{};
    stimer_index_func(&t, 7);
    EXPECT_EQ(8, t.index);
    stimer_index_func(&t, 0);
    EXPECT_EQ(1, t.index);
}

// ---- model ----

TEST(TimersModel, RandomWorkAgreesWithASortedList)
{
    for (unsigned seed = 1; seed <= 3; seed++) {
        Random random(seed);
        void *ctx;
        stimer_context_init(&ctx);
        at(1000);
        std::vector<stimer *> timers;
        for (int i = 0; i < 200; i++)
            timers.push_back(create_stimer(&ctx, 0, count_up, nullptr));
        for (std::size_t step = 0; step < effort(100000); step++) {
            std::size_t which = random() % timers.size();
            unsigned operation = random() % 4;
            stimer *t = timers[which];
            random.doing("operation, timer", operation, which);
            switch (operation) {
            case 0:
            case 1:
                if (stimer_isruning(t) == 0) {
                    t->interval = {static_cast<long>(random() % 50) - 2, static_cast<long>(random() % 1000000)};
                    start_stimer(t);
                }
                break;
            case 2:
                stop_stimer(t);
                ASSERT_EQ(0, stimer_isruning(t));
                break;
            default: {
                at(now.tv_sec + static_cast<long>(random() % 3), static_cast<long>(random() % 1000000));
                timeval limit = {now.tv_sec, now.tv_nsec / 1000};
                auto due = [&](stimer *x) {
                    return stimer_isruning(x) != 0 &&
                           (x->expire.tv_sec < limit.tv_sec ||
                            (x->expire.tv_sec == limit.tv_sec && x->expire.tv_usec <= limit.tv_usec));
                };
                auto wanted = std::count_if(timers.begin(), timers.end(), due);
                fired = 0;
                ASSERT_EQ(wanted, process_stimer(&ctx));
                ASSERT_EQ(wanted, fired);
                ASSERT_EQ(0, std::count_if(timers.begin(), timers.end(), due));
            }
            }
            timeval out;
            stimer *earliest = nullptr;
            for (stimer *x : timers) {
                if (stimer_isruning(x) != 0 && (earliest == nullptr || stimer_higher_priority_func(x, earliest) != 0))
                    earliest = x;
            }
            ASSERT_EQ(earliest != nullptr ? 0 : -1, stimer_get_next_expire(&ctx, &out));
            if (earliest != nullptr) {
                ASSERT_EQ(earliest->expire.tv_sec, out.tv_sec);
                ASSERT_EQ(earliest->expire.tv_usec, out.tv_usec);
            }
        }
        for (stimer *t : timers)
            free_stimer(t);
        stimer_context_fini(&ctx);
    }
}
