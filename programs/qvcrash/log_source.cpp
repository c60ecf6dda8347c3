// SPDX-License-Identifier: Apache-2.0
#include "log_source.h"

#include <condition_variable>
#include <deque>
#include <filesystem>
#include <mutex>
#include <thread>

namespace qvcrash {
namespace {

constexpr std::size_t kMaxLogSize = 1 << 20; // of what a group needs: a log's beginning
constexpr std::size_t kBatch = 64;           // paths
constexpr std::size_t kMaxWaiting = 64;      // batches

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

void put_folder(const std::string &path, path_queue *queue)
{
    std::error_code ignored;
    auto options = std::filesystem::directory_options::skip_permission_denied;
    for (std::filesystem::recursive_directory_iterator entry(path, options, ignored), end; entry != end;
         entry.increment(ignored)) {
        const std::string &name = entry->path().native();
        if (!entry->is_directory(ignored) && (is_log_name(name) || is_archive_name(name)))
            queue->put(name);
    }
}

void note_problem(std::string problem, read_progress *progress)
{
    progress->unreadable++;
    std::lock_guard lock(progress->mutex);
    if (progress->problems.size() < kMaxProblems)
        progress->problems.push_back(std::move(problem));
}

} // namespace

void read_logs(const std::vector<std::string> &paths, unsigned threads, const log_visitor &visit,
               read_progress *progress)
{
    path_queue queue;
    std::vector<std::jthread> readers;
    for (unsigned thread = 0; thread < threads; thread++) {
        readers.emplace_back([&, thread] {
            log_file_reader reader(kMaxLogSize, pipes::refused);
            auto report = [&](const source_log &log) {
                visit(thread, log);
                progress->logs++;
            };
            for (path_batch batch; queue.take(&batch);) {
                for (const std::string &path : batch) {
                    std::string problem = reader.read(path, report);
                    if (!problem.empty())
                        note_problem(path + ": " + problem, progress);
                }
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
