// SPDX-License-Identifier: Apache-2.0
// How console output opens its devices and logs.
#include "console_print.h"

#include "support/next_function.h"
#include "support/print_fatal.h"
#include "support/support.h"

#include <cstdarg>
#include <fcntl.h>
#include <map>

using namespace support;

extern "C" int qv_is_support_default_console_device(void)
{
    return 0; // so that the serial port is a separate output
}

namespace {

struct opening {
    int flags;
    mode_t mode;
    bool operator==(const opening &) const = default;
};

bool noting = false;
std::map<std::string, opening> openings;

} // namespace

extern "C" int open(const char *path, int flags, ...)
{
    static auto real = support::next_function<int(const char *, int, ...)>("open");
    va_list ap;
    va_start(ap, flags);
    mode_t mode = (flags & O_CREAT) != 0 ? va_arg(ap, mode_t) : 0;
    va_end(ap);
    if (noting)
        openings[path] = {flags, mode};
    return real(path, flags, mode);
}

namespace {

constexpr opening kLogOpening = {O_WRONLY | O_CREAT | O_APPEND, 0777};

} // namespace

TEST(ConsoleOpen, DevicesNeverBecomeTheControllingTerminal)
{
    bind_over("/proc/consoles", "tty0 -WU (EC p ) 4:1\n");
    noting = true;
    console_print("x\n");
    EXPECT_EQ((opening{O_WRONLY | O_NOCTTY, 0}), openings[kConsole]);
    EXPECT_EQ((opening{O_WRONLY | O_NOCTTY, 0}), openings[kSerial]);
    EXPECT_EQ(kLogOpening, openings["/etc/consolelog"]);
}

TEST(ConsoleOpen, TheFatalPathDoesNotBlockEither)
{
    bind_over("/proc/consoles", "tty0 -WU (EC p ) 4:1\n");
    noting = true;
    print_fatal(1, "/etc/fatal", "x\n");
    EXPECT_EQ((opening{O_WRONLY | O_NOCTTY | O_NONBLOCK, 0}), openings[kConsole]);
    EXPECT_EQ((opening{O_WRONLY | O_NOCTTY | O_NONBLOCK, 0}), openings[kSerial]);
    EXPECT_EQ(kLogOpening, openings["/etc/fatal"]);
}
