// SPDX-License-Identifier: Apache-2.0
// malloc_hooks.h - what malloc(), free() and realloc() share with their hooks.
//
// A hook reaches the allocator below in two ways. The library's own hooks never go back through malloc(): they call
// allocate() and its kin here, which lead straight to the C library. A hook that somebody else installed before ours is
// called with this thread marked as inside, and whatever it allocates then goes straight there as well. So hooks never
// call each other in a circle, whichever of the variables holds which.
#ifndef LIBCOMMON_MEM_MALLOC_HOOKS_H
#define LIBCOMMON_MEM_MALLOC_HOOKS_H

#include "qv_mtrace.h"

#include "mem/thread_set.h"

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
}

namespace hooks {

using malloc_fn = void *(*)(std::size_t size, const void *caller);
using free_fn = void (*)(void *ptr, const void *caller);
using realloc_fn = void *(*)(void *ptr, std::size_t size, const void *caller);

// The threads in a hook that must not be entered again.
extern constinit threads::set inside;

class inside_scope {
public:
    inside_scope() { inside.insert_self(); }
    ~inside_scope() { inside.remove_self(); }
    inside_scope(const inside_scope &) = delete;
    inside_scope &operator=(const inside_scope &) = delete;
};

// What a hook's owner wrote before the hook was stored is visible to whoever calls the hook.
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

// All three at a time.
struct hook_set {
    malloc_fn malloc = nullptr;
    free_fn free = nullptr;
    realloc_fn realloc = nullptr;
    bool operator==(const hook_set &) const = default;
};
inline constexpr hook_set kLightHooks = {my_malloc_light_hook, my_free_light_hook, my_realloc_light_hook};
inline constexpr hook_set kFullHooks = {my_malloc_hook, my_free_hook, my_realloc_hook};

hook_set current();
hook_set old();
void install(const hook_set &set);
void install_old(const hook_set &set);

// Whether malloc() of this process is the library's: not where a host brings its own, or loaded the library late. Found
// out at load; before, no hook is installed.
extern bool intercepting;

// Whether a hook was called by the allocator that it called itself: then it only allocates. Another malloc() than the
// library's may ask the hook variables too.
inline bool is_reentered()
{
    return !intercepting && inside.contains_self();
}

// For a call of another malloc(): puts the hooks below the library's in place, as far as the library's are installed,
// and the ones that it found back at the end. Other threads' allocations are not seen meanwhile.
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

// In a forked child: puts back what a thread had put aside that is not in the child.
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

// ---- the same below the old hooks ----

bool is_ours(malloc_fn hook);
bool is_ours(free_fn hook);
bool is_ours(realloc_fn hook);

// An old hook that is to be called: one of somebody else's. The library's own are among the old ones from one SIGUSR2
// to the next.
template <typename Hook>
Hook foreign(Hook &variable)
{
    Hook hook = load(variable);
    return hook == nullptr || is_ours(hook) || inside.contains_self() ? nullptr : hook;
}

inline void *old_malloc(std::size_t size, const void *caller)
{
    malloc_fn hook = foreign(old_malloc_hook);
    if (hook == nullptr) [[likely]]
        return allocate(size);
    inside_scope scope;
    return hook(size, caller);
}

inline void old_free(void *ptr, const void *caller)
{
    free_fn hook = foreign(old_free_hook);
    if (hook == nullptr) [[likely]]
        return release(ptr);
    inside_scope scope;
    hook(ptr, caller);
}

inline void *old_realloc(void *ptr, std::size_t size, const void *caller)
{
    realloc_fn hook = foreign(old_realloc_hook);
    if (hook == nullptr) [[likely]]
        return reallocate(ptr, size);
    inside_scope scope;
    return hook(ptr, size, caller);
}

// How the size of a block is found out: by the C library's header word before it; where its blocks have tags, which the
// header has not, by what is usable and the header; and for another allocator by what that one says, and a word.
enum class size_source { header, usable_and_header, usable_and_word };
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

} // namespace hooks

// ---- full tracing and the trace file, as malloc() calls them: they are installed already ----

namespace full {
void *allocate(std::size_t size, const void *caller);
void release(void *ptr, const void *caller);
void *reallocate(void *ptr, std::size_t size, const void *caller);
} // namespace full

namespace full {
// Around a fork, for a table that other threads may be writing.
void before_fork();
void after_fork_in_parent();
void after_fork_in_child();
} // namespace full

namespace trace_file {
hooks::hook_set own_hooks();

// Ends a trace whose file has the descriptor `first` or above, for a caller that closes those. Without a last line: in
// a child the parent's trace goes on.
void close_file(int first);

// Carries out toggles that were requested where they could not be. For whoever ends what was in their way.
void make_up_for_toggles();

void after_fork_in_child();
} // namespace trace_file

#endif
