// SPDX-License-Identifier: Apache-2.0
// failing_host FAILURE - a host that fails in one of the ways that are seen in the field. A comment marks each line
// that an explained log has to name.
#include <mcache.h>
#include <sighandler.h>
#include <stimer.h>

#include <cassert>
#include <csignal>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <stdexcept>

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

} // namespace

int main(int argc, char **argv)
{
    if (argc != 2)
        return 2;
    install_sighandler();
    session poisoned;
    std::memset(&poisoned, 0x5A, sizeof poisoned);
    long no_object[2] = {0x1234567812345678, 0};
    const char *failure = argv[1];
    if (std::strcmp(failure, "null-member") == 0)
        count_session(nullptr);
    else if (std::strcmp(failure, "stale-object") == 0)
        use_stale(&poisoned);
    else if (std::strcmp(failure, "vtable") == 0)
        run_object(reinterpret_cast<runnable *>(no_object));
    else if (std::strcmp(failure, "null-call") == 0)
        call_pointer(nullptr);
    else if (std::strcmp(failure, "wild-call") == 0)
        call_pointer(reinterpret_cast<void (*)()>(0x7777000));
    else if (std::strcmp(failure, "inlined") == 0)
        call_inlined(nullptr);
    else if (std::strcmp(failure, "double-free") == 0)
        free_twice();
    else if (std::strcmp(failure, "abort") == 0)
        give_up();
    else if (std::strcmp(failure, "assert") == 0)
        check(argc);
    else if (std::strcmp(failure, "dump") == 0)
        std::raise(52);
    return 3;
}
