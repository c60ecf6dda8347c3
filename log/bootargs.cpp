// SPDX-License-Identifier: Apache-2.0
// Boot arguments and the output that they gate.
#include "bootargs.h"

#include "base/cancel_guard.h"
#include "base/unique_fd.h"
#include "console_print.h"

#include <algorithm>
#include <cerrno>
#include <cstdarg>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <fcntl.h>
#include <iterator>

using namespace qv;

namespace {

constexpr const char *kCmdline = "/proc/cmdline";
constexpr const char *kVerboseWord = "qv_output";
constexpr std::size_t kCmdlineSize = 4096;
constexpr std::size_t kBootargsSize = 1024;
constexpr std::size_t kOutputSize = 1024;

// The levels of qv_output() that print without the boot argument.
constexpr int kSilentResultLevel = 1; // returns 0 although it prints
constexpr int kUngatedLevels[] = {kSilentResultLevel, 4, 5};

bool prints_always(int level)
{
    return std::find(std::begin(kUngatedLevels), std::end(kUngatedLevels), level) != std::end(kUngatedLevels);
}

} // namespace

extern "C" {

unsigned long qv_parse_cmdline(const char *path, const char *key)
{
    base::cancel_guard whole;
    base::unique_fd file(::open(path, O_RDONLY));
    if (!file) {
        std::printf("open %s failed\n", path);
        return 0;
    }
    char text[kCmdlineSize] = {};
    if (::read(file.get(), text, sizeof text) < 0)
        std::printf("read %s failed, %s\n", path, std::strerror(errno));
    text[sizeof text - 1] = '\0';

    char *found = std::strstr(text, key);
    if (found == nullptr)
        return 0;
    // The character after the key is skipped whatever it is, contract. It may be a zero byte that the file contains.
    char *value = found + std::strlen(key) + 1;
    if (value == text + sizeof text)
        return 0; // the key ends at the very end of the buffer
    // Cut at the first blank after the value's first character. A leading blank is left to strtoul().
    if (*value != '\0')
        value[1 + std::strcspn(value + 1, " ")] = '\0';
    return std::strtoul(value, nullptr, 0);
}

int qv_has_bootargs(const char *word)
{
    base::cancel_guard whole;
    // Opened for reading and writing, contract: where that is refused, the result is 0.
    std::FILE *file = std::fopen(kCmdline, "r+");
    if (file == nullptr)
        return 0;
    char text[kBootargsSize] = {};
    [[maybe_unused]] std::size_t length = std::fread(text, 1, sizeof text - 1, file);
    std::fclose(file);
    return std::strstr(text, word) != nullptr ? 1 : 0;
}

int qv_output(int level, const char *format, ...)
{
    char text[kOutputSize] = {};
    va_list ap;
    va_start(ap, format);
    std::vsnprintf(text, sizeof text, format, ap);
    va_end(ap);

    if (!prints_always(level) && qv_has_bootargs(kVerboseWord) == 0)
        return 0;
    int length = console_print("%s", text);
    return level == kSilentResultLevel ? 0 : length;
}

} // extern "C"
