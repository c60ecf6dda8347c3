// SPDX-License-Identifier: Apache-2.0
// Files of /proc with any content, read in pieces of any size: mapping lists, the status line, the command name
// and the command line. Their readers end, stay within their buffers, and keep only what their headers document.
#include "backtrace.h"
#include "fault/section_table.h"
#include "sighandler.h"
#include "stack_info.h"

#include <algorithm>
#include <cerrno>
#include <csignal>
#include <cstdarg>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <fcntl.h>
#include <sys/mman.h>
#include <sys/syscall.h>
#include <unistd.h>

using namespace qv;

namespace {

void require(bool holds)
{
    if (!holds)
        std::abort();
}

struct text {
    const std::uint8_t *data;
    std::size_t size;
};

// Replaces /proc while an input runs. All other files are the system's.
struct {
    bool is_active;
    text maps, stat, comm, cmdline;
    std::size_t piece; // at most this much per read
    int open_file;     // the only one at a time
} proc;

int file_of(const text &content)
{
    int fd = ::memfd_create("proc", MFD_CLOEXEC);
    require(fd >= 0 && ::pwrite(fd, content.data, content.size, 0) == static_cast<ssize_t>(content.size));
    proc.open_file = fd;
    return fd;
}

bool ends_with(const char *path, const char *end)
{
    std::size_t length = std::strlen(path), wanted = std::strlen(end);
    return length >= wanted && std::strcmp(path + length - wanted, end) == 0;
}

const text *content_of(const char *path)
{
    if (!proc.is_active || std::strncmp(path, "/proc/", 6) != 0)
        return nullptr;
    if (ends_with(path, "/maps"))
        return &proc.maps;
    if (ends_with(path, "/stat"))
        return &proc.stat;
    if (ends_with(path, "/comm"))
        return &proc.comm;
    return ends_with(path, "/self/cmdline") ? &proc.cmdline : nullptr;
}

void require_section_table()
{
    bool ended = false;
    for (const section_record &one : section_rec) {
        ended = ended || one.start == 0;
        require(ended ? one.start == 0 && one.end == 0 : one.start < one.end);
        require(ended || is_dynamic_lib(one.start) == 1);
    }
    require(section_rec[0].start != 0 || is_dynamic_lib(0) == 1);
}

void require_stack_ranges()
{
    constexpr unsigned long kMark = 0x1111;
    unsigned long start = kMark, end = kMark;
    require(qv_get_stack_info(&start, &end) == 0);
    require((start == kMark && end == kMark) || (start != 0 && start < end));
    unsigned long address = (start + end) / 2;
    start = end = kMark;
    require(qv_get_thread_stack_info(address, &start, &end) == 0);
    require((start == kMark && end == kMark) || (start != 0 && start <= address && address < end));
}

void require_process_record()
{
    g_process_stack_start = g_process_stack_end = g_process_stack_cur = 0;
    g_process_stack_cur_index = 0;
    qv_record_process_info();
    require(g_process_stack_cur_index <= 80);
    if (g_process_stack_cur_index != 0)
        require(g_process_stack_cur >= g_process_stack_start && g_process_stack_cur <= g_process_stack_end);
}

void require_command_name()
{
    for (int room : {0, 1, 15, 127}) {
        auto *name =
            static_cast<char *>(std::malloc(static_cast<std::size_t>(room) + 1)); // a block of at least one byte
        std::memset(name, 'x', static_cast<std::size_t>(room) + 1);
        int n = get_proc_comm_name(name, room);
        require(n <= room && name[room] == 'x');
        for (int i = 0; i < n; i++)
            require(name[i] != '\r' && name[i] != '\n');
        std::free(name);
    }
}

// The handler for hosts without a log file reads the command line and then resets the fatal signals to the system's
// default. Here they belong to the fuzzer.
void print_program_name()
{
    struct sigaction before[SIGSYS + 1];
    for (int sig = 1; sig <= SIGSYS; sig++)
        ::sigaction(sig, nullptr, &before[sig]);
    signal_handler(SIGUSR1);
    for (int sig = 1; sig <= SIGSYS; sig++)
        ::sigaction(sig, &before[sig], nullptr);
}

} // namespace

extern "C" int open(const char *path, int flags, ...)
{
    std::va_list arguments;
    va_start(arguments, flags);
    unsigned mode = va_arg(arguments, unsigned);
    va_end(arguments);
    if (const text *content = content_of(path))
        return file_of(*content);
    if (proc.is_active) // consoles and logs
        path = "/dev/null";
    return static_cast<int>(::syscall(SYS_openat, AT_FDCWD, path, flags, mode));
}

extern "C" FILE *fopen(const char *path, const char *mode)
{
    if (const text *content = content_of(path))
        return ::fdopen(file_of(*content), mode);
    bool writes = *mode == 'w' || *mode == 'a';
    int how = writes ? O_WRONLY | O_CREAT | (*mode == 'a' ? O_APPEND : O_TRUNC) : O_RDONLY;
    auto fd = static_cast<int>(::syscall(SYS_openat, AT_FDCWD, path, how, 0666));
    return fd >= 0 ? ::fdopen(fd, mode) : nullptr;
}

extern "C" ssize_t read(int fd, void *to, size_t size)
{
    if (proc.is_active && fd == proc.open_file) {
        if (proc.piece == 0) {
            errno = EIO;
            return -1;
        }
        size = std::min(size, proc.piece);
    }
    return ::syscall(SYS_read, fd, to, size);
}

extern "C" int LLVMFuzzerInitialize(int *, char ***)
{
    stdout = std::fopen("/dev/null", "w"); // discards messages about files that cannot be opened
    return 0;
}

// Two sizes, the size of a piece, then the mapping list, the status line, and the rest as both names.
extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t *data, std::size_t size)
{
    struct {
        std::uint16_t maps, stat;
        std::uint16_t piece;
    } header;
    if (size < sizeof header)
        return 0;
    std::memcpy(&header, data, sizeof header);
    data += sizeof header;
    size -= sizeof header;
    auto take = [&](std::size_t wanted) {
        text taken = {data, std::min(wanted, size)};
        data += taken.size;
        size -= taken.size;
        return taken;
    };
    proc.maps = take(header.maps);
    proc.stat = take(header.stat);
    proc.comm = proc.cmdline = {data, size};
    proc.piece = header.piece % 2048;
    proc.is_active = true;
    require(procps_read_maps() == 0);
    require_section_table();
    require_stack_ranges();
    require_process_record();
    require_command_name();
    if ((header.piece & 0x8000) != 0) // only sometimes, because it is slow
        print_program_name();
    proc.is_active = false;
    return 0;
}
