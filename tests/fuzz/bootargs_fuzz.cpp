// SPDX-License-Identifier: Apache-2.0
// Any command line and key: the value is the text after the key's first occurrence, as strtoul() reads it.
#include "bootargs.h"

#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <string>
#include <sys/mman.h>
#include <unistd.h>

namespace {

constexpr std::size_t kReadable = 4095;

unsigned long expected(std::string text, const std::string &key)
{
    text.resize(kReadable, '\0');
    std::size_t found = std::string(text.c_str()).find(key);
    if (found == text.npos || found + key.size() >= kReadable)
        return 0;
    std::string value = text.substr(found + key.size() + 1).c_str();
    return std::strtoul(value.substr(0, value.find(' ', 1)).c_str(), nullptr, 0);
}

} // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t *data, std::size_t size)
{
    if (size < 1)
        return 0;
    std::size_t key_length = std::min<std::size_t>(data[0] % 16, size - 1);
    std::string key(reinterpret_cast<const char *>(data) + 1, key_length);
    key = key.c_str();
    std::string text(reinterpret_cast<const char *>(data) + 1 + key_length, size - 1 - key_length);

    int fd = ::memfd_create("cmdline", 0);
    if (fd < 0 || ::write(fd, text.data(), text.size()) != static_cast<ssize_t>(text.size()))
        std::abort();
    char path[32];
    std::snprintf(path, sizeof path, "/proc/self/fd/%d", fd);
    if (qv_parse_cmdline(path, key.c_str()) != expected(text, key))
        std::abort();
    ::close(fd);
    return 0;
}
