// SPDX-License-Identifier: Apache-2.0
// The fatal-signal handler, the termination logger and the callback table. Everything here runs inside signal handlers.
#include "sighandler.h"

#include "base/cancel_guard.h"
#include "base/errno_guard.h"
#include "console_print.h"
#include "fault/backtrace_internal.h"
#include "fault/crash_handler.h"
#include "fault/crash_log.h"
#include "fault/machine_context.h"
#include "fault/running_handlers.h"
#include "fault/section_table.h"
#include "log/console_output.h"
#include "signal_printf.h"

#include <algorithm>
#include <atomic>
#include <csignal>
#include <ctime>
#include <iterator>
#include <sys/single_threaded.h>
#include <sys/stat.h>
#include <ucontext.h>

using namespace qv;

extern "C" {

// Bounds of the host executable's callback table, from its link; a host linked without them has no callbacks.
[[gnu::weak]] extern const qv_coredump_callback __qv_coredump_begin[];
[[gnu::weak]] extern const qv_coredump_callback __qv_coredump_end[];
}

namespace qv::fault {

int g_attach_signal = base::kAttachSignal;
int g_signals_armed_by = 0;
std::atomic<std::size_t> g_fault_signal_count = kDefaultFaultSignals;

namespace {

constexpr char kCoreFolder[] = "/etc/core";
constexpr char kDumpFolder[] = "/tmp/dump";
constexpr char kTerminationFolder[] = "/flash/core";
constexpr pid_t kInitProcess = 1;

bool is_dump_request(int sig)
{
    return sig == g_attach_signal || sig == kDumpFileSignal || sig == kBacktraceSignal;
}

bool is_fault_signal(int sig)
{
    std::span<const int> signals = fault_signals();
    return std::find(signals.begin(), signals.end(), sig) != signals.end();
}

// From here on a further fault, on any thread, ends the process.
void reset_fault_signals()
{
    for (int sig : fault_signals())
        ::signal(sig, SIG_DFL);
}

// The C library's flag stays false in a child that a process with threads has forked. Then the kernel is asked.
bool is_single_threaded()
{
    if (__libc_single_threaded)
        return true;
    constexpr nlink_t kLinksOfOneThread = 3; // the folder's two and one for each thread's folder
    struct stat tasks;
    return ::stat("/proc/self/task", &tasks) == 0 && tasks.st_nlink == kLinksOfOneThread;
}

// The handlers of the fault signals as they were when a thread of many began to die.
//
// They stay armed until its log is written. Otherwise a second thread's fault would end the process at once, and
// neither log would be complete. The dying thread itself behaves as if they had been reset (see ends_process()).
class late_reset {
public:
    void arm()
    {
        is_armed_ = true;
        armings_ = armings();
        signals_ = fault_signals();
        for (std::size_t i = 0; i < signals_.size(); i++)
            before_[i] = handler_of(signals_[i]);
    }

    // Keeps what a callback has set or armed meanwhile, as after an early reset.
    void run() const
    {
        if (!is_armed_ || armings_ != armings())
            return;
        for (std::size_t i = 0; i < signals_.size(); i++) {
            if (handler_of(signals_[i]) == before_[i])
                ::signal(signals_[i], SIG_DFL);
        }
    }

private:
    static sighandler_t handler_of(int sig)
    {
        struct sigaction action = {};
        ::sigaction(sig, nullptr, &action);
        return action.sa_handler;
    }

    bool is_armed_ = false;
    int armings_ = 0;
    std::span<const int> signals_;
    sighandler_t before_[std::size(kFaultSignals)] = {};
};

// Bounded: another thread's callback may hang, and this process must die. As long as other logs are finished it lasts,
// however slow the machine is, but not for ever: dumps may be requested all the time.
class log_patience {
public:
    log_patience() : begin_(milliseconds()), progress_(begin_) {}

    bool is_left()
    {
        long now = milliseconds();
        if (unsigned finished = finished_logs(); finished != finished_) {
            finished_ = finished;
            progress_ = now;
        }
        return polls_++ < kMaxPolls && now - progress_ < kMost && now - begin_ < kMostAltogether;
    }

    // Each poll reads the state of threads that may need the processor for their logs.
    void pause()
    {
        constexpr long kLongest = 8000000;
        timespec time = {0, pause_};
        pause_ = std::min(2 * pause_, kLongest);
        ::nanosleep(&time, nullptr);
    }

private:
    static constexpr long kMost = 2000; // milliseconds
    static constexpr long kMostAltogether = 20000;
    static constexpr long kMaxPolls = 5000; // in case the clock does not advance

    static long milliseconds()
    {
        timespec now = {};
        ::clock_gettime(CLOCK_MONOTONIC, &now);
        return now.tv_sec * 1000 + now.tv_nsec / 1000000;
    }

    long begin_, progress_;
    unsigned finished_ = finished_logs();
    long polls_ = 0;
    long pause_ = 1000000; // nanoseconds
};

template <typename Condition>
void poll_while(Condition is_true)
{
    log_patience patience;
    while (is_true() && patience.is_left())
        patience.pause();
}

void await_other_logs()
{
    poll_while(is_other_log_unfinished);
}

// The thread that writes the dump of the process, if any. A child that was forked meanwhile and a thread that a
// callback left or ended in do not give it back; whoever finds no unfinished log takes it.
std::atomic<pid_t> dump_writer;

bool take_dump(pid_t thread)
{
    pid_t nobody = 0;
    return dump_writer.compare_exchange_strong(nobody, thread);
}

// Gives the process's dumps, which have one file name, their turns: they would be written through each other.
class dump_turn {
public:
    void await()
    {
        pid_t self = thread_id();
        if (dump_writer == self)
            return; // in a handler within a handler
        poll_while([self, this] { return !(has_turn_ = take_dump(self)) && is_other_log_unfinished(); });
        if (!has_turn_)
            dump_writer = self;
        has_turn_ = true;
    }

    ~dump_turn()
    {
        pid_t self = thread_id();
        if (has_turn_)
            dump_writer.compare_exchange_strong(self, 0);
    }

private:
    bool has_turn_ = false;
};

// One run of signal_err(). A dying thread leaves only when no other log is being written: its return ends the process,
// and threads that crash together would cut each other's logs.
class handler_scope {
public:
    handler_scope(int sig, const ucontext_t &interrupted) : run_(sig, interrupted) {}

    ~handler_scope()
    {
        run_.finish_log();
        if (!is_dying_)
            return;
        await_other_logs();
        reset_.run();
    }

    handler_scope(const handler_scope &) = delete;
    handler_scope &operator=(const handler_scope &) = delete;

    long call_table(unsigned phase, unsigned long arg, crash_record *rec)
    {
        long result = call_signal_table(phase, arg, rec);
        run_.confirm();
        return result;
    }

    void start_dying()
    {
        is_dying_ = true;
        if (is_single_threaded()) {
            reset_fault_signals();
            return;
        }
        run_.start_dying();
        reset_.arm();
    }

private:
    running_handler run_;
    bool is_dying_ = false;
    late_reset reset_;
};

// A fault of a thread that is already dying, say in a callback, ends the process as if the handlers were reset: the log
// keeps what was written so far. So does a fault in deeply nested handlers, before the stack overflows.
bool ends_process(int sig)
{
    constexpr int kMaxNested = 8;
    return is_fault_signal(sig) && (is_thread_dying() || handlers_on_thread() >= kMaxNested);
}

// A faulting instruction faults again after the handler returns; a signal that was sent must be sent again.
void end_process(int sig, const siginfo_t *info)
{
    reset_fault_signals();
    if (info != nullptr && info->si_code <= 0)
        ::raise(sig);
}

void announce_dump(const crash_record &rec)
{
    console_print(" PID %d is attaching (%d)\n", thread_id(), static_cast<int>(rec.signo));
}

void announce_death(const crash_record &rec)
{
    console_print("!!!!!!WARNING: process %d pid %d parent %d  is dying(%d), ePC :  %016lx\n", thread_id(), ::getpid(),
                  ::getppid(), static_cast<int>(rec.signo), machine_context(rec.uctx).program_counter());
}

// A callback may have filled the path without terminating it.
void choose_path(crash_record *rec)
{
    rec->log_path[sizeof rec->log_path - 1] = '\0';
    if (rec->log_path[0] != '\0')
        return;
    auto sig = static_cast<int>(rec->signo);
    const char *folder = sig == kDumpFileSignal ? kDumpFolder : kCoreFolder;
    set_default_path(rec, folder, is_dump_request(sig) ? log_kind::attach : log_kind::coredump);
}

// The folder of signal 51 is the operator's switch: without it no such dump is written, so it is never created. The
// folder is prepared even if a callback chose another place for the log.
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

bool prepare_termination_folder()
{
    if (ensure_folder(kTerminationFolder))
        return true;
    console::print_from_handler("mkdir /flash/core  failed, %m\n");
    return false;
}

// Opens the log and reports a failure on the console.
// @param failure  the format of the message that the file cannot be opened, with the path as its argument
base::unique_fd create_log(const crash_record &rec, bool has_folder, const char *failure)
{
    base::unique_fd fd;
    if (has_folder) {
        fd = open_log(rec.log_path);
        if (!fd)
            console::print_from_handler(failure, rec.log_path);
    }
    if (!fd)
        console::print_from_handler("Fail to create %s \n", rec.log_path);
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
} // namespace qv::fault

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
    base::cancel_guard no_cancel;
    if (ends_process(sig)) {
        end_process(sig, info);
        return;
    }
    handler_scope scope(sig, *static_cast<const ucontext_t *>(uctx));
    handler_section_table sections;

    crash_record rec = make_record(sig, info, uctx);
    if (scope.call_table(QV_COREDUMP_FIRST, 0, &rec) == 0) {
        if (is_dump_request(sig)) {
            announce_dump(rec);
        } else {
            scope.start_dying();
            announce_death(rec);
        }
    }

    bool shares_file = rec.log_path[0] == '\0' && qv_handle_thread == 0;
    dump_turn turn;
    if (shares_file && is_dump_request(sig))
        turn.await();
    choose_path(&rec);
    base::unique_fd fd = create_log(rec, prepare_folder(static_cast<int>(rec.signo)),
                                    "!!!!!!WARNING: failed to core dump log file in %s.\n");
    if (!fd)
        return;
    auto log = static_cast<unsigned long>(fd.get());
    write_log_head(fd.get(), rec);
    coredump_backtrace_to_file(fd.get(), &rec);
    // The attach signal is not among the two exceptions: its dumps are as full as a crash's.
    if (sig != kDumpFileSignal && sig != kBacktraceSignal)
        scope.call_table(QV_COREDUMP_BACKTRACE, log, &rec);
    scope.call_table(QV_COREDUMP_LAST, log, &rec);
}

void signal_terminate(int sig, siginfo_t *info, void *uctx)
{
    using namespace fault;
    base::cancel_guard whole;
    base::errno_guard keep;
    ::signal(sig, SIG_DFL);
    // Init asks twice: the first request is ignored, the second one finds the default disposition.
    if (info->si_pid == kInitProcess)
        return;

    crash_record rec = make_record(sig, info, uctx);
    set_default_path(&rec, kTerminationFolder, log_kind::term);
    base::unique_fd fd =
        create_log(rec, prepare_termination_folder(), "!!!!!!WARNING: failed to terminate dump log file in %s.\n");
    if (!fd)
        return;
    signal_printf(fd.get(), "Process %d receive signal(%d) from pid %d,\n", thread_id(), sig, info->si_pid);
    coredump_backtrace_to_file(fd.get(), &rec);
    fd.reset();
    ::raise(sig);
}

} // extern "C"
