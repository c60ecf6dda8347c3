// SPDX-License-Identifier: Apache-2.0
// Starts and stops full tracing; makes the reports of full tracing and of the light statistics.
#include "qv_mtrace.h"

#include "base/assert_fail.h"
#include "log/console_output.h"
#include "mem/hook_change.h"
#include "mem/hook_table.h"
#include "mem/light_stats.h"
#include "mem/live_blocks.h"
#include "time/local_time.h"

#include <algorithm>
#include <cstddef>
#include <cstdlib>
#include <ctime>
#include <span>
#include <utility>

using namespace qv;

static_assert(sizeof(leak_group) == 72 && offsetof(leak_group, trace) == 8);
static_assert(sizeof(mtrace_class_row) == 32);
static_assert(offsetof(mtrace_stat_record, full) == 4 && offsetof(mtrace_stat_record, reserved1) == 32);
static_assert(offsetof(mtrace_stat_record, light_bytes) == 36 && offsetof(mtrace_stat_record, rows) == 64);
static_assert(offsetof(mtrace_stat_record, row) == 72);

extern "C" {
uint64_t time_wait = 1800;
[[gnu::visibility("hidden"), gnu::alias("time_wait")]] extern uint64_t own_time_wait;
} // extern "C"

namespace {

constinit exported_variable<uint64_t> leak_age{own_time_wait};

[[gnu::constructor]] void choose_time_wait()
{
    leak_age.choose(time_wait);
}

using live_blocks::call_chain;

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

// The blocks of a report, allocated below the hooks, so that the report does not count its own memory. Chains are
// copied: the table may be freed before they are compared.
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
    bool is_allocated() const { return entries_ != nullptr; }
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
    malloc_stat_entry *entries_; // with the chains after them
};

bool is_old_enough(const live_blocks::block_record &record, std::uint64_t at)
{
    return record.when <= at && at - record.when >= *leak_age;
}

// Collects the blocks that may be leaks until the array is full. Returns the number of live blocks.
std::uint32_t collect(work_array &work)
{
    std::uint64_t at = live_blocks::now();
    live_blocks::table_lock lock;
    const live_blocks::tracing_state &state = live_blocks::state;
    if (state.table == nullptr)
        return 0;
    for (const live_blocks::block_record &record : state.table->records) {
        if (work.is_full())
            break;
        if (record.ptr != 0 && is_old_enough(record, at))
            work.add(record.size, record.trace);
    }
    return state.blocks;
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

extern "C" {

// ---- full tracing ----

void qv_mtrace_start(void)
{
    // Everything that allocates or waits for the loader comes first, before any thread waits for this one: reports
    // print without reading the time zone.
    live_blocks::prepare_chains();
    if (live_blocks::read_state().table == nullptr)
        local_time::prepare_handlers();
    hooks::change_scope scope;
    muntrace();
    // Allocated without `mutex`: malloc() locks it if full tracing is on.
    live_blocks::block_table *fresh = nullptr;
    if (live_blocks::read_state().table == nullptr)
        fresh = static_cast<live_blocks::block_table *>(std::calloc(1, sizeof *fresh));
    live_blocks::start(fresh);
    std::free(fresh);
    mtrace();
}

void qv_mtrace_stop(void)
{
    hooks::change_scope scope;
    muntrace();
    live_blocks::table_lock lock;
    hooks::install(hooks::old());
}

void qv_mtrace_reset(void)
{
    live_blocks::block_table *table;
    {
        hooks::change_scope scope; // one change, so that no toggle comes between its parts
        qv_mtrace_stop();
        table = live_blocks::remove_table();
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
    live_blocks::tracing_state state = live_blocks::read_state();
    std::uint32_t live = state.table != nullptr ? state.blocks : 0;
    if (live == 0)
        return 0;
    work_array work(live);
    if (!work.is_allocated())
        return 0;
    live = collect(work);
    if (live == 0)
        return 0;        // reset meanwhile
    if (!work.is_full()) // as a handler prints: console_print() allocates, which the next report would show
        console::print_from_handler("Total record %d,  %d records malloc but not free within %lu(s)\n",
                                    static_cast<int>(live), static_cast<int>(work.count()), *leak_age);

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
    live_blocks::tracing_state state = live_blocks::read_state();
    const std::uint32_t values[] = {state.blocks,
                                    state.bytes,
                                    state.allocs,
                                    state.frees,
                                    state.unmatched_frees,
                                    state.reallocs,
                                    state.unmatched_reallocs};
    std::copy(std::begin(values), std::end(values), counters);
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
    if (mode == MTRACE_MODE_TOTALS) {
        qv_mtrace_stat_min(rec);
        return MTRACE_TOTALS;
    }
    if (live_blocks::read_state().table != nullptr) {
        rec->rows = static_cast<std::uint32_t>(qv_mtrace_stat_internal(rec->full, rec->row.groups, MTRACE_ROWS));
        return MTRACE_LEAK_GROUPS;
    }
    light::statistics classes = light::read();
    fill_light_totals(rec, classes);
    for (unsigned k = 0; k < light::kClasses; k++)
        rec->row.classes[k] = row_of(classes[k], 1U << k);
    rec->rows = light::kClasses;
    return MTRACE_SIZE_CLASSES;
}

} // extern "C"
