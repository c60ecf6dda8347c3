// SPDX-License-Identifier: Apache-2.0
// failing_host FAILURE - a host that fails in one of the ways that are seen in the field. A comment marks each line
// that an explained log has to name.
#include <crash_details.h>
#include <cxx/crash_note.hpp>
#include <mcache.h>
#include <sighandler.h>
#include <stimer.h>

#undef NDEBUG
#include <atomic>
#include <cassert>
#include <chrono>
#include <csignal>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <dlfcn.h>
#include <fcntl.h>
#include <mutex>
#include <stdexcept>
#include <sys/mman.h>
#include <sys/resource.h>
#include <thread>
#include <unistd.h>

QV_CRASH_DETAILS;

namespace {

struct session {
    long id;
    long count;
    int *data;
};

struct runnable {
    virtual void run();
};

void runnable::run()
{
    std::puts("run");
}

// A pointer that the compiler does not know to be null; it may drop all that would follow it.
template <typename T>
T *null_pointer()
{
    T *volatile pointer = nullptr;
    return pointer;
}

// Keeps what follows a call, so that the call is no jump.
void keep_frame()
{
    asm volatile("" ::: "memory");
}

[[gnu::noinline]] void count_session(session *s)
{
    s->count++; // line: null member
    keep_frame();
}

[[gnu::noinline]] void use_stale(session *s)
{
    *s->data = 1; // line: stale object
    keep_frame();
}

[[gnu::noinline]] void run_object(runnable *object)
{
    object->run(); // line: corrupted vtable
    keep_frame();
}

[[gnu::noinline]] void call_pointer(void (*function)())
{
    function(); // line: wild call
    keep_frame();
}

inline __attribute__((always_inline)) void inlined_store(int *pointer)
{
    *pointer = 1; // line: inlined
}

[[gnu::noinline]] void call_inlined(int *pointer)
{
    inlined_store(pointer); // line: around inlined
    keep_frame();
}

[[gnu::noinline]] void free_twice()
{
    mcache *cache = mcache_create("sessions", 64, nullptr, 0, 1);
    void *object = mcache_alloc(cache);
    mcache_alloc(cache);
    mcache_free(cache, object);
    mcache_free(cache, object); // line: double free
    keep_frame();
}

[[gnu::noinline]] void give_up()
{
    std::abort(); // line: abort
}

[[gnu::noinline]] void check(int value)
{
    assert(value == 17); // line: assert
    keep_frame();
}

[[gnu::noinline]] void throw_exception()
{
    throw std::runtime_error("no route"); // line: uncaught exception
}

volatile int no_sessions;

[[gnu::noinline]] int divide(int value)
{
    int volatile share = value / no_sessions; // line: division
    return share;
}

[[gnu::noinline]] int overflow(int depth)
{
    char volatile room[1024];
    room[0] = static_cast<char>(depth);
    return depth < 0 ? 0 : overflow(depth + 1) + room[0]; // line: stack overflow
}

int visit_list(int depth);

[[gnu::noinline]] int visit_item(int depth)
{
    char volatile room[1024];
    room[0] = static_cast<char>(depth);
    return depth < 0 ? 0 : visit_list(depth + 1) + room[0]; // line: list of an item
}

[[gnu::noinline]] int visit_list(int depth)
{
    char volatile room[512];
    room[0] = static_cast<char>(depth);
    return depth < 0 ? 0 : visit_item(depth + 1) + room[0]; // line: item of a list
}

[[gnu::noinline]] void overrun()
{
    mcache *cache = mcache_create("sessions", 64, nullptr, 0, 1);
    void *object = mcache_alloc(cache);
    mcache_alloc(cache);
    std::memset(object, 0x11, 80);
    mcache_free(cache, object); // line: overrun
    keep_frame();
}

// What lies above a frame is its return address. Written through the frame's address, so that no check notices.
[[gnu::noinline]] void overwrite_return()
{
    auto frame = static_cast<unsigned long *>(__builtin_frame_address(0));
    static_cast<unsigned long volatile *>(frame)[1] = 0x4141414141414141;
} // line: overwritten return

[[gnu::noinline]] void send_signal()
{
    ::kill(::getpid(), SIGSEGV); // line: sent signal
    keep_frame();
}

[[gnu::noinline]] void write_constant()
{
    static const long constant[4] = {1, 2, 3, 4};
    const_cast<long volatile *>(constant)[1] = 5; // line: read-only
    keep_frame();
}

[[gnu::noinline]] void use_truncated_file()
{
    constexpr std::size_t kSize = 65536;
    int fd = ::open("/tmp/mapped", O_RDWR | O_CREAT, 0600);
    bool is_sized = ::ftruncate(fd, kSize) == 0;
    auto bytes = static_cast<char volatile *>(::mmap(nullptr, kSize, PROT_READ | PROT_WRITE, MAP_SHARED, fd, 0));
    is_sized = is_sized && ::ftruncate(fd, 0) == 0;
    bytes[kSize / 2] = is_sized ? 1 : 0; // line: truncated file
    keep_frame();
}

std::mutex first_lock, second_lock;
std::atomic<int> locks_held;

[[gnu::noinline]] void lock_both(std::mutex &own, std::mutex &other)
{
    own.lock();
    locks_held++;
    while (locks_held < 2)
        std::this_thread::yield();
    other.lock(); // line: deadlock
    keep_frame();
}

// A watchdog ends the process when its threads make no progress.
[[gnu::noinline]] void watch_deadlock()
{
    std::thread([] { lock_both(first_lock, second_lock); }).detach();
    std::thread([] { lock_both(second_lock, first_lock); }).detach();
    while (locks_held < 2)
        std::this_thread::yield();
    std::this_thread::sleep_for(std::chrono::milliseconds(200));
    give_up();
}

[[gnu::noinline]] void run_out_of_memory()
{
    rlimit small = {256 << 20, 256 << 20};
    ::setrlimit(RLIMIT_AS, &small);
    for (;;) {
        auto *s = static_cast<session volatile *>(std::malloc(1 << 20));
        s->count = 1; // line: out of memory
    }
}

// The code of a plug-in that is no more.
[[gnu::noinline]] void call_unloaded(const char *path)
{
    void *plugin = ::dlopen(path, RTLD_NOW);
    auto function = reinterpret_cast<void (*)()>(::dlsym(plugin, "plugin_run"));
    qv_crash_note_modules();
    ::dlclose(plugin);
    function(); // line: unloaded plug-in
    keep_frame();
}

} // namespace

int main(int argc, char **argv)
{
    if (argc < 2)
        return 2;
    install_sighandler();
    qv_crash_more_signals();
    qv::note_uncaught_exceptions();
    session poisoned;
    std::memset(&poisoned, 0x5A, sizeof poisoned);
    long no_object[2] = {0x1234567812345678, 0};
    const char *failure = argv[1];
    if (std::strcmp(failure, "null-member") == 0)
        count_session(null_pointer<session>());
    else if (std::strcmp(failure, "stale-object") == 0)
        use_stale(&poisoned);
    else if (std::strcmp(failure, "vtable") == 0)
        run_object(reinterpret_cast<runnable *>(no_object));
    else if (std::strcmp(failure, "null-call") == 0)
        call_pointer(nullptr);
    else if (std::strcmp(failure, "wild-call") == 0)
        call_pointer(reinterpret_cast<void (*)()>(0x7777000));
    else if (std::strcmp(failure, "inlined") == 0)
        call_inlined(null_pointer<int>());
    else if (std::strcmp(failure, "double-free") == 0)
        free_twice();
    else if (std::strcmp(failure, "abort") == 0)
        give_up();
    else if (std::strcmp(failure, "assert") == 0)
        check(argc);
    else if (std::strcmp(failure, "exception") == 0)
        throw_exception();
    else if (std::strcmp(failure, "division") == 0)
        divide(argc);
    else if (std::strcmp(failure, "stack-overflow") == 0)
        overflow(0);
    else if (std::strcmp(failure, "mutual-recursion") == 0)
        visit_list(0);
    else if (std::strcmp(failure, "overrun") == 0)
        overrun();
    else if (std::strcmp(failure, "deadlock") == 0)
        watch_deadlock();
    else if (std::strcmp(failure, "out-of-memory") == 0)
        run_out_of_memory();
    else if (std::strcmp(failure, "unloaded-plugin") == 0)
        call_unloaded(argv[2]);
    else if (std::strcmp(failure, "overwritten-return") == 0)
        overwrite_return();
    else if (std::strcmp(failure, "sent-signal") == 0)
        send_signal();
    else if (std::strcmp(failure, "read-only") == 0)
        write_constant();
    else if (std::strcmp(failure, "truncated-file") == 0)
        use_truncated_file();
    else if (std::strcmp(failure, "dump") == 0)
        std::raise(52);
    return 3;
}
