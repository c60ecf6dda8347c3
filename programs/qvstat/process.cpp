// SPDX-License-Identifier: Apache-2.0
#include "process.h"

#include "base/unique_fd.h"
#include "elf_image.h"
#include "libcommon_inspect.h"

#include <algorithm>
#include <cerrno>
#include <charconv>
#include <cstdio>
#include <fcntl.h>
#include <filesystem>
#include <unistd.h>

using namespace qv;

namespace qvstat {
namespace {

constexpr std::size_t kMaxFile = 64 << 20; // bytes of a file below /proc

// False with errno set when the file cannot be read.
bool read_whole(const std::string &path, std::string *text)
{
    base::unique_fd file(::open(path.c_str(), O_RDONLY | O_CLOEXEC));
    if (!file)
        return false;
    char part[16384];
    ssize_t size;
    while ((size = ::read(file.get(), part, sizeof part)) > 0 && text->size() < kMaxFile)
        text->append(part, static_cast<std::size_t>(size));
    return size >= 0;
}

std::string path_of(pid_t process, const std::string &name)
{
    return "/proc/" + std::to_string(process) + '/' + name;
}

// "START-END PERM OFFSET DEVICE INODE   PATH"
std::optional<mapping> parse_mapping(const std::string &line)
{
    mapping result;
    unsigned long start, end, offset, inode;
    int path_at = 0;
    if (std::sscanf(line.c_str(), "%lx-%lx %*s %lx %*s %lu %n", &start, &end, &offset, &inode, &path_at) != 4)
        return std::nullopt;
    result.start = start;
    result.end = end;
    result.offset = offset;
    result.inode = inode;
    result.path = line.substr(std::min(static_cast<std::size_t>(path_at), line.size()));
    constexpr std::string_view kDeleted = " (deleted)";
    result.is_deleted = result.path.ends_with(kDeleted);
    if (result.is_deleted)
        result.path.resize(result.path.size() - kDeleted.size());
    return result;
}

bool is_file_start(const mapping &each)
{
    return each.offset == 0 && each.inode != 0;
}

bool is_library(const mapping &each)
{
    std::string_view name = each.path;
    name.remove_prefix(name.rfind('/') + 1);
    return is_file_start(each) && (name == "libcommon.so" || name.starts_with("libcommon.so."));
}

access_result refused_by(int error)
{
    return error == ENOENT || error == ESRCH ? access_result::vanished : access_result::no_permission;
}

} // namespace

std::vector<pid_t> all_processes()
{
    std::vector<pid_t> processes;
    std::error_code error;
    for (const auto &entry : std::filesystem::directory_iterator("/proc", error)) {
        std::string name = entry.path().filename();
        pid_t process = 0;
        auto [end, fault] = std::from_chars(name.data(), name.data() + name.size(), process);
        if (fault == std::errc{} && end == name.data() + name.size())
            processes.push_back(process);
    }
    std::sort(processes.begin(), processes.end());
    return processes;
}

std::optional<std::vector<mapping>> read_mappings(pid_t process)
{
    std::string text;
    if (!read_whole(path_of(process, "maps"), &text))
        return std::nullopt;
    std::vector<mapping> mappings;
    for (std::size_t at = 0; at < text.size();) {
        std::size_t end = std::min(text.find('\n', at), text.size());
        if (auto parsed = parse_mapping(text.substr(at, end - at)))
            mappings.push_back(std::move(*parsed));
        at = end + 1;
    }
    return mappings;
}

std::string read_process_file(pid_t process, const std::string &name)
{
    std::string text;
    read_whole(path_of(process, name), &text);
    return text;
}

std::string read_name(pid_t process, const std::string &file)
{
    std::string name = read_process_file(process, file);
    if (name.ends_with('\n'))
        name.pop_back();
    std::replace_if(
        name.begin(), name.end(), [](char c) { return static_cast<unsigned char>(c) < ' ' || c == '\x7f'; }, '?');
    return name;
}

target::target(pid_t process) : process_(process), memory_(process), name_(read_name(process)), access_(look()) {}

access_result target::look()
{
    auto mappings = read_mappings(process_);
    if (!mappings)
        return refused_by(errno);
    mappings_ = std::move(*mappings);
    auto found = std::find_if(mappings_.begin(), mappings_.end(), is_library);
    if (found == mappings_.end())
        return look_at_program();
    library_ = found->path;
    char first;
    if (!memory_.read(found->start, &first, sizeof first))
        return refused_by(errno);
    auto address = find_variable(memory_, found->start, "qv_inspect");
    return address ? look_at_record(*address) : access_result::other_version;
}

// A program may hold the library. Other files may lie below it, where the kernel maps a static one that is
// position-independent. They may even be programs, mapped as data: then no record is where the note says.
access_result target::look_at_program()
{
    access_result result = access_result::no_library;
    for (const mapping &each : mappings_) {
        auto address = is_file_start(each) ? find_noted(memory_, each.start, "libcommon", QV_INSPECT_NOTE)
                                           : std::optional<std::uint64_t>();
        if (!address)
            continue;
        library_ = each.path;
        result = look_at_record(*address);
        if (result == access_result::readable)
            break;
    }
    return result;
}

access_result target::look_at_record(std::uint64_t address)
{
    record_.emplace(memory_, address);
    switch (record_->state()) {
    case record_state::valid:
        return access_result::readable;
    case record_state::other_version:
        return access_result::other_version;
    case record_state::unreadable:
    case record_state::damaged:
        break;
    }
    return access_result::damaged;
}

std::string target::refusal() const
{
    std::string who = name_.empty() ? "process " + std::to_string(process_)
                                    : "process " + std::to_string(process_) + " (" + name_ + ')';
    switch (access_) {
    case access_result::readable:
        break;
    case access_result::no_library:
        return who + " does not have libcommon loaded";
    case access_result::no_permission:
        return who + ": no permission to read its memory; it takes the same user and, where the system restricts "
                     "tracing, the capability CAP_SYS_PTRACE";
    case access_result::vanished:
        return who + " does not exist";
    case access_result::other_version:
        return who + " has another version of libcommon" +
               (record_ && !record_->library_version().empty() ? ", " + record_->library_version() : std::string()) +
               ", without an inspection record that this program knows";
    case access_result::damaged:
        return who + ": the inspection record of its libcommon is damaged";
    }
    return {};
}

} // namespace qvstat
