// SPDX-License-Identifier: Apache-2.0
// Crashes and dump requests while the dynamic loader is busy: a thread that holds its lock may wait for the thread in
// the handler. A process dies with a log or survives; it never hangs.
#include "backtrace.h"
#include "fault/crash_support.h"

#include <atomic>
#include <dlfcn.h>
#include <functional>
#include <link.h>
#include <malloc.h>
#include <pthread.h>

using namespace support;
using namespace crash;

namespace {

constexpr char kName[] = "routed";
constexpr int kTimeoutMs = 60000;

std::function<void()> in_constructor;
std::atomic<int> dumps;

long count_dumps(unsigned phase, unsigned long, void *)
{
    dumps += phase == QV_COREDUMP_LAST ? 1 : 0;
    return 0;
}

QV_COREDUMP_CALLBACK(count_dumps);

std::string plugin_path()
{
    return build_dir() + "/tests/plugin.so";
}

void load_plugin()
{
    if (::dlopen(plugin_path().c_str(), RTLD_NOW) == nullptr)
        ::_exit(91);
}

void start_thread(void *(*body)(void *), pthread_t *thread = nullptr)
{
    pthread_t other;
    if (::pthread_create(thread != nullptr ? thread : &other, nullptr, body, nullptr) != 0)
        ::_exit(90);
}

void *load_and_unload(void *)
{
    std::string path = plugin_path();
    for (;;) {
        if (void *plugin = ::dlopen(path.c_str(), RTLD_NOW))
            ::dlclose(plugin);
    }
}

ChildResult run_host(const std::function<void()> &body)
{
    return run_child(
        [&] {
            rename_process(kName);
            install_sighandler();
            body();
        },
        kTimeoutMs);
}

void expect_log(const ChildResult &child, int sig)
{
    ASSERT_FALSE(child.timed_out) << child.out << child.err;
    ASSERT_TRUE(child.killed_by(sig)) << child.status << child.out << child.err;
    Log log = read_log(log_path(kName, child.pid, "coredump", sig));
    ASSERT_EQ("", log.error);
    ASSERT_FALSE(log.entries.empty());
}

} // namespace

extern "C" __attribute__((visibility("default"))) void plugin_constructor_hook()
{
    if (in_constructor)
        in_constructor();
}

TEST(LoaderBusy, AConstructorWaitsForAThreadThatCrashes)
{
    expect_log(run_host([] {
                   static std::atomic<bool> is_loading;
                   start_thread([](void *) -> void * {
                       while (!is_loading)
                           ::usleep(100);
                       write_null();
                       return nullptr;
                   });
                   in_constructor = [] {
                       is_loading = true;
                       for (;;)
                           ::pause();
                   };
                   load_plugin();
               }),
               SIGSEGV);
}

namespace {

// free() finds, while it holds the heap's lock, that the next block has no size, and aborts.
NO_SANITIZERS void break_heap()
{
    constexpr std::size_t kSize = 65536;
    auto *block = static_cast<unsigned char *>(std::malloc(kSize));
    auto *next_size = reinterpret_cast<volatile unsigned long *>(block + ::malloc_usable_size(block));
    *next_size = 0;
    std::free(block);
}

} // namespace

TEST(LoaderBusy, MallocAbortsWhileModulesComeAndGo)
{
    if (under_sanitizer())
        GTEST_SKIP() << "the sanitizer has the allocator";
    for (int i = 0; i < 5; i++) {
        expect_log(run_host([] {
                       ::mallopt(M_ARENA_MAX, 1);
                       ::mallopt(M_MMAP_THRESHOLD, 1 << 30);
                       start_thread(load_and_unload);
                       start_thread(load_and_unload);
                       ::usleep(20000);
                       break_heap();
                   }),
                   SIGABRT);
    }
}

TEST(LoaderBusy, DumpRequestsWhileModulesComeAndGoThenACrash)
{
    static const int requests = under_emulation() ? 5 : 20; // each dump may wait 2 s for another's
    for (std::size_t i = 0; i < effort(10); i++) {
        expect_log(run_host([] {
                       for (int thread = 0; thread < 4; thread++)
                           start_thread(load_and_unload);
                       for (int request = 0; request < requests; request++) {
                           ::kill(::getpid(), kBacktraceSignal);
                           ::usleep(200);
                       }
                       write_null();
                   }),
                   SIGSEGV);
    }
}

TEST(LoaderBusy, ADumpRequestToTheThreadWhoseLockAConstructorWaitsFor)
{
    ChildResult child = run_host([] {
        static pthread_mutex_t lock = PTHREAD_MUTEX_INITIALIZER;
        static std::atomic<int> stage;
        pthread_t holder;
        start_thread(
            [](void *) -> void * {
                ::pthread_mutex_lock(&lock);
                stage = 1;
                while (dumps == 0)
                    ::usleep(100);
                ::pthread_mutex_unlock(&lock);
                return nullptr;
            },
            &holder);
        while (stage != 1)
            ::usleep(100);
        static pthread_t target = holder;
        start_thread([](void *) -> void * {
            while (stage != 2)
                ::usleep(100);
            ::usleep(10000); // until the constructor waits
            ::pthread_kill(target, kBacktraceSignal);
            return nullptr;
        });
        in_constructor = [] {
            stage = 2;
            ::pthread_mutex_lock(&lock);
        };
        load_plugin();
        ::pthread_join(holder, nullptr);
    });
    EXPECT_FALSE(child.timed_out);
    EXPECT_TRUE(child.exited(0)) << child.status << child.out << child.err;
    EXPECT_EQ("", read_log(log_path(kName, child.pid, "attach", kBacktraceSignal)).error);
}

// A look-up may or may not find the module, whose memory may be unmapped at any moment.
TEST(LoaderBusy, LookUpsInAModuleThatComesAndGoes)
{
    ChildResult child = run_host([] {
        static std::atomic<void *> function;
        start_thread([](void *) -> void * {
            std::string path = plugin_path();
            for (;;) {
                void *plugin = ::dlopen(path.c_str(), RTLD_NOW);
                function = ::dlsym(plugin, "plugin_long_function");
                ::dlclose(plugin);
            }
        });
        // The system may load it at the same place or another one.
        std::size_t found = 0;
        for (std::size_t i = 0; i < effort(20000) || found == 0; i++) {
            char wanted[64], name[256];
            void *place = function;
            std::snprintf(wanted, sizeof wanted, "plugin_long_function@%p", place);
            get_function_name_by_ptr(place, name, sizeof name);
            found += std::string(name) == wanted ? 1 : 0;
        }
    });
    EXPECT_FALSE(child.timed_out);
    EXPECT_TRUE(child.exited(0)) << child.status << child.out << child.err;
}

// The crashing thread has none of the library's thread-local data, and the heap cannot supply it.
TEST(LoaderBusy, AThreadDiesInsideFreeInAHostThatLoadedTheLibraryLate)
{
    if (under_sanitizer())
        GTEST_SKIP() << "a sanitizer's run time must come before the library";
    ChildResult child =
        run_program({build_dir() + "/tests/late_crash_host", build_dir() + "/libcommon.so.1"}, kTimeoutMs);
    ASSERT_FALSE(child.timed_out);
    ASSERT_TRUE(child.killed_by(SIGABRT)) << child.status << child.out << child.err;
    Log log = read_log(log_path("late", child.pid, "coredump", SIGABRT));
    ASSERT_EQ("", log.error);
    ASSERT_FALSE(log.entries.empty());
    EXPECT_NE(std::string::npos, log.entries[0].text.find("libc.so")) << log.entries[0].text;
}

TEST(LoaderBusy, ThreadsOfAHostThatLoadedTheLibraryLateHaveTheirOwnTables)
{
    if (under_sanitizer())
        GTEST_SKIP() << "a sanitizer's run time must come before the library";
    ChildResult child =
        run_program({build_dir() + "/tests/late_crash_host", build_dir() + "/libcommon.so.1", "tables"});
    EXPECT_TRUE(child.exited(0)) << child.status << child.out << child.err;
}
