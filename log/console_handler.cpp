// SPDX-License-Identifier: Apache-2.0
// Console and log output inside the handlers of signals that are not fatal, and what the ordinary path shares with it.
#include "base/cancel_guard.h"
#include "base/civil_time.h"
#include "base/errno_guard.h"
#include "log/console_output.h"
#include "log/handler_format.h"
#include "signal_printf.h"
#include "time/zone_offset.h"

#include <climits>
#include <cstdarg>
#include <ctime>

// The host says whether console output is to be kept off; without an answer it is not.
extern "C" __attribute__((weak)) int qv_is_numa_ssm(void);

namespace console {
namespace {

// The ordinary stamp, in local time by the offset that ordinary code left; UTC if nothing did so yet.
struct handler_stamp {
    static std::size_t make_prefix(char (&out)[kPrefixSize])
    {
        std::time_t now = std::time(nullptr);
        zone::offsets zone;
        zone::load_offsets(&zone);
        std::time_t local;
        if (now == -1 || __builtin_add_overflow(now, zone.at(now), &local))
            return 0;
        base::civil_time date = base::civil_from_time(local);
        if (date.year - 1900 > INT_MAX || date.year - 1900 < INT_MIN)
            return 0; // no calendar of the C library has it
        int length = date.year == 1970
                         ? signal_snprintf(out, sizeof out, "uptime %d ", static_cast<int>(now))
                         : signal_snprintf(out, sizeof out, "%04ld-%02ld-%02ld %02ld:%02ld:%02ld ", date.year,
                                           static_cast<long>(date.month), static_cast<long>(date.day),
                                           static_cast<long>(date.hour), static_cast<long>(date.minute),
                                           static_cast<long>(date.second));
        return static_cast<std::size_t>(length);
    }

    static std::size_t make_notice(char (&out)[kNoticeSize], unsigned long drops)
    {
        return static_cast<std::size_t>(
            signal_snprintf(out, sizeof out, "Pid %d drops total %lu logs as file oversize\n", ::getpid(), drops));
    }
};

using shared_output = output<ordinary_path>;

int print_ordinary(const char *format, va_list ap, int error)
{
    int to_console = console_wanted();
    show_to_mirror(format, ap, error);
    char text[kMessageSize];
    int length = format_in_handler(text, sizeof text, format, ap, error);
    std::size_t size = stored(length, sizeof text);
    if (to_console != 0)
        shared_output::to_console(text, size);
    shared_output::to_log<handler_stamp>(kConsoleLog, text, size);
    return length;
}

} // namespace

int console_wanted()
{
    if (qv_is_numa_ssm == nullptr)
        return 1;
    base::errno_guard keep;
    return qv_is_numa_ssm() == 0 ? 1 : 0;
}

void show_to_mirror(const char *format, va_list ap, int error)
{
    auto mirror = mirror_func;
    if (mirror == nullptr)
        return;
    va_list copy;
    va_copy(copy, ap);
    errno = error;
    mirror(format, copy);
    va_end(copy);
}

int print_from_handler(const char *format, ...)
{
    base::cancel_guard whole;
    base::errno_guard caller;
    va_list ap;
    va_start(ap, format);
    int length = in_signal_context() != 0 ? console_print_args_sigctx(console_wanted(), kConsoleLog, format, ap)
                                          : print_ordinary(format, ap, caller.saved());
    va_end(ap);
    return length;
}

} // namespace console
