// SPDX-License-Identifier: Apache-2.0
#include "inspection.h"

#include <algorithm>
#include <cstring>
#include <initializer_list>
#include <map>
#include <span>

namespace qvstat {
namespace {

// What a record may claim. The library's own numbers are far below.
constexpr std::uint64_t kMaxShards = 16 << 20; // bytes of all shards, and of one
constexpr std::uint32_t kMaxClasses = 64;
constexpr std::uint64_t kMaxRecords = 64 << 20; // bytes of all records, and of one
constexpr std::uint32_t kMaxRecordSize = 1024;
constexpr std::uint32_t kMaxCacheSize = 4096; // bytes
constexpr std::uint32_t kMaxUnit = 1U << 20;  // bytes
constexpr std::size_t kMaxCaches = 4096;
constexpr std::uint64_t kMaxPages = std::uint64_t{1} << 32;
constexpr std::uint64_t kMaxPageSize = std::uint64_t{1} << 24; // bytes

constexpr std::size_t kLastClass = 31; // sizes are 32 bits wide
constexpr int kTries = 4;              // to read something that changes meanwhile

using bytes_view = std::span<const char>;

std::uint64_t address_of(const void *pointer)
{
    return reinterpret_cast<std::uint64_t>(pointer);
}

template <typename Value>
Value value_at(bytes_view bytes, std::uint32_t offset)
{
    Value value;
    std::memcpy(&value, bytes.data() + offset, sizeof value);
    return value;
}

template <typename Value>
bool all_fit(std::uint32_t size, std::initializer_list<std::uint32_t> offsets)
{
    return std::all_of(offsets.begin(), offsets.end(), [size](std::uint32_t offset) {
        return size >= sizeof(Value) && offset <= size - sizeof(Value);
    });
}

bool is_sound(const qv_inspect_light &light)
{
    // Counters are whole words of a table.
    bool is_aligned = (light.shard_size | light.class_size | light.allocs_at | light.frees_at | light.releases_at |
                       light.products_at | light.failures_at | light.bytes_taken_at | light.bytes_returned_at) %
                          sizeof(std::uint32_t) ==
                      0;
    return is_aligned && light.shard_size <= kMaxShards &&
           std::uint64_t{light.shard_count} * light.shard_size <= kMaxShards && light.class_count <= kMaxClasses &&
           std::uint64_t{light.class_count} * light.class_size <= light.shard_size &&
           all_fit<std::uint32_t>(light.class_size,
                                  {light.allocs_at, light.frees_at, light.releases_at, light.products_at,
                                   light.failures_at, light.bytes_taken_at, light.bytes_returned_at});
}

constexpr std::uint32_t kTracingStateSize = 256; // at most, in bytes

bool is_sound(const qv_inspect_tracing &tracing)
{
    return tracing.record_size <= kMaxRecordSize &&
           std::uint64_t{tracing.record_count} * tracing.record_size <= kMaxRecords &&
           tracing.chain_length <= kMaxRecordSize / sizeof(std::uint64_t) && tracing.chain_at <= tracing.record_size &&
           tracing.chain_length * sizeof(std::uint64_t) <= tracing.record_size - tracing.chain_at &&
           all_fit<std::uint64_t>(tracing.record_size, {tracing.block_at, tracing.time_at}) &&
           all_fit<std::uint32_t>(tracing.record_size, {tracing.block_size_at}) &&
           all_fit<std::uint64_t>(kTracingStateSize, {tracing.table_at}) &&
           all_fit<std::uint32_t>(kTracingStateSize,
                                  {tracing.blocks_at, tracing.bytes_at, tracing.allocs_at, tracing.frees_at,
                                   tracing.reallocs_at, tracing.unmatched_frees_at, tracing.unmatched_reallocs_at});
}

bool is_sound(const qv_inspect_caches &caches)
{
    return caches.cache_size <= kMaxCacheSize && caches.unit_size <= kMaxUnit &&
           caches.name_size <= caches.cache_size && caches.name_at <= caches.cache_size - caches.name_size &&
           all_fit<std::uint64_t>(caches.cache_size, {caches.next_at}) &&
           all_fit<std::uint32_t>(caches.cache_size, {caches.page_count_at, caches.in_use_at, caches.object_size_at,
                                                      caches.page_units_at, caches.objects_per_page_at});
}

// A text of the process, fit for a terminal.
std::string printable(bytes_view bytes)
{
    std::string text(bytes.data(), ::strnlen(bytes.data(), bytes.size()));
    std::replace_if(
        text.begin(), text.end(), [](char c) { return static_cast<unsigned char>(c) < ' ' || c == '\x7f'; }, '?');
    return text;
}

// ---- light statistics ----

// Tables are sums modulo 2^32, word by word.
using table_words = std::vector<std::uint32_t>;

// A class as the library counts it.
struct raw_class {
    call_counts calls;
    std::uint32_t taken = 0;
    std::uint32_t returned = 0;

    std::uint32_t blocks() const { return calls.allocs + calls.products - calls.frees - calls.releases; }
};

raw_class raw_class_at(const qv_inspect_light &light, const table_words &table, std::uint32_t index)
{
    auto counter = [&](std::uint32_t offset) {
        return table[(std::size_t{index} * light.class_size + offset) / sizeof(std::uint32_t)];
    };
    return {{counter(light.allocs_at), counter(light.frees_at), counter(light.releases_at), counter(light.products_at),
             counter(light.failures_at)},
            counter(light.bytes_taken_at),
            counter(light.bytes_returned_at)};
}

void add(call_counts *sum, const call_counts &more)
{
    for (auto count : {&call_counts::allocs, &call_counts::frees, &call_counts::releases, &call_counts::products,
                       &call_counts::failures})
        sum->*count += more.*count;
}

// Whether more blocks are free than were ever allocated: a free was read and its allocation was not.
bool is_negative(const raw_class &each)
{
    return static_cast<std::int32_t>(each.blocks()) < 0;
}

// The bytes of the blocks of a class. Their counters are 32 bits wide; the number of blocks supplies the rest.
std::uint64_t bytes_of(const raw_class &each, std::uint64_t blocks, std::uint64_t smallest, std::uint64_t largest)
{
    std::uint64_t least = blocks * smallest;
    std::uint64_t more = (each.taken - each.returned - least) & UINT32_MAX;
    bool is_torn = more > blocks * (largest - smallest);
    return is_torn ? least : least + more;
}

heap_statistics make_statistics(const std::vector<raw_class> &classes)
{
    heap_statistics heap;
    for (std::size_t k = 0; k < classes.size(); k++) {
        const raw_class &raw = classes[k];
        size_class row;
        row.lower_bound = std::uint64_t{1} << std::min(k, kLastClass);
        row.blocks = is_negative(raw) ? 0 : raw.blocks();
        row.bytes = bytes_of(raw, row.blocks, k == 0 ? 0 : row.lower_bound, 2 * row.lower_bound - 1);
        row.calls = raw.calls;
        heap.bytes += row.bytes;
        heap.blocks += row.blocks;
        add(&heap.calls, raw.calls);
        heap.classes.push_back(row);
    }
    return heap;
}

// ---- object caches ----

std::optional<object_cache> make_cache(const qv_inspect_caches &layout, bytes_view bytes)
{
    auto number = [bytes](std::uint32_t offset) { return std::uint64_t{value_at<std::uint32_t>(bytes, offset)}; };
    object_cache cache;
    cache.name = printable(bytes.subspan(layout.name_at, layout.name_size));
    cache.object_size = number(layout.object_size_at);
    cache.in_use = number(layout.in_use_at);
    cache.pages = number(layout.page_count_at);
    cache.page_size = number(layout.page_units_at) * layout.unit_size;
    cache.capacity = cache.pages * number(layout.objects_per_page_at);
    if (cache.pages > kMaxPages || cache.page_size > kMaxPageSize || cache.in_use > cache.capacity ||
        cache.in_use * cache.object_size > cache.held())
        return std::nullopt;
    return cache;
}

} // namespace

inspection::inspection(const memory_source &memory, std::uint64_t record_address) : memory_(memory)
{
    if (!memory.read(record_address, &record_, sizeof record_))
        state_ = record_state::unreadable;
    else
        state_ = check();
}

record_state inspection::check()
{
    if (record_.magic != QV_INSPECT_MAGIC || record_.size < sizeof record_)
        return record_state::other_version;
    version_ = printable(record_.library_version);
    if (record_.version != QV_INSPECT_VERSION)
        return record_state::other_version;
    return is_sound(record_.light) && is_sound(record_.tracing) && is_sound(record_.caches) ? record_state::valid
                                                                                            : record_state::damaged;
}

std::optional<heap_statistics> inspection::read_heap() const
{
    const qv_inspect_light &light = record_.light;
    const std::size_t words = light.shard_size / sizeof(std::uint32_t);
    table_words shards(words * light.shard_count), common(words), sum(words);
    std::vector<raw_class> classes(light.class_count);
    auto read = [this](const void *at, table_words *to) {
        return memory_.read(address_of(at), to->data(), to->size() * sizeof(std::uint32_t));
    };
    for (int i = 0; i < kTries; i++) {
        if (!read(light.cleared, &sum) || !read(light.shards, &shards) || !read(light.common, &common))
            return std::nullopt;
        for (std::size_t word = 0; word < words; word++)
            sum[word] = common[word] - sum[word];
        for (std::size_t first = 0; first < shards.size(); first += words) {
            for (std::size_t word = 0; word < words; word++)
                sum[word] += shards[first + word];
        }
        for (std::uint32_t k = 0; k < light.class_count; k++)
            classes[k] = raw_class_at(light, sum, k);
        if (std::none_of(classes.begin(), classes.end(), is_negative))
            break;
    }
    return make_statistics(classes);
}

std::optional<std::vector<object_cache>> inspection::read_caches() const
{
    const qv_inspect_caches &layout = record_.caches;
    auto address = load<std::uint64_t>(memory_, address_of(layout.list));
    if (!address)
        return std::nullopt;
    std::vector<object_cache> caches;
    std::vector<char> bytes(layout.cache_size);
    while (*address != 0 && caches.size() < kMaxCaches) {
        std::optional<object_cache> cache;
        for (int i = 0; i < kTries && !cache; i++) {
            if (!memory_.read(*address, bytes.data(), bytes.size()))
                return caches; // a wild link ends the list
            cache = make_cache(layout, bytes);
        }
        if (!cache) {
            cache = object_cache();
            cache->name = printable(bytes_view(bytes).subspan(layout.name_at, layout.name_size)) + " (damaged)";
        }
        caches.push_back(std::move(*cache));
        auto next = value_at<std::uint64_t>(bytes, layout.next_at);
        if (next == *address)
            break;
        *address = next;
    }
    return caches;
}

std::optional<hook_state> inspection::read_hooks() const
{
    const qv_inspect_hooks &layout = record_.hooks;
    auto pointer = [this](const void *at) { return load<std::uint64_t>(memory_, address_of(at)); };
    auto number = [this](const void *at) { return load<std::int32_t>(memory_, address_of(at)); };
    auto hook = pointer(layout.malloc_hook), light = pointer(layout.light_hook), full = pointer(layout.full_hook);
    auto below = pointer(layout.below_trace);
    auto file = number(layout.trace_file), armed = number(layout.signals_armed_by);
    auto attach = number(layout.attach_signal);
    auto counts = load<unsigned char>(memory_, address_of(record_.light.is_on));
    if (!hook || !light || !full || !below || !file || !armed || !attach || !counts)
        return std::nullopt;
    hook_state state;
    state.counts = *counts != 0;
    state.is_fully_traced = *hook == *full || (*file >= 0 && *below == *full);
    state.trace = *file >= 0        ? trace_state::file
                  : *hook == 0      ? trace_state::none
                  : *hook == *light ? trace_state::light
                  : *hook == *full  ? trace_state::full
                                    : trace_state::host;
    state.armed_by = *armed;
    state.attach_signal = *attach;
    return state;
}

std::optional<tracing_counts> inspection::read_tracing() const
{
    const qv_inspect_tracing &layout = record_.tracing;
    tracing_counts counts;
    auto number = [&](std::uint32_t offset, std::uint32_t *value) {
        return memory_.read(address_of(layout.state) + offset, value, sizeof *value);
    };
    auto wait = load<std::uint64_t>(memory_, address_of(layout.time_wait));
    if (!wait || !number(layout.blocks_at, &counts.blocks) || !number(layout.bytes_at, &counts.bytes) ||
        !number(layout.allocs_at, &counts.allocs) || !number(layout.frees_at, &counts.frees) ||
        !number(layout.reallocs_at, &counts.reallocs) || !number(layout.unmatched_frees_at, &counts.unmatched_frees) ||
        !number(layout.unmatched_reallocs_at, &counts.unmatched_reallocs))
        return std::nullopt;
    counts.wait_seconds = *wait;
    counts.has_table = table_address() != 0;
    return counts;
}

std::uint64_t inspection::table_address() const
{
    return load<std::uint64_t>(memory_, address_of(record_.tracing.state) + record_.tracing.table_at).value_or(0);
}

// A record is written before its pointer and its pointer is cleared when it is freed, without a lock that we could
// take. So the table is read twice, and a record counts if it is the same in both.
std::optional<std::vector<leak_group>> inspection::read_leaks(std::uint64_t latest) const
{
    const qv_inspect_tracing &layout = record_.tracing;
    std::size_t size = std::size_t{layout.record_count} * layout.record_size;
    std::vector<char> first(size), second(size);
    bool is_read = false;
    for (int i = 0; i < kTries && !is_read; i++) {
        std::uint64_t table = table_address();
        if (table == 0)
            return std::vector<leak_group>();
        // The process may free the table meanwhile.
        is_read = memory_.read(table, first.data(), size) && memory_.read(table, second.data(), size) &&
                  table_address() == table;
    }
    if (!is_read)
        return std::nullopt;
    std::map<std::vector<std::uint64_t>, leak_group> groups;
    for (std::uint32_t i = 0; i < layout.record_count; i++) {
        auto record = bytes_view(first).subspan(std::size_t{i} * layout.record_size, layout.record_size);
        auto when = value_at<std::uint64_t>(record, layout.time_at);
        if (value_at<std::uint64_t>(record, layout.block_at) == 0 || when > latest ||
            std::memcmp(record.data(), second.data() + std::size_t{i} * layout.record_size, record.size()) != 0)
            continue;
        std::vector<std::uint64_t> chain;
        for (std::uint32_t depth = 0; depth < layout.chain_length; depth++) {
            auto address = value_at<std::uint64_t>(
                record, layout.chain_at + depth * static_cast<std::uint32_t>(sizeof(std::uint64_t)));
            if (address == 0)
                break;
            chain.push_back(address);
        }
        leak_group &group = groups[chain];
        group.bytes += value_at<std::uint32_t>(record, layout.block_size_at);
        group.oldest = group.blocks == 0 ? when : std::min(group.oldest, when);
        group.blocks++;
    }
    std::vector<leak_group> result;
    for (auto &[chain, group] : groups) {
        group.chain = chain;
        result.push_back(std::move(group));
    }
    std::stable_sort(result.begin(), result.end(),
                     [](const leak_group &a, const leak_group &b) { return a.bytes > b.bytes; });
    return result;
}

} // namespace qvstat
