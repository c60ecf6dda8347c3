// SPDX-License-Identifier: Apache-2.0
// The signal-safe formatter: a cursor that cannot leave its buffer, the number renderer, and the format walk.
#include "fault/signal_format.h"
#include "signal_printf.h"

#include "base/errno_guard.h"
#include "fault/running_handlers.h"

#include <algorithm>
#include <array>
#include <climits>
#include <cstdarg>
#include <cstdint>
#include <cstring>
#include <string_view>
#include <unistd.h>

int __res;
int signal_context_flag;

namespace {

constexpr int kBudget = 1024;   // size of the scratch buffer, terminator included
constexpr int kLowWater = 99;   // with this much left or less, formatting stops ...
constexpr int kNoticeRoom = 51; // ... and says so when this much is left
constexpr std::string_view kNotice = "Notice: The buffer close to overflow!!!\n";
static_assert(kNotice.size() == 40);

enum format_flag : unsigned {
    FMT_ZERO_PAD = 0x1,
    FMT_SIGNED = 0x10,
    FMT_PLUS = 0x100,
    FMT_SPACE = 0x1000,
    FMT_LEFT = 0x10000,
    FMT_LOWER = 0x100000,
};

// Writes into the scratch buffer. Elements are never split by the budget, so a single one may be longer than the room:
// it is counted in full, which ends the formatting, and stored as far as it fits.
class cursor {
public:
    explicit cursor(char *buffer) : begin_(buffer), at_(buffer), limit_(buffer + kBudget - 1) {}

    void put(char c)
    {
        if (at_ < limit_)
            *at_++ = c;
        else
            lost_++;
    }

    void fill(char c, long count)
    {
        if (count <= 0)
            return;
        long fits = std::min<long>(count, limit_ - at_);
        for (long i = 0; i < fits; i++) // runs of a few characters: a call costs more than the loop
            at_[i] = c;
        at_ += fits;
        lost_ += count - fits;
    }

    void copy(const char *text, std::size_t count)
    {
        std::size_t fits = std::min<std::size_t>(count, static_cast<std::size_t>(limit_ - at_));
        std::memcpy(at_, text, fits);
        at_ += fits;
        lost_ += static_cast<long>(count - fits);
    }

    // The same for text with kSlack readable bytes at hand: a copy of fixed size is a few moves, one of a length known
    // at run time a call, which a line of numbers pays for each of them.
    static constexpr std::size_t kSlack = 16;
    void copy_short(const char *text, std::size_t count)
    {
        if (count > kSlack || limit_ - at_ < static_cast<long>(kSlack)) {
            copy(text, count);
            return;
        }
        std::memcpy(at_, text, kSlack);
        at_ += count;
    }

    long produced() const { return at_ - begin_ + lost_; }
    long remaining() const { return kBudget - produced(); }

    int finish()
    {
        *at_ = '\0';
        return static_cast<int>(at_ - begin_);
    }

private:
    char *begin_;
    char *at_;
    char *limit_;   // the last byte, kept for the terminator
    long lost_ = 0; // characters that did not fit
};

// ---- numbers ----

constexpr char kUpperDigits[] = "0123456789ABCDEF";
constexpr char kLowerDigits[] = "0123456789abcdef";
constexpr int kMaxDigits = 64; // base 2

constexpr std::array<char, 200> kDecimalPairs = [] {
    std::array<char, 200> pairs{};
    for (std::size_t i = 0; i < 100; i++) {
        pairs[2 * i] = static_cast<char>('0' + i / 10);
        pairs[2 * i + 1] = static_cast<char>('0' + i % 10);
    }
    return pairs;
}();

// The digits of value, most significant first, at the end of buffer; returns where they start. Decimal goes two digits
// a division, which halves the chain of dependent divisions that a log line of numbers is made of.
char *render_decimal(char *end, unsigned long value)
{
    while (value >= 100) {
        end -= 2;
        std::memcpy(end, &kDecimalPairs[2 * (value % 100)], 2);
        value /= 100;
    }
    if (value >= 10) {
        end -= 2;
        std::memcpy(end, &kDecimalPairs[2 * value], 2);
        return end;
    }
    *--end = static_cast<char>('0' + value);
    return end;
}

char *render_power_of_two(char *end, unsigned long value, unsigned shift, const char *digits)
{
    unsigned long mask = (1UL << shift) - 1;
    do {
        *--end = digits[value & mask];
        value >>= shift;
    } while (value != 0);
    return end;
}

int digit_value(char digit)
{
    return digit <= '9' ? digit - '0' : (digit | 0x20) - 'a' + 10;
}

char sign_of(unsigned long *value, unsigned flags)
{
    if ((flags & FMT_SIGNED) != 0 && static_cast<long>(*value) < 0) {
        *value = 0 - *value;
        return '-';
    }
    if ((flags & FMT_PLUS) != 0)
        return '+';
    return (flags & FMT_SPACE) != 0 ? ' ' : '\0';
}

void number(cursor &out, unsigned long value, int base, long width, long precision, unsigned flags)
{
    if ((flags & FMT_LEFT) != 0)
        flags &= ~static_cast<unsigned>(FMT_ZERO_PAD);
    char sign = sign_of(&value, flags);
    if (sign != '\0')
        width--;

    char digits[kMaxDigits + cursor::kSlack];
    char *end = digits + kMaxDigits;
    const char *table = (flags & FMT_LOWER) != 0 ? kLowerDigits : kUpperDigits;
    char *first = base == 10 ? render_decimal(end, value)
                             : render_power_of_two(end, value,
                                                   base == 16  ? 4
                                                   : base == 8 ? 3
                                                               : 1,
                                                   table);
    long count = end - first;
    if (value != 0)
        __res = digit_value(*first);

    precision = std::max(precision, count);
    width -= precision;
    if ((flags & (FMT_ZERO_PAD | FMT_LEFT)) == 0) {
        out.fill(' ', width);
        width = 0;
    }
    if (sign != '\0')
        out.put(sign);
    if ((flags & FMT_LEFT) == 0) {
        out.fill('0', width);
        width = 0;
    }
    out.fill('0', precision - count);
    out.copy_short(first, static_cast<std::size_t>(count));
    out.fill(' ', width);
}

// ---- the format walk ----

bool is_digit(char c)
{
    return c >= '0' && c <= '9';
}

// The value of a run of digits; more than an int holds counts as the most that it holds.
int getFieldWidth(const char **s)
{
    int value = 0;
    for (; is_digit(**s); ++*s) {
        int digit = **s - '0';
        value = value > (INT_MAX - digit) / 10 ? INT_MAX : value * 10 + digit;
    }
    return value;
}

unsigned read_flags(const char **s)
{
    unsigned flags = 0;
    for (;; ++*s) {
        switch (**s) {
        case '+':
            flags |= FMT_PLUS;
            break;
        case ' ':
            flags |= FMT_SPACE;
            break;
        case '-':
            flags |= FMT_LEFT;
            break;
        case '0':
            flags |= FMT_ZERO_PAD;
            break;
        default:
            return flags;
        }
    }
}

// One of H, L, l, with a second l or L behind it.
bool skip_length(const char **s)
{
    if (**s != 'H' && **s != 'L' && **s != 'l')
        return false;
    ++*s;
    if (**s == 'l' || **s == 'L')
        ++*s;
    return true;
}

void put_text(cursor &out, const char *text, std::size_t length, long width, unsigned flags)
{
    long padding = width - static_cast<long>(length);
    if ((flags & FMT_LEFT) == 0) {
        out.fill(' ', padding);
        padding = 0;
    }
    out.copy(text, length);
    out.fill(' ', padding);
}

int sig_sprintf(char *buf, const char *fmt, va_list args)
{
    cursor out(buf);
    // Set by the first length and kept for the rest of the call: formats in use count on later plain d and u taking a
    // long as well.
    bool qualifier_seen = false;

    while (*fmt != '\0') {
        if (*fmt != '%') {
            // Each plain character is an element of its own; a run may go on until the budget test would stop it.
            std::size_t run = 1;
            auto most = static_cast<std::size_t>(std::max(out.remaining() - kLowWater, 1L));
            while (run < most && fmt[run] != '\0' && fmt[run] != '%')
                run++;
            out.copy(fmt, run);
            fmt += run;
        } else {
            fmt++;
            unsigned flags = read_flags(&fmt);
            long width = is_digit(*fmt) ? getFieldWidth(&fmt) : -1;
            long precision = -1;
            if (*fmt == '.') {
                fmt++;
                precision = getFieldWidth(&fmt);
            }
            qualifier_seen = skip_length(&fmt) || qualifier_seen;

            char conversion = *fmt;
            if (conversion == '\0') {
                out.put('%');
                return out.finish();
            }
            fmt++;
            switch (conversion) {
            case 'c': {
                char c = static_cast<char>(va_arg(args, int));
                put_text(out, &c, 1, width, flags);
                break;
            }
            case 's': {
                const char *text = va_arg(args, const char *);
                std::size_t length =
                    precision >= 0 ? ::strnlen(text, static_cast<std::size_t>(precision)) : std::strlen(text);
                put_text(out, text, length, width, flags);
                break;
            }
            case 'd':
            case 'i':
            case 'u': {
                long value = qualifier_seen ? va_arg(args, long) : va_arg(args, int);
                unsigned is_signed = conversion == 'u' ? 0U : FMT_SIGNED;
                number(out, static_cast<unsigned long>(value), 10, width, precision, flags | is_signed);
                break;
            }
            case 'b': {
                long value = va_arg(args, int);
                number(out, static_cast<unsigned long>(value), 2, width, precision, flags);
                break;
            }
            case 'o':
                number(out, va_arg(args, unsigned long), 8, width, precision, flags);
                break;
            case 'x':
                number(out, va_arg(args, unsigned long), 16, width, precision, flags | FMT_LOWER);
                break;
            case 'X':
                number(out, va_arg(args, unsigned long), 16, width, precision, flags);
                break;
            case 'p':
                // The prefix stands outside the field; the digits keep the upper case that log readers know.
                out.copy("0x", 2);
                if (width == -1) {
                    width = 0;
                    flags |= FMT_ZERO_PAD;
                }
                number(out, reinterpret_cast<std::uintptr_t>(va_arg(args, void *)), 16, width, precision, flags);
                break;
            case 'n':
                *va_arg(args, int *) = static_cast<int>(out.produced());
                continue; // without the budget test
            case '%':
                out.put('%');
                break;
            default:
                out.put('%');
                out.put(conversion);
                break;
            }
        }

        if (*fmt != '\0' && out.remaining() <= kLowWater) {
            if (out.remaining() >= kNoticeRoom)
                out.copy(kNotice.data(), kNotice.size());
            break;
        }
    }
    return out.finish();
}

} // namespace

extern "C" {

void signal_printf(int fd, const char *fmt, ...)
{
    char text[kBudget];
    va_list args;
    va_start(args, fmt);
    int length = sig_sprintf(text, fmt, args);
    va_end(args);

    base::errno_guard keep;
    [[maybe_unused]] ssize_t ignored = ::write(fd, text, static_cast<std::size_t>(length));
}

int signal_snprintf(char *buf, int size, const char *fmt, ...)
{
    if (size < 1)
        return 0;
    char text[kBudget];
    va_list args;
    va_start(args, fmt);
    int length = std::min(sig_sprintf(text, fmt, args), size - 1);
    va_end(args);

    std::memcpy(buf, text, static_cast<std::size_t>(length));
    buf[length] = '\0';
    return length;
}

int in_signal_context(void)
{
    return signal_context_flag != 0 && fault::is_handler_running() ? 1 : 0;
}
}
