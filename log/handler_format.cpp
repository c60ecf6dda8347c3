// SPDX-License-Identifier: Apache-2.0
// Message texts inside signal handlers: %m is replaced in the format before the C library sees it.
#include "log/handler_format.h"

#include "signal_printf.h"

#include <cerrno>
#include <cstdio>
#include <cstring>

namespace qv::console {
namespace {

constexpr std::size_t kFormatSize = 1024;
constexpr std::size_t kFormattedSize = 128;
constexpr std::size_t kLayoutSize = 16; // of one conversion
constexpr std::size_t kDescriptionSize = 64;

// One conversion of a format, as "%-20.5m".
struct conversion {
    const char *begin; // its '%'
    const char *end;   // after its letter

    char letter() const { return end[-1]; }

    // %#m is the error's name, which is never translated, and a width of '*' is an argument, which only the C library
    // can fetch. Those are not replaced.
    bool is_description() const
    {
        return letter() == 'm' && std::strspn(begin + 1, "-+ 0123456789.") == static_cast<std::size_t>(end - begin) - 2;
    }
};

// The next conversion at or after text; false at the end of the format.
bool next_conversion(const char *text, conversion *out)
{
    constexpr const char *kModifiers = "-+ #0'I123456789.*$hlqjzZtL";
    const char *begin = std::strchr(text, '%');
    if (begin == nullptr)
        return false;
    const char *letter = begin + 1;
    while (*letter != '\0' && std::strchr(kModifiers, *letter) != nullptr)
        letter++;
    if (*letter == '\0')
        return false;
    *out = {begin, letter + 1};
    return true;
}

bool describes_error(const char *format)
{
    conversion next;
    for (; next_conversion(format, &next); format = next.end) {
        if (next.is_description())
            return true;
    }
    return false;
}

// The text of a format under construction; full once something did not fit.
class format_buffer {
public:
    void append(const char *text, std::size_t length)
    {
        is_full_ = is_full_ || length >= sizeof text_ - length_;
        if (is_full_)
            return;
        std::memcpy(text_ + length_, text, length);
        length_ += length;
        text_[length_] = '\0';
    }

    void give_up() { is_full_ = true; }
    bool is_full() const { return is_full_; }
    const char *text() const { return text_; }

private:
    char text_[kFormatSize];
    std::size_t length_ = 0;
    bool is_full_ = false;
};

// Appends a description in its conversion's layout: "%-20.5m" as "%-20.5s". No description contains a '%'.
void append_description(format_buffer &out, const conversion &place, const char *description)
{
    auto length = static_cast<std::size_t>(place.end - place.begin);
    if (length == std::strlen("%m"))
        return out.append(description, std::strlen(description));
    char layout[kLayoutSize], text[kFormattedSize];
    if (length >= sizeof layout)
        return out.give_up();
    std::memcpy(layout, place.begin, length - 1);
    layout[length - 1] = 's';
    layout[length] = '\0';
    int formatted = signal_snprintf(text, sizeof text, layout, description);
    if (formatted == sizeof text - 1)
        return out.give_up(); // it may have been cut
    out.append(text, static_cast<std::size_t>(formatted));
}

const char *description_of(int error, char (&unknown)[kDescriptionSize])
{
    const char *known = ::strerrordesc_np(error);
    if (known != nullptr)
        return known;
    signal_snprintf(unknown, sizeof unknown, "Unknown error %d", error);
    return unknown;
}

// A separate frame, so that only messages with %m use stack for a second format.
[[gnu::noinline]] int format_with_description(char *out, std::size_t size, const char *format, va_list ap, int error)
{
    char unknown[kDescriptionSize];
    const char *description = description_of(error, unknown);
    format_buffer replaced;
    conversion next;
    const char *at = format;
    for (; next_conversion(at, &next); at = next.end) {
        if (next.is_description()) {
            replaced.append(at, static_cast<std::size_t>(next.begin - at));
            append_description(replaced, next, description);
        } else {
            replaced.append(at, static_cast<std::size_t>(next.end - at));
        }
    }
    replaced.append(at, std::strlen(at));
    errno = error;
    return std::vsnprintf(out, size, replaced.is_full() ? format : replaced.text(), ap);
}

} // namespace

int format_in_handler(char *out, std::size_t size, const char *format, va_list ap, int error)
{
    va_list copy;
    va_copy(copy, ap);
    errno = error;
    int length = describes_error(format) ? format_with_description(out, size, format, copy, error)
                                         : std::vsnprintf(out, size, format, copy);
    va_end(copy);
    return length;
}

} // namespace qv::console
