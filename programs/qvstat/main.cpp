// SPDX-License-Identifier: Apache-2.0
// qvstat - looks into running processes that have the library loaded. Its manual page describes the commands and exit
// statuses.
#include "control.h"
#include "metrics_server.h"
#include "printable.h"
#include "programs/privileges.h"
#include "report.h"
#include "sample.h"
#include "top.h"

#include <CLI/CLI.hpp>
#include <algorithm>
#include <cerrno>
#include <charconv>
#include <chrono>
#include <cstdio>
#include <cstring>
#include <ctime>
#include <exception>
#include <optional>
#include <stdexcept>
#include <string>
#include <thread>
#include <vector>

namespace {

using namespace qvstat;
using qv::programs::has_capability;
using qv::programs::keep_capabilities;

enum exit_status { kDone = 0, kNotDone = 1, kUsage = 2 };

constexpr double kDefaultInterval = 0.2; // seconds
constexpr double kTopInterval = 2;

struct command_line {
    std::vector<std::string> words; // a process and what to do with it
    std::vector<std::string> debug_folders;
    std::optional<double> interval; // seconds
    std::string listen;
    bool as_openmetrics = false;
    std::optional<std::uint64_t> after; // seconds
    bool shows_threads = false;
    bool as_json = false;
};

void print(const std::string &text)
{
    std::fwrite(text.data(), 1, text.size(), stdout);
}

void complain(const std::string &text)
{
    std::fprintf(stderr, "qvstat: %s\n", qvcrash::printable(text).c_str());
}

void wait(double seconds)
{
    std::this_thread::sleep_for(std::chrono::duration<double>(seconds));
}

int list(const command_line &line)
{
    machine_sample before = read_machine();
    wait(line.interval.value_or(kDefaultInterval));
    machine_sample now = read_machine();
    set_rates(&now, before);
    print(line.as_json ? list_json(now) : list_text(now));
    for (const std::string &refusal : now.refused)
        complain(refusal);
    if (now.hidden != 0)
        complain("processes that may not be looked into: " + std::to_string(now.hidden));
    return now.refused.empty() ? kDone : kNotDone;
}

std::string metrics()
{
    return openmetrics_text(read_machine());
}

// Clients are served from here on. CAP_SYS_PTRACE also permits writing to processes; the kernel has no capability for
// reading alone.
bool keep_what_serving_needs()
{
    if (!has_capability(CAP_SYS_PTRACE))
        return true;
    qv::programs::become_nobody();
    return keep_capabilities({CAP_SYS_PTRACE, CAP_DAC_READ_SEARCH});
}

int export_metrics(const command_line &line)
{
    if (line.listen.empty()) {
        print(metrics());
        return kDone;
    }
    auto is_ready = [](const std::string &url) {
        if (!keep_what_serving_needs())
            throw std::runtime_error(std::string("capabilities: ") + std::strerror(errno));
        print("listening at " + url + '\n');
        std::fflush(stdout);
    };
    complain(serve_metrics(line.listen, is_ready, metrics));
    return kNotDone;
}

int top(const command_line &line)
{
    if (show_top(line.interval.value_or(kTopInterval)))
        return kDone;
    complain("this needs a terminal, and its name in TERM");
    return kNotDone;
}

std::vector<placed_leak> place(std::vector<leak_group> groups, code_places *places)
{
    std::vector<placed_leak> leaks;
    for (leak_group &group : groups) {
        placed_leak leak;
        for (std::uint64_t address : group.chain)
            leak.chain.push_back(places->find(address, true));
        leak.group = std::move(group);
        leaks.push_back(std::move(leak));
    }
    return leaks;
}

std::vector<placed_thread> place(std::vector<thread_view> threads, code_places *places)
{
    std::vector<placed_thread> result;
    for (thread_view &thread : threads) {
        placed_thread placed;
        if (thread.pc)
            placed.at = places->find(*thread.pc, false);
        placed.thread = std::move(thread);
        result.push_back(std::move(placed));
    }
    return result;
}

std::optional<std::vector<placed_leak>> read_leaks(const process_sample &sample, const command_line &line,
                                                   std::uint64_t now, code_places *places)
{
    if (!sample.tracing.has_table)
        return std::nullopt;
    std::uint64_t age = line.after.value_or(sample.tracing.wait_seconds);
    auto groups = sample.process->record().read_leaks(now > age ? now - age : 0);
    return groups ? std::optional(place(std::move(*groups), places)) : std::nullopt;
}

std::optional<process_sample> sample_of(pid_t process, double interval)
{
    auto first = std::make_unique<target>(process);
    if (first->access() != access_result::readable) {
        complain(first->refusal());
        return std::nullopt;
    }
    auto before = read_sample(std::move(first));
    if (interval > 0)
        wait(interval);
    auto second = std::make_unique<target>(process);
    if (second->access() != access_result::readable) {
        complain(second->refusal());
        return std::nullopt;
    }
    auto now = read_sample(std::move(second));
    if (!now)
        complain("process " + std::to_string(process) + " ended meanwhile, or its memory cannot be read");
    else if (before)
        set_rates(&*now, *before);
    return now;
}

// What is known of one process. The report points into the sample, so that an inspected process stays where it is.
struct inspected_process {
    inspected_process(process_sample read, const command_line &line)
        : sample(std::move(read)), places(*sample.process, line.debug_folders)
    {
        report.sample = &sample;
        report.now = static_cast<std::uint64_t>(std::time(nullptr));
        report.leaks = read_leaks(sample, line, report.now, &places);
    }
    inspected_process(const inspected_process &) = delete;
    inspected_process &operator=(const inspected_process &) = delete;

    process_sample sample;
    code_places places;
    process_report report;
};

int show(pid_t process, const command_line &line)
{
    auto sample = sample_of(process, line.interval.value_or(kDefaultInterval));
    if (!sample)
        return kNotDone;
    inspected_process inspected(std::move(*sample), line);
    process_report &report = inspected.report;
    if (line.shows_threads)
        report.threads = place(read_threads(process, inspected.sample.process->memory()), &inspected.places);
    if (line.as_json) {
        print(process_json(report));
        return kDone;
    }
    print(process_text(report));
    if (report.leaks)
        print(leaks_text(report));
    if (report.threads)
        print(threads_text(report));
    return kDone;
}

int show_leaks(pid_t process, const command_line &line)
{
    auto sample = sample_of(process, 0);
    if (!sample)
        return kNotDone;
    inspected_process inspected(std::move(*sample), line);
    if (!inspected.report.leaks) {
        complain("process " + std::to_string(process) +
                 " has no records of its blocks; it makes them from qv_mtrace_start() on");
        return kNotDone;
    }
    print(line.as_json ? process_json(inspected.report) : leaks_text(inspected.report));
    return kDone;
}

int control(pid_t process, const std::vector<std::string> &words)
{
    target where(process);
    if (where.access() != access_result::readable) {
        complain(where.refusal());
        return kNotDone;
    }
    control_result result = words[1] == "dump" ? request_dump(where) : switch_trace(where, words[2] == "on");
    if (!result.is_done) {
        complain(result.text);
        return kNotDone;
    }
    print(result.text + '\n');
    return kDone;
}

std::optional<pid_t> number_of(const std::string &word)
{
    pid_t process = 0;
    auto [end, error] = std::from_chars(word.data(), word.data() + word.size(), process);
    return error == std::errc{} && end == word.data() + word.size() && process > 0 ? std::optional(process)
                                                                                   : std::nullopt;
}

int run(const command_line &line)
{
    const std::vector<std::string> &words = line.words;
    if (words.empty())
        return line.as_openmetrics ? export_metrics(line) : list(line);
    if (words.size() == 1 && words[0] == "top")
        return top(line);
    auto process = number_of(words[0]);
    if (process && words.size() == 1)
        return show(*process, line);
    if (process && words.size() == 2 && words[1] == "leaks")
        return show_leaks(*process, line);
    bool is_dump = words.size() == 2 && words[1] == "dump";
    bool is_trace = words.size() == 3 && words[1] == "trace" && (words[2] == "on" || words[2] == "off");
    if (process && (is_dump || is_trace))
        return control(*process, words);
    complain("usage: qvstat [top | PID [dump | leaks | trace on | trace off]]; qvstat --help lists the options");
    return kUsage;
}

// Without CAP_SYS_PTRACE the kernel allows reading only processes whose capabilities the caller has too.
bool keep_what_command_needs(const command_line &line)
{
    if (!has_capability(CAP_SYS_PTRACE))
        return true;
    // Processes of all users are read and sent signals.
    return line.listen.empty()
               ? keep_capabilities({CAP_SYS_PTRACE, CAP_DAC_READ_SEARCH, CAP_KILL})
               : keep_capabilities({CAP_SYS_PTRACE, CAP_DAC_READ_SEARCH, CAP_NET_BIND_SERVICE, CAP_SETUID, CAP_SETGID});
}

int parse_and_run(int argc, char **argv)
{
    CLI::App program("Looks into running processes that have libcommon loaded.", "qvstat");
    command_line line;
    program.add_option("WHAT", line.words,
                       "Nothing for all processes, or top; else a process id, and dump, leaks, trace on or trace off");
    program.add_flag("--threads", line.shows_threads, "Show each thread of the process and what it waits for");
    program.add_flag("--json", line.as_json, "One object for each process, one to a line");
    program.add_option("--after", line.after, "Only blocks at least this many seconds old are leaks");
    program.add_option("--interval", line.interval, "Seconds over which rates are measured")
        ->check(CLI::Range(0.01, 3600.0));
    CLI::Option *openmetrics =
        program.add_flag("--openmetrics", line.as_openmetrics, "All processes in the OpenMetrics text format");
    program.add_option("--listen", line.listen, "Serve the metrics at [HOST:]PORT; without a host, on the loopback")
        ->needs(openmetrics);
    program.add_option("--debug", line.debug_folders, "Folder with separate debug files")->allow_extra_args(false);
    try {
        program.parse(argc, argv);
    } catch (const CLI::ParseError &error) {
        int status = program.exit(error);
        return status == 0 ? kDone : kUsage;
    }
    if (!keep_what_command_needs(line)) {
        complain(std::string("capabilities: ") + std::strerror(errno));
        return kNotDone;
    }
    return run(line);
}

} // namespace

int main(int argc, char **argv)
{
    try {
        return parse_and_run(argc, argv);
    } catch (const std::exception &error) { // such as std::bad_alloc
        std::fprintf(stderr, "qvstat: %s\n", error.what());
        return kNotDone;
    }
}
