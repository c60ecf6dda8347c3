// SPDX-License-Identifier: Apache-2.0
// Hexadecimal dumps for crash callbacks.
#include "sighandler.h"

#include "base/cancel_guard.h"
#include "base/errno_guard.h"
#include "signal_printf.h"

#include <cstdarg>
#include <cstring>
#include <utility>

using namespace qv;

namespace {

constexpr int kBytesPerLine = 16;
constexpr int kLineSize = 128;

// The title's arguments are start, mark, len and those of the caller. A variable argument may be read only if it was
// passed. The number passed is the number of arguments that the title's conversions require.
constexpr int kNamedArguments = 3;
constexpr int kMaxArguments = 32;
constexpr int kMaxVariable = kMaxArguments - kNamedArguments;

bool is_one_of(char c, const char *set)
{
    return c != '\0' && std::strchr(set, c) != nullptr;
}

const char *skip_digits(const char *s)
{
    while (is_one_of(*s, "0123456789"))
        s++;
    return s;
}

// Counts the arguments that a format requires, by the grammar of signal_printf().
int count_arguments(const char *format)
{
    int count = 0;
    for (const char *s = std::strchr(format, '%'); s != nullptr; s = std::strchr(s, '%')) {
        s++;
        while (is_one_of(*s, "+ -0"))
            s++;
        s = skip_digits(s);
        if (*s == '.')
            s = skip_digits(s + 1);
        if (is_one_of(*s, "HLl")) {
            s++;
            if (is_one_of(*s, "lL"))
                s++;
        }
        if (is_one_of(*s, "csdiuboxXpn"))
            count++;
        if (*s != '\0')
            s++;
    }
    return count;
}

template <std::size_t... index>
void write_title(int fd, const char *title, const unsigned char *start, const unsigned char *mark, int len,
                 const unsigned long *rest, std::index_sequence<index...>)
{
    signal_printf(fd, title, start, mark, len, rest[index]...);
}

void write_line(int fd, const unsigned char *bytes, const unsigned char *mark, int count)
{
    char line[kLineSize];
    int used = signal_snprintf(line, kLineSize, "\n%p:", static_cast<const void *>(bytes));
    for (int i = 0; i < count; i++)
        used += signal_snprintf(line + used, kLineSize - used, bytes + i == mark ? "*%02x" : " %02x",
                                static_cast<unsigned long>(bytes[i]));
    signal_printf(fd, "%s", line);
}

} // namespace

extern "C" void hex_dump_to_file(int fd, const char *title, const unsigned char *start, const unsigned char *mark,
                                 int len, ...)
{
    if (fd < 0)
        return;
    base::errno_guard keep;
    base::cancel_guard no_cancellation;
    int wanted = title != nullptr ? count_arguments(title) : 0;
    if (wanted > kMaxArguments) {
        signal_printf(fd, "%s", title); // it requires more than can be passed, so it is printed without formatting
    } else if (title != nullptr) {
        unsigned long rest[kMaxVariable] = {};
        va_list args;
        va_start(args, len);
        for (int i = 0; i < wanted - kNamedArguments; i++)
            rest[i] = va_arg(args, unsigned long);
        va_end(args);
        write_title(fd, title, start, mark, len, rest, std::make_index_sequence<kMaxVariable>());
    }
    if (start == nullptr || len <= 0)
        return;
    for (int i = 0; i < len; i += kBytesPerLine)
        write_line(fd, start + i, mark, len - i < kBytesPerLine ? len - i : kBytesPerLine);
    signal_printf(fd, "\n");
}
