// SPDX-License-Identifier: Apache-2.0
#include "mem/hook_table.h"

#include <iterator>
#include <type_traits>

using namespace qv;

extern "C" {
hooks::malloc_fn __malloc_hook = nullptr;
hooks::free_fn __free_hook = nullptr;
hooks::realloc_fn __realloc_hook = nullptr;
hooks::malloc_fn old_malloc_hook = nullptr;
hooks::free_fn old_free_hook = nullptr;
hooks::realloc_fn old_realloc_hook = nullptr;
[[gnu::visibility("hidden"), gnu::alias("old_malloc_hook")]] extern hooks::malloc_fn own_old_malloc_hook;
[[gnu::visibility("hidden"), gnu::alias("old_free_hook")]] extern hooks::free_fn own_old_free_hook;
[[gnu::visibility("hidden"), gnu::alias("old_realloc_hook")]] extern hooks::realloc_fn own_old_realloc_hook;
} // extern "C"

namespace qv::hooks {

constinit threads::set inside;
constinit exported_variable<malloc_fn> saved_malloc_hook{own_old_malloc_hook};
constinit exported_variable<free_fn> saved_free_hook{own_old_free_hook};
constinit exported_variable<realloc_fn> saved_realloc_hook{own_old_realloc_hook};
bool intercepting = false;
size_source block_sizes = size_source::usable_and_word;

void choose_saved_hooks()
{
    saved_malloc_hook.choose(old_malloc_hook);
    saved_free_hook.choose(old_free_hook);
    saved_realloc_hook.choose(old_realloc_hook);
}

hook_set current()
{
    return {load(__malloc_hook), load(__free_hook), load(__realloc_hook)};
}

hook_set old()
{
    return {load(*saved_malloc_hook), load(*saved_free_hook), load(*saved_realloc_hook)};
}

void install(const hook_set &set)
{
    store(__malloc_hook, set.malloc);
    store(__free_hook, set.free);
    store(__realloc_hook, set.realloc);
}

void install_old(const hook_set &set)
{
    store(*saved_malloc_hook, set.malloc);
    store(*saved_free_hook, set.free);
    store(*saved_realloc_hook, set.realloc);
}

// ---- the registry ----

namespace {

constexpr std::size_t kLayersWithHooks = 3;

// Filled from the front, without a lock. An entry never changes again.
const own_set *registry[kLayersWithHooks];

template <typename Hook>
Hook member(const hook_set &set)
{
    if constexpr (std::is_same_v<Hook, malloc_fn>)
        return set.malloc;
    else if constexpr (std::is_same_v<Hook, free_fn>)
        return set.free;
    else
        return set.realloc;
}

// The first registered set for which the predicate holds; null when there is none.
template <typename Predicate>
const own_set *find(Predicate matches)
{
    for (const own_set *&entry : registry) {
        const own_set *set = __atomic_load_n(&entry, __ATOMIC_ACQUIRE);
        if (set == nullptr || matches(*set))
            return set;
    }
    return nullptr;
}

template <typename Hook>
const own_set *find_hook(Hook hook)
{
    return find([hook](const own_set &set) { return member<Hook>(set.hooks) == hook; });
}

template <typename Hook>
Hook find_service(Hook hook)
{
    const own_set *set = find_hook(hook);
    return set != nullptr ? member<Hook>(set->services) : nullptr;
}

} // namespace

void register_own(const own_set &set)
{
    for (const own_set *&entry : registry) {
        const own_set *found = nullptr;
        if (__atomic_compare_exchange_n(&entry, &found, &set, false, __ATOMIC_RELEASE, __ATOMIC_ACQUIRE) ||
            found == &set)
            return;
    }
}

void install_own(const own_set &set)
{
    register_own(set);
    install(set.hooks);
}

void install_again(const own_set &set)
{
    hook_set installed = current();
    if (installed == set.hooks)
        return;
    if (find([&](const own_set &each) { return each.is_wrapper && each.hooks == installed; }) == nullptr)
        install_own(set);
}

bool is_own(malloc_fn hook)
{
    return find_hook(hook) != nullptr;
}

bool is_own(free_fn hook)
{
    return find_hook(hook) != nullptr;
}

bool is_own(realloc_fn hook)
{
    return find_hook(hook) != nullptr;
}

malloc_fn service_of(malloc_fn hook)
{
    return find_service(hook);
}

free_fn service_of(free_fn hook)
{
    return find_service(hook);
}

realloc_fn service_of(realloc_fn hook)
{
    return find_service(hook);
}

// ---- around calls of another malloc() ----

namespace {

// The threads that have put hooks aside, and which hooks.
constinit threads::set hiders;
hook_set hidden;

bool has_own(const hook_set &set)
{
    return is_own(set.malloc) || is_own(set.free) || is_own(set.realloc);
}

// The old variables hold the library's hooks from one SIGUSR2 to the next: then nothing is below.
hook_set below_own()
{
    hook_set set = old();
    return has_own(set) ? hook_set{} : set;
}

} // namespace

put_aside::put_aside() : found_(current()), below_(below_own()), hides_(has_own(found_))
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
    if (!hiders.is_empty() || !has_own(hidden))
        return;
    // Each variable alone: the thread of the parent may have been in the middle of either exchange.
    auto put_back = [](auto &variable, auto below, auto hook) {
        if (is(variable, below))
            store(variable, hook);
    };
    hook_set below = below_own();
    put_back(__malloc_hook, below.malloc, hidden.malloc);
    put_back(__free_hook, below.free, hidden.free);
    put_back(__realloc_hook, below.realloc, hidden.realloc);
}

} // namespace qv::hooks
