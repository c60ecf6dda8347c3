// SPDX-License-Identifier: Apache-2.0
#include "mem/trace_variable.h"

#include "signal_printf.h"

#include <algorithm>
#include <cstddef>
#include <string_view>
#include <sys/mman.h>
#include <unistd.h>

namespace trace_file {
namespace {

constexpr std::string_view kName = "MALLOC_TRACE=";

char variable[512]; // the whole entry; in the environment while it is set

std::size_t environment_size()
{
    std::size_t size = 0;
    while (environ != nullptr && environ[size] != nullptr)
        size++;
    return size;
}

// The environment's entry, or its end.
char **find()
{
    return std::find_if(environ, environ + environment_size(),
                        [](const char *entry) { return std::string_view(entry).starts_with(kName); });
}

// Puts one more entry at the end of a copy of the list. The list before may be the C library's, which reads of it what
// it likes; a few pages are its price.
void append(char *entry)
{
    std::size_t size = environment_size();
    void *map =
        ::mmap(nullptr, (size + 2) * sizeof(char *), PROT_READ | PROT_WRITE, MAP_PRIVATE | MAP_ANONYMOUS, -1, 0);
    if (map == MAP_FAILED)
        return;
    auto **list = static_cast<char **>(map);
    std::copy_n(environ, size, list);
    list[size] = entry;
    __atomic_store_n(&environ, list, __ATOMIC_RELEASE);
}

} // namespace

void set_trace_variable(const char *path)
{
    signal_snprintf(variable, sizeof variable, "%s%s", kName.data(), path);
    char **entry = find();
    if (entry != nullptr && *entry != nullptr)
        __atomic_store_n(entry, &variable[0], __ATOMIC_RELEASE);
    else
        append(variable);
}

void unset_trace_variable()
{
    for (char **entry = find(); entry != nullptr && *entry != nullptr; entry++)
        __atomic_store_n(entry, entry[1], __ATOMIC_RELEASE);
}

} // namespace trace_file
