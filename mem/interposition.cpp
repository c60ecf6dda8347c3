// SPDX-License-Identifier: Apache-2.0
// malloc(), calloc(), realloc() and free() over the hook variables and the C library's allocator; what happens at load
// and at a fork.
//
// Compiled with -fno-builtin: the compiler would turn calloc()'s slow path into a call of calloc().
#include "mem/hook_change.h"
#include "mem/hook_table.h"
#include "mem/light_stats.h"
#include "mem/live_blocks.h"
#include "mem/process_malloc.h"
#include "mem/trace_file.h"

#include <cerrno>
#include <cstring>

using namespace qv;

// ---- at load ----

namespace {

template <typename Result, typename... Arguments>
Result never_called(Arguments...)
{
    __builtin_trap();
}

// The hooks for which the fast path counts a call by itself, with the size from the header word. They are the light
// hooks where sizes are in the header word; else functions that no hook variable holds.
constinit hooks::hook_set plain = {never_called<void *, std::size_t, const void *>,
                                   never_called<void, void *, const void *>,
                                   never_called<void *, void *, std::size_t, const void *>};

// No lock is held from one handler to the next. Handlers of libraries that were initialised earlier run in between, and
// they may allocate or wait for a thread that allocates. The child repairs what another thread left half done.

void before_fork()
{
    hooks::before_fork();
    live_blocks::before_fork();
}

void after_fork_in_parent()
{
    live_blocks::after_fork_in_parent();
    hooks::after_fork_in_parent();
}

void after_fork_in_child()
{
    hooks::inside.keep_only_self();
    hooks::put_back_in_child();
    light::after_fork_in_child();
    live_blocks::after_fork_in_child();
    trace_file::after_fork_in_child();
    hooks::after_fork_in_child();
}

} // namespace

// Before every other constructor of the library.
extern "C" [[gnu::constructor(101)]] void my_init_hook(void)
{
    static bool loaded = false;
    if (!loaded) {
        loaded = true;
        hooks::choose_saved_hooks();
        hooks::register_own(light::kHooks);
        hooks::register_own(live_blocks::kHooks);
        hooks::register_own(trace_file::kHooks);
        hooks::intercepting = hooks::is_malloc_of_the_library();
        hooks::block_sizes = hooks::find_size_source();
        if (hooks::block_sizes == hooks::size_source::header)
            plain = light::kHooks.hooks;
        light::watch_threads();
        pthread_atfork(before_fork, after_fork_in_parent, after_fork_in_child);
    } else {
        light::clear(); // not at load: nothing is counted yet, and the sum reads every page of the shards
    }
    hooks::change_scope scope;
    hooks::install_old(hooks::current());
    muntrace();
    hooks::install_own(light::kHooks);
    mtrace();
}

// ---- the allocation functions ----

#if LIBCOMMON_MALLOC_HOOKS
namespace {

// The fast path: the light hooks are installed, and no hook of the host is below them.
template <typename Hook>
bool is_plain(Hook &hook, Hook plain_hook, Hook &old_hook)
{
    return hooks::is(hook, plain_hook) && hooks::is(old_hook, static_cast<Hook>(nullptr));
}

// The slow paths. They are out of line so that the fast path need not save registers for them, and end in tail calls:
// the call chains of full tracing have none of their frames.

[[gnu::noinline]] void *malloc_slow_path(std::size_t size, const void *caller)
{
    hooks::malloc_fn hook = hooks::load(__malloc_hook);
    if (hooks::inside.contains_self()) {
        hooks::malloc_was_called_inside = true;
        return __libc_malloc(size);
    }
    if (hook == nullptr)
        return __libc_malloc(size);
    hooks::malloc_fn service = hooks::service_of(hook);
    return service != nullptr ? service(size, caller) : hook(size, caller);
}

[[gnu::noinline]] void free_slow_path(void *ptr, const void *caller)
{
    hooks::free_fn hook = hooks::load(__free_hook);
    if (hook == nullptr || hooks::inside.contains_self())
        return __libc_free(ptr);
    hooks::free_fn service = hooks::service_of(hook);
    return service != nullptr ? service(ptr, caller) : hook(ptr, caller);
}

// For a thread whose slot is not at home.
[[gnu::noinline]] void free_without_home(void *ptr)
{
    light::count_given_up<hooks::size_in_header>(&light::class_counters::frees, ptr);
    __libc_free(ptr);
}

[[gnu::noinline]] void *realloc_slow_path(void *ptr, std::size_t size, const void *caller)
{
    hooks::realloc_fn hook = hooks::load(__realloc_hook);
    if (hook == nullptr || hooks::inside.contains_self())
        return __libc_realloc(ptr, size);
    hooks::realloc_fn service = hooks::service_of(hook);
    return service != nullptr ? service(ptr, size, caller) : hook(ptr, size, caller);
}

[[gnu::noinline]] void *calloc_slow_path(std::size_t count, std::size_t size, const void *caller)
{
    std::size_t bytes;
    if (__builtin_mul_overflow(count, size, &bytes)) {
        errno = ENOMEM;
        return nullptr;
    }
    if (hooks::load(__malloc_hook) == nullptr || hooks::inside.contains_self())
        return __libc_calloc(count, size);
    void *block = malloc_slow_path(bytes, caller);
    return block != nullptr ? std::memset(block, 0, bytes) : nullptr;
}

} // namespace

extern "C" {

[[gnu::visibility("default")]] void *malloc(std::size_t size)
{
    if (!is_plain(__malloc_hook, plain.malloc, *hooks::saved_malloc_hook)) [[unlikely]]
        return malloc_slow_path(size, __builtin_return_address(0));
    return light::counted<hooks::size_in_header>(&light::class_counters::allocs, __libc_malloc(size), size);
}

[[gnu::visibility("default")]] void free(void *ptr)
{
    if (!is_plain(__free_hook, plain.free, *hooks::saved_free_hook)) [[unlikely]]
        return free_slow_path(ptr, __builtin_return_address(0));
    if (!light::count_given_up_at_home<hooks::size_in_header>(&light::class_counters::frees, ptr)) [[unlikely]]
        return free_without_home(ptr);
    __libc_free(ptr);
}

[[gnu::visibility("default")]] void *realloc(void *ptr, std::size_t size)
{
    if (!is_plain(__realloc_hook, plain.realloc, *hooks::saved_realloc_hook)) [[unlikely]]
        return realloc_slow_path(ptr, size, __builtin_return_address(0));
    light::count_given_up<hooks::size_in_header>(&light::class_counters::releases, ptr);
    return light::counted<hooks::size_in_header>(&light::class_counters::products, __libc_realloc(ptr, size), size);
}

[[gnu::visibility("default")]] void *calloc(std::size_t count, std::size_t size)
{
    std::size_t bytes;
    if (!is_plain(__malloc_hook, plain.malloc, *hooks::saved_malloc_hook) ||
        __builtin_mul_overflow(count, size, &bytes)) [[unlikely]]
        return calloc_slow_path(count, size, __builtin_return_address(0));
    // The allocator below knows which blocks the system cleared already, and does not touch those.
    return light::counted<hooks::size_in_header>(&light::class_counters::allocs, __libc_calloc(count, size), bytes);
}

} // extern "C"
#endif
