// SPDX-License-Identifier: Apache-2.0
#include "printable.h"
#include "report.h"

#include <algorithm>
#include <cstdarg>
#include <cstdio>
#include <vector>

namespace qvstat {
namespace {

using ull = unsigned long long;

using qvcrash::printable;

[[gnu::format(printf, 2, 3)]] void append(std::string *text, const char *format, ...)
{
    va_list arguments, again;
    va_start(arguments, format);
    va_copy(again, arguments);
    int size = std::vsnprintf(nullptr, 0, format, arguments);
    va_end(arguments);
    std::vector<char> line(static_cast<std::size_t>(std::max(size, 0)) + 1);
    std::vsnprintf(line.data(), line.size(), format, again);
    va_end(again);
    *text += line.data();
}

std::string rate_text(const std::optional<double> &rate)
{
    char text[32];
    if (!rate)
        return "-";
    std::snprintf(text, sizeof text, "%.0f", *rate);
    return text;
}

void append_heap(std::string *text, const process_sample &sample)
{
    const heap_statistics &heap = sample.heap;
    append(text, "heap     %s in %llu blocks, %s allocations/s, %s frees/s, %u failures\n",
           short_bytes(heap.bytes).c_str(), ull{heap.blocks}, rate_text(sample.alloc_rate).c_str(),
           rate_text(sample.free_rate).c_str(), heap.calls.failures);
    append(text, "trace    %s\n", describe_trace(sample.hooks).sentence);
    const tracing_counts &full = sample.tracing;
    if (full.has_table)
        append(text, "records  %u live blocks of %u bytes; %u allocations, %u frees, %u reallocations recorded\n",
               full.blocks, full.bytes, full.allocs, full.frees, full.reallocs);
}

void append_classes(std::string *text, const heap_statistics &heap)
{
    append(text, "\n%12s %10s %10s %11s %11s %10s %10s %8s\n", "SIZES FROM", "BYTES", "BLOCKS", "ALLOCS", "FREES",
           "REALLOC-", "REALLOC+", "FAILURES");
    for (const size_class &row : heap.classes) {
        const call_counts &calls = row.calls;
        if (calls.allocs != 0 || calls.frees != 0 || calls.products != 0 || calls.releases != 0 || calls.failures != 0)
            append(text, "%12llu %10s %10llu %11u %11u %10u %10u %8u\n", ull{row.lower_bound},
                   short_bytes(row.bytes).c_str(), ull{row.blocks}, calls.allocs, calls.frees, calls.releases,
                   calls.products, calls.failures);
    }
}

void append_caches(std::string *text, const std::vector<object_cache> &caches)
{
    if (caches.empty())
        return;
    append(text, "\n%-32s %8s %10s %10s %8s %8s %8s\n", "OBJECT CACHE", "SIZE", "IN USE", "ROOM FOR", "PAGES", "HELD",
           "WASTE");
    for (const object_cache &cache : caches)
        append(text, "%-32s %8llu %10llu %10llu %8llu %8s %8s\n", printable(cache.name).c_str(), ull{cache.object_size},
               ull{cache.in_use}, ull{cache.capacity}, ull{cache.pages}, short_bytes(cache.held()).c_str(),
               short_bytes(cache.waste()).c_str());
}

void append_thread(std::string *text, const placed_thread &placed)
{
    const thread_view &thread = placed.thread;
    append(text, "thread %d %c %s", thread.id, thread.state, printable(thread.name).c_str());
    if (thread.system_call)
        append(text, "  %s(0x%llx, 0x%llx, 0x%llx)", system_call_name(*thread.system_call).c_str(),
               ull{thread.arguments[0]}, ull{thread.arguments[1]}, ull{thread.arguments[2]});
    *text += '\n';
    if (thread.waits) {
        append(text, "    waits at 0x%llx, which holds %u", ull{thread.waits->address}, thread.waits->value);
        if (thread.waits->owner != 0)
            append(text, ": a lock of thread %d", thread.waits->owner);
        *text += '\n';
    }
    if (thread.sp)
        append(text, "    sp 0x%llx pc 0x%llx", ull{*thread.sp}, ull{thread.pc.value_or(0)});
    if (placed.at)
        *text += ' ' + printable(describe(*placed.at));
    if (thread.sp)
        *text += '\n';
}

} // namespace

std::string short_bytes(std::uint64_t bytes)
{
    constexpr char kUnits[] = {'K', 'M', 'G', 'T', 'P'};
    constexpr double kStep = 1024;
    if (bytes < 10000)
        return std::to_string(bytes);
    auto value = static_cast<double>(bytes) / kStep;
    std::size_t unit = 0;
    while (value >= kStep && unit + 1 < sizeof kUnits) {
        value /= kStep;
        unit++;
    }
    char text[32];
    std::snprintf(text, sizeof text, value < 100 ? "%.1f%c" : "%.0f%c", value, kUnits[unit]);
    return text;
}

std::string list_text(const machine_sample &machine)
{
    std::string text;
    append(&text, "%7s %-15s %8s %10s %9s %9s %8s %7s %9s %s\n", "PID", "COMMAND", "HEAP", "BLOCKS", "ALLOCS/S",
           "FREES/S", "FAILURES", "CACHES", "OBJECTS", "TRACE");
    for (const process_sample &sample : machine.processes)
        append(&text, "%7d %-15s %8s %10llu %9s %9s %8u %7zu %9llu %s\n", sample.process->process(),
               printable(sample.process->name()).c_str(), short_bytes(sample.heap.bytes).c_str(),
               ull{sample.heap.blocks}, rate_text(sample.alloc_rate).c_str(), rate_text(sample.free_rate).c_str(),
               sample.heap.calls.failures, sample.caches.size(), ull{sample.objects()},
               describe_trace(sample.hooks).word);
    return text;
}

std::string process_text(const process_report &report)
{
    const process_sample &sample = *report.sample;
    std::string text;
    append(&text, "process  %d %s\nlibrary  %s, version %s\n", sample.process->process(),
           printable(sample.process->name()).c_str(), printable(sample.process->library()).c_str(),
           printable(sample.process->record().library_version()).c_str());
    append_heap(&text, sample);
    append_classes(&text, sample.heap);
    append_caches(&text, sample.caches);
    return text;
}

std::string leaks_text(const process_report &report)
{
    std::string text;
    for (const placed_leak &leak : *report.leaks) {
        std::uint64_t age = report.now > leak.group.oldest ? report.now - leak.group.oldest : 0;
        append(&text, "\n%llu bytes in %llu blocks, the oldest %llu seconds old\n", ull{leak.group.bytes},
               ull{leak.group.blocks}, ull{age});
        for (const code_place &place : leak.chain)
            text += "    " + printable(describe(place)) + '\n';
    }
    return text;
}

std::string threads_text(const process_report &report)
{
    std::string text = "\n";
    std::vector<thread_view> threads;
    for (const placed_thread &placed : *report.threads) {
        append_thread(&text, placed);
        threads.push_back(placed.thread);
    }
    for (const std::vector<pid_t> &circle : find_deadlocks(threads)) {
        append(&text, "deadlock: %d", circle.front());
        for (std::size_t i = 1; i <= circle.size(); i++)
            append(&text, " waits for %d", circle[i % circle.size()]);
        text += '\n';
    }
    return text;
}

} // namespace qvstat
