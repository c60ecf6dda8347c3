// SPDX-License-Identifier: Apache-2.0
// Stack ranges from the kernel's mapping list. Safe in signal handlers; the recorder, which is not, has its own file.
#include "stack_info.h"

#include "base/cancel_guard.h"
#include "base/unique_fd.h"
#include "fault/backtrace_internal.h"
#include "fault/line_reader.h"
#include "signal_printf.h"

#include <cstring>
#include <fcntl.h>

using namespace qv;

namespace {

constexpr std::size_t kPathSize = 128;

// Names a reader in its failure message. Log scanners find the messages by their numbers, so these never change.
struct reader_name {
    const char *function;
    int line;
};

constexpr reader_name kStackReader = {"qv_get_stack_info", 1208};
constexpr reader_name kThreadStackReader = {"qv_get_thread_stack_info", 1258};

base::unique_fd open_thread_maps(const reader_name &reader)
{
    char path[kPathSize];
    signal_snprintf(path, sizeof path, "/proc/%d/task/%d/maps", ::getpid(), fault::thread_id());
    base::unique_fd fd(::open(path, O_RDONLY));
    if (!fd)
        signal_printf(STDOUT_FILENO, "%s %d : open %s failed.\n", reader.function, reader.line, path);
    return fd;
}

// Stores the range of the first line that contains `filter` and whose range `accepts` returns true for.
template <typename Accepts>
int find_mapping(const reader_name &name, const char *filter, Accepts accepts, unsigned long *start, unsigned long *end)
{
    base::errno_guard keep;
    base::cancel_guard no_cancellation;
    base::unique_fd fd = open_thread_maps(name);
    if (!fd)
        return -1;
    fault::hfgets_state reader = {};
    reader.fd = fd.get();
    char line[fault::kLineSize];
    while (fault::hfgets(line, &reader) != nullptr) {
        fault::mapping_line mapping;
        if (std::strstr(line, filter) == nullptr || !fault::parse_mapping(line, &mapping))
            continue;
        if (mapping.start == 0 || !accepts(mapping))
            continue;
        *start = mapping.start;
        *end = mapping.end;
        break;
    }
    return 0;
}

} // namespace

extern "C" {

int qv_get_stack_info(unsigned long *start, unsigned long *end)
{
    auto is_range = [](const fault::mapping_line &mapping) { return mapping.start < mapping.end; };
    return find_mapping(kStackReader, "[stack]", is_range, start, end);
}

int qv_get_thread_stack_info(unsigned long addr, unsigned long *start, unsigned long *end)
{
    auto contains = [addr](const fault::mapping_line &mapping) { return mapping.start <= addr && addr < mapping.end; };
    return find_mapping(kThreadStackReader, "rw-p", contains, start, end);
}

} // extern "C"
