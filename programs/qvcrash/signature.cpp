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
                            "__cxa_throw\n"
                            "__cxa_rethrow\n"
                            "_Znwm\n"
                            "_Znam\n"
                            "_ZdlPv*\n"
                            "_ZdaPv*\n";

std::string_view last_component(std::string_view path)
{
    return path.substr(path.find_last_of('/') + 1);
}

std::string signal_name(std::optional<int> signal)
{
    const char *name = signal ? ::sigabbrev_np(*signal) : nullptr;
    if (name != nullptr)
        return std::string("SIG") + name;
    return signal ? "signal " + std::to_string(*signal) : std::string("no signal");
}

std::string frame_name(const code_reference &code)
{
    std::string name(last_component(code.file));
    if (!code.symbol.empty())
        return name.append("!").append(code.symbol);
    if (code.file.empty())
        return "?"; // an address of a process means nothing in another one
    char offset[32];
    std::snprintf(offset, sizeof offset, "+0x%llx", static_cast<unsigned long long>(code.offset.value_or(0)));
    return name + offset;
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
    // The cache ends the process on purpose; the bug is the caller's, and another one than a bad access there.
    if (has_function(log, "mcache_error"))
        signature += has_function(log, "mcache_free") ? "object cache misuse at free: " : "object cache misuse: ";
    std::size_t count = 0;
    for (const logged_frame &frame : log.frames) {
        if (count == max_frames_)
            break;
        if (is_skipped(frame.code))
            continue;
        std::string name = frame_name(frame.code);
        if (name == "?")
            continue;
        if (count != 0)
            signature += " | ";
        signature += name;
        count++;
    }
    return count != 0 ? signature : signature + "unattributable";
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
