// SPDX-License-Identifier: Apache-2.0
// qvcrash - reads what crashed processes left. Its manual page describes the commands and exit statuses.
#include "analysis.h"
#include "bundle.h"
#include "group.h"
#include "log_file.h"
#include "output_file.h"
#include "printable.h"
#include "programs/privileges.h"
#include "report.h"
#include "symbolizer.h"

#include <CLI/CLI.hpp>
#include <cerrno>
#include <chrono>
#include <cstdio>
#include <cstring>
#include <exception>
#include <fcntl.h>
#include <string>
#include <thread>
#include <unistd.h>
#include <vector>

namespace {

using namespace qv;
using namespace qvcrash;
using qv::programs::has_capability;
using qv::programs::keep_capabilities;

constexpr std::size_t kMaxLogSize = 256 << 20; // traces of allocations grow large

enum exit_status { kAllRead = 0, kSomeUnread = 1, kUsage = 2 };

struct show_options {
    std::vector<std::string> logs;
    symbol_options symbols;
    int source_lines = 0;
    bool as_json = false;
};

// A message on standard error about something that is named by the user or by a log.
void complain(const std::string &text)
{
    std::fprintf(stderr, "qvcrash: %s\n", printable(text).c_str());
}

class log_shower {
public:
    explicit log_shower(const show_options &options) : options_(options), symbols_(options.symbols) {}

    const std::vector<std::string> &missing_folders() const { return symbols_.missing_folders(); }

    /** False when the file could not be read whole, or has a text in it that is no log. */
    bool show(const std::string &path)
    {
        std::size_t before = shown_;
        bool are_logs = true;
        std::string problem = reader_.read(path, [&](const source_log &log) { are_logs &= show_text(log); });
        if (problem.empty() && shown_ == before)
            problem = "has no logs in it";
        if (!problem.empty())
            complain(path + ": " + problem);
        return are_logs && problem.empty();
    }

private:
    bool show_text(const source_log &log)
    {
        analysis result = explain(log.text, std::string(log.name), &symbols_);
        std::string report = options_.as_json ? report_json(result) + '\n'
                                              : report_text(result, {options_.source_lines, &symbols_.roots()});
        bool is_first = shown_++ == 0;
        if (!options_.as_json && !is_first)
            std::fputc('\n', stdout);
        std::fwrite(report.data(), 1, report.size(), stdout);
        return result.log.kind != log_kind::unknown;
    }

    const show_options &options_;
    symbolizer symbols_;
    log_file_reader reader_{kMaxLogSize, pipes::read};
    std::size_t shown_ = 0; // logs
};

int show(const show_options &options)
{
    log_shower shower(options);
    for (const std::string &folder : shower.missing_folders())
        complain("no such folder: " + folder);
    if (!shower.missing_folders().empty())
        return kUsage;
    bool all_read = true;
    for (const std::string &log : options.logs)
        all_read &= shower.show(log);
    return all_read ? kAllRead : kSomeUnread;
}

struct group_options {
    std::vector<std::string> paths;
    std::string skip_list;
    std::string html;
    std::size_t frames = kDefaultSignatureFrames;
    unsigned threads = std::max(1u, std::thread::hardware_concurrency());
    bool as_json = false;
};

// Shows how many logs were read, on a terminal only.
class progress_line {
public:
    explicit progress_line(const read_progress &progress)
    {
        if (::isatty(STDERR_FILENO) == 0)
            return;
        painter_ = std::jthread([&progress](const std::stop_token &stop) {
            while (!stop.stop_requested()) {
                std::fprintf(stderr, "\r%llu logs", static_cast<unsigned long long>(progress.logs.load()));
                std::this_thread::sleep_for(std::chrono::milliseconds(200));
            }
            std::fprintf(stderr, "\r\33[K");
        });
    }

private:
    std::jthread painter_;
};

bool write_file(const std::string &path, const std::string &content)
{
    base::unique_fd file = open_output(path);
    std::size_t done = 0;
    while (file && done < content.size()) {
        ssize_t size = ::write(file.get(), content.data() + done, content.size() - done);
        if (size < 0 && errno == EINTR)
            continue;
        if (size <= 0)
            break;
        done += static_cast<std::size_t>(size);
    }
    bool is_written = file && done == content.size();
    is_written = is_written && ::close(file.release()) == 0;
    if (!is_written)
        complain(path + ": " + std::strerror(errno));
    return is_written;
}

int group(const group_options &options)
{
    signature_maker make_signature(options.frames);
    if (!options.skip_list.empty()) {
        base::unique_fd file(::open(options.skip_list.c_str(), O_RDONLY | O_CLOEXEC));
        std::string list;
        if (!file || !read_all(file, kMaxLogSize, &list)) {
            complain(options.skip_list + ": " + std::strerror(errno));
            return kUsage;
        }
        make_signature.skip(list);
    }
    read_progress progress;
    group_result result;
    {
        progress_line line(progress);
        result = group_logs(options.paths, make_signature, options.threads, &progress);
    }
    for (const std::string &problem : progress.problems)
        complain(problem);
    if (progress.unreadable > progress.problems.size())
        complain("and " + std::to_string(progress.unreadable - progress.problems.size()) + " more files");
    bool is_written = options.html.empty() || write_file(options.html, groups_html(result));
    std::string report = options.as_json ? groups_json(result) : groups_text(result);
    std::fwrite(report.data(), 1, report.size(), stdout);
    return is_written && result.unreadable == 0 ? kAllRead : kSomeUnread;
}

struct bundle_options {
    std::string subject;
    std::string output;
};

int bundle(const bundle_options &options)
{
    bundle_result result = write_bundle(options.subject, options.output);
    for (const std::string &problem : result.problems)
        complain(problem);
    if (result.path.empty())
        return kSomeUnread;
    for (const std::string &file : result.files)
        std::printf("  %s\n", printable(file).c_str());
    std::printf("%s\n", printable(result.path).c_str());
    return result.problems.empty() ? kAllRead : kSomeUnread;
}

void describe_bundle(CLI::App *command, bundle_options *options)
{
    command->add_option("PID|LOG", options->subject, "A process that runs, or a log")->required();
    command->add_option("--out", options->output, "Name of the archive, which must not exist");
}

void describe_group(CLI::App *command, group_options *options)
{
    command->add_option("PATH", options->paths, "Logs, folders and archives of logs")->required();
    command->add_flag("--json", options->as_json, "One object for each group, one to a line");
    command->add_option("--html", options->html, "Write a page with the groups to this file");
    command->add_option("--skip", options->skip_list, "File with further functions and modules to skip");
    command->add_option("--frames", options->frames, "How many frames make a signature")->check(CLI::Range(1, 20));
    command->add_option("--threads", options->threads, "How many threads read")->check(CLI::Range(1, 256));
}

void describe_show(CLI::App *command, show_options *options)
{
    command->add_option("LOG", options->logs, "Logs that the library left")->required();
    command->add_option("--root", options->symbols.roots, "Folder with the files of the machine that crashed")
        ->allow_extra_args(false);
    command->add_option("--debug", options->symbols.debug_folders, "Folder with separate debug files")
        ->allow_extra_args(false);
    command->add_option("--source", options->source_lines, "Show this many source lines at each frame")
        ->check(CLI::Range(1, 100));
    command->add_flag("--debuginfod", options->symbols.use_servers,
                      "Ask the servers in DEBUGINFOD_URLS for debug files");
    command->add_flag("--json", options->as_json, "One object for each log, one to a line");
}

// Logs and programs are untrusted input. An output needs the right to write.
bool keep_what_is_needed(bool is_bundle, bool writes_files)
{
    if (!is_bundle)
        return writes_files ? keep_capabilities({CAP_DAC_OVERRIDE}) : keep_capabilities({CAP_DAC_READ_SEARCH});
    // Without CAP_SYS_PTRACE the kernel allows reading only processes whose capabilities the caller has too.
    return !has_capability(CAP_SYS_PTRACE) || keep_capabilities({CAP_DAC_OVERRIDE, CAP_SYS_PTRACE});
}

int run(int argc, char **argv)
{
    CLI::App program("Reads what crashed processes left.", "qvcrash");
    program.require_subcommand(1);
    show_options options;
    CLI::App *show_command =
        program.add_subcommand("show", "Explain logs: the cause, and each frame as function and line");
    describe_show(show_command, &options);
    group_options grouping;
    CLI::App *group_command = program.add_subcommand("group", "Count crash logs by their bug");
    describe_group(group_command, &grouping);
    bundle_options bundling;
    CLI::App *bundle_command =
        program.add_subcommand("bundle", "Put all that support needs of a process or crash into one archive");
    describe_bundle(bundle_command, &bundling);
    try {
        program.parse(argc, argv);
    } catch (const CLI::ParseError &error) {
        int status = program.exit(error);
        return status == 0 ? kAllRead : kUsage;
    }
    bool writes_files = !grouping.html.empty() || options.symbols.use_servers;
    if (!keep_what_is_needed(bundle_command->parsed(), writes_files)) {
        std::fprintf(stderr, "qvcrash: capabilities: %s\n", std::strerror(errno));
        return kUsage;
    }
    if (bundle_command->parsed())
        return bundle(bundling);
    return group_command->parsed() ? group(grouping) : show(options);
}

} // namespace

int main(int argc, char **argv)
{
    try {
        return run(argc, argv);
    } catch (const std::exception &error) { // such as std::bad_alloc
        std::fprintf(stderr, "qvcrash: %s\n", error.what());
        return kSomeUnread;
    }
}
