// SPDX-License-Identifier: Apache-2.0
// The signal-safe formatter: a cursor that cannot leave its buffer, the renderer of numbers, the parser of
// conversions, and the loop over a format.
#include "signal_printf.h"

#include "base/errno_guard.h"

#include <algorithm>
#include <array>
#include <bit>
#include <climits>
#include <cstdarg>
#include <cstdint>
#include <cstring>
#include <string_view>
#include <unistd.h>

using namespace qv;

int __res;

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

// Writes into the scratch buffer. The budget never splits an element, so a single element may be longer than the room:
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

    // copy() for text followed by at least kSlack readable bytes. A copy of fixed size compiles to a few moves; one of
    // variable length is a call, which a line of numbers would make for each number.
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

constexpr int kMaxDigits = 64; // base 2

constexpr std::array<char, 200> kDecimalPairs = [] {
    std::array<char, 200> pairs{};
    for (std::size_t i = 0; i < 100; i++) {
        pairs[2 * i] = static_cast<char>('0' + i / 10);
        pairs[2 * i + 1] = static_cast<char>('0' + i % 10);
    }
    return pairs;
}();

// The digits of value, most significant first, at the end of buffer; returns where they start. Each division gives two
// decimal digits, which halves the chain of dependent divisions.
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

// Base 2 or 8.
char *render_power_of_two(char *end, unsigned long value, unsigned shift)
{
    unsigned long mask = (1UL << shift) - 1;
    do {
        *--end = static_cast<char>('0' + (value & mask));
        value >>= shift;
    } while (value != 0);
    return end;
}

// The eight hexadecimal digits of a value, the most significant in the highest byte: all of them at once, since a crash
// log has hundreds of addresses: a loop over the digits makes a line of them a sixth slower.
std::uint64_t hex_digits(std::uint32_t value, bool lower)
{
    constexpr std::uint64_t kEach = 0x0101010101010101;
    std::uint64_t nibbles = value; // one a byte after three steps, each of which halves the groups
    nibbles = (nibbles | nibbles << 16) & 0x0000ffff0000ffff;
    nibbles = (nibbles | nibbles << 8) & 0x00ff00ff00ff00ff;
    nibbles = (nibbles | nibbles << 4) & 0x0f0f0f0f0f0f0f0f;
    const std::uint64_t letters = (nibbles + 6 * kEach) >> 4 & kEach; // 1 for a digit above 9
    const std::uint64_t to_letter = lower ? 'a' - '9' - 1 : 'A' - '9' - 1;
    return nibbles + '0' * kEach + letters * to_letter;
}

// All sixteen digits are stored, the leading zeros of them before the result.
char *render_hex(char *end, unsigned long value, bool lower)
{
    static_assert(std::endian::native == std::endian::little);
    const std::uint64_t halves[] = {__builtin_bswap64(hex_digits(static_cast<std::uint32_t>(value >> 32), lower)),
                                    __builtin_bswap64(hex_digits(static_cast<std::uint32_t>(value), lower))};
    std::memcpy(end - sizeof halves, halves, sizeof halves);
    return end - std::max<long>((static_cast<long>(std::bit_width(value)) + 3) / 4, 1);
}

char *render_digits(char *end, unsigned long value, int base, bool lower)
{
    if (base == 10)
        return render_decimal(end, value);
    return base == 16 ? render_hex(end, value, lower) : render_power_of_two(end, value, base == 8 ? 3 : 1);
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
    char *first = render_digits(end, value, base, (flags & FMT_LOWER) != 0);
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

// ---- conversions ----

bool is_digit(char c)
{
    return c >= '0' && c <= '9';
}

// The value of a run of digits; a number above INT_MAX counts as INT_MAX.
int read_number(const char **s)
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

// One of H, L, l, optionally followed by a second l or L.
bool skip_length(const char **s)
{
    if (**s != 'H' && **s != 'L' && **s != 'l')
        return false;
    ++*s;
    if (**s == 'l' || **s == 'L')
        ++*s;
    return true;
}

// One conversion of a format, as "%-20.5ld".
struct conversion {
    unsigned flags;
    long width;     // -1 for none
    long precision; // -1 for none
    bool has_length;
    char letter; // '\0' where the format ends within the conversion
};

// Parses the conversion after a '%' and moves after its letter, or to the end of the format.
conversion parse_conversion(const char **s)
{
    conversion result;
    result.flags = read_flags(s);
    result.width = is_digit(**s) ? read_number(s) : -1;
    result.precision = -1;
    if (**s == '.') {
        ++*s;
        result.precision = read_number(s);
    }
    result.has_length = skip_length(s);
    result.letter = **s;
    if (result.letter != '\0')
        ++*s;
    return result;
}

void put_text(cursor &out, const conversion &field, const char *text, std::size_t length)
{
    long padding = field.width - static_cast<long>(length);
    if ((field.flags & FMT_LEFT) == 0) {
        out.fill(' ', padding);
        padding = 0;
    }
    out.copy(text, length);
    out.fill(' ', padding);
}

void put_string(cursor &out, const conversion &field, const char *text)
{
    std::size_t length =
        field.precision >= 0 ? ::strnlen(text, static_cast<std::size_t>(field.precision)) : std::strlen(text);
    put_text(out, field, text, length);
}

void put_number(cursor &out, const conversion &field, unsigned long value, int base, unsigned more_flags = 0)
{
    number(out, value, base, field.width, field.precision, field.flags | more_flags);
}

// The prefix is outside the field; the digits are in upper case, contract: log readers know them so.
void put_pointer(cursor &out, conversion field, const void *pointer)
{
    out.copy("0x", 2);
    if (field.width == -1) {
        field.width = 0;
        field.flags |= FMT_ZERO_PAD;
    }
    put_number(out, field, reinterpret_cast<std::uintptr_t>(pointer), 16);
}

// The arguments of a call. The first length makes all later d, i and u of the call read a long, contract: formats in
// use count on it.
struct arguments {
    va_list list;
    bool are_long = false;

    long next_integer() { return are_long ? va_arg(list, long) : va_arg(list, int); }
};

void render(cursor &out, const conversion &field, arguments &args)
{
    switch (field.letter) {
    case 'c': {
        char c = static_cast<char>(va_arg(args.list, int));
        return put_text(out, field, &c, 1);
    }
    case 's':
        return put_string(out, field, va_arg(args.list, const char *));
    case 'd':
    case 'i':
        return put_number(out, field, static_cast<unsigned long>(args.next_integer()), 10, FMT_SIGNED);
    case 'u':
        return put_number(out, field, static_cast<unsigned long>(args.next_integer()), 10);
    case 'b':
        return put_number(out, field, static_cast<unsigned long>(long{va_arg(args.list, int)}), 2);
    case 'o':
        return put_number(out, field, va_arg(args.list, unsigned long), 8);
    case 'x':
        return put_number(out, field, va_arg(args.list, unsigned long), 16, FMT_LOWER);
    case 'X':
        return put_number(out, field, va_arg(args.list, unsigned long), 16);
    case 'p':
        return put_pointer(out, field, va_arg(args.list, void *));
    case 'n':
        *va_arg(args.list, int *) = static_cast<int>(out.produced());
        return;
    case '%':
        return out.put('%');
    default:
        out.put('%');
        return out.put(field.letter);
    }
}

// ---- the loop over a format ----

// Plain text up to the next '%'. Each character is a separate element: the run ends where the budget test would stop
// it.
void copy_plain_text(cursor &out, const char **fmt)
{
    std::size_t run = 1;
    auto most = static_cast<std::size_t>(std::max(out.remaining() - kLowWater, 1L));
    while (run < most && (*fmt)[run] != '\0' && (*fmt)[run] != '%')
        run++;
    out.copy(*fmt, run);
    *fmt += run;
}

// Tests the budget between two elements; says in the text that it is used up, where there is room for that.
bool is_budget_used(cursor &out)
{
    if (out.remaining() > kLowWater)
        return false;
    if (out.remaining() >= kNoticeRoom)
        out.copy(kNotice.data(), kNotice.size());
    return true;
}

int sig_sprintf(char *buf, const char *fmt, va_list list)
{
    cursor out(buf);
    arguments args;
    va_copy(args.list, list);
    while (*fmt != '\0') {
        bool is_tested = true;
        if (*fmt != '%') {
            copy_plain_text(out, &fmt);
        } else {
            fmt++;
            conversion field = parse_conversion(&fmt);
            args.are_long = args.are_long || field.has_length;
            if (field.letter == '\0') {
                out.put('%');
                break;
            }
            render(out, field, args);
            is_tested = field.letter != 'n';
        }
        if (is_tested && *fmt != '\0' && is_budget_used(out))
            break;
    }
    va_end(args.list);
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

} // extern "C"
