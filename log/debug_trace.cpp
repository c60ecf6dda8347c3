// SPDX-License-Identifier: Apache-2.0
// Debug traces to standard error and to the trace file of the day.
#include "debug_trace.h"

#include <array>
#include <cerrno>
#include <cstdarg>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <ctime>
#include <unistd.h>

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

// The open trace file and its day as the number YYYYMMDD. Not locked: two threads that cross midnight together may both
// replace it.
std::FILE *__qv_debug_file = nullptr;
unsigned __qv_debug_day = 0;

const char *text_of(int error)
{
    const char *text = std::strerror(error);
    return text != nullptr ? text : "Unknown error";
}

unsigned today()
{
    std::time_t now = std::time(nullptr);
    const tm *date = std::localtime(&now);
    if (date == nullptr)
        return 0;
    return static_cast<unsigned>((date->tm_year + 1900) * 10000 + (date->tm_mon + 1) * 100 + date->tm_mday);
}

void time_of_day(char (&out)[kTimeSize])
{
    std::time_t now = std::time(nullptr);
    const tm *date = std::localtime(&now);
    if (date == nullptr)
        return;
    std::snprintf(out, sizeof out, "%02u:%02u:%02u", static_cast<unsigned>(date->tm_hour),
                  static_cast<unsigned>(date->tm_min), static_cast<unsigned>(date->tm_sec));
}

// Registered anew with each file that is opened, so it may run several times at exit: it forgets what it has closed.
void qv_debug_file_fini()
{
    if (__qv_debug_file == nullptr)
        return;
    std::fclose(__qv_debug_file);
    __qv_debug_file = nullptr;
}

void open_file(const char *path)
{
    __qv_debug_file = std::fopen(path, "a");
    if (__qv_debug_file != nullptr) {
        std::atexit(qv_debug_file_fini);
        return;
    }
    int error = errno; // the first line's output may change it before the second is made
    std::printf("qv_check_debug_file: fopen(%s) failed: %s\n", path, text_of(error));
    std::printf("qv_check_debug_file: user (%u) errno %u: %s\n", ::getuid(), static_cast<unsigned>(error),
                text_of(error));
    __qv_debug_where = QV_TRACE_TO_STDERR;
}

// Sees to it that the file of the day is open, where there can be one.
void qv_check_debug_file()
{
    unsigned day = today();
    if (__qv_debug_file != nullptr && __qv_debug_day != day)
        qv_debug_file_fini();
    if (__qv_debug_file != nullptr)
        return;

    char base[kBaseSize] = {};
    if (qv_get_basedir(base, sizeof base) < 0)
        return;
    __qv_debug_day = day;
    char path[kPathSize];
    std::snprintf(path, sizeof path, "%s/var/sysinfo/logs/proc%d.%u", base, ::getpid(), day);
    open_file(path);
}

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
    return (__qv_debug_where & QV_TRACE_TO_FILE) != 0 && __qv_debug_file != nullptr;
}

// One message to one stream. %m is the errno of the call, whatever has been written since.
void print_to(std::FILE *stream, int error, const char *format, va_list ap)
{
    va_list copy;
    va_copy(copy, ap);
    errno = error;
    std::vfprintf(stream, format, copy);
    va_end(copy);
}

} // namespace

extern "C" {

int __qv_print_prefix(int level, const char *file, int line)
{
    file += std::strspn(file, "./");
    // Read before the file of the day is looked for, so that a line never carries a time later than its file's day.
    char now[kTimeSize] = {};
    time_of_day(now);
    if ((__qv_debug_where & QV_TRACE_TO_FILE) != 0)
        qv_check_debug_file();

    char prefix[kPrefixSize] = {};
    format_prefix(prefix, now, level, file, line);
    if (prefix[0] == '\0')
        return 0;
    // Asked anew: a file that could not be opened has just changed it.
    if (to_stderr())
        std::fputs(prefix, stderr);
    if (to_file()) {
        std::fputs(prefix, __qv_debug_file);
        std::fflush(__qv_debug_file);
    }
    return 0;
}

int __qv_print_msg(const char *format, ...)
{
    int error = errno;
    va_list ap;
    va_start(ap, format);
    if (to_stderr())
        print_to(stderr, error, format, ap);
    if (to_file()) {
        print_to(__qv_debug_file, error, format, ap);
        std::fflush(__qv_debug_file);
    }
    va_end(ap);
    return 0;
}

int __qv_print_pmsg(const char *format, ...)
{
    int error = errno;
    const char *text = text_of(error);
    va_list ap;
    va_start(ap, format);
    if (to_stderr()) {
        print_to(stderr, error, format, ap);
        std::fprintf(stderr, "\t[%d, %s]\n", error, text);
    }
    if (to_file()) {
        print_to(__qv_debug_file, error, format, ap);
        std::fprintf(__qv_debug_file, "\t[%d, %s]\n", error, text);
        std::fflush(__qv_debug_file);
    }
    va_end(ap);
    return 0;
}

int qv_get_basedir(char *, size_t)
{
    return 0;
}
}
