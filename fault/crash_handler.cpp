// SPDX-License-Identifier: Apache-2.0
// The fatal-signal handler, the termination logger and the callback table. Everything here runs inside signal handlers.
#include "sighandler.h"

#include "base/errno_guard.h"
#include "console_print.h"
#include "fault/backtrace_internal.h"
#include "fault/crash_handler.h"
#include "fault/crash_log.h"
#include "fault/machine_context.h"
#include "fault/section_table.h"
#include "fault/signal_format.h"
#include "signal_printf.h"

#include <atomic>
#include <csignal>
#include <ctime>
#include <sys/single_threaded.h>

extern "C" {

// Bounds of the host executable's callback table, from its link; a host linked without them has no callbacks.
[[gnu::weak]] extern const qv_coredump_callback __qv_coredump_begin[];
[[gnu::weak]] extern const qv_coredump_callback __qv_coredump_end[];
}

namespace fault {

int g_attach_signal = SIGALRM;

namespace {

constexpr char kCoreFolder[] = "/etc/core";
constexpr char kDumpFolder[] = "/tmp/dump";
constexpr char kTerminationFolder[] = "/flash/core";
constexpr pid_t kInitProcess = 1;

bool is_dump_request(int sig)
{
    return sig == g_attach_signal || sig == kDumpFileSignal || sig == kBacktraceSignal;
}

// From here on a further fault, on any thread, ends the process.
void reset_fault_signals()
{
    for (int sig : kFaultSignals)
        ::signal(sig, SIG_DFL);
}

// How many handlers are at their logs in the process, and which of them on this thread: the addresses of their scopes,
// the outermost first (a callback may crash in turn). One that a callback left by siglongjmp() is dropped when the next
// begins, whose scope then lies where that one's was or further out; it would count as running for good.
std::atomic<int> handlers_running;
constexpr int kMaxNested = 8;
__thread const void *scopes[kMaxNested];
__thread int handlers_on_thread;

// One run of signal_err(). Lets a dying thread leave only when no other log is being written: its return is the end of
// the process, and threads that crash together would cut each other's logs.
//
// signal_context_flag counts the handlers. Were it put to 0 by the first of two that ends, the second one would print
// by the ordinary path from then on, with the locks of the code that it interrupted.
class handler_scope {
public:
    handler_scope()
    {
        while (handlers_on_thread > 0 && handlers_on_thread <= kMaxNested && scopes[handlers_on_thread - 1] <= this) {
            count_out();
            lower_flag();
        }
        level_ = handlers_on_thread;
        if (level_ < kMaxNested)
            scopes[level_] = this;
        handlers_on_thread++;
        handlers_running.fetch_add(1);
        __atomic_fetch_add(&signal_context_flag, 1, __ATOMIC_SEQ_CST);
    }

    ~handler_scope()
    {
        bool counted = handlers_on_thread > level_; // not where a run on another stack took this one for left
        if (counted)
            count_out();
        if (is_dying_) {
            await_others();
            if (!__libc_single_threaded)
                reset_fault_signals();
        }
        if (counted)
            lower_flag();
    }

    handler_scope(const handler_scope &) = delete;
    handler_scope &operator=(const handler_scope &) = delete;

    // Disarms the handlers. With other threads about, that waits until the logs are written: a second thread's fault
    // would end the process at once and leave neither its own log nor this one.
    void start_dying()
    {
        is_dying_ = true;
        if (__libc_single_threaded)
            reset_fault_signals();
    }

private:
    static void count_out()
    {
        handlers_on_thread--;
        handlers_running.fetch_sub(1);
    }

    static void lower_flag() { __atomic_fetch_sub(&signal_context_flag, 1, __ATOMIC_SEQ_CST); }

    // Bounded: another thread's callback may hang, and this process must die.
    static void await_others()
    {
        constexpr timespec kStep = {0, 1000000};
        constexpr int kMaxSteps = 2000;
        for (int i = 0; i < kMaxSteps && handlers_running.load() > handlers_on_thread; i++)
            ::nanosleep(&kStep, nullptr);
    }

    bool is_dying_ = false;
    int level_; // this scope's place among the thread's
};

void announce_dump(const crash_record &rec)
{
    console_print(" PID %d is attaching (%d)\n", thread_id(), static_cast<int>(rec.signo));
}

void announce_death(const crash_record &rec)
{
    console_print("!!!!!!WARNING: process %d pid %d parent %d  is dying(%d), ePC :  %016lx\n", thread_id(), ::getpid(),
                  ::getppid(), static_cast<int>(rec.signo), machine_context(rec.uctx).program_counter());
}

// A callback may have filled the path, not necessarily terminated.
void choose_path(crash_record *rec)
{
    rec->log_path[sizeof rec->log_path - 1] = '\0';
    if (rec->log_path[0] != '\0')
        return;
    auto sig = static_cast<int>(rec->signo);
    const char *folder = sig == kDumpFileSignal ? kDumpFolder : kCoreFolder;
    set_default_path(rec, folder, is_dump_request(sig) ? log_kind::attach : log_kind::coredump);
}

// Signal 51's folder is the operator's switch: without it no such dump is wanted, so it is never made. The folder is
// looked after even when a callback chose another place for the log.
bool prepare_folder(int sig)
{
    if (sig == kDumpFileSignal) {
        if (folder_exists(kDumpFolder))
            return true;
        console_print("dir %s not exists! \n", kDumpFolder);
        return false;
    }
    if (ensure_folder(kCoreFolder))
        return true;
    console_print("mkdir /etc/core\tfailed, %m\n");
    return false;
}

base::unique_fd create_log(const crash_record &rec)
{
    base::unique_fd fd;
    if (prepare_folder(static_cast<int>(rec.signo))) {
        fd = open_log(rec.log_path);
        if (!fd)
            console_print("!!!!!!WARNING: failed to core dump log file in %s.\n", rec.log_path);
    }
    if (!fd)
        console_print("Fail to create %s \n", rec.log_path);
    return fd;
}

base::unique_fd create_termination_log(const crash_record &rec)
{
    base::unique_fd fd;
    if (ensure_folder(kTerminationFolder)) {
        fd = open_log(rec.log_path);
        if (!fd)
            console_print("!!!!!!WARNING: failed to terminate dump log file in %s.\n", rec.log_path);
    } else {
        console_print("mkdir /flash/core  failed, %m\n");
    }
    if (!fd)
        console_print("Fail to create %s \n", rec.log_path);
    return fd;
}

crash_record make_record(int sig, siginfo_t *info, void *uctx)
{
    crash_record rec = {};
    rec.signo = static_cast<uint32_t>(sig);
    rec.info = info;
    rec.uctx = uctx;
    return rec;
}

} // namespace
} // namespace fault

extern "C" {

long call_signal_table(unsigned int phase, unsigned long arg, void *record)
{
    for (const qv_coredump_callback *entry = __qv_coredump_begin; entry < __qv_coredump_end; entry++) {
        long result = (*entry)(phase, arg, record);
        if (result != 0)
            return result;
    }
    return 0;
}

void signal_err(int sig, siginfo_t *info, void *uctx)
{
    using namespace fault;
    base::errno_guard keep;
    handler_scope scope;
    handler_section_table sections;

    crash_record rec = make_record(sig, info, uctx);
    if (call_signal_table(QV_COREDUMP_FIRST, 0, &rec) == 0) {
        if (is_dump_request(sig)) {
            announce_dump(rec);
        } else {
            scope.start_dying();
            announce_death(rec);
        }
    }

    choose_path(&rec);
    base::unique_fd fd = create_log(rec);
    if (!fd)
        return;
    auto log = static_cast<unsigned long>(fd.get());
    write_log_head(fd.get(), rec);
    coredump_backtrace_to_file(fd.get(), &rec);
    // The attach signal is not among the two exceptions: its dumps are as full as a crash's.
    if (sig != kDumpFileSignal && sig != kBacktraceSignal)
        call_signal_table(QV_COREDUMP_BACKTRACE, log, &rec);
    call_signal_table(QV_COREDUMP_LAST, log, &rec);
}

void signal_terminate(int sig, siginfo_t *info, void *uctx)
{
    using namespace fault;
    base::errno_guard keep;
    ::signal(sig, SIG_DFL);
    // Init asks twice: the first request is let pass unlogged, the second one finds the default disposition.
    if (info->si_pid == kInitProcess)
        return;

    crash_record rec = make_record(sig, info, uctx);
    set_default_path(&rec, kTerminationFolder, log_kind::term);
    base::unique_fd fd = create_termination_log(rec);
    if (!fd)
        return;
    signal_printf(fd.get(), "Process %d receive signal(%d) from pid %d,\n", thread_id(), sig, info->si_pid);
    coredump_backtrace_to_file(fd.get(), &rec);
    fd.reset();
    ::raise(sig);
}
}
