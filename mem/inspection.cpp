// SPDX-License-Identifier: Apache-2.0
// The record by which other processes find the statistics of this one. The linker fills it; no code runs for it.
#include "libcommon_inspect.h"

#include "fault/crash_handler.h"
#include "libcommon_version.h"
#include "mcache.h"
#include "mem/hook_table.h"
#include "mem/light_stats.h"
#include "mem/live_blocks.h"
#include "mem/trace_file.h"
#include "qv_mtrace.h"

#include <cstddef>
#include <cstdint>

using namespace qv;

namespace {

using light::class_counters;
using live_blocks::block_record;
using live_blocks::tracing_state;

constexpr std::uint32_t kCacheUnit = 8192; // of a page of an object cache, in bytes

static_assert(sizeof(qv_inspect_record) == 296 && sizeof(qv_inspect_light) == 80 && sizeof(qv_inspect_tracing) == 80);
static_assert(sizeof(void *) == sizeof(std::uint64_t), "readers take pointers for 64-bit numbers");

} // namespace

// A note by which readers find the record in a program that holds the library, whose symbols may all be gone. Its
// content is the record's distance from the content. A host has a note of type 1, for its callback table.
static_assert(QV_INSPECT_NOTE == 2);
asm(".pushsection .note.libcommon, \"a\", %note\n"
    ".balign 4\n"
    ".long 10, 8, 2\n" // the sizes of owner and content, the type
    ".asciz \"libcommon\"\n"
    ".balign 4\n"
    ".quad qv_inspect_here - .\n"
    ".popsection\n");

extern "C" {
[[gnu::alias("qv_inspect"), gnu::visibility("hidden")]] extern const qv_inspect_record qv_inspect_here;
}

extern "C" constinit const qv_inspect_record qv_inspect = {
    .magic = QV_INSPECT_MAGIC,
    .version = QV_INSPECT_VERSION,
    .size = sizeof(qv_inspect_record),
    .library_version = LIBCOMMON_VERSION,
    .light =
        {
            .shards = light::shards,
            .common = &light::common_shard,
            .cleared = &light::cleared,
            .is_on = &hooks::intercepting,
            .shard_count = light::kShards,
            .shard_size = sizeof(light::statistics),
            .class_count = light::kClasses,
            .class_size = sizeof(class_counters),
            .allocs_at = offsetof(class_counters, allocs),
            .frees_at = offsetof(class_counters, frees),
            .releases_at = offsetof(class_counters, releases),
            .products_at = offsetof(class_counters, products),
            .failures_at = offsetof(class_counters, failures),
            .bytes_taken_at = offsetof(class_counters, bytes_taken),
            .bytes_returned_at = offsetof(class_counters, bytes_returned),
            .reserved = 0,
        },
    .tracing =
        {
            .state = &live_blocks::state,
            .time_wait = &time_wait,
            .table_at = offsetof(tracing_state, table),
            .blocks_at = offsetof(tracing_state, blocks),
            .bytes_at = offsetof(tracing_state, bytes),
            .allocs_at = offsetof(tracing_state, allocs),
            .frees_at = offsetof(tracing_state, frees),
            .reallocs_at = offsetof(tracing_state, reallocs),
            .unmatched_frees_at = offsetof(tracing_state, unmatched_frees),
            .unmatched_reallocs_at = offsetof(tracing_state, unmatched_reallocs),
            .record_count = live_blocks::kSlots,
            .record_size = sizeof(block_record),
            .block_at = offsetof(block_record, ptr),
            .block_size_at = offsetof(block_record, size),
            .time_at = offsetof(block_record, when),
            .chain_at = offsetof(block_record, trace),
            .chain_length = MTRACE_CHAIN_SIZE,
            .reserved = 0,
        },
    .hooks =
        {
            .malloc_hook = &__malloc_hook,
            .light_hook = &light::kHooks.hooks.malloc,
            .full_hook = &live_blocks::kHooks.hooks.malloc,
            .below_trace = &trace_file::below.malloc,
            .trace_file = &trace_file::file,
            .signals_armed_by = &fault::g_signals_armed_by,
            .attach_signal = &fault::g_attach_signal,
        },
    .caches =
        {
            .list = &zlist,
            .cache_size = sizeof(mcache),
            .next_at = offsetof(mcache, next_cache),
            .name_at = offsetof(mcache, name),
            .name_size = sizeof(mcache::name),
            .page_count_at = offsetof(mcache, page_count),
            .in_use_at = offsetof(mcache, in_use),
            .object_size_at = offsetof(mcache, obj_size),
            .page_units_at = offsetof(mcache, page_units),
            .objects_per_page_at = offsetof(mcache, objs_per_slab),
            .unit_size = kCacheUnit,
        },
};
