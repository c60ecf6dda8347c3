// SPDX-License-Identifier: Apache-2.0
#include "log_source.h"

#include "root_folder.h"

#include <algorithm>
#include <archive.h>
#include <archive_entry.h>
#include <cerrno>
#include <condition_variable>
#include <deque>
#include <fcntl.h>
#include <filesystem>
#include <memory>
#include <mutex>
#include <optional>
#include <sys/stat.h>
#include <thread>

namespace qvcrash {
namespace {

constexpr std::size_t kMaxLogSize = 1 << 20; // of what a group needs: a log's beginning
constexpr std::size_t kBatch = 64;           // paths
constexpr std::size_t kMaxWaiting = 64;      // batches
constexpr std::size_t kArchiveBlock = 65536;

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

// One log, as logrotate leaves it.
bool is_compressed_name(std::string_view name)
{
    constexpr std::string_view kEndings[] = {".gz", ".xz", ".bz2", ".zst"};
    return !is_archive_name(name) && std::any_of(std::begin(kEndings), std::end(kEndings),
                                                 [name](auto ending) { return name.ends_with(ending); });
}

// The last change of a regular file. Nothing for others: opening a pipe may wait for ever.
std::optional<std::time_t> time_of_file(const std::string &path)
{
    struct stat status;
    bool is_file = ::stat(path.c_str(), &status) == 0 && S_ISREG(status.st_mode);
    return is_file ? std::optional(status.st_mtime) : std::nullopt;
}

using path_batch = std::vector<std::string>;

// Paths from the thread that walks folders to the readers, in batches: waking a thread costs as much as reading a log.
class path_queue {
public:
    // Of the one thread that puts.
    void put(std::string path)
    {
        gathered_.push_back(std::move(path));
        if (gathered_.size() == kBatch)
            flush();
    }

    void close()
    {
        flush();
        std::lock_guard lock(mutex_);
        is_closed_ = true;
        has_path_.notify_all();
    }

    bool take(path_batch *batch)
    {
        std::unique_lock lock(mutex_);
        has_path_.wait(lock, [this] { return !batches_.empty() || is_closed_; });
        if (batches_.empty())
            return false;
        *batch = std::move(batches_.front());
        batches_.pop_front();
        has_room_.notify_one();
        return true;
    }

private:
    void flush()
    {
        if (gathered_.empty())
            return;
        std::unique_lock lock(mutex_);
        has_room_.wait(lock, [this] { return batches_.size() < kMaxWaiting; });
        batches_.push_back(std::move(gathered_));
        gathered_.clear();
        has_path_.notify_one();
    }

    path_batch gathered_;
    std::mutex mutex_;
    std::condition_variable has_path_, has_room_;
    std::deque<path_batch> batches_;
    bool is_closed_ = false;
};

class log_reader {
public:
    log_reader(unsigned thread, const log_visitor &visit, read_progress *progress)
        : thread_(thread), visit_(visit), progress_(progress)
    {}

    void read(const std::string &path)
    {
        bool is_read = is_archive_name(path)      ? read_archive(path)
                       : is_compressed_name(path) ? read_compressed(path)
                                                  : read_file(path);
        if (!is_read)
            progress_->unreadable++;
    }

private:
    void report(std::string_view name, std::size_t size, std::time_t when)
    {
        visit_(thread_, {name, {text_.get(), size}, when});
        progress_->logs++;
    }

    bool read_file(const std::string &path)
    {
        open_file file(::open(path.c_str(), O_RDONLY | O_CLOEXEC | O_NONBLOCK));
        struct stat status;
        if (!file || ::fstat(file.get(), &status) != 0 || !S_ISREG(status.st_mode))
            return false;
        auto expected = static_cast<std::size_t>(status.st_size);
        std::size_t used = 0;
        while (used < kMaxLogSize) {
            ssize_t n = ::read(file.get(), text_.get() + used, kMaxLogSize - used);
            if (n < 0 && errno == EINTR)
                continue;
            if (n < 0)
                return false;
            used += static_cast<std::size_t>(n);
            // Most logs take one call: what the file had when it was opened is enough.
            if (n == 0 || used == expected)
                break;
        }
        report(path, used, status.st_mtime);
        return true;
    }

    using archive_reader = std::unique_ptr<archive, decltype(&::archive_read_free)>;

    bool read_compressed(const std::string &path)
    {
        archive_reader reader(::archive_read_new(), ::archive_read_free);
        ::archive_read_support_format_raw(reader.get());
        ::archive_read_support_filter_all(reader.get());
        archive_entry *entry;
        std::optional<std::time_t> when = time_of_file(path);
        if (!when || ::archive_read_open_filename(reader.get(), path.c_str(), kArchiveBlock) != ARCHIVE_OK ||
            ::archive_read_next_header(reader.get(), &entry) != ARCHIVE_OK)
            return false;
        report(path, read_member(reader.get()), *when);
        return true;
    }

    bool read_archive(const std::string &path)
    {
        archive_reader reader(::archive_read_new(), ::archive_read_free);
        ::archive_read_support_format_all(reader.get());
        ::archive_read_support_filter_all(reader.get());
        if (!time_of_file(path) ||
            ::archive_read_open_filename(reader.get(), path.c_str(), kArchiveBlock) != ARCHIVE_OK)
            return false;
        archive_entry *entry;
        int status;
        while ((status = ::archive_read_next_header(reader.get(), &entry)) == ARCHIVE_OK || status == ARCHIVE_WARN) {
            const char *name = ::archive_entry_pathname(entry);
            if (name == nullptr || !is_log_name(name) || ::archive_entry_filetype(entry) != AE_IFREG)
                continue;
            std::string full_name = path + ':' + name;
            std::time_t when = ::archive_entry_mtime(entry);
            report(full_name, read_member(reader.get()), when);
        }
        return status == ARCHIVE_EOF;
    }

    // Its size, at most kMaxLogSize.
    std::size_t read_member(archive *reader)
    {
        std::size_t used = 0;
        while (used < kMaxLogSize) {
            la_ssize_t n = ::archive_read_data(reader, text_.get() + used, kMaxLogSize - used);
            if (n <= 0)
                break;
            used += static_cast<std::size_t>(n);
        }
        return used;
    }

    unsigned thread_;
    const log_visitor &visit_;
    read_progress *progress_;
    std::unique_ptr<char[]> text_{new char[kMaxLogSize]}; // of the log that is read
};

void put_folder(const std::string &path, path_queue *queue)
{
    std::error_code ignored;
    auto options = std::filesystem::directory_options::skip_permission_denied;
    for (std::filesystem::recursive_directory_iterator entry(path, options, ignored), end; entry != end;
         entry.increment(ignored)) {
        const std::string &name = entry->path().native();
        if (is_log_name(name) || is_archive_name(name))
            queue->put(name);
    }
}

} // namespace

void read_logs(const std::vector<std::string> &paths, unsigned threads, const log_visitor &visit,
               read_progress *progress)
{
    path_queue queue;
    std::vector<std::jthread> readers;
    for (unsigned thread = 0; thread < threads; thread++) {
        readers.emplace_back([&, thread] {
            log_reader reader(thread, visit, progress);
            for (path_batch batch; queue.take(&batch);) {
                for (const std::string &path : batch)
                    reader.read(path);
            }
        });
    }
    for (const std::string &path : paths) {
        std::error_code ignored;
        if (std::filesystem::is_directory(path, ignored))
            put_folder(path, &queue);
        else
            queue.put(path);
    }
    queue.close();
}

} // namespace qvcrash
