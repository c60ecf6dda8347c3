// SPDX-License-Identifier: Apache-2.0
#include "signature.h"

#include "demangle.h"
#include "recursion.h"

#include <algorithm>
#include <csignal>
#include <cstdio>
#include <cstring>
#include <iterator>

namespace qvcrash {
namespace {

// What is between a bug and the signal that it raises.
constexpr char kSkipped[] = "module:libc.so*\n"
                            "module:libc-*\n"
                            "module:ld-linux*\n"
                            "module:ld-musl*\n"
                            "module:libpthread*\n"
                            "module:libstdc++.so*\n"
                            "module:libgcc_s.so*\n"
                            "module:linux-vdso*\n"
                            "module:libheap.so*\n"
                            "abort\n"
                            "raise\n"
                            "gsignal\n"
                            "kill\n"
                            "tgkill\n"
                            "pthread_kill\n"
                            "__pthread_kill*\n"
                            "__assert*\n"
                            "__libc_*\n"
                            "__GI_*\n"
                            "__stack_chk_fail*\n"
                            "__fortify_fail*\n"
                            "__chk_fail\n"
                            "malloc*\n"
                            "calloc\n"
                            "realloc\n"
                            "free\n"
                            "my_malloc_*\n"
                            "my_free_*\n"
                            "my_realloc_*\n"
                            "mcache_*\n"
                            "_ZSt9terminatev\n"
                            "_ZN2qv6detail14note_exceptionEv\n"
                            "_ZN2qv24note_uncaught_exceptions*\n"
                            "_ZZN2qv24note_uncaught_exceptions*\n"
                            "__cxa_throw\n"
                            "__cxa_rethrow\n"
                            "_Znwm\n"
                            "_Znam\n"
                            "_ZdlPv*\n"
                            "_ZdaPv*\n";

std::string_view last_component(std::string_view path)
{
    return without_deleted_mark(path.substr(path.find_last_of('/') + 1));
}

std::string signal_name(std::optional<int> signal)
{
    const char *name = signal ? ::sigabbrev_np(*signal) : nullptr;
    if (name != nullptr)
        return std::string("SIG") + name;
    return signal ? "signal " + std::to_string(*signal) : std::string("no signal");
}

const detailed_module *module_at(const crash_log &log, std::uint64_t address)
{
    if (!log.details)
        return nullptr;
    const std::vector<detailed_module> &modules = log.details->modules;
    auto found = std::find_if(modules.begin(), modules.end(), [address](const detailed_module &module) {
        return !module.is_gone && address >= module.bias && address < module.end;
    });
    return found != modules.end() ? &*found : nullptr;
}

// A call that does not return may end its function. Its return address is the start of the next one, which the loader
// names.
bool names_next_function(const crash_log &log, const code_reference &code)
{
    return code.offset == 0 && !code.symbol.empty() && log.pc != code.address;
}

// An offset means something in one build only, so the build id goes with it where the log has one. An address without
// a module means nothing in another process: no name.
std::string frame_name(const crash_log &log, const code_reference &code)
{
    constexpr std::size_t kIdDigits = 8; // enough to tell builds apart
    const detailed_module *module = module_at(log, code.address);
    if (!code.symbol.empty() && (module == nullptr || !names_next_function(log, code)))
        return std::string(last_component(code.file)).append("!").append(code.symbol);
    std::string_view file = code.file;
    if (file.empty()) {
        if (module == nullptr)
            return {};
        file = module->path;
    }
    std::string name(last_component(file));
    auto distance = static_cast<std::uint64_t>(code.offset.value_or(0));
    if (module != nullptr)
        distance = code.address - module->bias;
    char offset[32];
    std::snprintf(offset, sizeof offset, "+0x%llx", static_cast<unsigned long long>(distance));
    name += offset;
    if (module != nullptr && !module->build_id.empty())
        name += '@' + module->build_id.substr(0, kIdDigits);
    return name;
}

// A return address that was found on the stack, where the walk has nothing usable.
code_reference found_frame(const crash_log &log, std::uint64_t address)
{
    code_reference code;
    code.address = address;
    if (const detailed_module *module = module_at(log, address))
        code.file = module->path;
    return code;
}

// The condition of a failed assertion, which stays the same when lines move: "... Assertion `X' failed.".
std::string_view assertion_in(std::string_view message)
{
    constexpr std::string_view kBegin = "Assertion `", kEnd = "' failed";
    std::size_t begin = message.find(kBegin);
    if (begin == std::string_view::npos)
        return {};
    begin += kBegin.size();
    std::size_t end = message.rfind(kEnd);
    return end == std::string_view::npos || end < begin ? std::string_view() : message.substr(begin, end - begin);
}

// What the process said of itself before it ended on purpose.
std::string stated_cause(const crash_log &log)
{
    constexpr std::uint64_t kGuard = 0xDEADDEADDEADDEAD; // it is whole: the object was freed twice
    if (!log.details)
        return {};
    if (const auto &misuse = log.details->misuse) {
        constexpr int kBadObject = 5;
        std::string what = misuse->code != kBadObject ? "misuse " + std::to_string(misuse->code)
                           : misuse->guard == kGuard  ? "double free"
                                                      : "overrun";
        return "object cache " + what + " in \"" + misuse->cache + "\": ";
    }
    std::string_view assertion = assertion_in(log.details->abort_message);
    return assertion.empty() ? std::string() : "assertion \"" + std::string(assertion) + "\": ";
}

// Above main() the stack holds arguments and pointers to functions, and the walk may follow them. The call in main()
// lies in it; a pointer to it is its start.
bool is_outermost(const code_reference &code)
{
    return (code.symbol == "main" && code.offset != 0) || code.symbol == "__libc_start_main";
}

std::vector<const code_reference *> frames_of(const crash_log &log)
{
    std::vector<const code_reference *> frames;
    frames.reserve(log.frames.size());
    for (const logged_frame &frame : log.frames) {
        frames.push_back(&frame.code);
        if (is_outermost(frame.code))
            break;
    }
    return frames;
}

// What qv::note_uncaught_exceptions() leaves.
bool has_noted_exception(const crash_log &log)
{
    if (!log.details)
        return false;
    const auto &notes = log.details->notes;
    return std::any_of(notes.begin(), notes.end(), [&](const auto &note) {
        return note.first == log.details->tid &&
               (note.second.starts_with("uncaught ") || note.second == "std::terminate() without an exception");
    });
}

// The terminate handler calls abort() last, so its return address lies after it and the log may not name it. It is
// what the C++ library calls.
void remove_terminate_handler(std::vector<const code_reference *> *frames)
{
    auto library = std::find_if(frames->begin(), frames->end(), [](const code_reference *code) {
        return last_component(code->file).starts_with("libstdc++.so");
    });
    if (library != frames->end())
        frames->erase(frames->begin(), library);
}

bool has_prefix(std::string_view text, const std::vector<std::string> &prefixes)
{
    return std::any_of(prefixes.begin(), prefixes.end(), [text](const std::string &p) { return text.starts_with(p); });
}

// Whether a later frame can have the same name.
bool may_come_again(const std::vector<const code_reference *> &frames, std::size_t index)
{
    const code_reference &code = *frames[index];
    return std::any_of(
        frames.begin() + static_cast<std::ptrdiff_t>(index) + 1, frames.end(), [&](const code_reference *other) {
            return other->address == code.address ||
                   (other->symbol == code.symbol && (!code.symbol.empty() || other->offset == code.offset));
        });
}

// One usable frame, or several that recursion made one.
struct step {
    std::string name;
    bool is_recursion = false;
    bool ends_recursion = false;
};

// One round of a cycle stays of each stretch that repeats with the period. Where the walk begins in a cycle is chance,
// so the round begins with the name that makes it sort first. False when there is none.
bool fold_cycles(std::size_t period, std::vector<step> *steps)
{
    auto is_same = [steps](std::size_t a, std::size_t b) { return (*steps)[a].name == (*steps)[b].name; };
    auto sorts_before = [](const step &a, const step &b) { return a.name < b.name; };
    std::vector<step> kept;
    for (std::size_t i = 0; i < steps->size();) {
        std::size_t count = repeating_frames(i, steps->size(), period, is_same);
        if (count == 0) {
            kept.push_back(std::move((*steps)[i++]));
            continue;
        }
        auto begin = steps->begin() + static_cast<std::ptrdiff_t>(i);
        std::vector<step> round(begin, begin + static_cast<std::ptrdiff_t>(period)), best = round;
        for (std::size_t turn = 1; turn < period; turn++) {
            std::rotate(round.begin(), round.begin() + 1, round.end());
            if (std::lexicographical_compare(round.begin(), round.end(), best.begin(), best.end(), sorts_before))
                best = round;
        }
        for (step &part : best)
            part = {std::move(part.name), true, false};
        best.back().ends_recursion = true;
        std::move(best.begin(), best.end(), std::back_inserter(kept));
        i += count;
    }
    bool is_shorter = kept.size() < steps->size();
    *steps = std::move(kept);
    return is_shorter;
}

// Short cycles first: those within a longer one may differ in length from round to round.
void fold_recursion(std::vector<step> *steps)
{
    bool is_shorter = true;
    while (is_shorter) {
        is_shorter = false;
        for (std::size_t period = 1; period <= kLongestCycle; period++)
            is_shorter |= fold_cycles(period, steps);
    }
}

bool has_function(const crash_log &log, std::string_view symbol)
{
    return std::any_of(log.frames.begin(), log.frames.end(),
                       [symbol](const logged_frame &frame) { return frame.code.symbol == symbol; });
}

} // namespace

signature_maker::signature_maker(std::size_t frames) : max_frames_(frames)
{
    skip(kSkipped);
}

void signature_maker::skip(std::string_view list)
{
    constexpr std::string_view kModule = "module:";
    while (!list.empty()) {
        std::size_t end = std::min(list.find('\n'), list.size());
        std::string_view entry = list.substr(0, end);
        list.remove_prefix(std::min(end + 1, list.size()));
        if (entry.empty() || entry.front() == '#')
            continue;
        bool is_module = entry.starts_with(kModule);
        if (is_module)
            entry.remove_prefix(kModule.size());
        if (entry.ends_with('*'))
            (is_module ? module_prefixes_ : function_prefixes_).emplace_back(entry.substr(0, entry.size() - 1));
        else
            (is_module ? modules_ : functions_).emplace(entry);
    }
}

bool signature_maker::is_skipped(const code_reference &code) const
{
    std::string module(last_component(code.file));
    return modules_.contains(module) || has_prefix(module, module_prefixes_) || functions_.contains(code.symbol) ||
           (!code.symbol.empty() && has_prefix(code.symbol, function_prefixes_));
}

std::string signature_maker::operator()(const crash_log &log) const
{
    std::string signature = signal_name(log.signal) + ' ';
    std::string cause = stated_cause(log);
    // The cache ends the process on purpose; the bug is the caller's, and another one than a bad access there.
    if (cause.empty() && has_function(log, "mcache_error"))
        cause = has_function(log, "mcache_free") ? "object cache misuse at free: " : "object cache misuse: ";
    std::vector<const code_reference *> frames = frames_of(log);
    if (has_noted_exception(log))
        remove_terminate_handler(&frames);
    std::string names = join(log, frames);
    if (names.empty() && log.details) {
        std::vector<code_reference> found;
        for (const found_word &word : log.details->found)
            found.push_back(found_frame(log, word.address));
        frames.clear();
        for (const code_reference &code : found)
            frames.push_back(&code);
        names = join(log, frames);
    }
    return signature + cause + (names.empty() ? "unattributable" : names);
}

// Only recursion of the first frames needs the others; most logs have none.
std::string signature_maker::join(const crash_log &log, const std::vector<const code_reference *> &frames) const
{
    constexpr std::size_t kMaxSteps = 256; // many times what one walk writes
    std::size_t wanted = max_frames_;
    std::vector<step> steps;
    steps.reserve(wanted);
    for (std::size_t i = 0; i < frames.size() && steps.size() < wanted; i++) {
        std::string name = is_skipped(*frames[i]) ? std::string() : frame_name(log, *frames[i]);
        if (name.empty())
            continue;
        steps.push_back({std::move(name)});
        if (may_come_again(frames, i))
            wanted = kMaxSteps;
    }
    if (wanted != max_frames_)
        fold_recursion(&steps);
    std::string text;
    for (std::size_t i = 0; i < std::min(max_frames_, steps.size()); i++) {
        text += (i != 0 ? " | " : "") + steps[i].name;
        bool is_last = i + 1 == max_frames_ || steps[i].ends_recursion;
        if (steps[i].is_recursion && is_last)
            return text + " | recursion";
    }
    return text;
}

std::string readable_signature(const std::string &signature)
{
    std::string result;
    std::size_t at = 0;
    for (std::size_t mark; (mark = signature.find('!', at)) != std::string::npos;) {
        std::size_t end = std::min(signature.find(" | ", mark), signature.size());
        result += signature.substr(at, mark + 1 - at);
        result += demangle(signature.substr(mark + 1, end - mark - 1));
        at = end;
    }
    return result + signature.substr(at);
}

} // namespace qvcrash
