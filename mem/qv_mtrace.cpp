// SPDX-License-Identifier: Apache-2.0
// The light hooks by themselves, full tracing, and the reports of both.
#include "qv_mtrace.h"

#include "base/assert_fail.h"
#include "log/console_output.h"
#include "mem/block_table.h"
#include "mem/hook_change.h"
#include "mem/light_stats.h"
#include "mem/malloc_hooks.h"
#include "time/local_time.h"

#include <algorithm>
#include <cstddef>
#include <cstdlib>
#include <ctime>
#include <execinfo.h>
#include <span>
#include <unistd.h>
#include <utility>

static_assert(sizeof(leak_group) == 72 && offsetof(leak_group, trace) == 8);
static_assert(sizeof(mtrace_class_row) == 32);
static_assert(offsetof(mtrace_stat_record, full) == 4 && offsetof(mtrace_stat_record, reserved1) == 32);
static_assert(offsetof(mtrace_stat_record, light_bytes) == 36 && offsetof(mtrace_stat_record, rows) == 64);
static_assert(offsetof(mtrace_stat_record, row) == 72);

uint64_t time_wait = 1800;
pthread_mutex_t mutex = PTHREAD_MUTEX_INITIALIZER;

namespace {

using full::call_chain;

// ---- the state of full tracing, under `mutex` ----

full::block_table *malloc_table = nullptr;
std::uint32_t malloc_count = 0;
std::uint32_t malloc_total_size = 0;
std::uint32_t malloc_times = 0;
std::uint32_t free_times = 0;
std::uint32_t realloc_times = 0;
std::uint32_t unmatched_free_times = 0;
std::uint32_t unmatched_realloc_times = 0;
std::uint32_t malloc_by_realloc = 0;
std::uint32_t free_by_realloc = 0;

// Nothing that allocates is called with `mutex` held but the allocator below the hooks.
class table_lock {
public:
    table_lock() { pthread_mutex_lock(&mutex); }
    ~table_lock() { pthread_mutex_unlock(&mutex); }
    table_lock(const table_lock &) = delete;
    table_lock &operator=(const table_lock &) = delete;
};

// What a hook does at its end when it was called by itself. Under a trace file it is left to that one's end.
void install_again(const hooks::hook_set &set)
{
    hooks::hook_set now = hooks::current();
    if (now != set && now != trace_file::own_hooks())
        hooks::install(set);
}

// ---- records ----

// Taken before `mutex`: the first backtrace() of a process allocates, and any may wait for the loader.
[[gnu::always_inline]] inline call_chain chain_here()
{
    hooks::inside_scope scope;
    void *frames[MTRACE_CHAIN_SIZE];
    int depth = ::backtrace(frames, MTRACE_CHAIN_SIZE);
    call_chain chain{};
    for (int i = 0; i < depth; i++)
        chain[static_cast<std::size_t>(i)] = reinterpret_cast<std::uint64_t>(frames[i]);
    return chain;
}

std::uint64_t now()
{
    return static_cast<std::uint64_t>(std::time(nullptr));
}

unsigned get_blank_record()
{
    int slot = malloc_table->free_slot(malloc_count);
    if (slot < 0) // with fewer blocks than slots there is a free one
        __assert_fail("0", "qv_mtrace", 243, __func__);
    return static_cast<unsigned>(slot);
}

int add_record(std::size_t size, void *ptr, const call_chain &chain)
{
    malloc_times++;
    if (malloc_table == nullptr || ptr == nullptr || malloc_count >= full::kSlots)
        return 0;
    auto address = reinterpret_cast<std::uintptr_t>(ptr);
    auto size32 = static_cast<std::uint32_t>(size);
    malloc_table->enter(get_blank_record(), address, size32, now(), chain);
    malloc_count++;
    malloc_total_size += size32;
    return 1;
}

void count_free(std::uintptr_t ptr)
{
    free_times++;
    int slot = malloc_table->find(ptr, malloc_count);
    if (slot < 0) {
        unmatched_free_times++;
        return;
    }
    malloc_total_size -= malloc_table->records[slot].size;
    malloc_table->remove(static_cast<unsigned>(slot));
    malloc_count--;
}

void count_realloc(std::uintptr_t before, void *block, std::size_t size, const call_chain &chain)
{
    realloc_times++;
    if (before == 0) {
        if (block == nullptr)
            return;
        malloc_by_realloc++;
        add_record(size, block, chain);
        return;
    }
    int found = malloc_table != nullptr ? malloc_table->find(before, malloc_count) : -1;
    if (found < 0) {
        unmatched_realloc_times++;
        return;
    }
    auto slot = static_cast<unsigned>(found);
    std::uint32_t held = malloc_table->records[slot].size;
    malloc_table->remove(slot);
    if (block == nullptr) {
        // The total keeps the block's bytes: the call may have failed, and the block live on.
        malloc_count--;
        free_by_realloc++;
        return;
    }
    auto size32 = static_cast<std::uint32_t>(size);
    malloc_table->enter(slot, reinterpret_cast<std::uintptr_t>(block), size32, now(), chain);
    malloc_total_size += size32 - held;
}

// ---- the full hooks ----

// Whether tracing was stopped since the hook was called.
template <typename Hook>
bool is_stopped(Hook &current, Hook &old)
{
    return hooks::load(current) == hooks::load(old);
}

template <typename Again>
void *traced_malloc(std::size_t size, const void *caller, const call_chain &chain, Again again)
{
    table_lock lock;
    bool stopped = is_stopped(__malloc_hook, old_malloc_hook);
    void *block = hooks::old_malloc(size, caller);
    if (stopped)
        return block;
    if (block != nullptr && malloc_table != nullptr)
        add_record(size, block, chain);
    again();
    return block;
}

template <typename Again>
void traced_free(void *ptr, const void *caller, Again again)
{
    table_lock lock;
    bool stopped = is_stopped(__free_hook, old_free_hook);
    hooks::old_free(ptr, caller);
    if (stopped)
        return;
    if (ptr != nullptr && malloc_table != nullptr)
        count_free(reinterpret_cast<std::uintptr_t>(ptr));
    again();
}

template <typename Again>
void *traced_realloc(void *ptr, std::size_t size, const void *caller, const call_chain &chain, Again again)
{
    auto before = reinterpret_cast<std::uintptr_t>(ptr); // the pointer itself means nothing after the call
    table_lock lock;
    bool stopped = is_stopped(__realloc_hook, old_realloc_hook);
    void *block = hooks::old_realloc(ptr, size, caller);
    if (stopped)
        return block;
    count_realloc(before, block, size, chain);
    again();
    return block;
}

void leave_hooks() {}

void install_full_again()
{
    install_again(hooks::kFullHooks);
}

// ---- reports ----

mtrace_class_row row_of(const light::class_counters &c, std::uint32_t lower_bound)
{
    std::uint32_t blocks = c.allocs + c.products - c.frees - c.releases;
    return {lower_bound, c.bytes_taken - c.bytes_returned, blocks, c.allocs, c.frees, c.releases, c.products,
            c.failures};
}

void fill_light_totals(mtrace_stat_record *rec, const light::statistics &classes)
{
    light::class_counters sum;
    for (const light::class_counters &c : classes) {
        sum.allocs += c.allocs;
        sum.frees += c.frees;
        sum.releases += c.releases;
        sum.products += c.products;
        sum.failures += c.failures;
        sum.bytes_taken += c.bytes_taken;
        sum.bytes_returned += c.bytes_returned;
    }
    mtrace_class_row row = row_of(sum, 0);
    rec->light_bytes = row.bytes;
    rec->light_blocks = row.blocks;
    rec->light_allocs = row.allocs;
    rec->light_frees = row.frees;
    rec->light_releases = row.realloc_releases;
    rec->light_products = row.realloc_products;
    rec->light_failures = row.failures;
}

// Room for a report of so many blocks, below the hooks: what a report takes is not in it. Chains are copied, since the
// table may be gone by the time they are looked at.
class work_array {
public:
    explicit work_array(std::uint32_t room)
        : room_(room), entries_(static_cast<malloc_stat_entry *>(
                           hooks::allocate(room * (sizeof(malloc_stat_entry) + sizeof(call_chain)))))
    {}
    ~work_array() { hooks::release(entries_); }
    work_array(const work_array &) = delete;
    work_array &operator=(const work_array &) = delete;

    bool is_full() const { return count_ == room_; }
    std::uint32_t count() const { return count_; }
    explicit operator bool() const { return entries_ != nullptr; }
    std::span<malloc_stat_entry> entries() { return {entries_, count_}; }

    void add(std::uint32_t size, const call_chain &trace)
    {
        call_chain &copy = reinterpret_cast<call_chain *>(entries_ + room_)[count_];
        copy = trace;
        entries_[count_++] = {size, 1, copy.data()};
    }

private:
    std::uint32_t room_;
    std::uint32_t count_ = 0;
    malloc_stat_entry *entries_; // and behind them the chains
};

bool is_old_enough(const full::block_record &record, std::uint64_t at)
{
    return record.when <= at && at - record.when >= time_wait;
}

// Takes the blocks that may be leaks, as far as there is room. Returns the number of live blocks.
std::uint32_t collect(work_array &work)
{
    std::uint64_t at = now();
    table_lock lock;
    if (malloc_table == nullptr)
        return 0;
    for (const full::block_record &record : malloc_table->records) {
        if (work.is_full())
            break;
        if (record.ptr != 0 && is_old_enough(record, at))
            work.add(record.size, record.trace);
    }
    return malloc_count;
}

// The last of each run of equal chains gets the run's sums; the others' bytes become 0.
void merge_runs(std::span<malloc_stat_entry> entries)
{
    for (std::size_t i = 1; i < entries.size(); i++) {
        if (my_compare_trace(&entries[i - 1], &entries[i]) != 0)
            continue;
        entries[i].bytes += std::exchange(entries[i - 1].bytes, 0);
        entries[i].blocks += entries[i - 1].blocks;
    }
}

leak_group group_of(const malloc_stat_entry &entry)
{
    leak_group group = {entry.bytes, entry.blocks, {}};
    std::copy_n(entry.trace, MTRACE_CHAIN_SIZE, group.trace);
    return group;
}

} // namespace

// ---- full tracing as malloc() calls it ----

namespace full {

namespace {

// The forking thread if it holds `mutex`: a caller keeps it, or a signal handler forks. Written by its holder alone.
std::uintptr_t forks_with_mutex = 0;

bool takes_mutex_to_child()
{
    return __atomic_load_n(&forks_with_mutex, __ATOMIC_RELAXED) == threads::self();
}

} // namespace

void before_fork()
{
    if (mutex.__data.__owner == ::gettid())
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
    if (mine) { // the child goes on and unlocks it, and may fork before that
        mutex.__data.__owner = ::gettid();
        return;
    }
    if (mutex.__data.__lock == 0)
        return;
    pthread_mutex_init(&mutex, nullptr); // its holder is not in the child
    if (malloc_table != nullptr)
        malloc_count = malloc_table->rebuild();
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

} // namespace full

extern "C" {

// ---- hooks by themselves ----

void *my_malloc_light_hook(size_t size, const void *caller)
{
    if (hooks::is_reentered())
        return hooks::allocate(size);
    void *block = light::allocate(size, caller);
    install_again(hooks::kLightHooks);
    return block;
}

void my_free_light_hook(void *ptr, const void *caller)
{
    if (hooks::is_reentered())
        return hooks::release(ptr);
    light::release(ptr, caller);
    install_again(hooks::kLightHooks);
}

void *my_realloc_light_hook(void *ptr, size_t size, const void *caller)
{
    if (hooks::is_reentered())
        return hooks::reallocate(ptr, size);
    void *block = light::reallocate(ptr, size, caller);
    install_again(hooks::kLightHooks);
    return block;
}

void *my_malloc_hook(size_t size, const void *caller)
{
    if (hooks::is_reentered())
        return hooks::allocate(size);
    return traced_malloc(size, caller, chain_here(), install_full_again);
}

void my_free_hook(void *ptr, const void *caller)
{
    if (hooks::is_reentered())
        return hooks::release(ptr);
    traced_free(ptr, caller, install_full_again);
}

void *my_realloc_hook(void *ptr, size_t size, const void *caller)
{
    if (hooks::is_reentered())
        return hooks::reallocate(ptr, size);
    return traced_realloc(ptr, size, caller, chain_here(), install_full_again);
}

// ---- full tracing ----

int add_malloc_record(size_t size, const void *, void *ptr)
{
    return add_record(size, ptr, chain_here());
}

void qv_mtrace_start(void)
{
    // What allocates or waits for the loader comes first, before anybody waits for this thread: the unwinder is loaded,
    // and reports print without asking for the time zone.
    chain_here();
    if (malloc_table == nullptr)
        local_time::prepare_handlers();
    hooks::change_scope scope;
    muntrace();
    // Outside the lock: malloc() takes it if full tracing is on.
    void *fresh = malloc_table == nullptr ? std::calloc(1, sizeof(full::block_table)) : nullptr;
    {
        table_lock lock;
        if (malloc_table == nullptr) {
            malloc_table = static_cast<full::block_table *>(std::exchange(fresh, nullptr));
            malloc_count = 0;
        }
        hooks::install(hooks::kFullHooks);
    }
    std::free(fresh);
    mtrace();
}

void qv_mtrace_stop(void)
{
    hooks::change_scope scope;
    muntrace();
    table_lock lock;
    hooks::install(hooks::old());
}

void qv_mtrace_reset(void)
{
    full::block_table *table;
    {
        hooks::change_scope scope;
        qv_mtrace_stop();
        table_lock lock;
        table = std::exchange(malloc_table, nullptr);
        malloc_count = malloc_total_size = malloc_times = free_times = realloc_times = 0;
        unmatched_free_times = unmatched_realloc_times = malloc_by_realloc = free_by_realloc = 0;
    }
    std::free(table);
}

// ---- reports ----

int my_compare_trace(const void *a, const void *b)
{
    const std::uint64_t *left = static_cast<const malloc_stat_entry *>(a)->trace;
    const std::uint64_t *right = static_cast<const malloc_stat_entry *>(b)->trace;
    for (int i = 0; i < MTRACE_CHAIN_SIZE; i++) {
        if (left[i] != right[i])
            return left[i] < right[i] ? -1 : 1;
        if (left[i] == 0)
            break;
    }
    return 0;
}

int my_compare_bytes(const void *a, const void *b)
{
    std::uint32_t left = static_cast<const malloc_stat_entry *>(a)->bytes;
    std::uint32_t right = static_cast<const malloc_stat_entry *>(b)->bytes;
    return left == right ? 0 : left > right ? -1 : 1;
}

int get_malloc_statistics(leak_group *out, int max)
{
    std::uint32_t live = 0;
    {
        table_lock lock;
        live = malloc_table != nullptr ? malloc_count : 0;
    }
    if (live == 0)
        return 0;
    work_array work(live);
    if (!work)
        return 0;
    live = collect(work);
    if (live == 0)
        return 0;        // reset meanwhile
    if (!work.is_full()) // by the path of handlers: the ordinary one allocates, which the next report would show
        console::print_from_handler("Total record %d,  %d records malloc but not free within %lu(s)\n",
                                    static_cast<int>(live), static_cast<int>(work.count()), time_wait);

    std::span<malloc_stat_entry> entries = work.entries();
    std::sort(entries.begin(), entries.end(),
              [](const malloc_stat_entry &a, const malloc_stat_entry &b) { return my_compare_trace(&a, &b) < 0; });
    merge_runs(entries);
    std::sort(entries.begin(), entries.end(),
              [](const malloc_stat_entry &a, const malloc_stat_entry &b) { return my_compare_bytes(&a, &b) < 0; });
    int copied = 0;
    for (const malloc_stat_entry &entry : entries) {
        if (copied >= max || entry.bytes == 0)
            break;
        out[copied++] = group_of(entry);
    }
    return copied;
}

int qv_mtrace_stat_internal(unsigned int *counters, leak_group *out, int max)
{
    {
        table_lock lock;
        const std::uint32_t now[] = {malloc_count,         malloc_total_size, malloc_times,           free_times,
                                     unmatched_free_times, realloc_times,     unmatched_realloc_times};
        std::copy(std::begin(now), std::end(now), counters);
    }
    return get_malloc_statistics(out, max);
}

int qv_mtrace_stat_min(mtrace_stat_record *rec)
{
    fill_light_totals(rec, light::read());
    rec->rows = 1;
    return 1;
}

int qv_mtrace_stat(mtrace_stat_record *rec, int mode)
{
    constexpr int kLightTotalsOnly = 7;
    if (mode == kLightTotalsOnly) {
        qv_mtrace_stat_min(rec);
        return 8;
    }
    bool tracing;
    {
        table_lock lock;
        tracing = malloc_table != nullptr;
    }
    if (tracing) {
        rec->rows = static_cast<std::uint32_t>(qv_mtrace_stat_internal(rec->full, rec->row.groups, MTRACE_ROWS));
        return 4;
    }
    light::statistics classes = light::read();
    fill_light_totals(rec, classes);
    for (unsigned k = 0; k < light::kClasses; k++)
        rec->row.classes[k] = row_of(classes[k], 1U << k);
    rec->rows = light::kClasses;
    return 6;
}
}
