// SPDX-License-Identifier: Apache-2.0
// The probes of the platform and the host's hooks, which both the ordinary and the fatal path of console output use.
#include "log/console_platform.h"

#include "base/errno_guard.h"
#include "base/unique_fd.h"
#include "console_print.h"
#include "util/exported_variable.h"

#include <cerrno>
#include <cstring>
#include <fcntl.h>
#include <unistd.h>

using namespace qv;

using mirror_function = int (*)(const char *format, va_list ap);

extern "C" {
mirror_function mirror_func = nullptr;
[[gnu::visibility("hidden"), gnu::alias("mirror_func")]] extern mirror_function own_mirror_func;
} // extern "C"

// The host's answer whether console output is kept off. A host without this function prints: the second declaration
// makes the reference weak.
// NOLINTNEXTLINE(readability-redundant-declaration): for that
extern "C" int qv_is_numa_ssm(void) __attribute__((weak));

namespace {

constinit exported_variable<mirror_function> mirror_variable{own_mirror_func};

[[gnu::constructor]] void choose_mirror_func()
{
    mirror_variable.choose(mirror_func);
}

constexpr std::size_t kConsoleListSize = 256; // of /proc/consoles, terminator included

bool is_aws_seen = false;
bool is_pcap_seen = false;

// Whether the marker file exists. It may be created after the process starts, so only a positive answer is kept.
bool probe(bool &is_seen, const char *path)
{
    if (is_seen)
        return true;
    base::errno_guard keep;
    is_seen = ::access(path, F_OK) == 0;
    return is_seen;
}

// Whether the kernel's list of consoles, one a line, marks the named one enabled and preferred: "(EC" opens its flags.
bool list_prefers(const char *list, const char *name)
{
    const char *entry = std::strstr(list, name);
    if (entry == nullptr)
        return false;
    const char *flags = std::strstr(entry, "(EC");
    const char *line_end = std::strchr(entry, '\n');
    return flags != nullptr && line_end != nullptr && flags < line_end;
}

} // namespace

namespace qv::console {

int console_wanted()
{
    if (qv_is_numa_ssm == nullptr)
        return 1;
    base::errno_guard keep;
    return qv_is_numa_ssm() == 0 ? 1 : 0;
}

void show_to_mirror(const char *format, va_list ap, int error)
{
    auto mirror = *mirror_variable;
    if (mirror == nullptr)
        return;
    va_list copy;
    va_copy(copy, ap);
    errno = error;
    mirror(format, copy);
    va_end(copy);
}

} // namespace qv::console

extern "C" {

int console_print_mfunc_set(int (*fn)(const char *format, va_list ap))
{
    *mirror_variable = fn;
    return 0;
}

int qv_is_aws(void)
{
    return probe(is_aws_seen, "/sys/devices/system/xen_memory") ? 1 : 0;
}

int qv_is_pcap_network(void)
{
    return probe(is_pcap_seen, "/etc/pcap") ? 1 : 0;
}

int qv_is_support_default_console_device(void)
{
    return 1;
}

int is_default_console_device(const char *name)
{
    if (name == nullptr)
        return 0;
    if (qv_is_support_default_console_device() != 0)
        return 1;
    base::unique_fd consoles(::open("/proc/consoles", O_RDONLY));
    if (!consoles)
        return 0;
    char list[kConsoleListSize] = {};
    if (::read(consoles.get(), list, sizeof list - 1) <= 0)
        return 0;
    return list_prefers(list, name) ? 1 : 0;
}

} // extern "C"
