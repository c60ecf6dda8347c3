// SPDX-License-Identifier: Apache-2.0
#include "mem/trace_variable.h"

#include "signal_printf.h"

#include <algorithm>
#include <cstddef>
#include <string_view>
#include <sys/mman.h>
#include <unistd.h>

namespace qv::trace_file {
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

// The place of the variable in the environment, or of the environment's end; null without an environment.
char **find()
{
    char **entry = environ;
    while (entry != nullptr && *entry != nullptr && !std::string_view(*entry).starts_with(kName))
        entry++;
    return entry;
}

// The library's own list of entries, used when the variable has to be added. It is kept for the next time. It is the
// environment's list until the host installs another one.
char **own_list = nullptr;
std::size_t own_room = 0;

// Makes room in the library's list. A list that is too small stays mapped: other threads may be reading it.
bool reserve(std::size_t room)
{
    constexpr std::size_t kLeast = 512;
    if (room <= own_room)
        return true;
    std::size_t wanted = std::max({room, 2 * own_room, kLeast});
    void *map = ::mmap(nullptr, wanted * sizeof(char *), PROT_READ | PROT_WRITE, MAP_PRIVATE | MAP_ANONYMOUS, -1, 0);
    if (map == MAP_FAILED)
        return false;
    own_list = static_cast<char **>(map);
    own_room = wanted;
    return true;
}

// Appends an entry to the library's list, after copying the environment to it. The C library's list cannot grow: only
// the C library knows its size.
void append(char *entry)
{
    std::size_t size = environment_size();
    char **before = environ;
    if (!reserve(size + 2))
        return;
    if (before != own_list)
        std::copy_n(before, size, own_list);
    // NOLINTNEXTLINE(clang-analyzer-core.NullDereference): own_room, above 0 here, is the room of a mapped list
    own_list[size + 1] = nullptr;
    __atomic_store_n(&own_list[size], entry, __ATOMIC_RELEASE);
    __atomic_store_n(&environ, own_list, __ATOMIC_RELEASE);
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

} // namespace qv::trace_file
