// SPDX-License-Identifier: Apache-2.0
// qvcrash - reads what crashed processes left. Its manual page describes the commands and exit statuses.
#include "analysis.h"
#include "report.h"
#include "symbolizer.h"

#include <CLI/CLI.hpp>
#include <cerrno>
#include <cstdio>
#include <cstring>
#include <fcntl.h>
#include <string>
#include <vector>

namespace {

using namespace qvcrash;

constexpr std::size_t kMaxLogSize = 256 << 20; // traces of allocations grow large

enum exit_status { kAllRead = 0, kSomeUnread = 1, kUsage = 2 };

struct show_options {
    std::vector<std::string> logs;
    symbol_options symbols;
    int source_lines = 0;
    bool as_json = false;
};

bool show_log(const std::string &path, const show_options &options, symbolizer *symbols)
{
    open_file file(::open(path.c_str(), O_RDONLY | O_CLOEXEC));
    std::string text;
    if (!file || !read_all(file, kMaxLogSize, &text)) {
        std::fprintf(stderr, "qvcrash: %s: %s\n", path.c_str(), std::strerror(errno));
        return false;
    }
    analysis result = explain(text, path, symbols);
    std::string report =
        options.as_json ? report_json(result) + '\n' : report_text(result, {options.source_lines, &symbols->roots()});
    std::fwrite(report.data(), 1, report.size(), stdout);
    return result.log.kind != log_kind::unknown;
}

int show(const show_options &options)
{
    symbolizer symbols(options.symbols);
    for (const std::string &folder : symbols.missing_folders())
        std::fprintf(stderr, "qvcrash: no such folder: %s\n", folder.c_str());
    if (!symbols.missing_folders().empty())
        return kUsage;
    bool all_read = true;
    for (const std::string &log : options.logs) {
        if (!options.as_json && &log != &options.logs.front())
            std::fputc('\n', stdout);
        all_read &= show_log(log, options, &symbols);
    }
    return all_read ? kAllRead : kSomeUnread;
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

} // namespace

int main(int argc, char **argv)
{
    CLI::App program("Reads what crashed processes left.", "qvcrash");
    program.require_subcommand(1);
    show_options options;
    CLI::App *show_command =
        program.add_subcommand("show", "Explain logs: the cause, and each frame as function and line");
    describe_show(show_command, &options);
    try {
        program.parse(argc, argv);
    } catch (const CLI::ParseError &error) {
        int status = program.exit(error);
        return status == 0 ? kAllRead : kUsage;
    }
    return show(options);
}
