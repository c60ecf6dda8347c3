// SPDX-License-Identifier: Apache-2.0
// Lookups in the tables, and the shared memory that they live in.
#include "tables.h"

#include "base/unique_fd.h"
#include "config.h"

#include <algorithm>
#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <dirent.h>
#include <fcntl.h>
#include <span>
#include <sys/file.h>
#include <sys/mman.h>
#include <sys/stat.h>

using namespace qv;

namespace qv::vrkernel {

namespace {

constexpr std::uint32_t kLayout = 0x56524B02; // the last byte is the version of the layout

constexpr const char *kFolder = "/dev/shm"; // where shm_open() puts them
constexpr const char *kPrefix = "vrkernel.";
using segment_name = char[64];

void complain(const char *config)
{
    std::fprintf(stderr, "vrkernel: %s: %s\n", config, std::strerror(errno));
}

// The configuration file, open and locked: processes attach and forget one at a time.
base::unique_fd open_locked(const char *config, struct stat &st)
{
    base::unique_fd file(::open(config, O_RDONLY | O_CLOEXEC | O_NONBLOCK)); // does not wait for the writer of a pipe
    if (!file || ::fstat(file.get(), &st) < 0) {
        complain(config);
        return {};
    }
    if (!S_ISREG(st.st_mode)) { // a device or a pipe may never end
        std::fprintf(stderr, "vrkernel: %s: not a regular file\n", config);
        return {};
    }
    int locked;
    while ((locked = ::flock(file.get(), LOCK_EX)) < 0 && errno == EINTR)
        ;
    if (locked < 0 || ::fstat(file.get(), &st) < 0) { // it may have changed during the wait
        complain(config);
        return {};
    }
    return file;
}

void name_segment(const struct stat &st, segment_name &name)
{
    std::snprintf(name, sizeof name, "/%s%u.%llx.%llx", kPrefix, ::getuid(), static_cast<unsigned long long>(st.st_dev),
                  static_cast<unsigned long long>(st.st_ino));
}

origin origin_of(const char *config, const struct stat &st)
{
    origin from = {kLayout, st.st_size, st.st_mtim, st.st_dev, st.st_ino, {}};
    if (::realpath(config, from.path) == nullptr)
        from.path[0] = '\0';
    return from;
}

tables *map(const base::unique_fd &memory)
{
    void *at = ::mmap(nullptr, sizeof(tables), PROT_READ | PROT_WRITE, MAP_SHARED, memory.get(), 0);
    return at != MAP_FAILED ? static_cast<tables *>(at) : nullptr;
}

// Maps a segment that belongs to this user and has the size of tables; else null.
tables *map_segment(const char *name)
{
    base::unique_fd memory(::shm_open(name, O_RDWR, 0));
    struct stat st {};
    if (!memory || ::fstat(memory.get(), &st) < 0 || st.st_uid != ::getuid() ||
        st.st_size != static_cast<off_t>(sizeof(tables)))
        return nullptr;
    return map(memory);
}

// The tables that an earlier process made from the same file.
tables *open_segment(const segment_name &name, const origin &from)
{
    tables *found = map_segment(name);
    if (found == nullptr)
        return nullptr;
    origin &was = found->from;
    if (was.layout == from.layout && was.size == from.size && was.changed.tv_sec == from.changed.tv_sec &&
        was.changed.tv_nsec == from.changed.tv_nsec) {
        std::memcpy(was.path, from.path, sizeof was.path);
        return found;
    }
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
    fresh->from = from; // last, so that nobody uses incomplete tables
    return fresh;
}

// Whether the path of a segment's file no longer leads to this file.
bool is_orphan(const origin &was)
{
    struct stat st {};
    if (was.layout != kLayout || ::strnlen(was.path, sizeof was.path) == sizeof was.path || was.path[0] != '/')
        return false;
    if (::stat(was.path, &st) < 0)
        return errno == ENOENT || errno == ENOTDIR;
    return st.st_dev != was.device || st.st_ino != was.inode;
}

// An editor that replaces the file leaves the segment of the old one, which no process finds again.
void remove_orphans()
{
    DIR *folder = ::opendir(kFolder);
    if (folder == nullptr)
        return;
    while (const dirent *one = ::readdir(folder)) {
        if (std::strncmp(one->d_name, kPrefix, std::strlen(kPrefix)) != 0)
            continue;
        tables *found = map_segment(one->d_name);
        if (found == nullptr)
            continue;
        if (is_orphan(found->from))
            ::shm_unlink(one->d_name);
        ::munmap(found, sizeof(tables));
    }
    ::closedir(folder);
}

template <typename Entry>
Entry *find_by_id(std::span<Entry> entries, unsigned id)
{
    auto found = std::find_if(entries.begin(), entries.end(), [id](const Entry &one) { return one.id == id; });
    return found != entries.end() ? &*found : nullptr;
}

template <typename Entry>
bool has_name(const Entry &one, const char *name)
{
    return std::strncmp(one.name, name, sizeof one.name) == 0;
}

template <typename Entry>
Entry *find_by_name(std::span<Entry> entries, const char *name)
{
    auto found = std::find_if(entries.begin(), entries.end(), [name](const Entry &one) { return has_name(one, name); });
    return found != entries.end() ? &*found : nullptr;
}

} // namespace

vsys *tables::find_vsys(unsigned id)
{
    return find_by_id(std::span(all_vsys, vsys_count), id);
}

vsys *tables::find_vsys(const char *name)
{
    return find_by_name(std::span(all_vsys, vsys_count), name);
}

vr *tables::find_vr(unsigned id)
{
    return id < kVrLimit && vrs[id].name[0] != '\0' ? &vrs[id] : nullptr;
}

vr *tables::find_vr(unsigned vsys, const char *name)
{
    for (vr &one : vrs) {
        if (one.name[0] != '\0' && one.vsys == vsys && has_name(one, name))
            return &one;
    }
    return nullptr;
}

interface *tables::find_interface(unsigned id)
{
    return find_by_id(std::span(interfaces, interface_count), id);
}

interface *tables::find_interface(const char *name)
{
    return find_by_name(std::span(interfaces, interface_count), name);
}

tables *attach(const char *config)
{
    struct stat st {};
    base::unique_fd file = open_locked(config, st);
    if (!file)
        return nullptr;
    segment_name name;
    name_segment(st, name);
    origin from = origin_of(config, st);
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
    remove_orphans();
    return ::shm_unlink(name) == 0 || errno == ENOENT;
}

} // namespace qv::vrkernel
