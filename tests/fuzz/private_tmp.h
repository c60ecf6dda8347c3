// SPDX-License-Identifier: Apache-2.0
// private_tmp.h - a private /tmp for the settings file, so that the fuzzer does not touch the machine's.
#pragma once

#include "qv_env.h"

#include "tests/fuzz/input.h"

#include <fcntl.h>
#include <sched.h>
#include <string>
#include <sys/mount.h>
#include <unistd.h>
#include <vector>

namespace fuzz {

inline void write_file(const char *path, const std::string &text, int flags)
{
    int fd = ::open(path, O_WRONLY | flags, 0644);
    require(fd >= 0 && ::write(fd, text.data(), text.size()) == static_cast<ssize_t>(text.size()));
    ::close(fd);
}

inline void store_settings(const std::string &text)
{
    write_file(QV_ENV_FILE, text, O_CREAT | O_TRUNC);
}

inline std::string stored_settings()
{
    std::string text(1 << 16, '\0');
    int fd = ::open(QV_ENV_FILE, O_RDONLY);
    ssize_t length = fd >= 0 ? ::read(fd, text.data(), text.size()) : -1;
    require(length >= 0);
    ::close(fd);
    text.resize(static_cast<std::size_t>(length));
    return text;
}

// Without privilege a mount namespace requires a user namespace, in which this process is root.
inline void unshare_as_user()
{
    std::string user = std::to_string(::getuid());
    require(::unshare(CLONE_NEWUSER | CLONE_NEWNS) == 0);
    write_file("/proc/self/uid_map", "0 " + user + " 1", 0);
}

// For LLVMFuzzerInitialize(). Corpora in the machine's /tmp are reached through descriptors afterwards.
inline void enter_private_tmp(int argc, char **argv)
{
    static std::vector<std::string> renamed(static_cast<std::size_t>(argc));
    for (std::size_t i = 1; i < renamed.size(); i++) {
        int folder = ::open(argv[i], O_PATH | O_DIRECTORY);
        if (folder < 0)
            continue;
        renamed[i] = "/proc/self/fd/" + std::to_string(folder);
        argv[i] = renamed[i].data();
    }
    if (::unshare(CLONE_NEWNS) != 0)
        unshare_as_user();
    ::mount("none", "/", nullptr, MS_REC | MS_PRIVATE, nullptr);
    ::mount("none", "/tmp", "tmpfs", 0, nullptr);
}

} // namespace fuzz
