// SPDX-License-Identifier: Apache-2.0
// The details of a crash log. Each section is written as soon as it is known, the most valuable first, since a second
// fault in here ends the log.
#include "crash_details.h"

#include "base/unique_fd.h"
#include "fault/backtrace_internal.h"
#include "fault/crash_handler.h"
#include "fault/crash_notes.h"
#include "fault/line_reader.h"
#include "fault/machine_context.h"
#include "fault/module_report.h"
#include "fault/stack_scan.h"
#include "fault/thread_report.h"
#include "libcommon_version.h"
#include "signal_printf.h"
#include "stack_info.h"

#include <algorithm>
#include <cstring>
#include <ctime>
#include <dlfcn.h>
#include <fcntl.h>
#include <iterator>
#include <sys/resource.h>
#include <sys/utsname.h>

using namespace qv;

namespace qv::fault {
namespace {

constexpr int kFormatVersion = 1;
constexpr unsigned long kStackBytes = 2048;
constexpr unsigned long kScannedBytes = 16384;
constexpr int kMaxCalls = 40;
constexpr unsigned long kWordsOnLine = 4;
constexpr unsigned long kCodeBytes = 32; // before the program counter, and as many from it on
constexpr std::size_t kMaxMessage = 512;

// The C library's pointer to its record of abort()'s message: a size in 4 bytes, then the text. Looked up when the
// handlers are installed; null where the C library has none.
const void *abort_message_variable;

// Null unless the program is linked statically: hidden, so that only a program that holds the C library resolves it.
extern "C" {
[[gnu::weak, gnu::visibility("hidden")]] extern const char *__abort_msg;
}

void find_abort_message()
{
    abort_message_variable =
        &__abort_msg != nullptr ? &__abort_msg : ::dlvsym(RTLD_DEFAULT, "__abort_msg", "GLIBC_PRIVATE");
}

void report_signal(int fd, const crash_record &rec)
{
    const siginfo_t *info = rec.info;
    if (info == nullptr)
        return;
    bool is_sent = info->si_code <= 0; // by a process, which the record names
    if (is_sent)
        signal_printf(fd, "signal : %d code %d from pid %d uid %d\n", static_cast<int>(rec.signo), info->si_code,
                      info->si_pid, static_cast<int>(info->si_uid));
    else
        signal_printf(fd, "signal : %d code %d address %016lx\n", static_cast<int>(rec.signo), info->si_code,
                      reinterpret_cast<unsigned long>(info->si_addr));
}

void report_time(int fd)
{
    timespec wall = {}, monotonic = {};
    ::clock_gettime(CLOCK_REALTIME, &wall);
    ::clock_gettime(CLOCK_MONOTONIC, &monotonic);
    signal_printf(fd, "time   : %ld.%09ld up %ld.%09ld\n", wall.tv_sec, wall.tv_nsec, monotonic.tv_sec,
                  monotonic.tv_nsec);
}

void report_thread_names(int fd)
{
    char name[kCommandNameSize] = {};
    base::unique_fd comm(::open("/proc/thread-self/comm", O_RDONLY | O_CLOEXEC));
    ssize_t size = comm ? ::read(comm.get(), name, sizeof name - 1) : 0;
    if (size > 0 && name[size - 1] == '\n')
        name[size - 1] = '\0';
    signal_printf(fd, "self   : pid %d tid %d name %s\n", ::getpid(), thread_id(), name);
}

void report_program(int fd)
{
    char path[kMaxMessage] = {};
    if (::syscall(SYS_readlinkat, AT_FDCWD, "/proc/self/exe", path, sizeof path - 1) > 0)
        signal_printf(fd, "exe    : %s\n", path);
}

void report_abort_message(int fd)
{
    if (abort_message_variable == nullptr)
        return;
    safe_memory memory(safe_memory::subject::module);
    unsigned long message = 0;
    unsigned size = 0;
    char text[kMaxMessage];
    if (!memory.load(reinterpret_cast<unsigned long>(abort_message_variable), &message) || message == 0 ||
        memory.copy(message, &size, sizeof size) != sizeof size)
        return;
    std::size_t length = memory.copy(message + sizeof size, text, std::min<std::size_t>(size, sizeof text - 1));
    length = ::strnlen(text, length);
    while (length != 0 && text[length - 1] == '\n')
        length--;
    text[length] = '\0';
    for (char *at = text; (at = std::strchr(at, '\n')) != nullptr;)
        *at = ' ';
    if (text[0] != '\0')
        signal_printf(fd, "abort  : %s\n", text);
}

void report_stack_range(int fd, unsigned long sp)
{
    unsigned long start = 0, end = 0;
    qv_get_thread_stack_info(sp, &start, &end);
    signal_printf(fd, "range  : %016lx %016lx sp %016lx\n", start, end, sp);
}

// The words from the stack pointer up, four to a line.
void report_stack_words(int fd, unsigned long sp)
{
    safe_memory stack(safe_memory::subject::stack);
    for (unsigned long at = sp; at < sp + kStackBytes; at += kWordsOnLine * sizeof at) {
        unsigned long words[kWordsOnLine] = {};
        std::size_t size = stack.copy(at, words, sizeof words);
        if (size < sizeof words)
            return;
        signal_printf(fd, "stack  : %016lx %016lx %016lx %016lx %016lx\n", at, words[0], words[1], words[2], words[3]);
    }
}

void report_calls(int fd, unsigned long sp)
{
    safe_memory stack(safe_memory::subject::stack), code(safe_memory::subject::module);
    int count = 0;
    scan_stack(&stack, &code, sp, sp + kScannedBytes, [&](unsigned long place, unsigned long address) {
        signal_printf(fd, "found  : %016lx %016lx\n", place, address);
        return ++count < kMaxCalls;
    });
}

void report_code(int fd, unsigned long pc)
{
    constexpr std::size_t kLine = 16;
    safe_memory code(safe_memory::subject::module);
    for (unsigned long at = pc - kCodeBytes; at != pc + kCodeBytes; at += kLine) {
        unsigned char bytes[kLine];
        char text[3 * kLine + 1];
        if (code.copy(at, bytes, sizeof bytes) != sizeof bytes)
            continue;
        for (std::size_t i = 0; i < kLine; i++)
            signal_snprintf(text + 3 * i, 4, " %02lx", static_cast<unsigned long>(bytes[i]));
        signal_printf(fd, "code   : %016lx%s\n", at, text);
    }
}

// The lines on memory and threads of the kernel's status file.
void report_memory(int fd)
{
    constexpr const char *kWanted[] = {"VmPeak:", "VmSize:", "VmHWM:", "VmRSS:", "VmSwap:", "Threads:", "FDSize:"};
    base::unique_fd file(::open("/proc/self/status", O_RDONLY | O_CLOEXEC));
    fault::hfgets_state reader = {};
    reader.fd = file.get();
    char line[fault::kLineSize];
    while (file && fault::hfgets(line, &reader) != nullptr) {
        auto is_wanted = [&line](const char *title) { return std::strncmp(line, title, std::strlen(title)) == 0; };
        if (std::any_of(std::begin(kWanted), std::end(kWanted), is_wanted))
            signal_printf(fd, "memory : %s\n", line);
    }
}

// No limit prints as the largest number, which is the kernel's value.
void report_limits(int fd)
{
    struct named_limit {
        const char *name;
        int number;
    };
    constexpr named_limit kLimits[] = {{"descriptors", RLIMIT_NOFILE},
                                       {"memory", RLIMIT_AS},
                                       {"stack", RLIMIT_STACK},
                                       {"core", RLIMIT_CORE},
                                       {"threads", RLIMIT_NPROC}};
    for (const named_limit &limit : kLimits) {
        rlimit values = {};
        if (::syscall(SYS_prlimit64, 0, limit.number, nullptr, &values) == 0)
            signal_printf(fd, "limit  : %s %lu %lu\n", limit.name, values.rlim_cur, values.rlim_max);
    }
}

void report_versions(int fd)
{
    utsname system = {};
    ::syscall(SYS_uname, &system);
    signal_printf(fd, "version: libcommon %s, %s %s %s\n", LIBCOMMON_VERSION, system.sysname, system.release,
                  system.machine);
}

// In a process that is about to end, a thread may hang in whatever the crash left behind.
bool is_dump_request(const crash_record &rec)
{
    return std::find(std::begin(kFaultSignals), std::end(kFaultSignals), static_cast<int>(rec.signo)) ==
           std::end(kFaultSignals);
}

void report_details(int fd, const crash_record &rec)
{
    machine_context machine(rec.uctx);
    signal_printf(fd, "Details %d:\n", kFormatVersion);
    report_signal(fd, rec);
    report_time(fd);
    report_thread_names(fd);
    report_abort_message(fd);
    report_cache_misuse(fd);
    report_notes(fd);
    signal_printf(fd, "arg0   : %016lx\n", machine.first_argument());
    report_stack_range(fd, machine.stack_pointer());
    report_program(fd);
    report_modules(fd);
    report_calls(fd, machine.stack_pointer());
    report_threads(fd, is_dump_request(rec));
    report_stack_words(fd, machine.stack_pointer());
    report_code(fd, machine.program_counter());
    report_memory(fd);
    report_limits(fd);
    report_versions(fd);
    signal_printf(fd, "Details end\n");
}

} // namespace
} // namespace qv::fault

extern "C" {

long qv_crash_details(unsigned int phase, unsigned long arg, void *record)
{
    using namespace fault;
    if (phase == QV_COREDUMP_INSTALLED) {
        find_abort_message();
        note_modules();
    } else if (phase == QV_COREDUMP_LAST) {
        report_details(static_cast<int>(arg), *static_cast<const crash_record *>(record));
    }
    return 0;
}

void qv_crash_note_modules(void)
{
    fault::note_modules();
}

} // extern "C"
