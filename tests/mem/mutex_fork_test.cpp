// SPDX-License-Identifier: Apache-2.0
// The exported mutex of full tracing across forks, with tracing off and on.
#include "qv_mtrace.h"

#include "support/support.h"

#include <atomic>
#include <cstdlib>
#include <pthread.h>
#include <sys/wait.h>
#include <thread>
#include <unistd.h>

using namespace support;

namespace {

constexpr int kPatience = 5000; // milliseconds

bool can_allocate()
{
    void *volatile block = std::malloc(100);
    std::free(block);
    return block != nullptr;
}

bool can_lock()
{
    return pthread_mutex_lock(&mutex) == 0 && pthread_mutex_unlock(&mutex) == 0;
}

// Runs body while another thread holds the mutex.
template <typename Body>
void with_mutex_kept(Body body)
{
    std::atomic<int> stage{0};
    std::thread keeper([&] {
        pthread_mutex_lock(&mutex);
        stage = 1;
        while (stage != 2)
            ::usleep(1000);
        pthread_mutex_unlock(&mutex);
    });
    while (stage != 1)
        ::usleep(100);
    body();
    stage = 2;
    keeper.join();
}

} // namespace

TEST(MutexFork, AThreadThatHoldsTheMutexDelaysNoFork)
{
    ChildResult forking = run_child(
        [] {
            with_mutex_kept([] {
                for (int i = 0; i < 3; i++) {
                    ChildResult child = run_child([] { ::_exit(can_lock() && can_allocate() ? 0 : 1); }, kPatience);
                    EXPECT_TRUE(child.exited(0)) << i;
                }
            });
            ::_exit(can_lock() && !testing::Test::HasFailure() ? 0 : 1);
        },
        2 * kPatience);
    EXPECT_TRUE(forking.exited(0)) << forking.out;
}

TEST(MutexFork, AChildCanTraceWhileTheParentsMutexIsHeld)
{
    ChildResult forking = run_child(
        [] {
            qv_mtrace_start();
            pid_t pid = -1;
            with_mutex_kept([&] {
                pid = ::fork(); // with tracing on, this thread must not allocate here
                if (pid == 0)
                    ::_exit(can_allocate() && can_lock() ? 0 : 1);
            });
            int status = -1;
            ::waitpid(pid, &status, 0);
            ::_exit(status == 0 ? 0 : 1);
        },
        2 * kPatience);
    EXPECT_TRUE(forking.exited(0));
}

TEST(MutexFork, AHolderMayForkAndItsChildMayForkAgain)
{
    ChildResult forking = run_child(
        [] {
            pthread_mutex_lock(&mutex);
            int depth = 0;
            pid_t pid;
            int status = 0;
            while (depth < 3 && (pid = ::fork()) == 0)
                depth++;
            if (depth < 3)
                ::waitpid(pid, &status, 0);
            bool unlocked = pthread_mutex_unlock(&mutex) == 0;
            ::_exit(status == 0 && unlocked && can_lock() && can_allocate() ? 0 : 1);
        },
        2 * kPatience);
    EXPECT_TRUE(forking.exited(0));
}
