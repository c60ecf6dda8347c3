// SPDX-License-Identifier: Apache-2.0
#include "atimer.h"

#include "support/random.h"
#include "support/scarce_memory.h"
#include "support/support.h"

#include <climits>
#include <cstdlib>
#include <cstring>
#include <map>
#include <vector>

using namespace support;

namespace {

// ---- time and memory as the tests tell them ----

long now = 1000;
bool clock_fails = false;
const std::string kTooMany = "atimer_init: max tick can not be greater than 2^30\n";

std::vector<void *> fired;

void note(void *arg)
{
    fired.push_back(arg);
}

std::string callback_text(void (*callback)(void *))
{
    char text[32];
    std::snprintf(text, sizeof text, "%p", reinterpret_cast<void *>(callback));
    return text;
}

struct Wheel : atimer_context {
    Wheel(unsigned levels_wanted, int bits) { EXPECT_EQ(0, atimer_init(this, levels_wanted, bits)); }
    ~Wheel()
    {
        for (std::int32_t i = 0; i < nlevels; i++)
            std::free(levels[i].buckets);
        std::free(levels);
    }
    Wheel(const Wheel &) = delete;

    // Ticks until something fires, 0 if nothing does within limit.
    unsigned ticks_to_fire(unsigned limit)
    {
        fired.clear();
        for (unsigned i = 1; i <= limit; i++) {
            per_tick_call(this);
            if (!fired.empty())
                return i;
        }
        return 0;
    }
};

// The level and the bucket index where a timer is queued.
std::pair<int, long> place_of(const Wheel &wheel, const atimer &timer)
{
    for (std::int32_t i = 0; i < wheel.nlevels; i++) {
        const atimer_level &level = wheel.levels[i];
        if (timer.bucket >= level.buckets && timer.bucket < level.buckets + level.size)
            return {i, timer.bucket - level.buckets};
    }
    return {-1, -1};
}

} // namespace

extern "C" int clock_gettime(clockid_t, timespec *ts)
{
    if (clock_fails)
        return -1;
    *ts = {now, 0};
    return 0;
}

// ---- set-up ----

TEST(AtimerInit, Fields)
{
    now = 0x100000007;
    Wheel wheel(2, 4);
    EXPECT_EQ(2, wheel.nlevels);
    EXPECT_EQ(8u, wheel.total_bits);
    EXPECT_EQ(0xFFu, wheel.tick_mask);
    EXPECT_EQ(240u, wheel.max_expire);
    EXPECT_EQ(0u, wheel.tick);
    EXPECT_EQ(7u, wheel.last_second) << "the low 32 bits of the clock";
    for (int i = 0; i < 2; i++) {
        const atimer_level &level = wheel.levels[i];
        EXPECT_EQ(0, level.current);
        EXPECT_EQ(4, level.bits);
        EXPECT_EQ(16, level.size);
        EXPECT_EQ(4 * i, level.shift);
        EXPECT_EQ(i == 0 ? 0u : 15u, level.mask);
        for (int b = 0; b < 16; b++) {
            EXPECT_EQ(nullptr, level.buckets[b].first);
            EXPECT_EQ(&level.buckets[b].first, level.buckets[b].last);
        }
    }
}

TEST(AtimerInit, ThirtyBitsAreAcceptedAndMoreAreRefused)
{
    {
        Wheel wheel(3, 10);
        EXPECT_EQ(1023u << 20, wheel.max_expire);
        EXPECT_EQ((1u << 30) - 1, wheel.tick_mask);
    }
    atimer_context context;
    EXPECT_EQ(-1, atimer_init(&context, 3, 11));
    EXPECT_EQ(33u, context.total_bits);
    EXPECT_EQ(1u, context.tick_mask);
    EXPECT_EQ(2047u << 22, context.max_expire) << "the product is computed in 32 bits";
    EXPECT_EQ(nullptr, context.levels);
    EXPECT_EQ(-1, atimer_init(&context, 31, 1));
    EXPECT_EQ(-1, atimer_init(&context, 1, 31));
    EXPECT_EQ(-1, atimer_init(&context, 1, INT_MAX));
    EXPECT_EQ(kTooMany + kTooMany + kTooMany + kTooMany, read_file(kConsole));
}

TEST(AtimerInit, WrappingProductsAndNegativeBitsAreRefused)
{
    atimer_context context;
    EXPECT_EQ(-1, atimer_init(&context, 1u << 31, 2));
    EXPECT_EQ(-1, atimer_init(&context, 1u << 30, 4));
    EXPECT_EQ(-1, atimer_init(&context, 1, -1));
    EXPECT_EQ(-1, atimer_init(&context, 2, INT_MIN));
    EXPECT_EQ(-1, atimer_init(&context, 0, -1));
    EXPECT_EQ(-1, atimer_init(&context, 0, 31));
    EXPECT_EQ(nullptr, context.levels);
}

TEST(AtimerInit, OddCountsNeverIndexOutside)
{
    EXPECT_EQ(-1, atimer_init(nullptr, 1, 4));
    atimer_context context;
    EXPECT_EQ(-1, atimer_init(&context, UINT_MAX, 0));
    EXPECT_EQ(nullptr, context.levels);
    atimer *timer = create_atimer(0x80000000u, note, nullptr);
    {
        Wheel none(0, 4);
        EXPECT_EQ(0xF0000000u, none.max_expire);
        start_atimer(&none, timer);
        EXPECT_EQ(nullptr, timer->bucket);
        per_tick_call(&none);
        now += 5;
        EXPECT_EQ(0, process_atimer(&none));
    }
    Wheel single(3, 0);
    EXPECT_EQ(0u, single.max_expire);
    start_atimer(&single, timer);
    EXPECT_EQ(1u, single.ticks_to_fire(3)) << "its only bucket is due every tick";
    free_atimer(timer);
}

TEST(AtimerInit, FailedAllocationsLeaveNothing)
{
    for (int good : {0, 1, 2, 3}) {
        atimer_context context;
        allocations_left = good;
        int result = atimer_init(&context, 3, 4);
        allocations_left = -1;
        EXPECT_EQ(-1, result) << good;
        EXPECT_EQ(nullptr, context.levels);
    }
    EXPECT_EQ("", read_file(kConsole));
}

// ---- timers ----

TEST(Atimer, CreateSetsItsFields)
{
    int arg;
    atimer *t = create_atimer(7, note, &arg);
    EXPECT_EQ(nullptr, t->bucket);
    EXPECT_EQ(0u, t->spare);
    EXPECT_EQ(note, t->callback);
    EXPECT_EQ(&arg, t->arg);
    EXPECT_EQ(7u, t->expire);
    EXPECT_EQ(7u, t->remain);
    free_atimer(t);
}

TEST(Atimer, CreateWithoutMemoryReturnsNullInSilence)
{
    if (under_sanitizer())
        GTEST_SKIP() << "a sanitizer's allocator cannot be replaced";
    allocations_left = 0;
    atimer *t = create_atimer(7, note, nullptr);
    allocations_left = -1;
    EXPECT_EQ(nullptr, t);
    EXPECT_EQ("", read_file(kConsole));
}

TEST(Atimer, InitStopsARunningTimer)
{
    Wheel wheel(1, 8);
    atimer t{};
    init_atimer(nullptr, 1, note, nullptr);
    init_atimer(&t, 5, note, nullptr);
    start_atimer(&wheel, &t);
    EXPECT_NE(nullptr, t.bucket);
    init_atimer(&t, 6, note, &t);
    EXPECT_EQ(nullptr, t.bucket);
    EXPECT_EQ(6u, t.expire);
    EXPECT_EQ(0u, wheel.ticks_to_fire(300));
}

TEST(Atimer, FiresOnTheTickOfItsExpiry)
{
    Wheel wheel(1, 8);
    atimer *t = create_atimer(5, note, nullptr);
    start_atimer(&wheel, t);
    EXPECT_EQ((std::pair<int, long>{0, 5}), place_of(wheel, *t));
    EXPECT_EQ(5u, wheel.ticks_to_fire(20));
    EXPECT_EQ(nullptr, t->bucket);
    EXPECT_EQ(0u, wheel.ticks_to_fire(300)) << "only once";
    free_atimer(t);
}

TEST(Atimer, CascadesFromTheHigherLevel)
{
    Wheel wheel(2, 4);
    atimer *t = create_atimer(20, note, nullptr);
    start_atimer(&wheel, t);
    EXPECT_EQ((std::pair<int, long>{1, 1}), place_of(wheel, *t));
    EXPECT_EQ(4u, t->remain);
    for (int i = 0; i < 15; i++)
        per_tick_call(&wheel);
    EXPECT_EQ(1, place_of(wheel, *t).first);
    per_tick_call(&wheel);
    EXPECT_EQ((std::pair<int, long>{0, 4}), place_of(wheel, *t));
    EXPECT_EQ(4u, wheel.ticks_to_fire(20));
    free_atimer(t);
}

TEST(Atimer, ATimerDueWhenItsBucketCascadesFiresAtOnce)
{
    Wheel wheel(2, 4);
    atimer *t = create_atimer(16, note, nullptr);
    start_atimer(&wheel, t);
    EXPECT_EQ(0u, t->remain);
    EXPECT_EQ(16u, wheel.ticks_to_fire(40));
    free_atimer(t);
}

TEST(Atimer, ZeroTicksCountAsOne)
{
    Wheel wheel(2, 4);
    for (unsigned expire : {0u, 1u}) {
        atimer *t = create_atimer(expire, note, nullptr);
        start_atimer(&wheel, t);
        EXPECT_EQ(1u, wheel.ticks_to_fire(20));
        free_atimer(t);
    }
}

TEST(Atimer, ExpiriesFromTheLimitUpAreRefused)
{
    Wheel wheel(2, 4);
    atimer *t = create_atimer(239, note, nullptr);
    start_atimer(&wheel, t);
    EXPECT_EQ(239u, wheel.ticks_to_fire(300));
    t->expire = 240;
    start_atimer(&wheel, t);
    t->expire = INT_MAX;
    start_atimer(&wheel, t);
    EXPECT_EQ(nullptr, t->bucket);
    std::string tail = " greater than max allowed 240, callback " + callback_text(note) + "\n";
    EXPECT_EQ("ATimer expire 240" + tail + "ATimer expire 2147483647" + tail, read_file(kConsole));
    free_atimer(t);
}

TEST(Atimer, ExpiriesFrom2To31UpPassTheSignedCompare)
{
    Wheel wheel(2, 4);
    for (unsigned expire : {0x80000000u, 0x80000005u, 0xFFFFFFFFu}) {
        atimer *t = create_atimer(expire, note, nullptr);
        start_atimer(&wheel, t);
        EXPECT_NE(nullptr, t->bucket) << expire;
        auto place = place_of(wheel, *t);
        EXPECT_GE(place.first, 0) << "within the wheel";
        free_atimer(t);
    }
    EXPECT_EQ("", read_file(kConsole));
}

TEST(Atimer, StartingARunningTimerIsReportedAndChangesNothing)
{
    Wheel wheel(2, 4);
    atimer *t = create_atimer(5, note, nullptr);
    start_atimer(&wheel, t);
    auto place = place_of(wheel, *t);
    per_tick_call(&wheel);
    start_atimer(&wheel, t);
    EXPECT_EQ("ATimer has already been started, callback " + callback_text(note) + "\n", read_file(kConsole));
    EXPECT_EQ(place, place_of(wheel, *t));
    EXPECT_EQ(4u, wheel.ticks_to_fire(20));
    free_atimer(t);
}

TEST(Atimer, ANullCallbackIsNotCalled)
{
    Wheel wheel(1, 4);
    atimer *t = create_atimer(1, nullptr, nullptr);
    start_atimer(&wheel, t);
    per_tick_call(&wheel);
    EXPECT_EQ(nullptr, t->bucket);
    free_atimer(t);
}

TEST(Atimer, StopAndAdjust)
{
    Wheel wheel(2, 4);
    atimer *t = create_atimer(5, note, nullptr);
    stop_atimer(t);
    start_atimer(&wheel, t);
    stop_atimer(t);
    EXPECT_EQ(nullptr, t->bucket);
    EXPECT_EQ(0u, wheel.ticks_to_fire(20));
    adjust_atimer(&wheel, t, 7);
    EXPECT_EQ(7u, t->expire);
    per_tick_call(&wheel);
    adjust_atimer(&wheel, t, 3);
    EXPECT_EQ(3u, wheel.ticks_to_fire(20));
    adjust_atimer(&wheel, t, 500);
    EXPECT_EQ(nullptr, t->bucket) << "stopped, and refused";
    EXPECT_EQ(500u, t->expire);
    free_atimer(t);
}

TEST(Atimer, AdjustWithoutAWheelOrATimerDoesNothing)
{
    Wheel wheel(2, 4);
    atimer *t = create_atimer(5, note, nullptr);
    adjust_atimer(nullptr, t, 9);
    EXPECT_EQ(5u, t->expire);
    start_atimer(&wheel, t);
    adjust_atimer(nullptr, t, 9);
    adjust_atimer(&wheel, nullptr, 9);
    EXPECT_EQ(5u, t->expire);
    EXPECT_EQ(5u, wheel.ticks_to_fire(20)) << "it is still running";
    free_atimer(t);
}

TEST(Atimer, TimersOfABucketFireInTheOrderOfTheirStarts)
{
    Wheel wheel(1, 4);
    std::vector<atimer *> timers;
    for (long i = 0; i < 4; i++) {
        timers.push_back(create_atimer(3, note, reinterpret_cast<void *>(i)));
        start_atimer(&wheel, timers.back());
    }
    wheel.ticks_to_fire(5);
    ASSERT_EQ(4u, fired.size());
    for (long i = 0; i < 4; i++)
        EXPECT_EQ(reinterpret_cast<void *>(i), fired[static_cast<std::size_t>(i)]);
    for (atimer *t : timers)
        free_atimer(t);
}

TEST(Atimer, ACascadeKeepsTheOrderOfTheStarts)
{
    Wheel wheel(2, 4);
    std::vector<atimer *> timers;
    auto start = [&](unsigned expire) {
        auto number = static_cast<long>(timers.size());
        timers.push_back(create_atimer(expire, note, reinterpret_cast<void *>(number)));
        start_atimer(&wheel, timers.back());
        return place_of(wheel, *timers.back());
    };
    for (unsigned i = 0; i < 3; i++)
        EXPECT_EQ(1, start(20).first);
    for (int i = 0; i < 10; i++)
        per_tick_call(&wheel);
    EXPECT_EQ(1, start(10).first) << "due on the same tick, and queued after the others";
    for (int i = 0; i < 6; i++)
        per_tick_call(&wheel);
    EXPECT_EQ((std::pair<int, long>{0, 4}), start(4)) << "after the cascade";
    EXPECT_EQ(4u, wheel.ticks_to_fire(20));
    std::vector<void *> wanted;
    for (long i = 0; i < 5; i++)
        wanted.push_back(reinterpret_cast<void *>(i));
    EXPECT_EQ(wanted, fired);
    for (atimer *t : timers)
        free_atimer(t);
}

namespace {

Wheel *shared_wheel;
std::vector<atimer *> shared;

} // namespace

TEST(AtimerCallbacks, MayStopFreeAndStartTimersOfTheSameBucket)
{
    Wheel wheel(1, 4);
    shared_wheel = &wheel;
    fired.clear();
    auto act = [](void *) {
        stop_atimer(shared[1]);
        free_atimer(shared[2]);
        adjust_atimer(shared_wheel, shared[3], 14); // nearly a full turn
        adjust_atimer(shared_wheel, shared[0], 1);
        free_atimer(shared[0]);
        fired.push_back(nullptr);
    };
    for (int i = 0; i < 5; i++)
        shared.push_back(create_atimer(3, i == 0 ? +act : note, reinterpret_cast<void *>(static_cast<long>(i))));
    for (atimer *t : shared)
        start_atimer(&wheel, t);
    for (int i = 0; i < 3; i++)
        per_tick_call(&wheel);
    EXPECT_EQ((std::vector<void *>{nullptr, reinterpret_cast<void *>(4L)}), fired);
    EXPECT_EQ(14u, wheel.ticks_to_fire(20));
    for (int i : {1, 3, 4})
        free_atimer(shared[static_cast<std::size_t>(i)]);
}

TEST(AtimerCallbacks, ACascadeAppendsAfterATimerThatACallbackStarted)
{
    Wheel wheel(2, 4);
    static Wheel *seen;
    static atimer *started;
    seen = &wheel;
    started = create_atimer(2, note, &started);
    atimer *starter = create_atimer(
        16, [](void *) { start_atimer(seen, started); }, nullptr);
    atimer *cascaded = create_atimer(18, note, &wheel);
    start_atimer(&wheel, starter);
    start_atimer(&wheel, cascaded);
    EXPECT_EQ(cascaded->bucket, starter->bucket) << "one fires and the other moves down in the same tick";
    EXPECT_EQ(18u, wheel.ticks_to_fire(20));
    EXPECT_EQ((std::vector<void *>{&started, &wheel}), fired);
    for (atimer *t : {starter, started, cascaded})
        free_atimer(t);
}

TEST(AtimerCallbacks, StartingAgainForAFullTurnIsNotFiredAtOnce)
{
    Wheel wheel(2, 4);
    shared_wheel = &wheel;
    static atimer *t;
    t = create_atimer(
        16, [](void *) { fired.push_back(nullptr), start_atimer(shared_wheel, t); }, nullptr);
    start_atimer(&wheel, t);
    EXPECT_EQ(16u, wheel.ticks_to_fire(20));
    EXPECT_EQ(1u, fired.size());
    EXPECT_EQ(16u, wheel.ticks_to_fire(20));
    free_atimer(t);
}

// ---- driving ----

TEST(AtimerProcess, OneTickASecond)
{
    Wheel wheel(2, 4);
    EXPECT_EQ(0, process_atimer(&wheel));
    EXPECT_EQ(0u, wheel.tick);
    now += 1;
    EXPECT_EQ(0, process_atimer(&wheel));
    EXPECT_EQ(1u, wheel.tick);
    now += 5;
    EXPECT_EQ(0, process_atimer(&wheel));
    EXPECT_EQ(6u, wheel.tick);
    EXPECT_EQ(1006u, wheel.last_second);
    EXPECT_EQ(6, wheel.levels[0].current);
}

TEST(AtimerProcess, AClockThatFailsOrJumpsBackGivesNoTicks)
{
    Wheel wheel(2, 4);
    clock_fails = true;
    EXPECT_EQ(-1000, process_atimer(&wheel));
    clock_fails = false;
    now -= 10;
    EXPECT_EQ(-10, process_atimer(&wheel));
    EXPECT_EQ(0u, wheel.tick);
    EXPECT_EQ(1000u, wheel.last_second);
    now += 12;
    EXPECT_EQ(0, process_atimer(&wheel));
    EXPECT_EQ(2u, wheel.tick);
}

TEST(AtimerProcess, SecondsAndTicksWrap)
{
    now = 0xFFFFFFFEL;
    Wheel wheel(2, 4);
    wheel.tick = 0xFFFFFFF0u; // a multiple of the wheel's size, like after a long run
    atimer *t = create_atimer(20, note, nullptr);
    start_atimer(&wheel, t);
    now += 19;
    fired.clear();
    EXPECT_EQ(0, process_atimer(&wheel));
    EXPECT_EQ(0u, fired.size());
    EXPECT_EQ(17u, wheel.last_second);
    now += 1;
    EXPECT_EQ(0, process_atimer(&wheel));
    EXPECT_EQ(1u, fired.size());
    EXPECT_EQ(4u, wheel.tick);
    free_atimer(t);
}

TEST(AtimerProcess, CallbacksSeeTheirOwnTick)
{
    Wheel wheel(2, 4);
    static Wheel *seen;
    seen = &wheel;
    static std::vector<std::pair<std::uint32_t, std::uint32_t>> at;
    atimer *t = create_atimer(
        7,
        [](void *self) {
            at.emplace_back(seen->tick, seen->last_second);
            if (at.size() < 3)
                start_atimer(seen, *static_cast<atimer **>(self));
        },
        &t);
    start_atimer(&wheel, t);
    now += 100;
    EXPECT_EQ(0, process_atimer(&wheel));
    EXPECT_EQ((std::vector<std::pair<std::uint32_t, std::uint32_t>>{{7, 1007}, {14, 1014}, {21, 1021}}), at);
    EXPECT_EQ(100u, wheel.tick);
    free_atimer(t);
}

TEST(AtimerProcess, ACallbackMayDriveTheWheelItself)
{
    Wheel wheel(2, 4);
    static Wheel *driven;
    driven = &wheel;
    atimer *t = create_atimer(
        7, [](void *) { process_atimer(driven); }, nullptr);
    start_atimer(&wheel, t);
    now += 50;
    EXPECT_EQ(0, process_atimer(&wheel));
    EXPECT_EQ(50u, wheel.tick) << "no second is delivered twice";
    free_atimer(t);
}

// A clock change inside a callback affects the next tick, not the next call.
TEST(AtimerProcess, AClockThatFailsInACallbackEndsTheCall)
{
    Wheel wheel(2, 4);
    atimer *t = create_atimer(
        3, [](void *) { clock_fails = true; }, nullptr);
    start_atimer(&wheel, t);
    now += 10;
    EXPECT_EQ(-1003, process_atimer(&wheel));
    EXPECT_EQ(3u, wheel.tick);
    EXPECT_EQ(1003u, wheel.last_second);
    clock_fails = false;
    EXPECT_EQ(0, process_atimer(&wheel)) << "the rest of the stall is delivered later";
    EXPECT_EQ(10u, wheel.tick);
    free_atimer(t);
}

TEST(AtimerProcess, AClockThatJumpsInACallbackIsFollowed)
{
    Wheel wheel(2, 4);
    atimer *forward = create_atimer(
        3, [](void *) { now += 30; }, nullptr);
    atimer *back = create_atimer(
        20, [](void *) { now = 1005; }, nullptr);
    atimer *late = create_atimer(21, note, nullptr);
    for (atimer *t : {forward, back, late})
        start_atimer(&wheel, t);
    now += 10;
    fired.clear();
    EXPECT_EQ(1005 - 1020, process_atimer(&wheel));
    EXPECT_EQ(20u, wheel.tick) << "up to the new time, and no further once the clock is behind";
    EXPECT_TRUE(fired.empty());
    now = 1021;
    EXPECT_EQ(0, process_atimer(&wheel));
    EXPECT_EQ(1u, fired.size());
    for (atimer *t : {forward, back, late})
        free_atimer(t);
}

TEST(AtimerProcess, AnEmptyWheelCatchesUpAfterALongStall)
{
    Wheel wheel(3, 10);
    now += 2000000000L;
    EXPECT_EQ(0, process_atimer(&wheel));
    EXPECT_EQ(2000000000u, wheel.tick);
    EXPECT_EQ(wheel.tick % 1024, static_cast<unsigned>(wheel.levels[0].current));
    EXPECT_EQ((wheel.tick >> 10) % 1024, static_cast<unsigned>(wheel.levels[1].current));
    EXPECT_EQ((wheel.tick >> 20) % 1024, static_cast<unsigned>(wheel.levels[2].current));
}

// ---- models ----

namespace {

struct Shape {
    unsigned levels;
    int bits;
};

constexpr Shape kShapes[] = {{1, 1}, {1, 6}, {1, 10}, {2, 1}, {2, 4}, {3, 2}, {3, 7}, {4, 3}, {5, 1}, {5, 6}, {2, 10}};

} // namespace

TEST(AtimerModel, EveryTimerFiresOnItsTick)
{
    for (const Shape &shape : kShapes) {
        Wheel wheel(shape.levels, shape.bits);
        Random engine(shape.levels * 100 + static_cast<unsigned>(shape.bits));
        auto random = [&] { return static_cast<std::uint32_t>(engine()); };
        std::vector<atimer *> timers;
        std::map<atimer *, std::uint32_t> due; // the tick each running timer is to fire on
        for (int i = 0; i < 100; i++) {
            timers.push_back(create_atimer(0, note, nullptr));
            timers.back()->arg = timers.back();
        }
        std::uint32_t limit = std::max(wheel.max_expire, 1u);
        for (std::size_t step = 0; step < effort(20000); step++) {
            for (unsigned n = random() % 3; n > 0; n--) {
                atimer *t = timers[random() % timers.size()];
                if (random() % 4 == 0) {
                    stop_atimer(t);
                    due.erase(t);
                    continue;
                }
                std::uint32_t expire = (random() % 2 == 0 ? random() % 40 : random()) % limit;
                adjust_atimer(&wheel, t, expire);
                due[t] = wheel.tick + std::max(expire, 1u);
            }
            engine.doing("tick of a wheel of levels, bits", wheel.tick, shape.levels, shape.bits);
            fired.clear();
            per_tick_call(&wheel);
            for (void *t : fired) {
                auto at = due.find(static_cast<atimer *>(t));
                ASSERT_NE(due.end(), at);
                ASSERT_EQ(wheel.tick, at->second);
                due.erase(at);
            }
            for (auto &[t, tick] : due)
                ASSERT_NE(tick, wheel.tick) << "missed";
        }
        for (atimer *t : timers)
            free_atimer(t);
    }
}

TEST(AtimerModel, StallsGiveTheSameAsSingleTicks)
{
    for (const Shape &shape : kShapes) {
        Wheel stalled(shape.levels, shape.bits);
        Wheel stepped(shape.levels, shape.bits);
        Random engine(shape.levels * 7 + static_cast<unsigned>(shape.bits));
        auto random = [&] { return static_cast<std::uint32_t>(engine()); };
        constexpr long kTimers = 20;
        std::vector<atimer> a(kTimers), b(kTimers);
        for (long i = 0; i < kTimers; i++) {
            init_atimer(&a[static_cast<std::size_t>(i)], 0, note, reinterpret_cast<void *>(i));
            init_atimer(&b[static_cast<std::size_t>(i)], 0, note, reinterpret_cast<void *>(i));
        }
        std::uint32_t limit = std::max(stalled.max_expire, 1u);
        for (std::size_t step = 0; step < effort(3000); step++) {
            for (unsigned n = random() % 6; n > 0; n--) {
                std::size_t which = random() % kTimers;
                std::uint32_t expire = (random() % 2 == 0 ? random() % 300 : random()) % limit;
                if (random() % 5 == 0) {
                    stop_atimer(&a[which]);
                    stop_atimer(&b[which]);
                } else {
                    adjust_atimer(&stalled, &a[which], expire);
                    adjust_atimer(&stepped, &b[which], expire);
                }
            }
            long stall = static_cast<long>(random() % 400);
            engine.doing("stall of, with levels, bits", stall, shape.levels, shape.bits);
            now += stall;
            fired.clear();
            ASSERT_EQ(0, process_atimer(&stalled));
            std::vector<void *> wanted = fired;
            fired.clear();
            for (long i = 0; i < stall; i++)
                per_tick_call(&stepped);
            ASSERT_EQ(wanted, fired);
            ASSERT_EQ(stepped.tick, stalled.tick);
            for (std::int32_t i = 0; i < stalled.nlevels; i++)
                ASSERT_EQ(stepped.levels[i].current, stalled.levels[i].current);
        }
    }
}
