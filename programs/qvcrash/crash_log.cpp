// SPDX-License-Identifier: Apache-2.0
#include "crash_log.h"

#include "base/log_names.h"
#include "text_scanner.h"

#include <algorithm>
#include <charconv>
#include <cstring>
#include <limits>

namespace qvcrash {
namespace {

constexpr std::string_view kBlank = " \t";
constexpr std::string_view kTitleMiddle = " for signal(";
constexpr std::string_view kBacktraceTitle = "Backtracing:";
constexpr std::string_view kBottomTitle = "\tStack bottom is at ";
constexpr std::string_view kFrameStart = "\t<";
constexpr std::string_view kFrameArrow = "> -> ";
constexpr std::size_t kMaxFrames = 4096; // many times what one walk writes
constexpr std::size_t kGroupSize = 4;    // registers on one line of the table
constexpr std::size_t kValueDigits = 16;

// ---- small readers: each takes what it reads off the front of `text`, or leaves it alone and returns false ----

bool skip(std::string_view &text, std::string_view expected)
{
    if (!text.starts_with(expected))
        return false;
    text.remove_prefix(expected.size());
    return true;
}

void skip_blanks(std::string_view &text)
{
    text.remove_prefix(std::min(text.find_first_not_of(kBlank), text.size()));
}

template <typename Number>
bool read_number(std::string_view &text, int base, Number *value)
{
    auto [end, error] = std::from_chars(text.data(), text.data() + text.size(), *value, base);
    if (error != std::errc{})
        return false;
    text.remove_prefix(static_cast<std::size_t>(end - text.data()));
    return true;
}

// "0x1A2b", "(nil)", or a plain 0, as the formatters print a pointer or an offset.
bool read_pointer(std::string_view &text, std::uint64_t *value)
{
    *value = 0;
    if (skip(text, "(nil)"))
        return true;
    std::string_view rest = text;
    bool has_prefix = skip(rest, "0x") || skip(rest, "0X");
    if (!has_prefix && !rest.starts_with('0'))
        return false;
    if (!read_number(rest, 16, value))
        return false;
    text = rest;
    return true;
}

// As std::string_view::find(), which stops at each occurrence of the first character.
std::size_t find_text(std::string_view text, std::string_view wanted, std::size_t from)
{
    if (from >= text.size())
        return std::string_view::npos;
    const void *found = ::memmem(text.data() + from, text.size() - from, wanted.data(), wanted.size());
    return found == nullptr ? std::string_view::npos
                            : static_cast<std::size_t>(static_cast<const char *>(found) - text.data());
}

// ---- code references ----

// What lies between the parentheses: "", "+0x10" or "symbol+0x10".
bool read_inside(std::string_view inside, code_reference *code)
{
    if (inside.empty())
        return true;
    std::size_t sign = inside.find_last_of("+-");
    if (sign == std::string_view::npos)
        return false;
    std::string_view digits = inside.substr(sign + 1);
    std::uint64_t distance;
    if (!read_pointer(digits, &distance) || !digits.empty())
        return false;
    if (distance > static_cast<std::uint64_t>(std::numeric_limits<std::int64_t>::max()))
        return false;
    auto offset = static_cast<std::int64_t>(distance);
    code->symbol = inside.substr(0, sign);
    code->offset = inside[sign] == '-' ? -offset : offset;
    return true;
}

// "FILE(SYMBOL+0x10) [0x...]", all of `text`. The C library's backtrace_symbols() writes no blank there.
bool read_reference(std::string_view text, code_reference *code)
{
    std::string_view whole = text;
    if (read_pointer(whole, &code->address) && whole.empty())
        return true;
    std::size_t bracket = text.rfind('[');
    if (bracket == std::string_view::npos || !text.ends_with(']'))
        return false;
    std::string_view address = text.substr(bracket + 1);
    if (!read_pointer(address, &code->address) || address != "]")
        return false;
    std::string_view named = text.substr(0, bracket);
    named = named.substr(0, named.find_last_not_of(' ') + 1);
    std::size_t open = named.rfind('(');
    if (open == std::string_view::npos || !named.ends_with(')'))
        return false;
    code->file = named.substr(0, open);
    return read_inside(named.substr(open + 1, named.size() - open - 2), code);
}

bool read_frame(std::string_view line, logged_frame *frame)
{
    return skip(line, kFrameStart) && read_pointer(line, &frame->frame_address) && skip(line, kFrameArrow) &&
           read_reference(line, &frame->code);
}

// ---- the file's name: <process><id>.<kind>.<signal>.log ----

struct name_parts {
    std::string_view process_and_id;
    log_kind kind = log_kind::unknown;
    std::optional<int> signal;
};

std::optional<name_parts> split_file_name(std::string_view path)
{
    std::string_view name = path.substr(path.find_last_of('/') + 1);
    constexpr std::string_view kEnding = ".log";
    std::size_t end = name.rfind(kEnding); // "x.log.1" and "x.log.gz" are logs too
    if (end == std::string_view::npos)
        return {};
    name = name.substr(0, end);
    std::size_t before_signal = name.rfind('.');
    if (before_signal == std::string_view::npos)
        return {};
    std::size_t before_kind = name.rfind('.', before_signal - 1);
    if (before_signal == 0 || before_kind == std::string_view::npos)
        return {};

    name_parts parts;
    std::string_view signal = name.substr(before_signal + 1);
    int number;
    if (read_number(signal, 10, &number) && signal.empty())
        parts.signal = number;
    std::string_view word = name.substr(before_kind + 1, before_signal - before_kind - 1);
    for (log_kind kind : {log_kind::coredump, log_kind::attach, log_kind::term}) {
        if (word == name_of(kind))
            parts.kind = kind;
    }
    if (parts.kind == log_kind::unknown)
        return {};
    parts.process_and_id = name.substr(0, before_kind);
    return parts;
}

// A process's name may end in digits, so the id is removed as the log's head has it.
std::string process_name(std::string_view process_and_id, std::optional<int> id)
{
    if (id) {
        std::string digits = std::to_string(*id);
        if (process_and_id.ends_with(digits))
            return std::string(process_and_id.substr(0, process_and_id.size() - digits.size()));
    }
    return std::string(process_and_id.substr(0, process_and_id.find_last_not_of("0123456789") + 1));
}

// ---- the parts of a log ----

class log_reader {
public:
    log_reader(std::string_view text, log_extent extent) : rest_(text), extent_(extent) {}

    crash_log read(std::string_view file_name)
    {
        log_.is_mixture = has_several_titles(rest_);
        read_head();
        read_frames();
        read_remainder();
        apply_file_name(file_name);
        choose_kind();
        return std::move(log_);
    }

private:
    void problem(std::string text) { log_.problems.push_back(std::move(text)); }

    // "PID 812 for signal(52)."
    static bool is_title(std::string_view line)
    {
        bool has_start = line.starts_with("PID ") || line.starts_with("TID ");
        return has_start && line.find(kTitleMiddle) != std::string_view::npos;
    }

    // An older log's tail has no title: the new one lies over it.
    static bool has_several_titles(std::string_view text)
    {
        int count = 0;
        for (std::size_t at = 0; (at = find_text(text, kTitleMiddle, at)) != std::string_view::npos && count < 2;) {
            std::size_t begin = text.rfind('\n', at) + 1; // 0 in the first line
            at = std::min(text.find('\n', at), text.size());
            count += is_title(text.substr(begin, at - begin)) ? 1 : 0;
        }
        return count > 1;
    }

    // Everything before the backtrace. Other lines are skipped: a host may write first.
    void read_head()
    {
        while (!rest_.empty()) {
            std::string_view line = next_line(rest_);
            if (line == kBacktraceTitle) {
                has_backtrace_ = true;
                return;
            }
            if (!read_head_line(line))
                note_reference(line);
        }
    }

    bool read_head_line(std::string_view line)
    {
        return read_title(line) || read_registers(line) || read_special(line, "fault  : ", &log_.fault) ||
               read_special(line, "pc     : ", &log_.pc) || read_special(line, "sp     : ", &log_.sp) ||
               read_special(line, "pstate : ", &log_.state);
    }

    bool read_title(std::string_view line)
    {
        std::string_view text = line;
        bool is_thread = skip(text, "TID ");
        int id, signal;
        if (is_thread || skip(text, "PID ")) {
            if (!read_number(text, 10, &id) || !skip(text, " for signal(") || !read_number(text, 10, &signal))
                return false;
            log_.is_thread_id = is_thread;
        } else {
            int sender;
            if (!skip(text, "Process ") || !read_number(text, 10, &id) || !skip(text, " receive signal(") ||
                !read_number(text, 10, &signal) || !skip(text, ") from pid ") || !read_number(text, 10, &sender))
                return false;
            log_.sender = sender;
            is_termination_ = true;
        }
        if (has_title_)
            return true; // another thread's
        log_.id = id;
        log_.signal = signal;
        has_title_ = true;
        return true;
    }

    bool read_registers(std::string_view line)
    {
        if (extent_ == log_extent::signature)
            return line.starts_with("reg ") || line.starts_with('$');
        return read_names(line) || read_values(line);
    }

    // "reg                   x0               x1 ..."
    bool read_names(std::string_view line)
    {
        if (!skip(line, "reg "))
            return false;
        names_.clear();
        while (names_.size() < kGroupSize) {
            skip_blanks(line);
            std::string_view name = line.substr(0, line.find_first_of(kBlank));
            if (name.empty())
                break;
            names_.emplace_back(name);
            line.remove_prefix(name.size());
        }
        return true;
    }

    // "$ 0   : 0000000000000000 ..."
    bool read_values(std::string_view line)
    {
        if (!skip(line, "$"))
            return false;
        skip_blanks(line);
        std::size_t first;
        if (!read_number(line, 10, &first) || !skip(line, "   :"))
            return false;
        if (log_.is_mixture && first < log_.registers.size())
            return true; // another thread's
        if (first != log_.registers.size() || first >= kRegisterCount) {
            problem("a register line is out of place");
            return true;
        }
        for (std::size_t i = 0; i < kGroupSize; i++) {
            skip_blanks(line);
            register_slot slot;
            if (i >= names_.size() || line.size() < kValueDigits || !read_number(line, 16, &slot.value)) {
                problem("a register line is cut");
                break;
            }
            slot.name = names_[i];
            note_machine(slot.name);
            log_.registers.push_back(std::move(slot));
        }
        return true;
    }

    void note_machine(std::string_view name)
    {
        if (name == "x29(FP)")
            log_.from = machine::aarch64;
        else if (name == "x29(RBP)")
            log_.from = machine::x86_64;
    }

    static bool read_special(std::string_view line, std::string_view title, std::optional<std::uint64_t> *value)
    {
        std::uint64_t number;
        if (!skip(line, title) || !read_number(line, 16, &number))
            return false;
        if (!*value)
            *value = number;
        return true;
    }

    // Up to the first "Stack bottom": what follows it is the host's, or an older log's.
    void read_frames()
    {
        if (!has_backtrace_)
            return;
        while (!rest_.empty()) {
            std::string_view before = rest_;
            std::string_view line = next_line(rest_);
            if (std::string_view bottom = line; skip(bottom, kBottomTitle)) {
                std::uint64_t address;
                if (read_pointer(bottom, &address))
                    log_.stack_bottom = address;
                return;
            }
            logged_frame frame;
            if (read_frame(line, &frame) && log_.frames.size() < kMaxFrames) {
                log_.frames.push_back(std::move(frame));
                continue;
            }
            if (log_.is_mixture && (is_title(line) || is_own_line(line) || line.starts_with('$')))
                continue; // another thread's
            problem("a line of the backtrace is cut");
            if (is_backtrace_line(rest_))
                continue; // a name too long for the formatter spoils one line only
            rest_ = before;
            return;
        }
        problem("the log ends within the backtrace");
    }

    static bool is_backtrace_line(std::string_view text)
    {
        logged_frame frame;
        return text.starts_with(kBottomTitle) || read_frame(text.substr(0, text.find('\n')), &frame);
    }

    static bool is_own_line(std::string_view line)
    {
        return line.find(kFrameArrow) != std::string_view::npos || has_own_start(line);
    }

    // Most lines are the host's and begin with another character.
    static bool has_own_start(std::string_view line)
    {
        constexpr std::string_view kFirst = "\t$BPTfprs";
        constexpr std::string_view kStarts[] = {
            "reg     ", "fault  : ", "pc     : ", "sp     : ", "pstate : ", "$ 0 ", kBottomTitle};
        if (line.empty() || kFirst.find(line.front()) == std::string_view::npos)
            return false;
        return is_title(line) || line == kBacktraceTitle ||
               std::any_of(std::begin(kStarts), std::end(kStarts), [&](auto start) { return line.starts_with(start); });
    }

    // Where the first of the library's lines begins; the text's size where it has none.
    static std::size_t find_own_line(std::string_view text)
    {
        std::size_t arrow = std::min(find_text(text, kFrameArrow, 0), text.size());
        std::string_view rest = text;
        while (!rest.empty()) {
            auto begin = static_cast<std::size_t>(rest.data() - text.data());
            if (begin > arrow)
                break;
            std::string_view line = next_line(rest);
            if (begin + line.size() > arrow || has_own_start(line))
                return begin;
        }
        return text.size();
    }

    // The log is written over an older one and never cut, so what the library wrote after the bottom is the older
    // log's.
    void read_remainder()
    {
        if (!has_backtrace_)
            return;
        skip(rest_, "\n");
        std::size_t tail = find_own_line(rest_);
        log_.host_text = rest_.substr(0, tail);
        log_.tail = rest_.substr(tail);
        log_.details = take_details(&log_.host_text, &log_.tail, extent_);
        if (log_.details && !log_.details->is_complete)
            problem("the details are cut short");
    }

    void note_reference(std::string_view line)
    {
        if (line.starts_with("= Start"))
            is_trace_ = true;
        else if (!has_references_)
            has_references_ = find_reference(line).has_value();
    }

    void apply_file_name(std::string_view file_name)
    {
        std::optional<name_parts> parts = split_file_name(file_name);
        if (!parts)
            return;
        log_.process = process_name(parts->process_and_id, log_.id);
        if (!log_.signal)
            log_.signal = parts->signal;
        if (log_.kind == log_kind::unknown && (has_title_ || has_backtrace_))
            log_.kind = parts->kind;
    }

    // A renamed log is known by what it says. Attach logs look like crash logs but for their signal.
    void choose_kind()
    {
        if (is_termination_)
            log_.kind = log_kind::term;
        else if (log_.kind != log_kind::unknown)
            return;
        else if (has_title_)
            log_.kind = is_dump_request(log_.signal.value_or(0)) ? log_kind::attach : log_kind::coredump;
        else if (has_backtrace_)
            log_.kind = log_kind::backtrace;
        else if (is_trace_)
            log_.kind = log_kind::allocation;
        else if (has_references_)
            log_.kind = log_kind::text;
    }

    static bool is_dump_request(int signal)
    {
        using namespace qv::base;
        return signal == kAttachSignal || signal == kDumpFileSignal || signal == kBacktraceSignal;
    }

    std::string_view rest_;
    log_extent extent_;
    crash_log log_;
    std::vector<std::string> names_; // of the register line being read
    bool has_title_ = false;
    bool is_termination_ = false;
    bool has_backtrace_ = false;
    bool is_trace_ = false;
    bool has_references_ = false;
};

} // namespace

crash_log parse_crash_log(std::string_view text, std::string_view file_name, log_extent extent)
{
    std::string plain;
    return log_reader(with_plain_lines(text, &plain), extent).read(file_name);
}

std::optional<found_reference> find_reference(std::string_view line)
{
    for (std::size_t bracket = line.find("[0x"); bracket != std::string_view::npos;
         bracket = line.find("[0x", bracket + 1)) {
        std::size_t end = line.find(']', bracket);
        std::size_t open = line.rfind('(', bracket);
        if (end == std::string_view::npos || open == std::string_view::npos)
            continue;
        // A file name begins at the start of the line or after a blank or a tab.
        std::size_t before = open == 0 ? std::string_view::npos : line.find_last_of(kBlank, open - 1);
        std::size_t begin = before == std::string_view::npos ? 0 : before + 1;
        found_reference found;
        if (!read_reference(line.substr(begin, end + 1 - begin), &found.code))
            continue;
        found.begin = begin;
        found.end = end + 1;
        return found;
    }
    return {};
}

std::optional<std::uint64_t> register_value(const crash_log &log, std::size_t slot)
{
    if (slot >= log.registers.size())
        return {};
    return log.registers[slot].value;
}

const char *name_of(log_kind kind)
{
    switch (kind) {
    case log_kind::coredump:
        return qv::base::kCoredumpWord;
    case log_kind::attach:
        return qv::base::kAttachWord;
    case log_kind::term:
        return qv::base::kTermWord;
    case log_kind::backtrace:
        return "backtrace";
    case log_kind::allocation:
        return "allocation-trace";
    case log_kind::text:
        return "text";
    case log_kind::unknown:
        break;
    }
    return "unknown";
}

const char *name_of(machine from)
{
    switch (from) {
    case machine::aarch64:
        return "aarch64";
    case machine::x86_64:
        return "x86_64";
    case machine::unknown:
        break;
    }
    return "unknown";
}

} // namespace qvcrash
