// SPDX-License-Identifier: Apache-2.0
#include "printable.h"
#include "report.h"

#include <algorithm>
#include <cstdio>
#include <ctime>

using namespace qv;

namespace qvcrash {
namespace {

constexpr std::size_t kMaxSourceSize = 16 << 20;
constexpr std::size_t kMaxHostText = 65536;

std::string hex(std::uint64_t value)
{
    char text[32];
    std::snprintf(text, sizeof text, "0x%llx", static_cast<unsigned long long>(value));
    return text;
}

class text_report {
public:
    text_report(const analysis &result, const source_options &sources) : result_(result), sources_(sources) {}

    std::string write()
    {
        line(printable(result_.file_name));
        line("  " + printable(result_.headline));
        for (const std::string &cause : result_.causes)
            line("  " + printable(cause));
        write_frames();
        write_groups();
        write_lines();
        write_registers();
        write_threads();
        write_details();
        write_host_text();
        write_remarks();
        return std::move(text_);
    }

private:
    void line(const std::string &text) { text_ += text + '\n'; }

    void write_frames()
    {
        if (!result_.frames.empty())
            line("");
        std::size_t number = 0;
        for (std::size_t i = 0; i < result_.frames.size();)
            i += write_cycle(i, &number);
    }

    // A frame, or those of a cycle, with a line that says so. Returns how many they are.
    std::size_t write_cycle(std::size_t begin, std::size_t *number)
    {
        const explained_frame &leader = result_.frames[begin];
        std::size_t count = std::max<std::size_t>(leader.cycle_frames, 1), first = *number;
        for (std::size_t i = begin; i < begin + count; i++) {
            write_frame(*number, result_.frames[i]);
            *number += static_cast<std::size_t>(result_.frames[i].repeats);
        }
        if (leader.cycle_times == 0)
            return count;
        std::size_t end = first + (*number - first) * leader.cycle_times;
        line("       (#" + std::to_string(first) + " to #" + std::to_string(*number - 1) + " follow one another " +
             std::to_string(leader.cycle_times) + " times, up to #" + std::to_string(end - 1) + ')');
        *number = end;
        return count;
    }

    void write_frame(std::size_t number, const explained_frame &frame)
    {
        char label[32];
        std::snprintf(label, sizeof label, "  #%-3zu ", number);
        std::string note = note_of(frame.origin);
        if (frame.repeats > 1)
            note += "  (" + std::to_string(frame.repeats) + " times)";
        if (frame.where.frames.empty()) {
            line(label + printable(place_of(frame.logged.code, frame.where)) + note);
            return;
        }
        bool is_first = true;
        for (const source_frame &source : frame.where.frames) {
            std::string text = source.function.empty() ? "?" : source.function;
            if (source.is_inlined)
                text += " (inlined)";
            if (!source.file.empty())
                text += " at " + source.file + (source.line != 0 ? ':' + std::to_string(source.line) : "");
            line((is_first ? label : "       ") + printable(text) + (is_first ? note : ""));
            write_source(source);
            is_first = false;
        }
        line("         " + printable(place_of(frame.logged.code, frame.where)));
    }

    static std::string note_of(frame_origin origin)
    {
        switch (origin) {
        case frame_origin::link_register:
            return "  (probable caller, from the link register)";
        case frame_origin::stack_top:
            return "  (probable caller, from the top of the stack)";
        case frame_origin::stack_scan:
            return "  (found on the stack)";
        case frame_origin::program_counter:
        case frame_origin::frame_record:
            break;
        }
        return {};
    }

    // "/usr/sbin/routed+0x301f", or as much as the log has.
    static std::string place_of(const code_reference &code, const resolved_address &where)
    {
        if (where.module != nullptr && where.offset)
            return where.module->logged_path + '+' + hex(*where.offset);
        if (code.file.empty())
            return hex(code.address);
        std::string text = code.file + '(' + code.symbol;
        if (code.offset)
            text += (*code.offset < 0 ? '-' : '+') + hex(static_cast<std::uint64_t>(std::abs(*code.offset)));
        return text + ") [" + hex(code.address) + ']';
    }

    void write_source(const source_frame &source)
    {
        if (sources_.lines <= 0 || source.file.empty() || source.line == 0)
            return;
        std::string content;
        if (!read_source(source.file, &content))
            return;
        int around = (sources_.lines - 1) / 2;
        int first = std::max(1, source.line - around), last = source.line + sources_.lines - 1 - around;
        std::string_view rest = content;
        for (int number = 1; number <= last && !rest.empty(); number++) {
            std::size_t end = std::min(rest.find('\n'), rest.size());
            if (number >= first) {
                char label[32];
                std::snprintf(label, sizeof label, "       %c %5d  ", number == source.line ? '>' : ' ', number);
                line(label + printable(rest.substr(0, end)));
            }
            rest.remove_prefix(std::min(end + 1, rest.size()));
        }
    }

    bool read_source(const std::string &path, std::string *content) const
    {
        return std::any_of(sources_.roots->begin(), sources_.roots->end(), [&](const root_folder &root) {
            base::unique_fd file = root.open(path);
            return file && read_all(file, kMaxSourceSize, content);
        });
    }

    void write_groups()
    {
        if (!result_.groups.empty())
            line("");
        for (const explained_group &group : result_.groups) {
            std::string where = describe(group.where);
            line("  " + std::to_string(group.bytes) + " bytes in " + std::to_string(group.blocks) + " blocks from " +
                 printable(where.empty() ? place_of(group.caller, group.where) : where));
        }
    }

    void write_lines()
    {
        for (const explained_line &explained : result_.lines) {
            std::string text = "  | " + printable(explained.text);
            for (const resolved_address &where : explained.where) {
                std::string place = describe(where);
                if (!place.empty())
                    text += "  => " + printable(place);
            }
            line(text);
        }
    }

    void write_registers()
    {
        if (result_.registers.empty())
            return;
        line("\n  registers that point into modules");
        for (const explained_register &known : result_.registers) {
            std::string text = describe(known.where);
            if (text.empty() && known.where.offset)
                text = known.where.module->logged_path + '+' + hex(*known.where.offset);
            char label[64];
            std::snprintf(label, sizeof label, "    %-10s %016llx  ", known.name.substr(0, 16).c_str(),
                          static_cast<unsigned long long>(known.value));
            line(printable(label + text));
        }
    }

    // The first function of a thread is mostly the C library's; those that called it say what the thread is at.
    void write_threads()
    {
        constexpr std::size_t kMaxFound = 6, kMaxWalked = 20;
        if (result_.threads.size() < 2)
            return;
        line("\n  threads");
        for (const explained_thread &explained : result_.threads) {
            const detailed_thread &thread = explained.thread;
            std::string text = "    " + std::to_string(thread.id) + ' ' + thread.state + ' ' + printable(thread.name);
            if (thread.owner)
                text += ": waits for thread " + std::to_string(*thread.owner);
            line(text);
            if (!thread.walk_problem.empty())
                line("      (without its own walk: " + printable(thread.walk_problem) + ')');
            std::size_t shown = 0, most = thread.walk.empty() ? kMaxFound : kMaxWalked;
            for (const resolved_address &call : explained.calls) {
                if (call.frames.empty() || shown == most)
                    continue;
                for (const source_frame &source : call.frames)
                    line("      " + printable(describe(source)));
                shown++;
            }
        }
    }

    void write_details()
    {
        if (!result_.log.details)
            return;
        const log_details &details = *result_.log.details;
        line("\n  details");
        if (details.time)
            line("    at " + date_time(*details.time));
        if (!details.program.empty())
            line("    program " + printable(details.program));
        for (const auto &[thread, note] : details.notes)
            line("    note of thread " + std::to_string(thread) + ": " + printable(note));
        for (const std::string &text : details.lines)
            line("    " + printable(text));
    }

    static std::string date_time(std::int64_t seconds)
    {
        std::time_t when = seconds;
        std::tm utc;
        char text[64];
        if (::gmtime_r(&when, &utc) == nullptr || std::strftime(text, sizeof text, "%Y-%m-%d %H:%M:%S UTC", &utc) == 0)
            return std::to_string(seconds);
        return text;
    }

    void write_host_text()
    {
        std::string_view rest = std::string_view(result_.log.host_text).substr(0, kMaxHostText);
        if (rest.find_first_not_of(" \n") == std::string_view::npos)
            return;
        line("\n  from the process");
        while (!rest.empty()) {
            std::size_t end = std::min(rest.find('\n'), rest.size());
            line("    " + printable(rest.substr(0, end)));
            rest.remove_prefix(std::min(end + 1, rest.size()));
        }
    }

    void write_remarks()
    {
        if (!result_.remarks.empty())
            line("");
        for (const std::string &remark : result_.remarks)
            line("  note: " + printable(remark));
    }

    const analysis &result_;
    const source_options &sources_;
    std::string text_;
};

} // namespace

std::string report_text(const analysis &result, const source_options &sources)
{
    return text_report(result, sources).write();
}

} // namespace qvcrash
