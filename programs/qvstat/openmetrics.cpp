// SPDX-License-Identifier: Apache-2.0
// The OpenMetrics text format: a line for each number, by families, with the process as labels.
#include "report.h"

#include <cstdint>
#include <map>

namespace qvstat {
namespace {

// A text between quotes, as UTF-8: bytes that may be none become question marks.
std::string quoted(const std::string &text)
{
    std::string result = "\"";
    for (char c : text) {
        if (c == '"' || c == '\\')
            result += '\\';
        result += static_cast<unsigned char>(c) < 0x80 ? c : '?';
    }
    return result + '"';
}

std::string labels_of(const process_sample &sample)
{
    return "pid=\"" + std::to_string(sample.process->process()) + "\",name=" + quoted(sample.process->name());
}

// Counters are written without a type. OpenMetrics drops "_total" from the family's name, the older text format keeps
// it, and tools such as promtool read only the older one. Without a type both use the full name.
struct family {
    const char *name;
    const char *type; // empty for a counter
    const char *unit; // also the end of the name; empty for none
    const char *help;
};

void append_head(std::string *text, const family &of)
{
    const std::string name = of.name;
    if (*of.type != '\0')
        *text += "# TYPE " + name + ' ' + of.type + '\n';
    if (*of.unit != '\0')
        *text += "# UNIT " + name + ' ' + of.unit + '\n';
    *text += "# HELP " + name + ' ' + of.help + '\n';
}

void append_line(std::string *text, const family &of, const std::string &labels, std::uint64_t value)
{
    *text += of.name;
    if (!labels.empty())
        *text += '{' + labels + '}';
    *text += ' ' + std::to_string(value) + '\n';
}

struct process_family {
    family head;
    std::uint64_t (*value)(const process_sample &);
};

constexpr process_family kProcessFamilies[] = {
    {{"libcommon_heap_bytes", "gauge", "bytes", "Bytes that the heap holds."},
     [](const process_sample &s) { return s.heap.bytes; }},
    {{"libcommon_heap_blocks", "gauge", "", "Blocks that the heap holds."},
     [](const process_sample &s) { return s.heap.blocks; }},
    {{"libcommon_allocations_total", "", "", "Allocations and reallocations; starts again after 4294967295."},
     [](const process_sample &s) { return std::uint64_t{s.heap.calls.allocs + s.heap.calls.products}; }},
    {{"libcommon_frees_total", "", "", "Frees and reallocations; starts again after 4294967295."},
     [](const process_sample &s) { return std::uint64_t{s.heap.calls.frees + s.heap.calls.releases}; }},
    {{"libcommon_allocation_failures_total", "", "", "Failed allocations."},
     [](const process_sample &s) { return std::uint64_t{s.heap.calls.failures}; }},
    {{"libcommon_traced_blocks", "gauge", "", "Blocks that full tracing has records of."},
     [](const process_sample &s) { return std::uint64_t{s.tracing.blocks}; }},
    {{"libcommon_full_tracing", "gauge", "", "1 while full tracing is on."},
     [](const process_sample &s) { return std::uint64_t{s.hooks.is_fully_traced}; }},
    {{"libcommon_trace_file", "gauge", "", "1 while a trace file is written."},
     [](const process_sample &s) { return std::uint64_t{s.hooks.trace == trace_state::file}; }},
};

// The caches of one name in a process are one.
struct cache_sum {
    std::uint64_t objects = 0;
    std::uint64_t held = 0;
    std::uint64_t waste = 0;
};

using cache_sums = std::map<std::string, cache_sum>; // by labels

cache_sums sum_caches(const machine_sample &machine)
{
    cache_sums sums;
    for (const process_sample &sample : machine.processes) {
        for (const object_cache &cache : sample.caches) {
            cache_sum &sum = sums[labels_of(sample) + ",cache=" + quoted(cache.name)];
            sum.objects += cache.in_use;
            sum.held += cache.held();
            sum.waste += cache.waste();
        }
    }
    return sums;
}

struct cache_family {
    family head;
    std::uint64_t cache_sum::*value;
};

constexpr cache_family kCacheFamilies[] = {
    {{"libcommon_cache_objects", "gauge", "", "Objects in use in the object caches of a name."}, &cache_sum::objects},
    {{"libcommon_cache_bytes", "gauge", "bytes", "Bytes that the pages of the caches take."}, &cache_sum::held},
    {{"libcommon_cache_waste_bytes", "gauge", "bytes", "Bytes of the pages that hold no object in use."},
     &cache_sum::waste},
};

} // namespace

std::string openmetrics_text(const machine_sample &machine)
{
    std::string text;
    for (const process_family &each : kProcessFamilies) {
        append_head(&text, each.head);
        for (const process_sample &sample : machine.processes)
            append_line(&text, each.head, labels_of(sample), each.value(sample));
    }
    cache_sums caches = sum_caches(machine);
    for (const cache_family &each : kCacheFamilies) {
        append_head(&text, each.head);
        for (const auto &[labels, sum] : caches)
            append_line(&text, each.head, labels, sum.*each.value);
    }
    constexpr family kRefused = {"libcommon_refused_processes", "gauge", "",
                                 "Processes whose library could not be read."};
    append_head(&text, kRefused);
    append_line(&text, kRefused, "", machine.refused.size());
    return text + "# EOF\n";
}

} // namespace qvstat
