// SPDX-License-Identifier: Apache-2.0
// Any file through both lookups and the setter. The first line of the input is the name; what follows is the file.
#include "qv_env.h"

#include <cstdint>
#include <cstdlib>
#include <cstring>
#include <fcntl.h>
#include <sched.h>
#include <string>
#include <sys/mount.h>
#include <unistd.h>
#include <vector>

namespace {

void require(bool holds)
{
    if (!holds)
        std::abort();
}

void store(const std::string &text)
{
    int fd = ::open(QV_ENV_FILE, O_WRONLY | O_CREAT | O_TRUNC, 0644);
    require(fd >= 0 && ::write(fd, text.data(), text.size()) == static_cast<ssize_t>(text.size()));
    ::close(fd);
}

std::string stored()
{
    std::string text(1 << 16, '\0');
    int fd = ::open(QV_ENV_FILE, O_RDONLY);
    ssize_t length = fd >= 0 ? ::read(fd, text.data(), text.size()) : -1;
    require(length >= 0);
    ::close(fd);
    text.resize(static_cast<std::size_t>(length));
    return text;
}

void check_result(const char *value)
{
    if (value == nullptr)
        return;
    std::size_t length = std::strlen(value);
    require(length <= 65 && length != 64 && std::memchr(value, '\n', length) == nullptr);
}

void write_map(const char *path, const std::string &text)
{
    int fd = ::open(path, O_WRONLY);
    require(fd >= 0 && ::write(fd, text.data(), text.size()) == static_cast<ssize_t>(text.size()));
    ::close(fd);
}

// Without privilege a namespace of mounts takes one of users, in which this one is root.
void unshare_as_user()
{
    std::string user = std::to_string(::getuid());
    require(::unshare(CLONE_NEWUSER | CLONE_NEWNS) == 0);
    write_map("/proc/self/uid_map", "0 " + user + " 1");
}

} // namespace

// The machine's own store is left alone: the fuzzer works on a /tmp of its own. Corpora that lie in the other one are
// reached through descriptors from then on.
extern "C" int LLVMFuzzerInitialize(int *argc, char ***argv)
{
    static std::vector<std::string> renamed(static_cast<std::size_t>(*argc));
    for (std::size_t i = 1; i < renamed.size(); i++) {
        int folder = ::open((*argv)[i], O_PATH | O_DIRECTORY);
        if (folder < 0)
            continue;
        renamed[i] = "/proc/self/fd/" + std::to_string(folder);
        (*argv)[i] = renamed[i].data();
    }
    if (::unshare(CLONE_NEWNS) != 0)
        unshare_as_user();
    ::mount("none", "/", nullptr, MS_REC | MS_PRIVATE, nullptr);
    ::mount("none", "/tmp", "tmpfs", 0, nullptr);
    return 0;
}

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t *data, std::size_t size)
{
    std::string input(reinterpret_cast<const char *>(data), size);
    std::size_t newline = input.find('\n');
    if (newline == input.npos || size > 8192)
        return 0;
    std::string name = input.substr(0, newline).c_str();
    store(input.substr(newline + 1));

    check_result(qv_getenv(name.c_str()));
    check_result(qv_getenv_filename(QV_ENV_FILE, name.c_str()));
    int kept = qv_setenv(name.c_str(), "1", 0);
    require(kept == 0 || kept == -2 || (kept == -1 && name.size() > 30));
    if (name.size() > 30)
        return 0;
    require(qv_setenv(name.c_str(), "new", 1) == 0);
    std::string text = stored(), record = name + "=new\n";
    require(text.size() >= record.size() && text.compare(text.size() - record.size(), record.size(), record) == 0);
    return 0;
}
