// SPDX-License-Identifier: Apache-2.0
#include "output_file.h"

#include <cerrno>
#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

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

open_file open_output(const std::string &path)
{
    std::size_t slash = path.rfind('/');
    std::string folder_path = slash == std::string::npos ? "." : path.substr(0, slash + 1);
    std::string name = path.substr(slash + 1);
    open_file folder(::open(folder_path.c_str(), O_PATH | O_DIRECTORY | O_CLOEXEC));
    struct stat where, status;
    if (!folder || ::fstat(folder.get(), &where) != 0)
        return open_file();
    constexpr int kFlags = O_WRONLY | O_CREAT | O_CLOEXEC;
    if (!is_shared(where))
        return open_file(::openat(folder.get(), name.c_str(), kFlags | O_TRUNC, kMode));
    // Not O_TRUNC: the file is emptied only when it is known. A pipe would wait for its reader.
    open_file file(::openat(folder.get(), name.c_str(), kFlags | O_NOFOLLOW | O_NONBLOCK, kMode));
    if (!file || ::fstat(file.get(), &status) != 0)
        return open_file();
    if (!belongs_here(status, where)) {
        errno = EPERM;
        return open_file();
    }
    return ::ftruncate(file.get(), 0) == 0 ? std::move(file) : open_file();
}

} // namespace qvcrash
