// SPDX-License-Identifier: Apache-2.0
// malloc() and its kin over the C library's allocator and the hook variables, and what happens at load.
//
// Built without the compiler's knowledge of these functions: it would make calloc() a call of itself.
#include "mem/malloc_hooks.h"

#include "mem/hook_change.h"
#include "mem/light_stats.h"

#include <cerrno>
#include <cstring>

extern "C" {
hooks::malloc_fn __malloc_hook = nullptr;
hooks::free_fn __free_hook = nullptr;
hooks::realloc_fn __realloc_hook = nullptr;
hooks::malloc_fn old_malloc_hook = nullptr;
hooks::free_fn old_free_hook = nullptr;
hooks::realloc_fn old_realloc_hook = nullptr;
}

namespace hooks {

constinit threads::set inside;
bool intercepting = false;
size_source block_sizes = size_source::usable_and_word;

hook_set current()
{
    return {load(__malloc_hook), load(__free_hook), load(__realloc_hook)};
}

hook_set old()
{
    return {load(old_malloc_hook), load(old_free_hook), load(old_realloc_hook)};
}

void install(const hook_set &set)
{
    store(__malloc_hook, set.malloc);
    store(__free_hook, set.free);
    store(__realloc_hook, set.realloc);
}

void install_old(const hook_set &set)
{
    store(old_malloc_hook, set.malloc);
    store(old_free_hook, set.free);
    store(old_realloc_hook, set.realloc);
}

namespace {

// The threads that have put hooks aside, and which hooks.
constinit threads::set hiders;
hook_set hidden;

bool has_ours(const hook_set &set)
{
    return is_ours(set.malloc) || is_ours(set.free) || is_ours(set.realloc);
}

hook_set below_ours()
{
    hook_set set = old();
    return has_ours(set) ? hook_set{} : set; // ours are the old ones from one SIGUSR2 to the next
}

} // namespace

put_aside::put_aside() : found_(current()), below_(below_ours()), hides_(has_ours(found_))
{
    if (!hides_)
        return;
    hidden = found_;
    hiders.insert_self();
    install(below_);
}

put_aside::~put_aside()
{
    if (!hides_)
        return;
    if (current() == below_)
        install(found_);
    hiders.remove_self();
}

void put_back_in_child()
{
    if (hiders.is_empty())
        return;
    hiders.keep_only_self();
    if (!hiders.is_empty() || !has_ours(hidden))
        return;
    // One by one: the thread may have been in the middle of either exchange.
    auto put_back = [](auto &variable, auto below, auto hook) {
        if (is(variable, below))
            store(variable, hook);
    };
    hook_set below = below_ours();
    put_back(__malloc_hook, below.malloc, hidden.malloc);
    put_back(__free_hook, below.free, hidden.free);
    put_back(__realloc_hook, below.realloc, hidden.realloc);
}

bool is_ours(malloc_fn hook)
{
    return hook == my_malloc_light_hook || hook == my_malloc_hook || hook == trace_file::own_hooks().malloc;
}

bool is_ours(free_fn hook)
{
    return hook == my_free_light_hook || hook == my_free_hook || hook == trace_file::own_hooks().free;
}

bool is_ours(realloc_fn hook)
{
    return hook == my_realloc_light_hook || hook == my_realloc_hook || hook == trace_file::own_hooks().realloc;
}

namespace {

// Set by malloc() when it is called from inside a hook; that is a way to find out whether it is ours.
[[maybe_unused]] bool malloc_was_called_inside = false;

bool find_out_whether_intercepting()
{
#if LIBCOMMON_MALLOC_HOOKS
    inside_scope scope;
    malloc_was_called_inside = false;
    std::free(std::malloc(1));
    return malloc_was_called_inside;
#else
    return false;
#endif
}

// Its malloc() has two names; another one is found under the first only.
bool is_malloc_of_the_c_library()
{
#if LIBCOMMON_MALLOC_HOOKS
    return intercepting || &std::malloc == &__libc_malloc;
#else
    return false;
#endif
}

// Tags are in the top byte, and the C library gives none of its blocks the tag 0.
bool are_blocks_tagged()
{
    constexpr int kTagShift = 56;
    inside_scope scope;
    void *block = std::malloc(1);
    auto address = reinterpret_cast<std::uintptr_t>(block);
    std::free(block);
    return address >> kTagShift != 0;
}

size_source find_size_source()
{
    if (!is_malloc_of_the_c_library())
        return size_source::usable_and_word;
    return are_blocks_tagged() ? size_source::usable_and_header : size_source::header;
}

} // namespace
} // namespace hooks

// ---- at load ----

namespace {

template <typename Result, typename... Arguments>
Result never_called(Arguments...)
{
    __builtin_trap();
}

// The hooks of plain calls, which are counted by the header word without further questions: the light ones, where that
// is how sizes are found out; else what no hook variable holds.
constinit hooks::hook_set plain = {never_called<void *, std::size_t, const void *>,
                                   never_called<void, void *, const void *>,
                                   never_called<void *, void *, std::size_t, const void *>};

// No lock is held between the handlers: those of libraries that were initialised earlier run in between, and they may
// allocate, or wait for a thread that does. What another thread was in the middle of is put right in the child.

void before_fork()
{
    hooks::before_fork();
    full::before_fork();
}

void after_fork_in_parent()
{
    full::after_fork_in_parent();
    hooks::after_fork_in_parent();
}

void after_fork_in_child()
{
    hooks::inside.keep_only_self();
    hooks::put_back_in_child();
    light::after_fork_in_child();
    full::after_fork_in_child();
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
        hooks::intercepting = hooks::find_out_whether_intercepting();
        hooks::block_sizes = hooks::find_size_source();
        if (hooks::block_sizes == hooks::size_source::header)
            plain = hooks::kLightHooks;
        light::watch_threads();
        pthread_atfork(before_fork, after_fork_in_parent, after_fork_in_child);
    } else {
        light::clear(); // not at load: nothing is counted yet, and the sum reads every page of the shards
    }
    hooks::change_scope scope;
    hooks::install_old(hooks::current());
    muntrace();
    hooks::install(hooks::kLightHooks);
    mtrace();
}

// ---- the allocation functions ----

#if LIBCOMMON_MALLOC_HOOKS
namespace {

// What nearly every call is: light statistics, with nobody else's hook below.
template <typename Hook>
bool is_plain(Hook &hook, Hook plain_hook, Hook &old_hook)
{
    return hooks::is(hook, plain_hook) && hooks::is(old_hook, static_cast<Hook>(nullptr));
}

// The rest, out of line so that plain calls need not save registers for it.

[[gnu::noinline]] void *malloc_otherwise(std::size_t size, const void *caller)
{
    hooks::malloc_fn hook = hooks::load(__malloc_hook);
    if (hooks::inside.contains_self()) {
        hooks::malloc_was_called_inside = true;
        return __libc_malloc(size);
    }
    if (hook == nullptr)
        return __libc_malloc(size);
    if (hook == my_malloc_light_hook)
        return light::allocate(size, caller);
    return hook == my_malloc_hook ? full::allocate(size, caller) : hook(size, caller);
}

[[gnu::noinline]] void free_otherwise(void *ptr, const void *caller)
{
    hooks::free_fn hook = hooks::load(__free_hook);
    if (hook == nullptr || hooks::inside.contains_self())
        return __libc_free(ptr);
    if (hook == my_free_light_hook)
        return light::release(ptr, caller);
    return hook == my_free_hook ? full::release(ptr, caller) : hook(ptr, caller);
}

[[gnu::noinline]] void *realloc_otherwise(void *ptr, std::size_t size, const void *caller)
{
    hooks::realloc_fn hook = hooks::load(__realloc_hook);
    if (hook == nullptr || hooks::inside.contains_self())
        return __libc_realloc(ptr, size);
    if (hook == my_realloc_light_hook)
        return light::reallocate(ptr, size, caller);
    return hook == my_realloc_hook ? full::reallocate(ptr, size, caller) : hook(ptr, size, caller);
}

[[gnu::noinline]] void *calloc_otherwise(std::size_t count, std::size_t size, const void *caller)
{
    std::size_t bytes;
    if (__builtin_mul_overflow(count, size, &bytes)) {
        errno = ENOMEM;
        return nullptr;
    }
    if (hooks::load(__malloc_hook) == nullptr || hooks::inside.contains_self())
        return __libc_calloc(count, size);
    void *block = malloc_otherwise(bytes, caller);
    return block != nullptr ? std::memset(block, 0, bytes) : nullptr;
}

} // namespace

extern "C" {

[[gnu::visibility("default")]] void *malloc(std::size_t size)
{
    if (!is_plain(__malloc_hook, plain.malloc, old_malloc_hook)) [[unlikely]]
        return malloc_otherwise(size, __builtin_return_address(0));
    return light::counted<hooks::size_in_header>(&light::class_counters::allocs, __libc_malloc(size), size);
}

[[gnu::visibility("default")]] void free(void *ptr)
{
    if (!is_plain(__free_hook, plain.free, old_free_hook)) [[unlikely]]
        return free_otherwise(ptr, __builtin_return_address(0));
    light::count_given_up<hooks::size_in_header>(&light::class_counters::frees, ptr);
    __libc_free(ptr);
}

[[gnu::visibility("default")]] void *realloc(void *ptr, std::size_t size)
{
    if (!is_plain(__realloc_hook, plain.realloc, old_realloc_hook)) [[unlikely]]
        return realloc_otherwise(ptr, size, __builtin_return_address(0));
    light::count_given_up<hooks::size_in_header>(&light::class_counters::releases, ptr);
    return light::counted<hooks::size_in_header>(&light::class_counters::products, __libc_realloc(ptr, size), size);
}

[[gnu::visibility("default")]] void *calloc(std::size_t count, std::size_t size)
{
    std::size_t bytes;
    if (!is_plain(__malloc_hook, plain.malloc, old_malloc_hook) || __builtin_mul_overflow(count, size, &bytes))
        [[unlikely]]
        return calloc_otherwise(count, size, __builtin_return_address(0));
    // The allocator below knows which blocks come zeroed from the system, and leaves large ones untouched.
    return light::counted<hooks::size_in_header>(&light::class_counters::allocs, __libc_calloc(count, size), bytes);
}
}
#endif
