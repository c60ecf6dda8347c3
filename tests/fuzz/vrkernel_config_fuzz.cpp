// SPDX-License-Identifier: Apache-2.0
// Configuration files of any content: the tables are consistent, or the file is refused.
#include "platform/kernel/config.h"

#include "base/unique_fd.h"
#include "platform/kernel/tables.h"

#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <span>
#include <sys/mman.h>
#include <unistd.h>

using namespace qv;
using namespace qv;

namespace {

void require(bool held)
{
    if (!held)
        std::abort();
}

template <std::size_t Size>
void require_terminated(const char (&name)[Size])
{
    require(name[0] != '\0' && std::memchr(name, '\0', Size) != nullptr);
}

void require_sound(vrkernel::tables &all)
{
    for (const vrkernel::vsys &one : std::span(all.all_vsys, all.vsys_count)) {
        require_terminated(one.name);
        require(all.find_vsys(one.id) == &one && all.find_vsys(one.name) == &one);
        require(all.find_vr(one.default_vr) != nullptr);
    }
    for (const vrkernel::vr &one : all.vrs) {
        if (one.name[0] == '\0')
            continue;
        require_terminated(one.name);
        require(all.find_vr(one.vsys, one.name) == &one && all.find_vsys(one.vsys) != nullptr);
    }
    for (const vrkernel::interface &one : std::span(all.interfaces, all.interface_count)) {
        require_terminated(one.name);
        require(all.find_interface(one.id) == &one && all.find_interface(one.name) == &one);
        require(all.find_vr(one.vr) != nullptr && all.find_vsys(one.vsys) != nullptr);
        require(vrkernel::may_hold(*all.find_vr(one.vr), one.vsys));
    }
}

} // namespace

extern "C" int LLVMFuzzerInitialize(int *, char ***)
{
    stderr = std::fopen("/dev/null", "w"); // discards the reports of mistakes
    return 0;
}

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t *data, std::size_t size)
{
    static base::unique_fd file(::memfd_create("config", MFD_CLOEXEC));
    static auto *all = static_cast<vrkernel::tables *>(std::malloc(sizeof(vrkernel::tables)));
    require(::ftruncate(file.get(), 0) == 0 && ::pwrite(file.get(), data, size, 0) == static_cast<ssize_t>(size));
    ::lseek(file.get(), 0, SEEK_SET);
    std::memset(static_cast<void *>(all), 0, sizeof *all);
    if (vrkernel::read_config("config", file.get(), *all))
        require_sound(*all);
    return 0;
}
