// SPDX-License-Identifier: Apache-2.0
// The call chains of full tracing equal those of backtrace(), from code of every shape.
#include "qv_mtrace.h"

#include "support/support.h"

#include <algorithm>
#include <array>
#include <csignal>
#include <cstdlib>
#include <dlfcn.h>
#include <execinfo.h>
#include <iterator>
#include <pthread.h>
#include <string>
#include <vector>

using namespace support;

extern "C" void *opened_at_start; // by a library of this program

namespace {

using chain = std::array<std::uint64_t, MTRACE_CHAIN_SIZE>;

chain recorded()
{
    std::vector<leak_group> groups(4);
    groups.resize(static_cast<std::size_t>(get_malloc_statistics(groups.data(), 4)));
    chain result = {};
    if (groups.size() == 1)
        std::copy_n(groups[0].trace, result.size(), result.begin());
    return result;
}

// Records a block here and compares its chain with backtrace(), from the caller of this function on: what lies below
// differs, by an interceptor's frame under a sanitizer.
[[gnu::noinline]] void compare_here(void *)
{
    void *frames[MTRACE_CHAIN_SIZE + 4] = {};
    qv_mtrace_reset();
    qv_mtrace_start();
    qv_mtrace_stop();
    time_wait = 0;
    int block;
    add_malloc_record(1, nullptr, &block);
    ::backtrace(frames, static_cast<int>(std::size(frames)));
    chain found = recorded();
    auto caller = reinterpret_cast<std::uint64_t>(__builtin_return_address(0));
    auto *from = std::find(found.begin(), found.end(), caller);
    void **expected = std::find(std::begin(frames), std::end(frames), reinterpret_cast<void *>(caller));
    ASSERT_LE(from - found.begin(), 3);
    for (; from != found.end() && expected != std::end(frames); from++, expected++)
        EXPECT_EQ(reinterpret_cast<std::uint64_t>(*expected), *from);
    qv_mtrace_reset();
}

// The second walk uses what the first one kept.
void compare_twice()
{
    compare_here(nullptr);
    compare_here(nullptr);
}

[[gnu::noinline]] void below(int frames, void (*body)())
{
    if (frames > 0)
        below(frames - 1, body);
    else
        body();
    asm volatile("" ::: "memory"); // keeps the call from becoming a jump
}

[[gnu::noinline]] void below_variable_frame(std::size_t size, void (*body)())
{
    auto *room = static_cast<volatile char *>(__builtin_alloca(size));
    room[0] = 1;
    below(1, body);
    room[size - 1] = room[0];
}

[[gnu::noinline]] void below_aligned_frame(void (*body)())
{
    alignas(256) volatile char room[256];
    room[0] = 1;
    below(1, body);
    room[255] = room[0];
}

int compare_and_order(const void *a, const void *b)
{
    compare_twice();
    return *static_cast<const int *>(a) - *static_cast<const int *>(b);
}

void *open_module(const char *frame)
{
    std::string path = build_dir() + "/tests/walk_plugin_" + frame + ".so";
    void *plugin = ::dlopen(path.c_str(), RTLD_NOW);
    EXPECT_NE(nullptr, plugin) << ::dlerror();
    return plugin;
}

void close_module(void *plugin)
{
    EXPECT_EQ(0, ::dlclose(plugin));
}

// Compares from below a frame of the module, twice.
void compare_through(void *plugin)
{
    auto call_through = reinterpret_cast<void (*)(void (*)(void *), void *)>(::dlsym(plugin, "call_through"));
    ASSERT_NE(nullptr, call_through);
    call_through(compare_here, nullptr);
    call_through(compare_here, nullptr);
}

struct FrameWalk : testing::Test {
    void TearDown() override { time_wait = 1800; }
};

} // namespace

TEST_F(FrameWalk, PlainFramesOfAnyDepth)
{
    for (int depth = 0; depth < 12; depth++)
        below(depth, compare_twice);
}

TEST_F(FrameWalk, FramesOfVariableSize)
{
    for (std::size_t size : {16U, 32U, 1000U, 16U, 5000U})
        below_variable_frame(size, compare_twice);
}

TEST_F(FrameWalk, AlignedFrames)
{
    below_aligned_frame(compare_twice);
    below(1, [] { below_aligned_frame(compare_twice); });
}

TEST_F(FrameWalk, CallbacksOfTheCLibrary)
{
    std::array<int, 3> numbers = {3, 1, 2};
    std::qsort(numbers.data(), numbers.size(), sizeof(int), compare_and_order);
}

TEST_F(FrameWalk, AHandlerOfASignal)
{
    if (under_sanitizer())
        GTEST_SKIP() << "a sanitizer refuses allocations in a handler; the signal is the test's own";
    std::signal(SIGUSR1, [](int) { compare_twice(); });
    below(3, [] { std::raise(SIGUSR1); });
    std::signal(SIGUSR1, SIG_DFL);
}

TEST_F(FrameWalk, TheOutermostFramesOfAThread)
{
    pthread_t thread;
    ASSERT_EQ(0, pthread_create(
                     &thread, nullptr,
                     [](void *) -> void * {
                         compare_twice();
                         for (int depth = 0; depth < MTRACE_CHAIN_SIZE; depth++) // the first ones reach the end
                             below(depth, compare_twice);
                         return nullptr;
                     },
                     nullptr));
    pthread_join(thread, nullptr);
}

// Two modules of the same size follow each other at the same address.
TEST_F(FrameWalk, AModuleThatReplacesAnother)
{
    for (int round = 0; round < 6; round++) {
        void *plugin = open_module(round % 2 == 0 ? "256" : "1024");
        compare_through(plugin);
        close_module(plugin);
    }
}

// The first of them is loaded before any library of the program is initialised.
TEST_F(FrameWalk, AModuleThatReplacesOneOfTheStart)
{
    ASSERT_NE(nullptr, opened_at_start);
    compare_through(opened_at_start);
    close_module(opened_at_start);
    void *plugin = open_module("1024");
    compare_through(plugin);
    close_module(plugin);
}

TEST_F(FrameWalk, FramesOfTwoModulesInTurn)
{
    void *one = open_module("256");
    void *other = open_module("1024");
    for (int round = 0; round < 3; round++) {
        compare_through(one);
        compare_through(other);
    }
    close_module(one);
    close_module(other);
}
