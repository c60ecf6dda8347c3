// SPDX-License-Identifier: Apache-2.0
#include "mem/live_blocks.h"

#include "base/assert_fail.h"
#include "mem/frame_walk.h"

#include <cstddef>
#include <cstdlib>
#include <execinfo.h>
#include <unistd.h>
#include <utility>

using namespace qv;

extern "C" {
pthread_mutex_t mutex = PTHREAD_MUTEX_INITIALIZER;
[[gnu::visibility("hidden"), gnu::alias("mutex")]] extern pthread_mutex_t own_mutex;
} // extern "C"

namespace qv::live_blocks {

constinit tracing_state state;
constinit exported_variable<pthread_mutex_t> table_mutex{own_mutex};

namespace {

// The C library's walk. It may allocate the first time, and wait for the loader.
[[gnu::always_inline]] inline int backtrace_inside(void **frames)
{
    hooks::inside_scope scope;
    return ::backtrace(frames, MTRACE_CHAIN_SIZE);
}

// Called before `mutex` is locked, because of the C library's walk. Always inline, so that a chain begins in the
// function that serves the call.
[[gnu::always_inline]] inline call_chain chain_here()
{
    void *frames[MTRACE_CHAIN_SIZE];
    int depth = frame_walk::read(frames, MTRACE_CHAIN_SIZE);
    if (depth < 0)
        depth = backtrace_inside(frames);
    call_chain chain{};
    for (int i = 0; i < depth; i++)
        chain[static_cast<std::size_t>(i)] = reinterpret_cast<std::uint64_t>(frames[i]);
    return chain;
}

[[gnu::constructor]] void choose_mutex()
{
    table_mutex.choose(mutex);
}

// ---- records, with `mutex` held ----

unsigned get_blank_record()
{
    int slot = state.table->free_slot(state.blocks);
    if (slot < 0) // never: there are fewer blocks than slots
        __assert_fail("0", "qv_mtrace", 243, __func__);
    return static_cast<unsigned>(slot);
}

int add_record(std::size_t size, void *ptr, const call_chain &chain)
{
    state.allocs++;
    if (state.table == nullptr || ptr == nullptr || state.blocks >= kSlots)
        return 0;
    auto address = reinterpret_cast<std::uintptr_t>(ptr);
    auto size32 = static_cast<std::uint32_t>(size);
    state.table->enter(get_blank_record(), address, size32, now(), chain);
    state.blocks++;
    state.bytes += size32;
    return 1;
}

void count_free(std::uintptr_t ptr)
{
    state.frees++;
    int slot = state.table->find(ptr, state.blocks);
    if (slot < 0) {
        state.unmatched_frees++;
        return;
    }
    state.bytes -= state.table->records[slot].size;
    state.table->remove(static_cast<unsigned>(slot));
    state.blocks--;
}

void count_realloc(std::uintptr_t before, void *block, std::size_t size, const call_chain &chain)
{
    state.reallocs++;
    if (before == 0) {
        if (block == nullptr)
            return;
        state.allocs_by_realloc++;
        add_record(size, block, chain);
        return;
    }
    int found = state.table != nullptr ? state.table->find(before, state.blocks) : -1;
    if (found < 0) {
        state.unmatched_reallocs++;
        return;
    }
    auto slot = static_cast<unsigned>(found);
    std::uint32_t held = state.table->records[slot].size;
    state.table->remove(slot);
    if (block == nullptr) {
        // The total keeps the bytes: after a failed call the block still exists.
        state.blocks--;
        state.frees_by_realloc++;
        return;
    }
    auto size32 = static_cast<std::uint32_t>(size);
    state.table->enter(slot, reinterpret_cast<std::uintptr_t>(block), size32, now(), chain);
    state.bytes += size32 - held;
}

// ---- the full hooks ----

// Whether full tracing was stopped after the hook was called.
template <typename Hook>
bool is_stopped(Hook &current, Hook &old)
{
    return hooks::load(current) == hooks::load(old);
}

// `after_call` runs at the end of a call, unless tracing was stopped before it.

template <typename AfterCall>
void *traced_malloc(std::size_t size, const void *caller, const call_chain &chain, AfterCall after_call)
{
    table_lock lock;
    bool stopped = is_stopped(__malloc_hook, *hooks::saved_malloc_hook);
    void *block = hooks::old_malloc(size, caller);
    if (stopped)
        return block;
    if (block != nullptr && state.table != nullptr)
        add_record(size, block, chain);
    after_call();
    return block;
}

template <typename AfterCall>
void traced_free(void *ptr, const void *caller, AfterCall after_call)
{
    table_lock lock;
    bool stopped = is_stopped(__free_hook, *hooks::saved_free_hook);
    hooks::old_free(ptr, caller);
    if (stopped)
        return;
    if (ptr != nullptr && state.table != nullptr)
        count_free(reinterpret_cast<std::uintptr_t>(ptr));
    after_call();
}

template <typename AfterCall>
void *traced_realloc(void *ptr, std::size_t size, const void *caller, const call_chain &chain, AfterCall after_call)
{
    auto before = reinterpret_cast<std::uintptr_t>(ptr); // the pointer is invalid after the call
    table_lock lock;
    bool stopped = is_stopped(__realloc_hook, *hooks::saved_realloc_hook);
    void *block = hooks::old_realloc(ptr, size, caller);
    if (stopped)
        return block;
    count_realloc(before, block, size, chain);
    after_call();
    return block;
}

} // namespace

// ---- around a fork ----

namespace {

// The forking thread if it holds `mutex`: a caller locked it, or the fork is in a signal handler. Only the holder
// writes this.
std::uintptr_t forks_with_mutex = 0;

bool takes_mutex_to_child()
{
    return __atomic_load_n(&forks_with_mutex, __ATOMIC_RELAXED) == threads::self();
}

} // namespace

void before_fork()
{
    if ((*table_mutex).__data.__owner == ::gettid())
        __atomic_store_n(&forks_with_mutex, threads::self(), __ATOMIC_RELAXED);
}

void after_fork_in_parent()
{
    if (takes_mutex_to_child())
        __atomic_store_n(&forks_with_mutex, 0, __ATOMIC_RELAXED);
}

void after_fork_in_child()
{
    bool mine = takes_mutex_to_child();
    forks_with_mutex = 0;
    if (mine) { // the child will unlock it, and may fork before that
        (*table_mutex).__data.__owner = ::gettid();
        return;
    }
    if ((*table_mutex).__data.__lock == 0)
        return;
    pthread_mutex_init(&*table_mutex, nullptr); // its holder is not in the child
    if (state.table != nullptr)
        state.blocks = state.table->rebuild();
}

// ---- the hooks ----

namespace {

void leave_hooks() {}

void install_hooks_again()
{
    hooks::install_again(kHooks);
}

void *allocate(std::size_t size, const void *caller)
{
    return traced_malloc(size, caller, chain_here(), leave_hooks);
}

void release(void *ptr, const void *caller)
{
    traced_free(ptr, caller, leave_hooks);
}

void *reallocate(void *ptr, std::size_t size, const void *caller)
{
    return traced_realloc(ptr, size, caller, chain_here(), leave_hooks);
}

} // namespace

const hooks::own_set kHooks = {{my_malloc_hook, my_free_hook, my_realloc_hook}, {allocate, release, reallocate}, false};

// ---- for the control of full tracing and for reports ----

void prepare_chains()
{
    void *frames[MTRACE_CHAIN_SIZE];
    backtrace_inside(frames);
}

void start(block_table *&fresh)
{
    table_lock lock;
    if (state.table == nullptr) {
        state.table = std::exchange(fresh, nullptr);
        state.blocks = 0;
    }
    hooks::install_own(kHooks);
}

block_table *remove_table()
{
    table_lock lock;
    return std::exchange(state, {}).table;
}

tracing_state read_state()
{
    table_lock lock;
    return state;
}

} // namespace qv::live_blocks

extern "C" {

void *my_malloc_hook(size_t size, const void *caller)
{
    if (hooks::is_reentered())
        return hooks::allocate(size);
    return live_blocks::traced_malloc(size, caller, live_blocks::chain_here(), live_blocks::install_hooks_again);
}

void my_free_hook(void *ptr, const void *caller)
{
    if (hooks::is_reentered())
        return hooks::release(ptr);
    live_blocks::traced_free(ptr, caller, live_blocks::install_hooks_again);
}

void *my_realloc_hook(void *ptr, size_t size, const void *caller)
{
    if (hooks::is_reentered())
        return hooks::reallocate(ptr, size);
    return live_blocks::traced_realloc(ptr, size, caller, live_blocks::chain_here(), live_blocks::install_hooks_again);
}

int add_malloc_record(size_t size, const void *, void *ptr)
{
    return live_blocks::add_record(size, ptr, live_blocks::chain_here());
}

} // extern "C"
