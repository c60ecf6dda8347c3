// SPDX-License-Identifier: Apache-2.0
// Console and log output inside the fatal-signal handler: no heap, no lock, nothing shared with the ordinary path.
#include "base/cancel_guard.h"
#include "base/errno_guard.h"
#include "log/civil_time.h"
#include "log/console_output.h"
#include "log/handler_format.h"
#include "signal_printf.h"

#include <ctime>
#include <sys/syscall.h>
#include <sys/time.h>

using namespace qv;

namespace {

// The date by the raw system call, which does not use the C library's time-zone code. The label says UTC although the
// kernel's zone offset is applied, contract: the offset is 0 on most machines, and log readers search for the label.
std::size_t date_prefix(char (&out)[console::kPrefixSize])
{
    timeval now;
    struct timezone zone;
    if (::syscall(SYS_gettimeofday, &now, &zone) != 0)
        return 0;
    console::civil_time date = console::civil_from_time(now.tv_sec - 60L * zone.tz_minuteswest);
    if (date.year == 1970)
        return 0;
    int length =
        signal_snprintf(out, sizeof out, "%04ld-%02ld-%02ld %02ld:%02ld:%02ld(UTC) ", date.year,
                        static_cast<long>(date.month), static_cast<long>(date.day), static_cast<long>(date.hour),
                        static_cast<long>(date.minute), static_cast<long>(date.second));
    return static_cast<std::size_t>(length);
}

std::size_t uptime_prefix(char (&out)[console::kPrefixSize])
{
    std::time_t now = std::time(nullptr);
    if (now == -1)
        return 0;
    return static_cast<std::size_t>(signal_snprintf(out, sizeof out, "uptime %d ", static_cast<int>(now)));
}

struct utc_stamp {
    static std::size_t make_prefix(char (&out)[console::kPrefixSize])
    {
        std::size_t length = date_prefix(out);
        return length > 0 ? length : uptime_prefix(out);
    }
};

using output = console::output<console::fatal_path>;

} // namespace

extern "C" int console_print_args_sigctx(int to_console, const char *log_path, const char *format, va_list ap)
{
    base::cancel_guard whole;
    base::errno_guard caller;
    char text[console::kMessageSize] = {};
    auto formatted = static_cast<unsigned>(console::format_in_handler(text, sizeof text, format, ap, caller.saved()));
    // Longer text, or none because formatting failed, counts as the whole buffer, its terminating zero included.
    auto length = std::min<std::size_t>(formatted, sizeof text);

    if (to_console != 0)
        output::to_console(text, length);
    if (log_path != nullptr)
        output::to_log<utc_stamp>(log_path, text, length);
    return static_cast<int>(length);
}
