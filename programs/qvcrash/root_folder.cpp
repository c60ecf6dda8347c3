// SPDX-License-Identifier: Apache-2.0
#include "root_folder.h"

#include <cerrno>
#include <deque>
#include <dirent.h>
#include <fcntl.h>
#include <linux/openat2.h>
#include <sys/stat.h>
#include <sys/syscall.h>
#include <unistd.h>
#include <utility>

using namespace qv;

namespace qvcrash {
namespace {

constexpr int kMaxEntries = 100000;

int open_in_root(int folder, const char *path, std::uint64_t flags, std::uint64_t resolve = 0)
{
    open_how how = {};
    how.flags = flags | O_CLOEXEC;
    how.resolve = RESOLVE_IN_ROOT | RESOLVE_NO_MAGICLINKS | resolve;
    return static_cast<int>(::syscall(SYS_openat2, folder, path, &how, sizeof how));
}

// Non-blocking, since a hostile image may hold a FIFO in a file's place.
base::unique_fd open_regular(int folder, const std::string &path, std::uint64_t resolve)
{
    base::unique_fd file(open_in_root(folder, path.c_str(), O_RDONLY | O_NONBLOCK, resolve));
    struct stat status;
    if (!file || ::fstat(file.get(), &status) != 0 || !S_ISREG(status.st_mode))
        return base::unique_fd();
    return file;
}

struct folder_entry {
    std::string name;
    bool is_folder;
};

// Calls `visit` for each entry but links, which would lead in circles.
template <typename Visit>
void for_each_entry(int root, const std::string &path, Visit visit)
{
    base::unique_fd folder(open_in_root(root, path.empty() ? "." : path.c_str(), O_RDONLY | O_DIRECTORY));
    if (!folder)
        return;
    DIR *stream = ::fdopendir(folder.get());
    if (stream == nullptr)
        return;
    folder.release();
    while (const dirent *entry = ::readdir(stream)) {
        std::string_view name = entry->d_name;
        if (name == "." || name == ".." || (entry->d_type != DT_DIR && entry->d_type != DT_REG))
            continue;
        if (!visit(folder_entry{std::string(name), entry->d_type == DT_DIR}))
            break;
    }
    ::closedir(stream);
}

} // namespace

root_folder::root_folder(std::string path)
    : path_(std::move(path)), folder_(::open(path_.c_str(), O_PATH | O_DIRECTORY | O_CLOEXEC))
{}

base::unique_fd root_folder::open(std::string_view path, links allowed) const
{
    return open_regular(folder_.get(), std::string(path), allowed == links::none ? RESOLVE_NO_SYMLINKS : 0);
}

std::string root_folder::display(std::string_view path) const
{
    std::string text = path_;
    while (text.ends_with('/'))
        text.pop_back();
    if (!path.starts_with('/'))
        text += '/';
    return text.append(path);
}

std::string root_folder::find(std::string_view name,
                              const std::function<bool(const std::string &, const base::unique_fd &)> &accepts) const
{
    std::deque<std::string> waiting = {""};
    std::string found;
    int left = kMaxEntries;
    while (!waiting.empty() && found.empty() && left > 0) {
        std::string folder = std::move(waiting.front());
        waiting.pop_front();
        for_each_entry(folder_.get(), folder, [&](const folder_entry &entry) {
            std::string path = folder.empty() ? entry.name : folder + '/' + entry.name;
            if (entry.is_folder) {
                waiting.push_back(std::move(path));
            } else if (entry.name == name) {
                base::unique_fd file = open(path);
                if (file && accepts(path, file))
                    found = '/' + path;
            }
            return found.empty() && --left > 0;
        });
    }
    return found;
}

bool read_all(const base::unique_fd &file, std::size_t limit, std::string *content)
{
    constexpr std::size_t kStep = 65536;
    content->clear();
    while (content->size() < limit) {
        std::size_t used = content->size();
        std::size_t room = std::min(kStep, limit - used);
        content->resize(used + room);
        ssize_t n = ::read(file.get(), content->data() + used, room);
        content->resize(used + static_cast<std::size_t>(std::max<ssize_t>(n, 0)));
        if (n < 0 && errno == EINTR)
            continue;
        if (n <= 0)
            return n == 0;
    }
    return true;
}

} // namespace qvcrash
