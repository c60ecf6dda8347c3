// SPDX-License-Identifier: Apache-2.0
#include "printable.h"

#include <cstdio>

namespace qvcrash {
namespace {

bool is_continuation(char c)
{
    return (static_cast<unsigned char>(c) & 0xC0) == 0x80;
}

// The size of the UTF-8 sequence that the text begins with; 0 when it begins with none, or with a control character.
std::size_t sequence_size(std::string_view text)
{
    auto first = static_cast<unsigned char>(text.front());
    if (first < 0x80)
        return (first >= 0x20 && first != 0x7F) || first == '\t' ? 1 : 0;
    std::size_t size = first >= 0xF0 ? 4 : first >= 0xE0 ? 3 : 2;
    if (first < 0xC2 || first > 0xF4 || text.size() < size)
        return 0;
    for (std::size_t i = 1; i < size; i++) {
        if (!is_continuation(text[i]))
            return 0;
    }
    // U+0080 to U+009F are control characters too; U+0800 and U+10000 are the first of the longer sequences.
    auto second = static_cast<unsigned char>(text[1]);
    bool is_bad =
        (first == 0xC2 && second < 0xA0) || (first == 0xE0 && second < 0xA0) || (first == 0xF0 && second < 0x90);
    return is_bad ? 0 : size;
}

} // namespace

std::string printable(std::string_view text)
{
    std::string result;
    while (!text.empty()) {
        std::size_t size = sequence_size(text);
        if (size != 0) {
            result += text.substr(0, size);
        } else {
            char escaped[8];
            std::snprintf(escaped, sizeof escaped, "\\x%02x", static_cast<unsigned char>(text.front()));
            result += escaped;
            size = 1;
        }
        text.remove_prefix(size);
    }
    return result;
}

} // namespace qvcrash
