// SPDX-License-Identifier: Apache-2.0
// The string functions and the hexadecimal text, each into a block of exactly the given size, compared with a simple
// model of each.
#include "encoding.h"
#include "strutil.h"

#include "tests/fuzz/input.h"

#include <algorithm>
#include <cctype>
#include <cstring>
#include <memory>
#include <string>

namespace {

using fuzz::require;

// A block of exactly this size, so that every byte after it is out of bounds.
std::unique_ptr<char[]> block(std::size_t size, char fill)
{
    auto result = std::make_unique<char[]>(size);
    std::fill(result.get(), result.get() + size, fill);
    return result;
}

// The text in a block that ends with its terminator.
std::unique_ptr<char[]> exact(const std::string &text)
{
    auto result = block(text.size() + 1, '\0');
    std::copy(text.begin(), text.end(), result.get());
    return result;
}

void copy(const std::string &text, std::size_t room)
{
    auto dst = block(room, '#');
    require(strlcpy(dst.get(), exact(text).get(), room) == text.size());
    if (room != 0)
        require(dst.get() == text.substr(0, room - 1));
}

void append(const std::string &first, const std::string &second, std::size_t room)
{
    auto dst = block(room, '#');
    std::size_t held = std::min(first.size(), room);
    std::copy(first.begin(), first.begin() + static_cast<std::ptrdiff_t>(held), dst.get());
    if (held < room)
        dst[held] = '\0';
    require(strlcat(dst.get(), exact(second).get(), room) == held + second.size());
    if (held < room)
        require(dst.get() == (first + second).substr(0, room - 1));
}

void search(const std::string &haystack, const std::string &needle)
{
    auto same = [](char a, char b) {
        return std::tolower(static_cast<unsigned char>(a)) == std::tolower(static_cast<unsigned char>(b));
    };
    auto text = exact(haystack);
    auto found = std::search(haystack.begin(), haystack.end(), needle.begin(), needle.end(), same);
    const char *expected =
        found != haystack.end() || needle.empty() ? text.get() + (found - haystack.begin()) : nullptr;
    if (needle.empty())
        expected = text.get();
    require(strcasestr(text.get(), exact(needle).get()) == expected);
}

std::size_t length_of(char first)
{
    auto b = static_cast<unsigned char>(first);
    if (b < 0xC0 || b >= 0xFE)
        return 1;
    return b < 0xE0 ? 2 : b < 0xF0 ? 3 : b < 0xF8 ? 4 : b < 0xFC ? 5 : 6;
}

void trim(const std::string &name, std::size_t room)
{
    auto dst = block(room, '#');
    require(trim_utf8_name(dst.get(), exact(name).get(), room) == dst.get());
    if (room < 2) { // too small for the mark
        require(room == 0 || dst[0] == '\0');
        return;
    }
    std::string expected = name;
    if (name.size() >= room) {
        std::size_t end = 0;
        while (end + length_of(name[end]) < room - 1)
            end += length_of(name[end]);
        expected = name.substr(0, end) + "~";
    }
    require(dst.get() == expected);
    for (char c : name)
        require(static_cast<std::size_t>(get_utf8_byte_count_by_1st_byte(static_cast<unsigned char>(c))) ==
                length_of(c));
}

void hex(const std::string &bytes, std::size_t room)
{
    auto dst = block(room, '#');
    auto *src = reinterpret_cast<const unsigned char *>(bytes.data());
    int result = hex_to_str(src, dst.get(), static_cast<unsigned>(bytes.size()), static_cast<unsigned>(room));
    if (room <= 2 * bytes.size()) {
        require(result == -1);
        return;
    }
    std::string expected;
    for (char c : bytes) {
        char digits[3];
        std::snprintf(digits, sizeof digits, "%02x", static_cast<unsigned char>(c));
        expected += digits;
    }
    require(result == static_cast<int>(expected.size()) + 1 && dst.get() == expected);
}

} // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t *data, std::size_t size)
{
    fuzz::Input input(data, size);
    const std::size_t room = input.byte();
    const std::string first = input.text(), second = input.text();
    copy(first, room);
    append(first, second, room);
    search(first, second);
    search(first + second, second);
    trim(first, room);
    hex(first + '\0' + second, room);
    return 0;
}
