// SPDX-License-Identifier: Apache-2.0
// text_scanner.h - numbers and words off the front of a line.
#ifndef QVCRASH_TEXT_SCANNER_H
#define QVCRASH_TEXT_SCANNER_H

#include <algorithm>
#include <charconv>
#include <string>
#include <string_view>

namespace qvcrash {

// The first line, without its newline, is taken off the text.
inline std::string_view next_line(std::string_view &text)
{
    std::size_t end = text.find('\n');
    std::string_view line = text.substr(0, end);
    text.remove_prefix(end == std::string_view::npos ? text.size() : end + 1);
    return line;
}

// A log that came through a terminal, mail or another system may have a carriage return before each newline. Such a
// text is copied to `plain` without them.
inline std::string_view with_plain_lines(std::string_view text, std::string *plain)
{
    constexpr std::string_view kEnding = "\r\n";
    if (text.find(kEnding) == std::string_view::npos)
        return text;
    plain->clear();
    plain->reserve(text.size());
    for (std::size_t end; (end = text.find(kEnding)) != std::string_view::npos;) {
        plain->append(text.substr(0, end)).append(1, '\n');
        text.remove_prefix(end + kEnding.size());
    }
    return plain->append(text);
}

// Each function takes what it reads off the front and returns true, or leaves the text alone and returns false.
class text_scanner {
public:
    explicit text_scanner(std::string_view text) : text_(text) {}

    std::string_view rest() const { return text_; }
    bool is_at_end() const { return text_.empty(); }

    bool skip(std::string_view expected)
    {
        if (!text_.starts_with(expected))
            return false;
        text_.remove_prefix(expected.size());
        return true;
    }

    void skip_blanks() { text_.remove_prefix(std::min(text_.find_first_not_of(" \t"), text_.size())); }

    template <typename Number>
    bool number(Number *value, int base = 10)
    {
        skip_blanks();
        auto [end, error] = std::from_chars(text_.data(), text_.data() + text_.size(), *value, base);
        if (error != std::errc{})
            return false;
        text_.remove_prefix(static_cast<std::size_t>(end - text_.data()));
        return true;
    }

    // Up to the next blank.
    std::string_view word()
    {
        skip_blanks();
        std::string_view result = text_.substr(0, text_.find(' '));
        text_.remove_prefix(result.size());
        return result;
    }

private:
    std::string_view text_;
};

} // namespace qvcrash

#endif
