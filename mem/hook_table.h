// SPDX-License-Identifier: Apache-2.0
// hook_table.h - the hook variables, and the allocator below them.
//
// The folder in layers. Each one uses only those below it.
//
//     interposition    malloc(), calloc(), realloc(), free(); what happens at load and at a fork
//     qv_mtrace        starts and stops full tracing; makes reports
//     trace_file       writes a line for each call into a file; SIGUSR2     (call_place, trace_variable)
//     live_blocks      the hooks of full tracing and its records            (block_table)
//     light_hooks      the hooks of the light statistics                    (light_stats)
//     process_malloc   which malloc() the process has
//     hook_change      allows one exchange of hooks at a time, and none during a fork
//     hook_table       the variables, the library's sets of hooks, the allocator below (thread_set)
//
// A lower layer never names a hook of a higher one. Each layer registers its set of hooks here, and whoever has a hook
// to call asks the registry how. A call of malloc() goes through the layers in this way:
//
//     malloc() -> __malloc_hook -> [trace_file] -> light_hooks or live_blocks -> old_malloc_hook -> allocator below
//
// A hook reaches the allocator below in one of two ways. The library's hooks call allocate(), reallocate() and
// release(), which call the C library directly. A hook of the host is called with its thread in the set `inside`, and
// what it allocates then bypasses all hooks. So hooks never call each other in a circle, whichever variables hold them.
#ifndef LIBCOMMON_MEM_HOOK_TABLE_H
#define LIBCOMMON_MEM_HOOK_TABLE_H

#include "qv_mtrace.h"

#include "mem/thread_set.h"
#include "util/exported_variable.h"

#include <cstddef>
#include <cstdint>
#include <cstdlib>
#include <malloc.h>
#include <utility>

extern "C" {
void *__libc_malloc(std::size_t size);
void *__libc_calloc(std::size_t count, std::size_t size);
void *__libc_realloc(void *ptr, std::size_t size);
void __libc_free(void *ptr);
} // extern "C"

#pragma GCC visibility push(hidden) // malloc() and free() address the variables directly

namespace qv::hooks {

using malloc_fn = void *(*)(std::size_t size, const void *caller);
using free_fn = void (*)(void *ptr, const void *caller);
using realloc_fn = void *(*)(void *ptr, std::size_t size, const void *caller);

// The threads whose allocations bypass all hooks, because they are in a hook that must not be entered again.
extern constinit threads::set inside;

class inside_scope {
public:
    inside_scope() { inside.insert_self(); }
    ~inside_scope() { inside.remove_self(); }
    inside_scope(const inside_scope &) = delete;
    inside_scope &operator=(const inside_scope &) = delete;
};

// ---- the variables ----

// Acquire and release: what a hook's owner wrote before the hook was stored is visible to whoever calls the hook.
template <typename Hook>
Hook load(Hook &variable)
{
    return __atomic_load_n(&variable, __ATOMIC_ACQUIRE);
}

template <typename Hook>
void store(Hook &variable, Hook hook)
{
    __atomic_store_n(&variable, hook, __ATOMIC_RELEASE);
}

// For a comparison with a hook that will not be called.
template <typename Hook>
bool is(Hook &variable, Hook hook)
{
    return __atomic_load_n(&variable, __ATOMIC_RELAXED) == hook;
}

// The exported old_malloc_hook, old_free_hook and old_realloc_hook.
extern constinit exported_variable<malloc_fn> saved_malloc_hook;
extern constinit exported_variable<free_fn> saved_free_hook;
extern constinit exported_variable<realloc_fn> saved_realloc_hook;

// At load, before the first hook is installed.
void choose_saved_hooks();

struct hook_set {
    malloc_fn malloc = nullptr;
    free_fn free = nullptr;
    realloc_fn realloc = nullptr;
    bool operator==(const hook_set &) const = default;
};

hook_set current();
hook_set old();
void install(const hook_set &set);
void install_old(const hook_set &set);

// ---- the registry of the library's sets ----

struct own_set {
    hook_set hooks;    // what the variables hold. A host may call these too, so they install themselves again
    hook_set services; // what the library calls in their place while they are installed
    bool is_wrapper;   // calls the hooks that it replaced. Those do not install themselves over it
};

// Registers a set, which exists for the life of the process. Registering a set twice has no effect. Any thread.
void register_own(const own_set &set);

// Registers the set and installs its hooks.
void install_own(const own_set &set);

// Installs the hooks of the set again, after a host called one of them by its name. Under a wrapper it does nothing.
void install_again(const own_set &set);

bool is_own(malloc_fn hook);
bool is_own(free_fn hook);
bool is_own(realloc_fn hook);

// The service of a registered hook; null for a hook of the host.
malloc_fn service_of(malloc_fn hook);
free_fn service_of(free_fn hook);
realloc_fn service_of(realloc_fn hook);

// ---- which allocator is below ----

// Whether the process's malloc() is the library's. It is not when the host brings an allocator, or loads the library
// late. Determined at load; before that, no hook is installed.
extern bool intercepting;

// Whether a hook is called by the allocator that it called itself: then it only allocates. Happens where the process's
// malloc() is not the library's and calls the hook variables too.
inline bool is_reentered()
{
    return !intercepting && inside.contains_self();
}

// Around a call of a malloc() that is not the library's. While the library's hooks are installed, the constructor
// installs the hooks below them, and the destructor restores the ones that it found. Meanwhile other threads'
// allocations are not counted.
class put_aside {
public:
    put_aside();
    ~put_aside();
    put_aside(const put_aside &) = delete;
    put_aside &operator=(const put_aside &) = delete;

private:
    inside_scope inside_;
    hook_set found_;
    hook_set below_;
    bool hides_;
};

// In a forked child: restores the hooks that a thread of the parent had put aside.
void put_back_in_child();

// ---- the allocator below ----

inline void *allocate(std::size_t size)
{
#if LIBCOMMON_MALLOC_HOOKS
    if (intercepting) [[likely]]
        return __libc_malloc(size);
#endif
    put_aside scope;
    return std::malloc(size);
}

inline void *reallocate(void *ptr, std::size_t size)
{
#if LIBCOMMON_MALLOC_HOOKS
    if (intercepting) [[likely]]
        return __libc_realloc(ptr, size);
#endif
    put_aside scope;
    return std::realloc(ptr, size);
}

inline void release(void *ptr)
{
#if LIBCOMMON_MALLOC_HOOKS
    if (intercepting) [[likely]]
        return __libc_free(ptr);
#endif
    put_aside scope;
    std::free(ptr);
}

// ---- the allocator below, through the old hooks ----

// The host's hook in an old variable, if it is to be called. After a SIGUSR2 the old variables hold the library's hooks
// until the next one.
template <typename Hook>
Hook host_hook(Hook &variable)
{
    Hook hook = load(variable);
    return hook == nullptr || is_own(hook) || inside.contains_self() ? nullptr : hook;
}

inline void *old_malloc(std::size_t size, const void *caller)
{
    malloc_fn hook = host_hook(*saved_malloc_hook);
    if (hook == nullptr) [[likely]]
        return allocate(size);
    inside_scope scope;
    return hook(size, caller);
}

inline void old_free(void *ptr, const void *caller)
{
    free_fn hook = host_hook(*saved_free_hook);
    if (hook == nullptr) [[likely]]
        return release(ptr);
    inside_scope scope;
    hook(ptr, caller);
}

inline void *old_realloc(void *ptr, std::size_t size, const void *caller)
{
    realloc_fn hook = host_hook(*saved_realloc_hook);
    if (hook == nullptr) [[likely]]
        return reallocate(ptr, size);
    inside_scope scope;
    return hook(ptr, size, caller);
}

// ---- sizes of blocks ----

// Where the size of a block is read.
enum class size_source {
    header,            // the C library's header word before the block
    usable_and_header, // malloc_usable_size() and the header: with memory tagging, the header has another tag
    usable_and_word,   // another allocator: malloc_usable_size() and one word
};
extern size_source block_sizes;

// What a block takes in the heap: the allocator's header word before it without its three flag bits.
inline std::uint32_t size_in_header(void *ptr)
{
    asm volatile("" : "+r"(ptr)); // the compiler knows malloc's blocks and takes the header for out of bounds
    return static_cast<std::uint32_t>(static_cast<const std::size_t *>(ptr)[-1] & ~std::size_t{7});
}

inline std::uint32_t chunk_size(void *ptr)
{
    if (block_sizes == size_source::header)
        return size_in_header(ptr);
    std::size_t words = block_sizes == size_source::usable_and_header ? 2 : 1;
    return static_cast<std::uint32_t>(::malloc_usable_size(ptr) + words * sizeof(std::size_t));
}

} // namespace qv::hooks

#pragma GCC visibility pop

#endif
