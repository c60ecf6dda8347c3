// SPDX-License-Identifier: Apache-2.0
// Records the main thread's stack at start-up. Uses stdio, so it is kept apart from what runs in signal handlers.
#include "stack_info.h"

#include "console_print.h"
#include "fault/backtrace_internal.h"

#include <algorithm>
#include <cstdio>
#include <cstdlib>
#include <cstring>

using namespace qv;

extern "C" {

uint64_t g_process_stack_start;
uint64_t g_process_stack_end;
uint64_t g_process_stack_cur;
uint32_t g_process_stack_cur_index;
}

namespace {

constexpr std::size_t kPathSize = 64;
constexpr std::size_t kStatusLineSize = 1024;
constexpr unsigned kLastField = 80;
constexpr int kMessageLine = 1338; // a fixed text: log scanners know the message by it

// Reads the status line of the task; false when it cannot be read.
bool read_status_line(char *line)
{
    char path[kPathSize];
    std::snprintf(path, sizeof path, "/proc/%d/task/%d/stat", ::getpid(), fault::thread_id());
    std::FILE *file = std::fopen(path, "r");
    if (file == nullptr) {
        console_print("%s %d : open %s failed.\n", "qv_record_process_info", kMessageLine, path);
        return false;
    }
    bool got_line = std::fgets(line, kStatusLineSize, file) != nullptr;
    std::fclose(file);
    return got_line;
}

// A non-empty field of decimal digits only, as a number.
bool read_number(const char *field, const char *end, uint64_t *number)
{
    auto is_digit = [](char c) { return c >= '0' && c <= '9'; };
    if (field == end || !std::all_of(field, end, is_digit))
        return false;
    *number = std::strtoull(field, nullptr, 10);
    return true;
}

// Fields are separated by blanks, and a blank in the command name separates too. A field without a blank after it is
// ignored.
void record_stack_field(const char *line)
{
    const char *field = line;
    for (unsigned index = 1; index <= kLastField; index++) {
        const char *end = std::strchr(field, ' ');
        if (end == nullptr)
            return;
        uint64_t number;
        if (read_number(field, end, &number) && number >= g_process_stack_start && number <= g_process_stack_end) {
            g_process_stack_cur = number;
            g_process_stack_cur_index = index;
            return;
        }
        field = end + 1;
    }
}

} // namespace

extern "C" {

void qv_record_process_info(void)
{
    if (::getpid() != fault::thread_id())
        return;
    qv_get_stack_info(&g_process_stack_start, &g_process_stack_end);
    if (g_process_stack_start == 0 || g_process_stack_end == 0)
        return;
    char line[kStatusLineSize];
    if (read_status_line(line))
        record_stack_field(line);
}

} // extern "C"
