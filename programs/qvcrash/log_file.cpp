// SPDX-License-Identifier: Apache-2.0
#include "log_file.h"

#include <algorithm>
#include <archive.h>
#include <archive_entry.h>
#include <cerrno>
#include <cstring>
#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

using namespace qv;

namespace qvcrash {
namespace {

using namespace std::string_view_literals;

constexpr std::size_t kFirstRoom = 1 << 20;
constexpr std::size_t kArchiveBlock = 65536;
constexpr std::size_t kArchiveStep = 4096;

// What a compressed file begins with.
constexpr std::string_view kCompressions[] = {"\x1F\x8B\x08"sv,
                                              "\xFD"
                                              "7zXZ\0"sv,
                                              "BZh"sv, "\x28\xB5\x2F\xFD"sv};

using archive_reader = std::unique_ptr<archive, decltype(&::archive_read_free)>;

// Of the library's filters only these: some of the others run programs, which a hostile file could choose.
archive_reader new_reader()
{
    archive_reader reader(::archive_read_new(), ::archive_read_free);
    ::archive_read_support_filter_gzip(reader.get());
    ::archive_read_support_filter_xz(reader.get());
    ::archive_read_support_filter_bzip2(reader.get());
    ::archive_read_support_filter_zstd(reader.get());
    ::archive_read_support_format_empty(reader.get());
    return reader;
}

// After an end without any entry: a text that cannot be decompressed ends there too.
bool is_empty(archive *reader)
{
    return ::archive_errno(reader) == 0;
}

// In small steps: an error takes what was read in the same step with it.
bool fill_from(archive *reader, text_buffer *text)
{
    return text->fill([reader](char *place, std::size_t size) {
        return ::archive_read_data(reader, place, std::min(size, kArchiveStep));
    });
}

bool fill_from(int fd, std::size_t expected, text_buffer *text)
{
    auto read_some = [fd](char *place, std::size_t size) {
        ssize_t n;
        while ((n = ::read(fd, place, size)) < 0 && errno == EINTR) {
        }
        return n;
    };
    return text->fill(read_some, expected);
}

std::string error_of(archive *reader)
{
    const char *text = ::archive_error_string(reader);
    return text != nullptr ? text : "unknown error";
}

} // namespace

bool is_log_name(std::string_view name)
{
    return name.substr(name.find_last_of('/') + 1).find(".log") != std::string_view::npos;
}

bool is_archive_name(std::string_view name)
{
    constexpr std::string_view kEndings[] = {".tar",     ".tgz",     ".tar.gz", ".tar.xz",
                                             ".tar.bz2", ".tar.zst", ".tzst",   ".zip"};
    return std::any_of(std::begin(kEndings), std::end(kEndings),
                       [name](auto ending) { return name.ends_with(ending); });
}

bool text_buffer::fill(const std::function<long(char *place, std::size_t size)> &read_some, std::size_t expected)
{
    while (used_ < limit_) {
        if (used_ == room_)
            grow();
        long n = read_some(bytes_.get() + used_, room_ - used_);
        if (n < 0)
            return false;
        used_ += static_cast<std::size_t>(n);
        if (n == 0 || used_ == expected)
            break;
    }
    return true;
}

void text_buffer::grow()
{
    std::size_t room = std::min(limit_, std::max(kFirstRoom, room_ * 2));
    std::unique_ptr<char[]> bytes(new char[room]); // not set to 0: most logs are small
    std::copy_n(bytes_.get(), used_, bytes.get());
    bytes_ = std::move(bytes);
    room_ = room;
}

bool is_compressed(std::string_view text)
{
    return std::any_of(std::begin(kCompressions), std::end(kCompressions),
                       [text](auto start) { return text.starts_with(start); });
}

std::string decompress(std::string_view compressed, bool is_cut, text_buffer *text)
{
    text->clear();
    archive_reader reader = new_reader();
    ::archive_read_support_format_raw(reader.get());
    archive_entry *entry;
    int status = ::archive_read_open_memory(reader.get(), compressed.data(), compressed.size());
    if (status == ARCHIVE_OK && ::archive_filter_code(reader.get(), 0) == ARCHIVE_FILTER_NONE)
        return "cannot be decompressed: its beginning is damaged";
    if (status == ARCHIVE_OK)
        status = ::archive_read_next_header(reader.get(), &entry);
    bool is_whole =
        status == ARCHIVE_EOF ? is_empty(reader.get()) : status == ARCHIVE_OK && fill_from(reader.get(), text);
    if (is_whole || (is_cut && !text->text().empty()))
        return {};
    return "cannot be decompressed: " + error_of(reader.get());
}

std::string log_file_reader::read(const std::string &path, const visitor &visit)
{
    int wait = allowed_ == pipes::read ? 0 : O_NONBLOCK;
    base::unique_fd file(::open(path.c_str(), O_RDONLY | O_CLOEXEC | wait));
    struct stat status;
    if (!file || ::fstat(file.get(), &status) != 0)
        return std::strerror(errno);
    bool is_file = S_ISREG(status.st_mode);
    if (!is_file && allowed_ == pipes::refused)
        return "is no regular file";
    if (is_archive_name(path))
        return read_archive(file.get(), path, visit);
    stored_.clear();
    // Most logs take one call: what the file had when it was opened is enough.
    std::size_t expected = is_file ? static_cast<std::size_t>(status.st_size) : static_cast<std::size_t>(-1);
    if (!fill_from(file.get(), expected, &stored_))
        return std::strerror(errno);
    return visit_stored(path, status.st_mtime, visit);
}

std::string log_file_reader::visit_stored(std::string_view name, std::time_t when, const visitor &visit)
{
    if (!is_compressed(stored_.text())) {
        visit({name, stored_.text(), when});
        return {};
    }
    std::string problem = decompress(stored_.text(), stored_.is_full(), &plain_);
    if (problem.empty() || !plain_.text().empty())
        visit({name, plain_.text(), when});
    return problem;
}

std::string log_file_reader::read_archive(int fd, const std::string &path, const visitor &visit)
{
    archive_reader reader = new_reader();
    // No further formats: one of them reads other files that the archive names.
    ::archive_read_support_format_tar(reader.get());
    ::archive_read_support_format_zip(reader.get());
    if (::archive_read_open_fd(reader.get(), fd, kArchiveBlock) != ARCHIVE_OK)
        return error_of(reader.get());
    std::string problem;
    archive_entry *entry;
    bool has_entries = false;
    int status;
    while ((status = ::archive_read_next_header(reader.get(), &entry)) == ARCHIVE_OK || status == ARCHIVE_WARN) {
        has_entries = true;
        const char *name = ::archive_entry_pathname(entry);
        if (name == nullptr || !is_log_name(name) || ::archive_entry_filetype(entry) != AE_IFREG)
            continue;
        std::string full_name = path + ':' + name;
        std::time_t when = ::archive_entry_mtime(entry);
        stored_.clear();
        if (!fill_from(reader.get(), &stored_) && problem.empty())
            problem = std::string(name) + ": " + error_of(reader.get());
        std::string trouble = visit_stored(full_name, when, visit);
        if (!trouble.empty() && problem.empty())
            problem = std::string(name) + ' ' + trouble;
    }
    bool is_whole = status == ARCHIVE_EOF && (has_entries || is_empty(reader.get()));
    return is_whole || !problem.empty() ? problem : error_of(reader.get());
}

} // namespace qvcrash
