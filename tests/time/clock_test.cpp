// SPDX-License-Identifier: Apache-2.0
#include "qv_time.h"

#include "support/next_function.h"
#include "support/support.h"

#include <atomic>
#include <climits>
#include <csignal>
#include <cstdlib>
#include <functional>
#include <pthread.h>
#include <sys/time.h>
#include <sys/wait.h>
#include <thread>
#include <unistd.h>

using namespace support;

namespace {

bool interposed = false;
timespec told = {0, 0};
int clock_result = 0;
clockid_t clock_asked = -1;

struct Clock : testing::Test {
    void SetUp() override { interposed = true; }
    void TearDown() override { interposed = false; }
};

constexpr time_t kSummer = 1720000000; // 2024-07-03 09:46:40 UTC

} // namespace

extern "C" int clock_gettime(clockid_t id, timespec *ts)
{
    static auto real = support::next_function<int(clockid_t, timespec *)>("clock_gettime");
    if (!interposed)
        return real(id, ts);
    clock_asked = id;
    if (clock_result == 0)
        *ts = told;
    else
        *ts = {77, 77}; // a failing call may write
    return clock_result;
}

// ---- comparison ----

TEST(TimevalCompare, SecondsFirstThenMicroseconds)
{
    auto compare = [](timeval a, timeval b) { return qv_timeval_compare(&a, &b); };
    EXPECT_EQ(-1, compare({5, 999999}, {6, 0}));
    EXPECT_EQ(1, compare({6, 0}, {5, 999999}));
    EXPECT_EQ(1, compare({5, 2}, {5, 1}));
    EXPECT_EQ(-1, compare({5, 1}, {5, 2}));
    EXPECT_EQ(0, compare({5, 1}, {5, 1}));
    EXPECT_EQ(-1, compare({-1, 0}, {0, 0})) << "signed";
    EXPECT_EQ(-1, compare({0, -1}, {0, 0}));
    EXPECT_EQ(-1, compare({LONG_MIN, 0}, {LONG_MAX, 0})) << "compared, not subtracted";
    EXPECT_EQ(-1, compare({LONG_MAX, LONG_MIN}, {LONG_MAX, LONG_MAX}));
    EXPECT_EQ(-1, compare({1, 2000000}, {2, 0})) << "not normalised";
}

// ---- monotonic reads ----

TEST_F(Clock, ReadsTheMonotonicClock)
{
    told = {42, 1999};
    timeval tv;
    EXPECT_EQ(0, gettimeofday_qv(&tv));
    EXPECT_EQ(CLOCK_MONOTONIC, clock_asked);
    EXPECT_EQ(42, tv.tv_sec);
    EXPECT_EQ(1, tv.tv_usec) << "truncated";
    told = {43, 999999999};
    EXPECT_EQ(0, qv_gettimeofday(&tv));
    EXPECT_EQ(43, tv.tv_sec);
    EXPECT_EQ(999999, tv.tv_usec);
    timespec ts;
    EXPECT_EQ(0, timeRT(&ts));
    EXPECT_EQ(43, ts.tv_sec);
    EXPECT_EQ(999999999, ts.tv_nsec);
    time_t t = 0;
    EXPECT_EQ(43, qv_time(&t));
    EXPECT_EQ(43, t);
    EXPECT_EQ(43, qv_time(nullptr));
}

TEST_F(Clock, EveryFunctionReadsTheSameClock)
{
    auto asked_by = [](auto read) {
        clock_asked = -1;
        read();
        return clock_asked;
    };
    timeval tv;
    timespec ts;
    EXPECT_EQ(CLOCK_MONOTONIC, asked_by([&] { qv_time(nullptr); }));
    EXPECT_EQ(CLOCK_MONOTONIC, asked_by([&] { get_time_second(); }));
    EXPECT_EQ(CLOCK_MONOTONIC, asked_by([&] { gettimeofday_qv(&tv); }));
    EXPECT_EQ(CLOCK_MONOTONIC, asked_by([&] { qv_gettimeofday(&tv); }));
    EXPECT_EQ(CLOCK_MONOTONIC, asked_by([&] { timeRT(&ts); }));
}

TEST_F(Clock, SecondsAreCutTo32Bits)
{
    told = {0xFFFFFFFFL, 0};
    EXPECT_EQ(0xFFFFFFFFu, get_time_second());
    told = {0x100000000L, 0};
    EXPECT_EQ(0u, get_time_second());
    told = {0x100000007L, 0};
    EXPECT_EQ(7u, get_time_second());
    EXPECT_EQ(0x100000007L, qv_time(nullptr));
}

TEST_F(Clock, AFailureGivesZeros)
{
    clock_result = -1;
    timeval tv = {1, 1};
    timespec ts = {1, 1};
    time_t t = 1;
    EXPECT_EQ(-1, gettimeofday_qv(&tv));
    EXPECT_EQ(0, tv.tv_sec);
    EXPECT_EQ(0, tv.tv_usec);
    tv = {1, 1};
    EXPECT_EQ(-1, qv_gettimeofday(&tv));
    EXPECT_EQ(0, tv.tv_sec);
    EXPECT_EQ(-1, timeRT(&ts));
    EXPECT_EQ(0, ts.tv_sec);
    EXPECT_EQ(0, ts.tv_nsec);
    EXPECT_EQ(0, qv_time(&t));
    EXPECT_EQ(0, t);
    EXPECT_EQ(0, qv_time(nullptr));
    EXPECT_EQ(0u, get_time_second());
    clock_result = -7;
    EXPECT_EQ(-7, timeRT(&ts)) << "the result of the failed call itself";
}

TEST(MonotonicClock, IsIndependentOfTheDate)
{
    timespec before, after;
    ::clock_gettime(CLOCK_MONOTONIC, &before);
    time_t t = qv_time(nullptr);
    ::clock_gettime(CLOCK_MONOTONIC, &after);
    EXPECT_GE(t, before.tv_sec);
    EXPECT_LE(t, after.tv_sec);
}

// ---- calendar ----

TEST(Calendar, ATimeZoneChangeIsSeenByAllButLocaltimeSafe)
{
    ::setenv("TZ", "UTC0", 1);
    EXPECT_EQ(9, qv_localtime(&kSummer)->tm_hour);
    ::setenv("TZ", "XXX-2", 1);
    EXPECT_EQ(9, localtime_safe(&kSummer)->tm_hour) << "does not read TZ again";
    EXPECT_EQ(11, qv_localtime(&kSummer)->tm_hour);
    EXPECT_EQ(11, localtime_safe(&kSummer)->tm_hour);
    ::setenv("TZ", "XXX-3", 1);
    tm out;
    EXPECT_EQ(&out, qv_localtime_r(&kSummer, &out));
    EXPECT_EQ(12, out.tm_hour);
    ::setenv("TZ", "XXX-4", 1);
    qv_calendar_time(nullptr);
    EXPECT_EQ(13, localtime_safe(&kSummer)->tm_hour);
}

TEST(Calendar, ResultsAreTheCLibrarysStaticRecord)
{
    EXPECT_EQ(::localtime(&kSummer), qv_localtime(&kSummer));
    EXPECT_EQ(::localtime(&kSummer), localtime_safe(&kSummer));
}

TEST(Calendar, TimesThatCannotBeConvertedGiveNull)
{
    time_t far = LONG_MAX;
    tm out;
    EXPECT_EQ(nullptr, qv_localtime(&far));
    EXPECT_EQ(nullptr, localtime_safe(&far));
    EXPECT_EQ(nullptr, qv_localtime_r(&far, &out));
    EXPECT_EQ(0, localtime_safe_lock()) << "the mutex is unlocked again";
    EXPECT_EQ(0, localtime_safe_unlock());
}

TEST(Calendar, CalendarTimeIsTheWallClock)
{
    time_t t = 0;
    time_t before = ::time(nullptr);
    time_t now = qv_calendar_time(&t);
    EXPECT_GE(now, before);
    EXPECT_LE(now, ::time(nullptr));
    EXPECT_EQ(now, t);
    EXPECT_GE(qv_calendar_time(nullptr), now);
}

TEST(LocaltimeMutex, KeepsConversionsOutWhileHeld)
{
    tm out;
    const std::function<void()> conversions[] = {[] { qv_localtime(&kSummer); }, [] { localtime_safe(&kSummer); },
                                                 [&] { qv_localtime_r(&kSummer, &out); }};
    for (const auto &convert : conversions) {
        EXPECT_EQ(0, localtime_safe_lock());
        std::atomic<bool> done{false};
        std::thread other([&] {
            convert();
            done = true;
        });
        ::usleep(20000);
        EXPECT_FALSE(done);
        EXPECT_EQ(0, localtime_safe_unlock());
        other.join();
        EXPECT_TRUE(done);
    }
}

TEST(LocaltimeMutex, IsNotNeededForTheCalendarTime)
{
    ChildResult child = run_child(
        [] {
            localtime_safe_lock();
            time_t own = qv_calendar_time(nullptr);
            time_t others = 0;
            std::thread([&] { others = qv_calendar_time(nullptr); }).join();
            ::_exit(own > 0 && others >= own && localtime_safe_unlock() == 0 ? 0 : 1);
        },
        20000);
    EXPECT_TRUE(child.exited(0));
}

TEST(LocaltimeMutex, AChildForkedWhileAnotherThreadHeldItCanConvert)
{
    std::atomic<int> stage{0};
    std::thread holder([&] {
        localtime_safe_lock();
        stage = 1;
        while (stage != 2)
            ::usleep(1000);
        localtime_safe_unlock();
    });
    while (stage != 1)
        ::usleep(100);
    ChildResult child = run_child(
        [] {
            tm out;
            bool good =
                qv_localtime_r(&kSummer, &out) != nullptr && localtime_safe_lock() == 0 && localtime_safe_unlock() == 0;
            ::_exit(good ? 0 : 1);
        },
        20000);
    EXPECT_TRUE(child.exited(0));
    stage = 2;
    holder.join();
    EXPECT_NE(nullptr, qv_localtime(&kSummer)) << "the parent's mutex still works";
}

TEST(LocaltimeMutex, AChildForkedByItsHolderHoldsItStill)
{
    localtime_safe_lock();
    ChildResult child = run_child(
        [] {
            bool unlocked = localtime_safe_unlock() == 0;
            ::_exit(unlocked && qv_localtime(&kSummer) != nullptr ? 0 : 1);
        },
        20000);
    EXPECT_TRUE(child.exited(0));
    localtime_safe_unlock();
}

TEST(LocaltimeMutex, ForksAmongBusyConversionsNeverHang)
{
    std::atomic<bool> stop{false};
    std::vector<std::thread> threads;
    for (int i = 0; i < 2; i++)
        threads.emplace_back([&] {
            tm out;
            while (!stop)
                qv_localtime_r(&kSummer, &out);
        });
    for (std::size_t i = 0; i < effort(200); i++) {
        ChildResult child = run_child(
            [] {
                tm out;
                ::_exit(qv_localtime_r(&kSummer, &out) != nullptr ? 0 : 1);
            },
            20000);
        EXPECT_TRUE(child.exited(0));
    }
    stop = true;
    for (std::thread &thread : threads)
        thread.join();
}

TEST(CalendarTime, AChildForkedWhileAnotherThreadAsksForItCanConvert)
{
    ::unsetenv("TZ"); // makes the zone code slower
    for (bool while_kept : {false, true}) {
        ChildResult forking = run_child(
            [&] {
                std::atomic<bool> stop{false};
                std::thread asking([&] {
                    while (!stop)
                        qv_calendar_time(nullptr);
                });
                if (while_kept)
                    localtime_safe_lock();
                for (std::size_t i = 0; i < effort(300); i++) {
                    pid_t pid = ::fork();
                    if (pid == 0) {
                        ::alarm(20);
                        if (while_kept)
                            localtime_safe_unlock();
                        tm out;
                        bool good = qv_calendar_time(nullptr) > 0 && qv_localtime_r(&kSummer, &out) != nullptr;
                        ::_exit(good ? 0 : 1);
                    }
                    int status = -1;
                    ::waitpid(pid, &status, 0);
                    ASSERT_EQ(0, status) << i;
                }
                if (while_kept)
                    localtime_safe_unlock();
                stop = true;
                asking.join();
            },
            30000);
        EXPECT_TRUE(forking.exited(0)) << while_kept << forking.out;
    }
}

namespace {

std::atomic<std::size_t> forks{0};

// From now on every SIGALRM forks once.
void fork_at_alarms()
{
    struct sigaction action = {};
    action.sa_handler = [](int) {
        pid_t pid = ::fork();
        if (pid == 0)
            ::_exit(0);
        ::waitpid(pid, nullptr, 0);
        forks++;
    };
    ::sigaction(SIGALRM, &action, nullptr);
}

} // namespace

TEST(CalendarTime, AHandlerThatInterruptsItMayFork)
{
    ::unsetenv("TZ");
    ChildResult child = run_child([] {
        fork_at_alarms();
        for (std::size_t i = 0; i < effort(200); i++) {
            itimerval once = {{0, 0}, {0, static_cast<suseconds_t>(1 + i % 300)}};
            ::setitimer(ITIMER_REAL, &once, nullptr);
            while (forks <= i)
                qv_calendar_time(nullptr);
        }
        ::_exit(0);
    });
    EXPECT_TRUE(child.exited(0));
}

// ---- fork handlers of a library that was loaded earlier ----

namespace {

bool convert_in_handlers = false;
int converted_in_handlers = 0;

void convert_in_handler()
{
    if (!convert_in_handlers)
        return;
    tm out;
    localtime_safe_lock();
    localtime_safe_unlock();
    qv_calendar_time(nullptr);
    converted_in_handlers += qv_localtime_r(&kSummer, &out) != nullptr;
}

// Runs before the constructors of all shared objects, so that its handlers run inside the library's.
void register_early(int, char **, char **)
{
    pthread_atfork(convert_in_handler, convert_in_handler, convert_in_handler);
}

[[gnu::section(".preinit_array"), gnu::used]] void (*const early)(int, char **, char **) = register_early;

} // namespace

TEST(LocaltimeMutex, ForkHandlersOfALibraryLoadedEarlierMayConvert)
{
    ChildResult forking = run_child(
        [] {
            convert_in_handlers = true;
            pid_t pid = ::fork();
            if (pid == 0)
                ::_exit(converted_in_handlers == 2 && localtime_safe_lock() == 0 && localtime_safe_unlock() == 0 ? 0
                                                                                                                 : 1);
            int status = -1;
            ::waitpid(pid, &status, 0);
            bool unlocked = false; // for other threads as well
            std::thread([&] { unlocked = localtime_safe_lock() == 0 && localtime_safe_unlock() == 0; }).join();
            ::_exit(status == 0 && converted_in_handlers == 2 && unlocked ? 0 : 1);
        },
        20000);
    EXPECT_TRUE(forking.exited(0));
}

TEST(LocaltimeMutex, AForkDuringTheVeryFirstConversionLeavesAChildThatCanConvert)
{
#ifdef __SANITIZE_THREAD__
    GTEST_SKIP() << "the sanitizer does not allow a child to start threads";
#endif
    for (std::size_t i = 0; i < effort(400); i++) {
        // A separate process that has never converted a time. The varying delay searches for the moment.
        ChildResult child = run_child(
            [i] {
                std::thread converting([] {
                    tm out;
                    for (int k = 0; k < 1000; k++)
                        qv_localtime_r(&kSummer, &out);
                });
                timespec begin, now;
                ::clock_gettime(CLOCK_MONOTONIC, &begin);
                do
                    ::clock_gettime(CLOCK_MONOTONIC, &now);
                while ((now.tv_sec - begin.tv_sec) * 1000000000 + now.tv_nsec - begin.tv_nsec < long(i % 100) * 1000);
                pid_t pid = ::fork();
                if (pid == 0) {
                    tm out;
                    ::_exit(qv_localtime_r(&kSummer, &out) != nullptr ? 0 : 1);
                }
                int status = -1;
                ::waitpid(pid, &status, 0);
                converting.join();
                ::_exit(status != 0);
            },
            20000);
        ASSERT_TRUE(child.exited(0)) << i;
    }
}

TEST(LocaltimeMutex, AHandlerThatInterruptsAConversionMayFork)
{
    ChildResult child = run_child([] {
        fork_at_alarms();
        tm out;
        for (std::size_t i = 0; i < effort(500); i++) {
            // Armed again each time: an interval shorter than a fork would leave no time for the conversions.
            itimerval once = {{0, 0}, {0, static_cast<suseconds_t>(1 + i % 300)}};
            ::setitimer(ITIMER_REAL, &once, nullptr);
            while (forks <= i)
                qv_localtime_r(&kSummer, &out);
        }
        ::_exit(0);
    });
    EXPECT_TRUE(child.exited(0));
}
