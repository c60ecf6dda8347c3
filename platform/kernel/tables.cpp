// SPDX-License-Identifier: Apache-2.0
// Lookups in the tables, and the shared memory that they live in.
#include "tables.h"

#include "base/unique_fd.h"
#include "config.h"

#include <cerrno>
#include <cstdio>
#include <cstring>
#include <fcntl.h>
#include <span>
#include <sys/file.h>
#include <sys/mman.h>
#include <sys/stat.h>

namespace vrkernel {

namespace {

constexpr std::uint32_t kLayout = 0x56524B01; // the last byte counts the layouts

using segment_name = char[64];

void complain(const char *config)
{
    std::fprintf(stderr, "vrkernel: %s: %s\n", config, std::strerror(errno));
}

// The configuration file, open and locked: attaching and forgetting happen one at a time.
base::unique_fd open_locked(const char *config, struct stat &st)
{
    base::unique_fd file(::open(config, O_RDONLY | O_CLOEXEC));
    if (!file || ::flock(file.get(), LOCK_EX) < 0 || ::fstat(file.get(), &st) < 0) {
        complain(config);
        return {};
    }
    return file;
}

void name_segment(const struct stat &st, segment_name &name)
{
    std::snprintf(name, sizeof name, "/vrkernel.%u.%llx.%llx", ::getuid(), static_cast<unsigned long long>(st.st_dev),
                  static_cast<unsigned long long>(st.st_ino));
}

tables *map(const base::unique_fd &memory)
{
    void *at = ::mmap(nullptr, sizeof(tables), PROT_READ | PROT_WRITE, MAP_SHARED, memory.get(), 0);
    return at != MAP_FAILED ? static_cast<tables *>(at) : nullptr;
}

// The tables that an earlier process made from the same file.
tables *open_segment(const segment_name &name, const origin &from)
{
    base::unique_fd memory(::shm_open(name, O_RDWR, 0));
    struct stat st {};
    if (!memory || ::fstat(memory.get(), &st) < 0 || st.st_uid != ::getuid() ||
        st.st_size != static_cast<off_t>(sizeof(tables)))
        return nullptr;
    tables *found = map(memory);
    if (found == nullptr)
        return nullptr;
    const origin &was = found->from;
    if (was.layout == from.layout && was.size == from.size && was.changed.tv_sec == from.changed.tv_sec &&
        was.changed.tv_nsec == from.changed.tv_nsec)
        return found;
    ::munmap(found, sizeof(tables));
    return nullptr;
}

tables *make_segment(const char *config, const base::unique_fd &file, const segment_name &name, const origin &from)
{
    ::shm_unlink(name);
    base::unique_fd memory(::shm_open(name, O_RDWR | O_CREAT | O_EXCL, 0600));
    tables *fresh = nullptr;
    if (!memory || ::ftruncate(memory.get(), sizeof(tables)) < 0 || (fresh = map(memory)) == nullptr) {
        complain(name);
        return nullptr;
    }
    if (!read_config(config, file.get(), *fresh)) {
        ::munmap(fresh, sizeof(tables));
        ::shm_unlink(name);
        return nullptr;
    }
    fresh->from = from; // last: tables half made are nobody's
    return fresh;
}

} // namespace

vsys *tables::find_vsys(unsigned id)
{
    for (vsys &one : std::span(all_vsys, vsys_count)) {
        if (one.id == id)
            return &one;
    }
    return nullptr;
}

vsys *tables::find_vsys(const char *name)
{
    for (vsys &one : std::span(all_vsys, vsys_count)) {
        if (std::strncmp(one.name, name, sizeof one.name) == 0)
            return &one;
    }
    return nullptr;
}

vr *tables::find_vr(unsigned id)
{
    return id < kVrLimit && vrs[id].name[0] != '\0' ? &vrs[id] : nullptr;
}

vr *tables::find_vr(unsigned vsys, const char *name)
{
    for (vr &one : vrs) {
        if (one.name[0] != '\0' && one.vsys == vsys && std::strncmp(one.name, name, sizeof one.name) == 0)
            return &one;
    }
    return nullptr;
}

interface *tables::find_interface(unsigned id)
{
    for (interface &one : std::span(interfaces, interface_count)) {
        if (one.id == id)
            return &one;
    }
    return nullptr;
}

interface *tables::find_interface(const char *name)
{
    for (interface &one : std::span(interfaces, interface_count)) {
        if (std::strncmp(one.name, name, sizeof one.name) == 0)
            return &one;
    }
    return nullptr;
}

tables *attach(const char *config)
{
    struct stat st {};
    base::unique_fd file = open_locked(config, st);
    if (!file)
        return nullptr;
    segment_name name;
    name_segment(st, name);
    origin from = {kLayout, st.st_size, st.st_mtim};
    tables *found = open_segment(name, from);
    return found != nullptr ? found : make_segment(config, file, name, from);
}

bool forget(const char *config)
{
    struct stat st {};
    base::unique_fd file = open_locked(config, st);
    if (!file)
        return false;
    segment_name name;
    name_segment(st, name);
    return ::shm_unlink(name) == 0 || errno == ENOENT;
}

} // namespace vrkernel
