// SPDX-License-Identifier: Apache-2.0
#include "output_file.h"

#include <cerrno>
#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

using namespace qv;

namespace qvcrash {
namespace {

constexpr mode_t kMode = 0666;
constexpr mode_t kOthersWrite = S_IWGRP | S_IWOTH;

bool is_shared(const struct stat &folder)
{
    return (folder.st_mode & kOthersWrite) != 0 || (folder.st_uid != 0 && folder.st_uid != ::geteuid());
}

bool belongs_here(const struct stat &file, const struct stat &folder)
{
    bool is_of_folder = file.st_uid == folder.st_uid && (folder.st_mode & S_IWOTH) == 0;
    return S_ISREG(file.st_mode) && file.st_nlink == 1 && (file.st_uid == ::geteuid() || is_of_folder);
}

} // namespace

base::unique_fd open_output(const std::string &path)
{
    std::size_t slash = path.rfind('/');
    std::string folder_path = slash == std::string::npos ? "." : path.substr(0, slash + 1);
    std::string name = path.substr(slash + 1);
    base::unique_fd folder(::open(folder_path.c_str(), O_PATH | O_DIRECTORY | O_CLOEXEC));
    struct stat where, status;
    if (!folder || ::fstat(folder.get(), &where) != 0)
        return base::unique_fd();
    constexpr int kFlags = O_WRONLY | O_CREAT | O_CLOEXEC;
    if (!is_shared(where))
        return base::unique_fd(::openat(folder.get(), name.c_str(), kFlags | O_TRUNC, kMode));
    // Not O_TRUNC: the file is emptied only when it is known. A pipe would wait for its reader.
    base::unique_fd file(::openat(folder.get(), name.c_str(), kFlags | O_NOFOLLOW | O_NONBLOCK, kMode));
    if (!file || ::fstat(file.get(), &status) != 0)
        return base::unique_fd();
    if (!belongs_here(status, where)) {
        errno = EPERM;
        return base::unique_fd();
    }
    return ::ftruncate(file.get(), 0) == 0 ? std::move(file) : base::unique_fd();
}

} // namespace qvcrash
