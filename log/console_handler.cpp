// SPDX-License-Identifier: Apache-2.0
// Console and log output inside the handlers of signals that are not fatal.
#include "base/cancel_guard.h"
#include "base/errno_guard.h"
#include "log/civil_time.h"
#include "log/console_output.h"
#include "log/console_platform.h"
#include "log/handler_format.h"
#include "signal_printf.h"
#include "time/zone_offset.h"

#include <climits>
#include <cstdarg>
#include <ctime>

namespace qv::console {
namespace {

// The ordinary stamp, in local time by the offset that ordinary code stored; in UTC before that.
struct handler_stamp {
    static std::size_t make_prefix(char (&out)[kPrefixSize])
    {
        std::time_t now = std::time(nullptr);
        zone::offsets zone;
        zone::load_offsets(&zone);
        std::time_t local;
        if (now == -1 || __builtin_add_overflow(now, zone.at(now), &local))
            return 0;
        civil_time date = civil_from_time(local);
        if (date.year - 1900 > INT_MAX || date.year - 1900 < INT_MIN)
            return 0; // not representable in struct tm
        int length = date.year == 1970
                         ? signal_snprintf(out, sizeof out, "uptime %d ", static_cast<int>(now))
                         : signal_snprintf(out, sizeof out, "%04ld-%02ld-%02ld %02ld:%02ld:%02ld ", date.year,
                                           static_cast<long>(date.month), static_cast<long>(date.day),
                                           static_cast<long>(date.hour), static_cast<long>(date.minute),
                                           static_cast<long>(date.second));
        return static_cast<std::size_t>(length);
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

} // namespace qv::console
