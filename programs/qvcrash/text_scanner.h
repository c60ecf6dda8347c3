// SPDX-License-Identifier: Apache-2.0
// text_scanner.h - numbers and words off the front of a line.
#ifndef QVCRASH_TEXT_SCANNER_H
#define QVCRASH_TEXT_SCANNER_H

#include <algorithm>
#include <charconv>
#include <string_view>

namespace qvcrash {

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
