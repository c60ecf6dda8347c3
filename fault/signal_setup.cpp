// SPDX-License-Identifier: Apache-2.0
// Arming and disarming: which signal goes to which handler.
#include "sighandler.h"

#include "backtrace.h"
#include "console_print.h"
#include "fault/backtrace_internal.h"
#include "fault/crash_handler.h"
#include "fault/running_handlers.h"
#include "libcommon_inspect.h"
#include "qv_mtrace.h"
#include "stack_info.h"
#include "time/local_time.h"

#include <csignal>
#include <execinfo.h>

using namespace qv;

namespace {

using fault::g_attach_signal;
using fault::g_signals_armed_by;
using fault::kBacktraceSignal;
using fault::kDumpFileSignal;

constexpr int kReservedSignal = 50; // of the system's tools, as kDumpFileSignal and kBacktraceSignal

struct armed_signal {
    int number;
    const char *name; // in failure messages
};

constexpr armed_signal kCrashSignals[] = {
    {SIGABRT, "abort"},
    {SIGSEGV, "sigsegv"},
    {SIGBUS, "sigbus"},
    {SIGILL, "sigill"},
    {kDumpFileSignal, "sig_dumpfile"},
    {kBacktraceSignal, "sig_backtrace"},
};

// SIGIO and SIGPOLL are one number: it is armed twice, contract. Tools that trace the calls see both.
constexpr int kTerminationSignals[] = {SIGHUP,  SIGINT,    SIGUSR1, SIGUSR2, SIGPIPE, SIGALRM,
                                       SIGTERM, SIGVTALRM, SIGIO,   SIGPOLL, SIGPWR};

constexpr int kIgnoredSignals[] = {SIGBUS,  SIGILL,  SIGSEGV,         SIGABRT,         SIGALRM,         SIGHUP,
                                   SIGCHLD, SIGPIPE, kReservedSignal, kDumpFileSignal, kBacktraceSignal};

constexpr int kDisarmedSignals[] = {SIGBUS, SIGILL, SIGSEGV, SIGABRT};

// SA_SIGINFO alone unless a host asks for more: the handler stays armed, and interrupted calls fail with EINTR, as
// hosts expect.
struct sigaction make_action(void (*handler)(int, siginfo_t *, void *), int flags = SA_SIGINFO)
{
    struct sigaction action = {};
    action.sa_sigaction = handler;
    action.sa_flags = flags;
    return action;
}

template <std::size_t count>
void *set_dispositions(const int (&signals)[count], sighandler_t disposition)
{
    sighandler_t last = nullptr;
    for (int sig : signals)
        last = ::signal(sig, disposition);
    return reinterpret_cast<void *>(last);
}

// The first backtrace() of a process loads the unwinder and allocates; a later one, in a handler, does not.
void load_unwinder()
{
    void *frame;
    ::backtrace(&frame, 1);
}

} // namespace

extern "C" {

void *install_sighandler(void)
{
    qv_record_process_info();
    return install_sighandler2(base::kAttachSignal);
}

void *install_sighandler2(int sig)
{
    load_unwinder();
    local_time::prepare_handlers();
    struct sigaction action = make_action(signal_err, fault::g_crash_action_flags);
    if (::sigaction(sig, &action, nullptr) == 0)
        g_attach_signal = sig;
    else
        console_print("install signal handler for %d failed.\n", sig);
    for (const armed_signal &armed : kCrashSignals) {
        if (::sigaction(armed.number, &action, nullptr) != 0)
            console_print("install signal handler for %s failed.\n", armed.name);
    }
    fault::count_arming();
    call_signal_table(QV_COREDUMP_INSTALLED, reinterpret_cast<unsigned long>(&action), nullptr);
    procps_read_maps();
    ::signal(SIGUSR2, signal_mtrace);
    g_signals_armed_by = QV_ARMED_FOR_CRASHES;
    return reinterpret_cast<void *>(::signal(SIGHUP, SIG_IGN));
}

void *pstrace_terminate_signal(void)
{
    local_time::prepare_handlers();
    struct sigaction action = make_action(signal_terminate);
    for (int sig : kTerminationSignals)
        ::sigaction(sig, &action, nullptr);
    for (int sig = SIGRTMIN; sig <= SIGRTMAX; sig++)
        ::sigaction(sig, &action, nullptr);
    g_signals_armed_by = QV_ARMED_FOR_TERMINATION;
    return nullptr;
}

void qv_set_handle_thread_trace(void)
{
    qv_handle_thread = 1;
}

unsigned long install_sigal_err_callback(unsigned long cb)
{
    return cb;
}

void *ignore_signal(void)
{
    return set_dispositions(kIgnoredSignals, SIG_IGN);
}

int pthread_ignore_signal(void)
{
    sigset_t all;
    ::sigfillset(&all);
    return ::pthread_sigmask(SIG_BLOCK, &all, nullptr);
}

void *uninstall_sighandler(void)
{
    return set_dispositions(kDisarmedSignals, SIG_DFL);
}

} // extern "C"
