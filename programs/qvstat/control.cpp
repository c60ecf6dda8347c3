// SPDX-License-Identifier: Apache-2.0
#include "control.h"

#include <algorithm>
#include <cctype>
#include <cerrno>
#include <chrono>
#include <csignal>
#include <cstdio>
#include <cstring>
#include <filesystem>
#include <functional>
#include <optional>
#include <sys/stat.h>
#include <thread>

namespace qvstat {
namespace {

using namespace std::chrono_literals;

constexpr auto kPatience = 5s;
constexpr auto kPause = 10ms;

bool wait_for(const std::function<bool()> &is_done)
{
    auto end = std::chrono::steady_clock::now() + kPatience;
    while (!is_done()) {
        if (std::chrono::steady_clock::now() > end)
            return false;
        std::this_thread::sleep_for(kPause);
    }
    return true;
}

// Whether the process has a handler for the signal: its bit in the mask that /proc/PID/status shows.
bool has_handler(pid_t process, int sig)
{
    std::string status = read_process_file(process, "status");
    std::size_t at = status.find("\nSigCgt:");
    unsigned long mask = 0;
    return at != std::string::npos && std::sscanf(status.c_str() + at, "\nSigCgt: %lx", &mask) == 1 &&
           (mask >> (sig - 1) & 1) != 0;
}

// An unhandled signal ends a process, and so does one that the termination logger handles. Nothing if the signal may be
// sent.
std::optional<std::string> reason_not_to_send(const target &process, const hook_state &hooks, int sig)
{
    std::string who = "process " + std::to_string(process.process());
    if (sig < 1 || sig >= NSIG || !has_handler(process.process(), sig))
        return who + " has no handler for this; it has to call install_sighandler() first";
    if (hooks.armed_by == QV_ARMED_FOR_TERMINATION)
        return who + " logs this signal and ends by it (pstrace_terminate_signal()); nothing was sent";
    if (hooks.armed_by != QV_ARMED_FOR_CRASHES)
        return who + " handles signal " + std::to_string(sig) +
               " itself and has not called install_sighandler(); nothing was sent";
    return std::nullopt;
}

bool are_same(const struct stat &a, const struct stat &b)
{
    return a.st_dev == b.st_dev && a.st_ino == b.st_ino;
}

// A dump's log, at the path that the process sees.
class dump_log {
public:
    dump_log(const target &process, int sig)
        : process_(std::to_string(process.process())), name_(process.name()), root_("/proc/" + process_ + "/root"),
          ending_(process_ + ".attach." + std::to_string(sig) + ".log")
    {
        find();
        before_ = path_;
        if (!before_.empty() && ::stat((root_ + before_).c_str(), &status_before_) == 0)
            std::this_thread::sleep_for(kTick);
    }

    const std::string &path() const { return path_; }

    // Whether the log was written since, and the process has closed it.
    bool is_complete()
    {
        find();
        struct stat status;
        if (path_.empty() || ::stat((root_ + path_).c_str(), &status) != 0 || status.st_size == 0)
            return false;
        bool is_written = path_ != before_ || status.st_mtim.tv_sec != status_before_.st_mtim.tv_sec ||
                          status.st_mtim.tv_nsec != status_before_.st_mtim.tv_nsec;
        return is_written && !is_open(status);
    }

private:
    // Times of files advance with the kernel's tick: what is written after this has another time than before it.
    static constexpr auto kTick = 20ms;

    void find()
    {
        constexpr const char *kFolder = "/etc/core";
        std::error_code error;
        for (const auto &entry : std::filesystem::directory_iterator(root_ + kFolder, error)) {
            std::string name = entry.path().filename();
            std::size_t start = name.size() - std::min(name.size(), ending_.size());
            // The name of the process comes before its number. After another name, a digit is of another number.
            std::string_view before = std::string_view(name).substr(0, start);
            if (name.ends_with(ending_) &&
                (before == name_ || before.empty() || std::isdigit(static_cast<unsigned char>(before.back())) == 0))
                path_ = kFolder + ('/' + name);
        }
    }

    bool is_open(const struct stat &log) const
    {
        std::error_code error;
        for (const auto &entry : std::filesystem::directory_iterator("/proc/" + process_ + "/fd", error)) {
            struct stat status;
            if (::stat(entry.path().c_str(), &status) == 0 && are_same(status, log))
                return true;
        }
        return false;
    }

    std::string process_;
    std::string name_;
    std::string root_;
    std::string ending_;
    std::string path_;
    std::string before_;
    struct stat status_before_ = {};
};

// A process that has ended has no memory, even while its parent has not asked for its status.
bool has_ended(const target &process)
{
    auto mappings = read_mappings(process.process());
    return !mappings || mappings->empty();
}

// Why a request has no result yet.
std::string no_answer(const target &process, const std::string &perhaps)
{
    std::string who = "process " + std::to_string(process.process());
    return has_ended(process) ? who + " ended meanwhile"
                              : who + " has not answered; it may be stopped, block the signal, or " + perhaps;
}

std::string send_failure(const target &process)
{
    return "process " + std::to_string(process.process()) + ": " + std::strerror(errno);
}

} // namespace

control_result request_dump(const target &process)
{
    auto hooks = process.record().read_hooks();
    if (!hooks)
        return {false, process.refusal()};
    int sig = hooks->attach_signal;
    if (auto reason = reason_not_to_send(process, *hooks, sig))
        return {false, *reason};
    dump_log log(process, sig);
    if (::kill(process.process(), sig) != 0)
        return {false, send_failure(process)};
    bool is_written = false;
    wait_for([&] {
        bool is_gone = has_ended(process); // asked first: it may write the log and end
        is_written = log.is_complete();
        return is_written || is_gone;
    });
    if (!is_written)
        return {false, no_answer(process, "not be able to write the log")};
    return {true, log.path()};
}

control_result switch_trace(const target &process, bool on)
{
    auto is_on = [&process] {
        auto hooks = process.record().read_hooks();
        return hooks ? std::optional(hooks->trace == trace_state::file) : std::nullopt;
    };
    std::string file = "/etc/mtrace" + std::to_string(process.process()) + ".log";
    auto hooks = process.record().read_hooks();
    if (!hooks)
        return {false, process.refusal()};
    if ((hooks->trace == trace_state::file) == on)
        return {true, on ? "a trace is already being written" : "no trace is being written"};
    if (auto reason = reason_not_to_send(process, *hooks, SIGUSR2))
        return {false, *reason};
    if (::kill(process.process(), SIGUSR2) != 0)
        return {false, send_failure(process)};
    bool is_switched = false;
    wait_for([&] {
        is_switched = is_on() == on;
        return is_switched || has_ended(process);
    });
    if (!is_switched)
        return {false, no_answer(process, "not be able to write " + file)};
    return {true, on ? "writing " + file : "ended " + file};
}

} // namespace qvstat
