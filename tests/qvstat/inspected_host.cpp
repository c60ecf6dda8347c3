// SPDX-License-Identifier: Apache-2.0
// A process to look into. Its arguments say what it does; then it writes "ready" and waits until its input ends.
#include "libcommon_inspect.h"
#include "mcache.h"
#include "qv_mtrace.h"
#include "sighandler.h"

#include <atomic>
#include <csignal>
#include <cstdio>
#include <cstdlib>
#include <mutex>
#include <pthread.h>
#include <semaphore>
#include <string>
#include <thread>
#include <unistd.h>
#include <vector>

namespace {

constexpr int kLeakedBlocks = 5;
constexpr std::size_t kLeakedSize = 1000;
constexpr std::size_t kLargeBlock = 100 << 20;

std::vector<void *> kept;

[[gnu::noinline]] void leak_blocks()
{
    for (int i = 0; i < kLeakedBlocks; i++) {
        kept.push_back(std::malloc(kLeakedSize)); // line: leak
        asm volatile("" ::: "memory");
    }
}

void fill_caches()
{
    mcache *sessions = mcache_create("sessions", 100, nullptr, 0, 1);
    for (int i = 0; i < 200; i++)
        kept.push_back(mcache_alloc(sessions));
    mcache_create("empty", 16, nullptr, 0, 2);
}

void name_strangely()
{
    for (const char *name : {"a \"b\\c\xff", "twice", "twice"})
        kept.push_back(mcache_alloc(mcache_create(name, 16, nullptr, 0, 1)));
}

std::mutex first_lock, second_lock;
std::binary_semaphore has_first(0), has_second(0);

void lock_both(std::mutex *own, std::mutex *other, const char *name, std::binary_semaphore *mine,
               std::binary_semaphore *others)
{
    pthread_setname_np(pthread_self(), name);
    own->lock();
    mine->release();
    others->acquire();
    other->lock(); // line: deadlock
}

void make_deadlock()
{
    std::thread(lock_both, &first_lock, &second_lock, "left", &has_first, &has_second).detach();
    std::thread(lock_both, &second_lock, &first_lock, "right", &has_second, &has_first).detach();
}

void act(const std::string &what)
{
    if (what == "leak") {
        kept.reserve(1000);
        qv_mtrace_start();
        leak_blocks();
    } else if (what == "large") {
        kept.push_back(std::malloc(kLargeBlock));
    } else if (what == "caches") {
        fill_caches();
    } else if (what == "strange-names") {
        name_strangely();
    } else if (what == "deadlock") {
        make_deadlock();
    } else if (what == "handlers") {
        install_sighandler();
    } else if (what == "terminate") {
        pstrace_terminate_signal();
    } else if (what == "end-at-trace") {
        std::signal(SIGUSR2, [](int) { ::_exit(0); });
    } else if (what == "own-handler") {
        std::signal(SIGUSR2, [](int) {});
        std::signal(SIGALRM, [](int) {});
    }
}

} // namespace

int main(int argc, char **argv)
{
    for (int i = 1; i < argc; i++)
        act(argv[i]);
    std::puts("ready");
    std::fflush(stdout);
    char byte;
    while (::read(STDIN_FILENO, &byte, 1) != 0) {
        void *block = std::malloc(100);
        asm volatile("" : "+r"(block)); // keeps the compiler from leaving out both calls
        std::free(block);
    }
    ::_exit(0);
}
