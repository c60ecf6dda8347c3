// SPDX-License-Identifier: Apache-2.0
// Debug traces to standard error and to the trace file of the day.
//
// There is no lock. A thread that finds the file of another day or another process removes it by exchanging the
// pointer, so exactly one thread does. Others may still be writing to the file, so it is only retired; the last thread
// to leave a trace closes the retired files.
#include "debug_trace.h"

#include "base/cancel_guard.h"
#include "base/errno_guard.h"
#include "log/debug_trace_file.h"
#include "time/local_time.h"

#include <array>
#include <atomic>
#include <cerrno>
#include <cstdarg>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <ctime>
#include <pthread.h>
#include <stdio_ext.h>
#include <unistd.h>

using namespace qv;

int __qv_debug_where = QV_TRACE_TO_STDERR;
int __qv_debug_detail = 3;
int __qv_debug_level = QV_TRACE_ERROR;
int __qv_debug_calltrace = 0;
int __qv_debug_assert = 0;
int __qv_print_val = 0;

namespace {

constexpr std::array<const char *, 5> kLevelNames = {"", "Fatal", "Error", "Warn", "Debug"};
constexpr std::size_t kTimeSize = 32;
constexpr std::size_t kBaseSize = 128;
constexpr std::size_t kPathSize = 512;
constexpr std::size_t kPrefixSize = 1024;
constexpr std::size_t kReasonSize = 256; // "\t[ERRNO, TEXT]\n"

// An open trace file. Not changed once other threads can see it, but for `next`.
struct day_file {
    std::FILE *stream;
    unsigned day;   // as the number YYYYMMDD
    pid_t owner;    // a child opens its own file
    day_file *next; // among the retired
};

constinit std::atomic<day_file *> current_file = nullptr;
constinit std::atomic<day_file *> retired = nullptr; // no longer reachable from current_file
constinit std::atomic<int> users = 0;                // threads that may have a pointer to any of them
constinit thread_local int depth = 0;                // this thread's share of users

const char *text_of(int error)
{
    const char *text = std::strerror(error);
    return text != nullptr ? text : "Unknown error";
}

// ---- retired files ----

// Text that is still buffered in another process's file is written by its owner.
void close_all(day_file *file)
{
    while (file != nullptr) {
        day_file *next = file->next;
        if (file->owner != ::getpid())
            ::__fpurge(file->stream);
        std::fclose(file->stream);
        std::free(file);
        file = next;
    }
}

void push_retired(day_file *file)
{
    while (file != nullptr) {
        day_file *next = file->next;
        file->next = retired;
        while (!retired.compare_exchange_weak(file->next, file)) {
        }
        file = next;
    }
}

// For a file that this thread has just made unreachable. A thread that is alone inside closes it at once.
void retire(day_file *file)
{
    file->next = nullptr;
    if (users == 1)
        close_all(file);
    else
        push_retired(file);
}

// Files stay open within the scope.
class file_scope {
public:
    file_scope()
    {
        depth++;
        users++;
    }

    // Files in the list were unreachable before the count fell. If it fell to zero, nobody has a pointer to them.
    ~file_scope()
    {
        day_file *list = retired.exchange(nullptr);
        depth--;
        if (users.fetch_sub(1) == 1)
            close_all(list);
        else
            push_retired(list);
    }

    file_scope(const file_scope &) = delete;
    file_scope &operator=(const file_scope &) = delete;
};

// ---- the file of the day, within a file_scope ----

bool is_own(const day_file *file)
{
    return file->owner == ::getpid();
}

// The stream to trace to, null for none.
std::FILE *stream_of_file()
{
    const day_file *file = current_file;
    return file != nullptr && is_own(file) ? file->stream : nullptr;
}

bool convert(tm *out)
{
    std::time_t now = std::time(nullptr);
    return local_time::convert_for_trace(now, out);
}

unsigned today()
{
    tm date;
    if (!convert(&date))
        return 0;
    return static_cast<unsigned>((date.tm_year + 1900) * 10000 + (date.tm_mon + 1) * 100 + date.tm_mday);
}

void time_of_day(char (&out)[kTimeSize])
{
    tm date;
    if (!convert(&date))
        return;
    std::snprintf(out, sizeof out, "%02u:%02u:%02u", static_cast<unsigned>(date.tm_hour),
                  static_cast<unsigned>(date.tm_min), static_cast<unsigned>(date.tm_sec));
}

// Removes and retires the file if it is still the current one.
void retire_current(day_file *file)
{
    if (file != nullptr && current_file.compare_exchange_strong(file, nullptr))
        retire(file);
}

// Registered again with each file that is opened, so it may run several times at exit.
void close_at_exit()
{
    base::cancel_guard whole;
    file_scope scope;
    retire_current(current_file);
}

// A child does not use its parent's file, nor text that the parent's threads had buffered at the fork. The files are
// closed by the child's first trace: a fork handler must not use the heap, which a signal handler that forks may have
// interrupted. If such a handler interrupted a trace, that trace continues; later ones see the file's owner and skip
// it.
void forget_parents_files()
{
    users = depth;
    if (depth != 0)
        return;
    push_retired(current_file.exchange(nullptr));
    for (day_file *file = retired; file != nullptr; file = file->next)
        ::__fpurge(file->stream);
}

void watch_forks()
{
    static constinit std::atomic<bool> is_watching = false;
    if (!is_watching.exchange(true))
        ::pthread_atfork(nullptr, nullptr, forget_parents_files);
}

// The name in the text is contract.
void report_failure(const char *path, int error)
{
    // Printing the first line may change errno before the second is formatted.
    std::printf("qv_check_debug_file: fopen(%s) failed: %s\n", path, text_of(error));
    std::printf("qv_check_debug_file: user (%u) errno %u: %s\n", ::getuid(), static_cast<unsigned>(error),
                text_of(error));
    __qv_debug_where = QV_TRACE_TO_STDERR;
}

bool is_current(const day_file *file, unsigned day)
{
    return file != nullptr && file->day == day && is_own(file);
}

// Makes the file the current one, unless another thread has opened the day's file meanwhile.
void publish(day_file *file)
{
    day_file *old = current_file;
    do {
        if (is_current(old, file->day))
            return close_all(file);
    } while (!current_file.compare_exchange_strong(old, file));
    std::atexit(close_at_exit);
    if (old != nullptr)
        retire(old);
}

day_file *open_file(const char *path, unsigned day)
{
    auto *file = static_cast<day_file *>(std::malloc(sizeof(day_file)));
    if (file == nullptr)
        return nullptr;
    *file = {std::fopen(path, "a"), day, ::getpid(), nullptr};
    if (file->stream != nullptr)
        return file;
    base::errno_guard reason;
    std::free(file);
    return nullptr;
}

// Opens the file of the day unless it is open. An old file stays current until then, so that messages of other threads
// are not lost.
void open_todays_file()
{
    unsigned day = today();
    day_file *old = current_file;
    if (is_current(old, day))
        return;

    char base[kBaseSize] = {};
    if (qv_get_basedir(base, sizeof base) < 0)
        return retire_current(old);
    base[sizeof base - 1] = '\0'; // a host's function may have filled the buffer
    char path[kPathSize];
    std::snprintf(path, sizeof path, "%s/var/sysinfo/logs/proc%d.%u", base, ::getpid(), day);
    watch_forks();
    day_file *file = open_file(path, day);
    if (file == nullptr) {
        int error = errno;
        retire_current(old); // frees its descriptor, in case that was missing
        file = error == EMFILE || error == ENFILE ? open_file(path, day) : nullptr;
        if (file == nullptr)
            return report_failure(path, error);
    }
    publish(file);
}

// ---- lines ----

void format_prefix(char (&out)[kPrefixSize], const char *now, int level, const char *file, int line)
{
    const char *name =
        level >= 0 && level < static_cast<int>(kLevelNames.size()) ? kLevelNames[static_cast<std::size_t>(level)] : "";
    switch (__qv_debug_detail) {
    case 0:
        break;
    case 1:
        std::snprintf(out, sizeof out, "[%s] %s: ", now, name);
        break;
    case 2:
        std::snprintf(out, sizeof out, "[%s] %s: %s: ", now, name, file);
        break;
    case 3:
        std::snprintf(out, sizeof out, "[%s] %s: %s:%d: ", now, name, file, line);
        break;
    default:
        std::snprintf(out, sizeof out, "[%s] <Unknown Detail>: %s:%d: ", now, file, line);
        break;
    }
}

bool to_stderr()
{
    return (__qv_debug_where & QV_TRACE_TO_STDERR) != 0;
}

bool to_file()
{
    return (__qv_debug_where & QV_TRACE_TO_FILE) != 0;
}

// Calls print(stream) for each destination. The file is flushed at once, standard error is not.
template <typename Print>
void to_destinations(Print print)
{
    if (to_stderr())
        print(stderr);
    if (!to_file())
        return;
    file_scope scope;
    std::FILE *stream = stream_of_file();
    if (stream == nullptr)
        return;
    print(stream);
    std::fflush(stream);
}

// These functions keep errno, so that a message after a prefix can print the errno of the failure. They do not act on a
// pending cancellation; their callers do, after the line.

void print_prefix(int level, const char *file, int line)
{
    base::cancel_guard whole;
    base::errno_guard caller;
    file += std::strspn(file, "./");
    // Read before the file of the day is checked, so that a line never carries a time later than its file's day.
    char now[kTimeSize] = {};
    time_of_day(now);
    if (to_file()) {
        file_scope scope;
        open_todays_file();
    }

    char prefix[kPrefixSize] = {};
    format_prefix(prefix, now, level, file, line);
    if (prefix[0] != '\0')
        to_destinations([&](std::FILE *stream) { std::fputs(prefix, stream); });
}

// %m is the errno at the call for each destination, whatever was written in between.
void print_message(const char *format, va_list ap, const char *reason)
{
    base::cancel_guard whole;
    base::errno_guard caller;
    to_destinations([&](std::FILE *stream) {
        va_list copy;
        va_copy(copy, ap);
        errno = caller.saved();
        std::vfprintf(stream, format, copy);
        va_end(copy);
        std::fputs(reason, stream);
    });
}

// Keeps errno.
void describe(int error, char (&out)[kReasonSize])
{
    base::errno_guard keep;
    std::snprintf(out, sizeof out, "\t[%d, %s]\n", error, text_of(error));
}

} // namespace

extern "C" {

int __qv_print_prefix(int level, const char *file, int line)
{
    print_prefix(level, file, line);
    ::pthread_testcancel();
    return 0;
}

int __qv_print_msg(const char *format, ...)
{
    va_list ap;
    va_start(ap, format);
    print_message(format, ap, "");
    va_end(ap);
    ::pthread_testcancel();
    return 0;
}

int __qv_print_pmsg(const char *format, ...)
{
    char reason[kReasonSize];
    describe(errno, reason);
    va_list ap;
    va_start(ap, format);
    print_message(format, ap, reason);
    va_end(ap);
    ::pthread_testcancel();
    return 0;
}

int qv_get_basedir(char *, size_t)
{
    return 0;
}

} // extern "C"

void trace::close_file(int first)
{
    base::cancel_guard whole;
    file_scope scope;
    day_file *file = current_file;
    if (file != nullptr && ::fileno(file->stream) >= first)
        retire_current(file);
}
