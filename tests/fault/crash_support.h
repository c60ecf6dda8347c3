// SPDX-License-Identifier: Apache-2.0
// crash_support.h - reading crash logs back, and ways to die, for the tests of the signal handlers.
#ifndef LIBCOMMON_TESTS_FAULT_CRASH_SUPPORT_H
#define LIBCOMMON_TESTS_FAULT_CRASH_SUPPORT_H

#include "sighandler.h"
#include "support/support.h"

#include <array>
#include <cinttypes>
#include <csignal>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <sys/prctl.h>
#include <sys/syscall.h>
#include <unistd.h>

namespace crash {

// The dump requests.
inline constexpr int kAttachSignal = SIGALRM;
inline constexpr int kDumpFileSignal = 51;
inline constexpr int kBacktraceSignal = 52;

#if defined(__clang__)
#define NO_SANITIZERS __attribute__((noinline, no_sanitize("address", "undefined", "thread")))
#else
#define NO_SANITIZERS __attribute__((noinline, no_sanitize("address,undefined,thread")))
#endif

// A log read back. `error` describes the first deviation from the form; it is empty for a complete log.
struct Log {
    std::string error;
    bool by_thread = false;
    int id = 0;
    int sig = 0;
    std::string label; // the text after "thread name : "
    std::array<std::string, 32> names;
    std::array<std::uint64_t, 32> registers{};
    std::uint64_t fault = 0, pc = 0, sp = 0, pstate = 0;
    struct Entry {
        std::string frame, text;
    };
    std::vector<Entry> entries;
    std::string bottom;
    std::string rest; // what follows, from callbacks or an older log
};

class LogReader {
public:
    explicit LogReader(std::string text) : text_(std::move(text)) {}

    Log read()
    {
        read_head();
        for (unsigned first = 0; first < 32 && log_.error.empty(); first += 4)
            read_group(first);
        read_value("fault  : ", &log_.fault);
        read_value("pc     : ", &log_.pc);
        read_value("sp     : ", &log_.sp);
        read_value("pstate : ", &log_.pstate);
        read_backtrace();
        if (log_.error.empty())
            log_.rest = text_.substr(at_);
        return log_;
    }

private:
    void fail(const std::string &what, const std::string &line)
    {
        if (log_.error.empty())
            log_.error = what + ": \"" + line + "\"";
    }

    bool next_line(std::string *line)
    {
        std::size_t end = text_.find('\n', at_);
        if (end == std::string::npos) {
            fail("cut short", text_.substr(at_));
            return false;
        }
        *line = text_.substr(at_, end - at_);
        at_ = end + 1;
        return true;
    }

    void expect_line(const std::string &wanted)
    {
        std::string line;
        if (log_.error.empty() && next_line(&line) && line != wanted)
            fail("not \"" + wanted + "\"", line);
    }

    void read_head()
    {
        std::string line;
        if (!next_line(&line))
            return;
        char label[256] = {};
        if (std::sscanf(line.c_str(), "TID %d for signal(%d). thread name : %255s", &log_.id, &log_.sig, label) == 3)
            log_.by_thread = true;
        else if (std::sscanf(line.c_str(), "PID %d for signal(%d).", &log_.id, &log_.sig) != 2)
            fail("head", line);
        log_.label = label;
        std::string head = std::to_string(log_.id) + " for signal(" + std::to_string(log_.sig) + ").";
        if (line != (log_.by_thread ? "TID " + head + " thread name : " + log_.label : "PID " + head))
            fail("head", line);
    }

    void read_group(unsigned first)
    {
        std::string names, values;
        if (!next_line(&names) || !next_line(&values))
            return;
        std::string again = "reg     ";
        std::size_t at = again.size();
        for (unsigned i = first; i < first + 4; i++) {
            char name[64] = {};
            int step = 0;
            if (at > names.size() || std::sscanf(names.c_str() + at, "%63s%n", name, &step) != 1)
                return fail("register names", names);
            at += static_cast<std::size_t>(step);
            log_.names[i] = name;
            char column[80];
            std::snprintf(column, sizeof column, "%16s ", name);
            again += column;
        }
        if (names != again)
            fail("register names", names);

        auto &r = log_.registers;
        unsigned index = 0;
        if (std::sscanf(values.c_str(), "$%u : %" SCNx64 " %" SCNx64 " %" SCNx64 " %" SCNx64, &index, &r[first],
                        &r[first + 1], &r[first + 2], &r[first + 3]) != 5)
            return fail("register values", values);
        char line[128];
        std::snprintf(line, sizeof line, "$%2u   : %016" PRIx64 " %016" PRIx64 " %016" PRIx64 " %016" PRIx64, first,
                      r[first], r[first + 1], r[first + 2], r[first + 3]);
        if (values != line)
            fail("register values", values);
    }

    void read_value(const std::string &name, std::uint64_t *value)
    {
        std::string line;
        if (!log_.error.empty() || !next_line(&line))
            return;
        *value = line.size() > name.size() ? std::strtoull(line.c_str() + name.size(), nullptr, 16) : 0;
        char again[64];
        std::snprintf(again, sizeof again, "%s%016" PRIx64 " ", name.c_str(), *value);
        if (line != again)
            return fail(name, line);
        expect_line("");
    }

    void read_backtrace()
    {
        const std::string bottom = "\tStack bottom is at ";
        expect_line("Backtracing:");
        std::string line;
        while (log_.error.empty() && next_line(&line)) {
            if (line.rfind(bottom, 0) == 0) {
                log_.bottom = line.substr(bottom.size());
                return expect_line("");
            }
            std::size_t arrow = line.find("> -> ");
            if (line.rfind("\t<0x", 0) != 0 || arrow == std::string::npos)
                return fail("frame", line);
            log_.entries.push_back({line.substr(2, arrow - 2), line.substr(arrow + 5)});
        }
    }

    std::string text_;
    std::size_t at_ = 0;
    Log log_;
};

inline Log read_log(const std::string &path)
{
    if (!support::exists(path)) {
        Log missing;
        missing.error = "no log " + path;
        return missing;
    }
    return LogReader(support::read_file(path)).read();
}

inline std::string log_path(const std::string &name, int id, const std::string &kind, int sig,
                            const std::string &folder = "/etc/core")
{
    return folder + "/" + name + std::to_string(id) + "." + kind + "." + std::to_string(sig) + ".log";
}

inline void rename_process(const char *name)
{
    ::prctl(PR_SET_NAME, name);
}

inline int thread_id()
{
    return static_cast<int>(::syscall(SYS_gettid));
}

// What was printed, in order. It is read from the log, to which both paths of output append, without the time stamps.
inline std::string printed()
{
    std::string text;
    for (const std::string &line : support::lines(support::read_file("/etc/consolelog"))) {
        std::size_t start = 0;
        if (line.size() > 20 && line[4] == '-' && line[7] == '-')
            start = line.compare(19, 5, "(UTC)") == 0 ? 25 : 20;
        else if (line.rfind("uptime ", 0) == 0)
            start = line.find(' ', 7) + 1;
        text += line.substr(start) + "\n";
    }
    return text;
}

// ---- ways to die ----

constexpr unsigned long kBadAddress = 0x10;
constexpr unsigned long kWildAddress = 0x123450;

NO_SANITIZERS inline void write_word(unsigned long address)
{
    *reinterpret_cast<volatile int *>(address) = 1;
}

NO_SANITIZERS inline void write_null()
{
    write_word(kBadAddress);
}

NO_SANITIZERS inline void jump_wild()
{
    void (*volatile wild)() = reinterpret_cast<void (*)()>(kWildAddress);
    wild();
}

} // namespace crash

#endif
