// SPDX-License-Identifier: Apache-2.0
#include "sample.h"

#include <algorithm>

namespace qvstat {
namespace {

double rate(std::uint32_t now, std::uint32_t before, double seconds)
{
    auto calls = static_cast<std::uint32_t>(now - before);
    // The sum over the shards may be a few calls behind an earlier one.
    return static_cast<std::int32_t>(calls) < 0 ? 0 : calls / seconds;
}

} // namespace

std::uint64_t process_sample::objects() const
{
    std::uint64_t sum = 0;
    for (const object_cache &cache : caches)
        sum += cache.in_use;
    return sum;
}

std::uint64_t process_sample::cache_bytes() const
{
    std::uint64_t sum = 0;
    for (const object_cache &cache : caches)
        sum += cache.held();
    return sum;
}

std::optional<process_sample> read_sample(std::unique_ptr<target> process)
{
    const inspection &record = process->record();
    process_sample sample;
    sample.at = std::chrono::steady_clock::now();
    auto heap = record.read_heap();
    auto hooks = record.read_hooks();
    auto tracing = record.read_tracing();
    auto caches = record.read_caches();
    if (!heap || !hooks || !tracing || !caches)
        return std::nullopt;
    sample.heap = std::move(*heap);
    sample.hooks = *hooks;
    sample.tracing = *tracing;
    sample.caches = std::move(*caches);
    sample.process = std::move(process);
    return sample;
}

void set_rates(process_sample *now, const process_sample &before)
{
    double seconds = std::chrono::duration<double>(now->at - before.at).count();
    if (seconds <= 0)
        return;
    const call_counts &calls = now->heap.calls, &earlier = before.heap.calls;
    now->alloc_rate = rate(calls.allocs + calls.products, earlier.allocs + earlier.products, seconds);
    now->free_rate = rate(calls.frees + calls.releases, earlier.frees + earlier.releases, seconds);
}

machine_sample read_machine()
{
    machine_sample machine;
    for (pid_t id : all_processes()) {
        auto process = std::make_unique<target>(id);
        switch (process->access()) {
        case access_result::readable:
            if (auto sample = read_sample(std::move(process)))
                machine.processes.push_back(std::move(*sample));
            break;
        case access_result::no_permission:
            // Without its mappings nobody knows whether it has the library.
            if (process->library().empty()) {
                machine.hidden++;
                break;
            }
            [[fallthrough]];
        case access_result::other_version:
        case access_result::damaged:
            machine.refused.push_back(process->refusal());
            break;
        case access_result::no_library:
        case access_result::vanished:
            break;
        }
    }
    return machine;
}

void set_rates(machine_sample *now, const machine_sample &before)
{
    for (process_sample &sample : now->processes) {
        auto same = [&sample](const process_sample &other) {
            return other.process->process() == sample.process->process() &&
                   other.process->name() == sample.process->name();
        };
        auto earlier = std::find_if(before.processes.begin(), before.processes.end(), same);
        if (earlier != before.processes.end())
            set_rates(&sample, *earlier);
    }
}

trace_description describe_trace(const hook_state &hooks)
{
    switch (hooks.trace) {
    case trace_state::none:
        return {"off", "no hooks are installed: nothing is counted"};
    case trace_state::light:
        if (!hooks.counts)
            return {"off", "the process has another allocator, which the library does not see"};
        return {"light", "light statistics"};
    case trace_state::full:
        return {"full", "full tracing; the light statistics do not change meanwhile"};
    case trace_state::file:
        if (hooks.is_fully_traced)
            return {"file+full", "full tracing below a trace file"};
        return {"file", "a trace file is being written"};
    case trace_state::host:
        return {"host", "the host's hooks are installed: light statistics may not be complete"};
    }
    return {"", ""};
}

} // namespace qvstat
