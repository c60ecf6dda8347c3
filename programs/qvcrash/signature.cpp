// SPDX-License-Identifier: Apache-2.0
#include "signature.h"

#include "demangle.h"

#include <algorithm>
#include <csignal>
#include <cstdio>
#include <cstring>

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

bool has_prefix(std::string_view text, const std::vector<std::string> &prefixes)
{
    return std::any_of(prefixes.begin(), prefixes.end(), [text](const std::string &p) { return text.starts_with(p); });
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
    std::string names;
    std::size_t count = 0;
    auto add = [&](const code_reference &code) {
        std::string name = count < max_frames_ && !is_skipped(code) ? frame_name(log, code) : std::string();
        if (name.empty())
            return;
        names += (count != 0 ? " | " : "") + name;
        count++;
    };
    for (const logged_frame &frame : log.frames)
        add(frame.code);
    if (count == 0 && log.details) {
        for (const found_word &word : log.details->found)
            add(found_frame(log, word.address));
    }
    return signature + cause + (count != 0 ? names : "unattributable");
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
