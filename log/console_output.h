// SPDX-License-Identifier: Apache-2.0
// console_output.h - writes a formatted message to the console devices and a log file.
//
// Two paths share this shape: the ordinary one and that of the fatal-signal handler. They must not share any state,
// since the handler may interrupt the ordinary path anywhere. So all state is in the template, one set per path.
// Handlers of signals that are not fatal use the ordinary path's state: their lines are ordinary lines.
#ifndef LIBCOMMON_LOG_CONSOLE_OUTPUT_H
#define LIBCOMMON_LOG_CONSOLE_OUTPUT_H

#include "base/unique_fd.h"
#include "console_print.h"
#include "signal_printf.h"

#include <algorithm>
#include <cstddef>
#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

namespace qv::console {

inline constexpr const char *kConsolePath = "/dev/console";
inline constexpr const char *kSerialPath = "/dev/ttyS0";
inline constexpr const char *kSerialName = "ttyS0";
inline constexpr off_t kLogLimit = 0x80000; // no messages are appended to a larger file
inline constexpr mode_t kLogMode = 0777;
inline constexpr std::size_t kMessageSize = 1024;
inline constexpr std::size_t kPrefixSize = 128;
inline constexpr std::size_t kNoticeSize = 64;

// How many characters a formatter that returns the whole length has stored in size bytes.
inline std::size_t stored(int length, std::size_t size)
{
    return length > 0 ? std::min(static_cast<std::size_t>(length), size - 1) : 0;
}

inline void write_piece(int fd, const char *text, std::size_t length)
{
    [[maybe_unused]] ssize_t ignored = ::write(fd, text, length);
}

// The line that reports lost messages; returns its length.
inline std::size_t make_notice(char (&out)[kNoticeSize], unsigned long drops)
{
    return static_cast<std::size_t>(
        signal_snprintf(out, sizeof out, "Pid %d drops total %lu logs as file oversize\n", ::getpid(), drops));
}

struct ordinary_path {
    static constexpr int kOpenFlags = 0; // further flags for the console devices
};

struct fatal_path {
    static constexpr int kOpenFlags = O_NONBLOCK;
};

template <typename Path>
class output {
public:
    static void to_console(const char *text, std::size_t length)
    {
        if (qv_is_aws() == 0) {
            if (ttys0_default_ == -1)
                ttys0_default_ = is_default_console_device(kSerialName);
            // The console already writes to a default serial port, which is then not opened here.
            if (ttys0_default_ == 0)
                open_device(fd2_, kSerialPath);
            write_device(fd2_, text, length);
        }
        open_device(fd_, kConsolePath);
        write_device(fd_, text, length);
    }

    // Writes to the console only if an earlier message has opened it.
    static void to_open_console(const char *text, std::size_t length) { write_device(fd_, text, length); }

    // Stamp:
    //   static std::size_t make_prefix(char (&out)[kPrefixSize])    the time stamp's length, 0 for none
    template <typename Stamp>
    static void to_log(const char *path, const char *text, std::size_t length)
    {
        base::unique_fd log(::open(path, O_WRONLY | O_CREAT | O_APPEND, kLogMode));
        struct stat info;
        if (!log || ::fstat(log.get(), &info) != 0)
            return;
        if (info.st_size > kLogLimit) {
            fail_count_ = fail_count_ + 1;
            return;
        }

        char prefix[kPrefixSize];
        std::size_t prefix_length = Stamp::make_prefix(prefix);
        if (fail_count_ != 0) {
            char notice[kNoticeSize];
            std::size_t notice_length = make_notice(notice, fail_count_);
            if (prefix_length > 0)
                write_piece(log.get(), prefix, prefix_length);
            write_piece(log.get(), notice, notice_length);
            fail_count_ = 0;
        }
        // Text without a newline continues a line, which is stamped by the piece that ends it.
        if (prefix_length > 0 && length > 0 && text[length - 1] == '\n')
            write_piece(log.get(), prefix, prefix_length);
        write_piece(log.get(), text, length);
    }

    // For a caller that closes descriptors from `first` up: the next message opens the devices again.
    static void forget_devices(int first)
    {
        for (int *fd : {&fd_, &fd2_}) {
            if (*fd >= first)
                *fd = -1;
        }
    }

private:
    // A failed open leaves the cache negative and is tried again with the next message.
    static void open_device(int &fd, const char *path)
    {
        if (fd == -1)
            fd = ::open(path, O_WRONLY | O_NOCTTY | Path::kOpenFlags);
    }

    static void write_device(int fd, const char *text, std::size_t length)
    {
        if (fd >= 0)
            write_piece(fd, text, length);
    }

    // Plain ints that any thread sets: two racing on the first message may both open a device, and one descriptor then
    // stays open and idle. Opened once and kept for the life of the process.
    static inline int fd_ = -1;
    static inline int fd2_ = -1;
    static inline int ttys0_default_ = -1; // -1 before the first call, else the result of is_default_console_device()
    static inline unsigned long fail_count_ = 0; // messages of all logs that were over the limit, since the last notice
};

// Where console_print() writes.
inline constexpr const char *kConsoleLog = "/etc/consolelog";

// console_print() for the handler of a signal that is not fatal, which may have interrupted the heap or the clock: the
// same hook, devices, counter and stamp, without a lock or an allocation. Text is cut to 1023 characters. Signal-safe,
// except for the host's hook.
int print_from_handler(const char *format, ...);

// For a caller that is about to close all descriptors from `first` up.
void forget_devices(int first);

} // namespace qv::console

#endif
