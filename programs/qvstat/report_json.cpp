// SPDX-License-Identifier: Apache-2.0
#include "report.h"

#include <cstdio>
#include <nlohmann/json.hpp>

namespace qvstat {
namespace {

using json = nlohmann::ordered_json;

constexpr const char *kListFormat = "qvstat-list-1";
constexpr const char *kProcessFormat = "qvstat-process-1";

// Addresses are texts: many readers lose bits of large numbers.
std::string hexadecimal(std::uint64_t number)
{
    char text[24];
    std::snprintf(text, sizeof text, "0x%llx", static_cast<unsigned long long>(number));
    return text;
}

// On one line; bytes that are no UTF-8 become U+FFFD.
std::string line_of(const json &object)
{
    return object.dump(-1, ' ', false, json::error_handler_t::replace) + '\n';
}

json optional_rate(const std::optional<double> &rate)
{
    return rate ? json(*rate) : json();
}

json calls_json(const call_counts &calls)
{
    return {{"allocations", calls.allocs},
            {"frees", calls.frees},
            {"realloc_releases", calls.releases},
            {"realloc_products", calls.products},
            {"failures", calls.failures}};
}

json head_json(const char *format, const process_sample &sample)
{
    json heap = {{"bytes", sample.heap.bytes}, {"blocks", sample.heap.blocks}};
    heap.update(calls_json(sample.heap.calls));
    heap["allocations_per_second"] = optional_rate(sample.alloc_rate);
    heap["frees_per_second"] = optional_rate(sample.free_rate);
    return {{"format", format},
            {"process", sample.process->process()},
            {"name", sample.process->name()},
            {"library", sample.process->library()},
            {"version", sample.process->record().library_version()},
            {"trace", describe_trace(sample.hooks).word},
            {"heap", std::move(heap)}};
}

json cache_json(const object_cache &cache)
{
    return {{"name", cache.name},     {"object_size", cache.object_size},
            {"in_use", cache.in_use}, {"capacity", cache.capacity},
            {"pages", cache.pages},   {"page_size", cache.page_size},
            {"waste", cache.waste()}};
}

json place_json(const code_place &place)
{
    json object = {{"address", hexadecimal(place.address)}};
    if (place.offset) {
        object["module"] = place.module;
        object["offset"] = hexadecimal(*place.offset);
    }
    json functions = json::array();
    for (const qvcrash::source_frame &frame : place.functions) {
        json function = {{"function", frame.function}, {"inlined", frame.is_inlined}};
        if (!frame.file.empty()) {
            function["file"] = frame.file;
            function["line"] = frame.line;
        }
        functions.push_back(std::move(function));
    }
    object["functions"] = std::move(functions);
    return object;
}

json leak_json(const placed_leak &leak)
{
    json chain = json::array();
    for (const code_place &place : leak.chain)
        chain.push_back(place_json(place));
    return {{"bytes", leak.group.bytes},
            {"blocks", leak.group.blocks},
            {"oldest", leak.group.oldest},
            {"chain", std::move(chain)}};
}

json thread_json(const placed_thread &placed)
{
    const thread_view &thread = placed.thread;
    json object = {{"id", thread.id}, {"state", std::string(1, thread.state)}, {"name", thread.name}};
    if (thread.system_call) {
        object["system_call"] = *thread.system_call;
        object["system_call_name"] = system_call_name(*thread.system_call);
    }
    if (thread.waits) {
        object["futex"] = hexadecimal(thread.waits->address);
        object["futex_value"] = thread.waits->value;
        if (thread.waits->owner != 0)
            object["owner"] = thread.waits->owner;
    }
    if (thread.sp)
        object["sp"] = hexadecimal(*thread.sp);
    if (placed.at)
        object["pc"] = place_json(*placed.at);
    return object;
}

json threads_json(const std::vector<placed_thread> &threads, json *deadlocks)
{
    json array = json::array();
    std::vector<thread_view> views;
    for (const placed_thread &placed : threads) {
        array.push_back(thread_json(placed));
        views.push_back(placed.thread);
    }
    *deadlocks = find_deadlocks(views);
    return array;
}

} // namespace

std::string list_json(const machine_sample &machine)
{
    std::string text;
    for (const process_sample &sample : machine.processes) {
        json object = head_json(kListFormat, sample);
        object["caches"] = sample.caches.size();
        object["objects"] = sample.objects();
        object["cache_bytes"] = sample.cache_bytes();
        text += line_of(object);
    }
    return text;
}

std::string process_json(const process_report &report)
{
    const process_sample &sample = *report.sample;
    json object = head_json(kProcessFormat, sample);
    json classes = json::array();
    for (const size_class &row : sample.heap.classes) {
        json each = {{"lower_bound", row.lower_bound}, {"bytes", row.bytes}, {"blocks", row.blocks}};
        each.update(calls_json(row.calls));
        classes.push_back(std::move(each));
    }
    object["size_classes"] = std::move(classes);
    json caches = json::array();
    for (const object_cache &cache : sample.caches)
        caches.push_back(cache_json(cache));
    object["caches"] = std::move(caches);
    if (report.leaks) {
        json leaks = json::array();
        for (const placed_leak &leak : *report.leaks)
            leaks.push_back(leak_json(leak));
        object["leaks"] = std::move(leaks);
    }
    if (report.threads) {
        json deadlocks;
        object["threads"] = threads_json(*report.threads, &deadlocks);
        object["deadlocks"] = std::move(deadlocks);
    }
    return line_of(object);
}

} // namespace qvstat
