// SPDX-License-Identifier: Apache-2.0
// Console and log output outside signal handlers.
#include "console_print.h"

#include "base/cancel_guard.h"
#include "base/errno_guard.h"
#include "log/console_output.h"
#include "log/console_platform.h"
#include "signal_printf.h"
#include "time/local_time.h"

#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <ctime>
#include <string_view>

using namespace qv;

namespace {

constexpr std::size_t kMaxSize = 16383; // largest buffer, terminator included
constexpr std::string_view kTooLong = "Error: the size to output is beyond max length\n";
static_assert(kTooLong.size() == 47);

constexpr const char *kBootLog = "/etc/bootlog";
constexpr const char *kInfoLog = "/etc/ilog.txt";
constexpr const char *kPowerLog = "/flash/platform/powerlog";
constexpr const char *kFruLog = "/etc/fru_mlog";

constexpr int kYear1970 = 70; // of struct tm: the clock has not been set, so it counts the time since boot

void put_two_digits(char *at, long value)
{
    at[0] = static_cast<char>('0' + value / 10);
    at[1] = static_cast<char>('0' + value % 10);
}

// Without snprintf(), which needs a tenth of a line's time for these six numbers.
std::size_t put_date(char (&out)[console::kPrefixSize], const tm &date)
{
    const long year = date.tm_year + 1900L;
    if (year < 0 || year > 9999)
        return console::stored(std::snprintf(out, sizeof out, "%04ld-%02d-%02d %02d:%02d:%02d ", year, date.tm_mon + 1,
                                             date.tm_mday, date.tm_hour, date.tm_min, date.tm_sec),
                               sizeof out);
    constexpr std::string_view kDate = "0000-00-00 00:00:00 ";
    kDate.copy(out, kDate.size());
    put_two_digits(out, year / 100);
    put_two_digits(out + 2, year % 100);
    put_two_digits(out + 5, date.tm_mon + 1);
    put_two_digits(out + 8, date.tm_mday);
    put_two_digits(out + 11, date.tm_hour);
    put_two_digits(out + 14, date.tm_min);
    put_two_digits(out + 17, date.tm_sec);
    return kDate.size();
}

struct local_stamp {
    static std::size_t make_prefix(char (&out)[console::kPrefixSize])
    {
        std::time_t now = std::time(nullptr);
        tm date;
        if (now == -1 || !local_time::convert_for_log(now, &date))
            return 0;
        if (date.tm_year != kYear1970)
            return put_date(out, date);
        return console::stored(std::snprintf(out, sizeof out, "uptime %d ", static_cast<int>(now)), sizeof out);
    }
};

using output = console::output<console::ordinary_path>;

// The formatted message: in a buffer on the stack while it fits, else on the heap.
class message {
public:
    enum class state { ready, too_long, no_memory };

    message() = default;
    message(const message &) = delete;
    message &operator=(const message &) = delete;
    ~message() { std::free(heap_); }

    // Each formatting starts from the caller's errno, for %m.
    state format(const char *format, va_list ap, const base::errno_guard &caller)
    {
        length_ = format_once(stack_, sizeof stack_, format, ap, caller);
        std::size_t size = sizeof stack_;
        while (static_cast<unsigned>(length_) >= size) {
            if (length_ >= 0 && static_cast<std::size_t>(length_) >= kMaxSize)
                return state::too_long;
            size = length_ >= 0 ? static_cast<std::size_t>(length_) + 1 : size * 2;
            if (size > kMaxSize)
                return state::too_long;
            auto *grown = static_cast<char *>(std::realloc(heap_, size));
            if (grown == nullptr)
                return state::no_memory;
            heap_ = grown;
            std::memset(heap_, 0, size);
            length_ = format_once(heap_, size, format, ap, caller);
        }
        return state::ready;
    }

    const char *text() const { return heap_ != nullptr ? heap_ : stack_; }
    int length() const { return length_; }

private:
    static int format_once(char *out, std::size_t size, const char *format, va_list ap, const base::errno_guard &caller)
    {
        va_list copy;
        va_copy(copy, ap);
        errno = caller.saved();
        int length = std::vsnprintf(out, size, format, copy);
        va_end(copy);
        return length;
    }

    char stack_[console::kMessageSize]{};
    char *heap_ = nullptr;
    int length_ = 0;
};

} // namespace

// The whole body of a wrapper. A macro, because only the wrapper itself can start its list of variable arguments.
#define PRINT_TO(to_console, log_path)                                                                                 \
    va_list ap;                                                                                                        \
    va_start(ap, format);                                                                                              \
    int length = console_print_args(to_console, log_path, format, ap);                                                 \
    va_end(ap);                                                                                                        \
    return length

void console::forget_devices(int first)
{
    console::output<ordinary_path>::forget_devices(first);
    console::output<fatal_path>::forget_devices(first);
}

namespace {

int print_ordinary(int to_console, const char *log_path, const char *format, va_list ap)
{
    base::cancel_guard whole;
    base::errno_guard caller;
    console::show_to_mirror(format, ap, caller.saved());
    message text;
    switch (text.format(format, ap, caller)) {
    case message::state::too_long:
        output::to_open_console(kTooLong.data(), kTooLong.size());
        return text.length();
    case message::state::no_memory:
        return -1;
    case message::state::ready:
        break;
    }

    auto length = static_cast<std::size_t>(text.length());
    if (to_console != 0)
        output::to_console(text.text(), length);
    if (log_path != nullptr)
        output::to_log<local_stamp>(log_path, text.text(), length);
    return text.length();
}

} // namespace

extern "C" {

int console_print_args(int to_console, const char *log_path, const char *format, va_list ap)
{
    if (in_signal_context() != 0) {
        va_list copy;
        va_copy(copy, ap);
        int length = console_print_args_sigctx(to_console, log_path, format, copy);
        va_end(copy);
        return length;
    }
    int length = print_ordinary(to_console, log_path, format, ap);
    // A cancellation point, as the calls inside are: a thread that does nothing but print can be cancelled.
    ::pthread_testcancel();
    return length;
}

int console_print(const char *format, ...)
{
    PRINT_TO(console::console_wanted(), console::kConsoleLog);
}

int console_print_t(const char *format, ...)
{
    PRINT_TO(1, console::kConsoleLog);
}

int console_printv(const char *format, va_list ap)
{
    va_list copy;
    va_copy(copy, ap);
    int length = console_print_args(1, console::kConsoleLog, format, copy);
    va_end(copy);
    return length;
}

int console_print_nb(const char *format, ...)
{
    PRINT_TO(1, console::kConsoleLog);
}

int boot_print(const char *format, ...)
{
    PRINT_TO(0, kBootLog);
}

int qv_clog(const char *format, ...)
{
    PRINT_TO(0, console::kConsoleLog);
}

int qv_ilog(const char *format, ...)
{
    PRINT_TO(0, kInfoLog);
}

int qv_plog(const char *format, ...)
{
    PRINT_TO(0, kPowerLog);
}

int qv_fru_mlog(const char *format, ...)
{
    PRINT_TO(0, kFruLog);
}

} // extern "C"
