// SPDX-License-Identifier: Apache-2.0
// line_reader.h - lines and address ranges of the kernel's mapping lists, read without stdio or heap: signal-safe.
#ifndef LIBCOMMON_FAULT_LINE_READER_H
#define LIBCOMMON_FAULT_LINE_READER_H

#include <algorithm>
#include <cstddef>
#include <cstring>
#include <unistd.h>

namespace qv::fault {

inline constexpr std::size_t kLineSize = 1024;

// [cur, end) are the bytes read but not yet returned. Zeroed before first use, except for the descriptor.
struct hfgets_state {
    int fd;
    unsigned int consumed; // bytes returned so far, newlines included
    char *cur;
    char *end;
    char buf[kLineSize];
};

namespace detail {

// Copies out the line that ends before `newline`. A line of kLineSize bytes does not fit into the buffer with its
// newline, so no line is cut.
inline char *take_line(char *line, hfgets_state *st, char *newline)
{
    std::size_t length = std::min(static_cast<std::size_t>(newline - st->cur), kLineSize - 1);
    std::memcpy(line, st->cur, length);
    line[length] = '\0';
    st->consumed += static_cast<unsigned int>(newline + 1 - st->cur);
    st->cur = newline + 1;
    return line;
}

inline char *find_newline(const hfgets_state *st)
{
    if (st->cur == st->end)
        return nullptr;
    return static_cast<char *>(std::memchr(st->cur, '\n', static_cast<std::size_t>(st->end - st->cur)));
}

// Moves the unread bytes to the front and reads into the rest. A full buffer leaves no room: the read of 0 bytes fails.
inline bool refill(hfgets_state *st)
{
    std::size_t unread = static_cast<std::size_t>(st->end - st->cur);
    if (unread != 0)
        std::memmove(st->buf, st->cur, unread);
    st->cur = st->buf;
    st->end = st->buf + unread;
    ssize_t n = ::read(st->fd, st->end, kLineSize - unread);
    if (n <= 0)
        return false;
    st->end += n;
    return true;
}

} // namespace detail

// Reads the next line, without its newline, into `line` (kLineSize bytes); null at the end. One refill must complete
// the line: a longer line ends the reading, and a last line without a newline is dropped.
inline char *hfgets(char *line, hfgets_state *st)
{
    if (char *newline = detail::find_newline(st); newline != nullptr)
        return detail::take_line(line, st, newline);
    if (!detail::refill(st))
        return nullptr;
    char *newline = detail::find_newline(st);
    return newline != nullptr ? detail::take_line(line, st, newline) : nullptr;
}

// A line of a mapping list: "start-end perms ...", both hexadecimal, end exclusive.
struct mapping_line {
    unsigned long start;
    unsigned long end;
    const char *permissions; // the text after the range, within the line
};

namespace detail {

inline int hex_digit(char c)
{
    if (c >= '0' && c <= '9')
        return c - '0';
    if (c >= 'a' && c <= 'f')
        return c - 'a' + 10;
    if (c >= 'A' && c <= 'F')
        return c - 'A' + 10;
    return -1;
}

// Reads digits up to the next blank and skips that blank; false for an empty field or one that is no number.
inline bool read_hex_field(const char **cursor, unsigned long *value)
{
    const char *s = *cursor;
    unsigned long number = 0;
    for (int digit; (digit = hex_digit(*s)) >= 0; s++)
        number = number << 4 | static_cast<unsigned long>(digit);
    if (s == *cursor || (*s != ' ' && *s != '\0'))
        return false;
    *cursor = *s == ' ' ? s + 1 : s;
    *value = number;
    return true;
}

} // namespace detail

// Parses `line` in place: its first '-' becomes a blank. False for a line that holds no range.
inline bool parse_mapping(char *line, mapping_line *mapping)
{
    char *dash = std::strchr(line, '-');
    if (dash == nullptr)
        return false;
    *dash = ' ';
    const char *cursor = line;
    if (!detail::read_hex_field(&cursor, &mapping->start) || !detail::read_hex_field(&cursor, &mapping->end))
        return false;
    mapping->permissions = cursor;
    return true;
}

} // namespace qv::fault

#endif
