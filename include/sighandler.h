/* SPDX-License-Identifier: Apache-2.0 */
/* sighandler.h - crash logs, dump requests, and small signal utilities.
 *
 * A process arms the handlers once, at start:
 *
 *     install_sighandler();
 *
 * From then on a fault of the process (SIGSEGV, SIGBUS, SIGILL) and abort() leave a crash log,
 * /etc/core/<name><pid>.coredump.<signal>.log ('/' in a name becomes '_'), before they end the process. Signals 14
 * (SIGALRM, the attach signal), 51 and 52 are dump requests: the same log with "attach" in its name (signal 51: below
 * /tmp/dump, when that exists), and the process continues. A log holds the registers, the fault address and a backtrace
 * of the interrupted thread. An older log of the same name is overwritten and not cut: text beyond the new end is the
 * older log's.
 *
 * What is not covered: other signals that end a process, SIGFPE, SIGTRAP, SIGSYS and SIGQUIT among them, leave no log.
 * A fault signal that is sent, as by kill -SEGV, leaves a log and disarms the handlers, but the process lives on, since
 * no instruction faults again; the next fault ends it without a log. SIGALRM is no longer available to alarm() and
 * setitimer(): each expiry is a dump request. Writing below /etc/core, /flash/core and /tmp/dump requires root on
 * most systems; other users get the console messages of a failed log. Sending a dump request requires the same user or
 * root.
 *
 * A host adds to the dump through callbacks. They are entries of a table that its link collects; link the host
 * with the flags of `pkg-config --variable=host_libs libcommon` or, in CMake, with libcommon::host:
 *
 *     static long add_state(unsigned int phase, unsigned long arg, void *record)
 *     {
 *         if (phase == QV_COREDUMP_LAST)
 *             signal_printf((int)arg, "sessions: %d\n", session_count);
 *         return 0;
 *     }
 *     QV_COREDUMP_CALLBACK(add_state);
 *
 * The handlers run on the stack of the interrupted thread, and a dump uses up to QV_DUMP_STACK_SIZE bytes of it. An
 * overflown stack leaves no log unless its thread has called qv_use_signal_stack().
 *
 * Several threads: a dying thread waits until the other threads that are inside the handler have finished their logs,
 * and disarms the handlers only then, so that threads that crash together leave complete logs. It waits for 2 seconds
 * after the last log that was finished, and for 20 seconds altogether, at most. For the dying thread itself the
 * handlers count as disarmed when its death is announced: a fault of a callback, or its abort(), ends the process with
 * that signal and keeps the log as far as it was written. A process with one thread disarms the handlers before the
 * announcement.
 *
 * The handlers are no cancellation points: a pending pthread_cancel() acts after the handler. A callback may leave the
 * handler by siglongjmp() to a sigsetjmp() that saved the signal mask; cancellation is then still disabled, and the log
 * still open. in_signal_context() returns 0 again after the next handler has returned on any thread.
 */
#ifndef LIBCOMMON_SIGHANDLER_H
#define LIBCOMMON_SIGHANDLER_H

#include "libcommon_api.h"

#include <signal.h>
#include <stdint.h>

QV_BEGIN_DECLS

/* Strictly conforming C knows no siginfo_t; there it stays opaque. */
#ifdef SI_USER
typedef siginfo_t qv_siginfo;
#else
typedef void qv_siginfo;
#endif

#define QV_COREDUMP_DEPTH 20      /* return addresses of a record */
#define QV_COREDUMP_PATH_SIZE 128 /* bytes of the path in a record */

/* Stack that a dump uses, in bytes: including the kernel's signal frame, without callbacks and without vector registers
 * beyond 128 bits. */
#define QV_DUMP_STACK_SIZE 16384

/* Size of a stack from qv_use_signal_stack(), in bytes. */
#define QV_SIGNAL_STACK_SIZE 65536

/** One crash or dump request, as callbacks see it. Other modules share this layout. */
typedef struct crash_record {
    uint32_t signo;
    qv_siginfo *info;
    void *uctx;                           /* the kernel's ucontext_t */
    uint64_t fault_fp;                    /* frame pointer at the fault */
    uint64_t stack_bottom;                /* last frame address that the walk reached */
    uint64_t addrs[QV_COREDUMP_DEPTH];    /* code addresses, innermost first */
    uint64_t frames[QV_COREDUMP_DEPTH];   /* frames[i] belongs to addrs[i] */
    uint32_t depth;                       /* entries used in both */
    char log_path[QV_COREDUMP_PATH_SIZE]; /* empty for the default name */
} crash_record;

/** When a callback is called. The phase defines `arg`; `record` is the crash record except where null is stated. */
enum qv_coredump_phase {
    QV_COREDUMP_INSTALLED = 0, /* handlers armed; arg: address of the struct sigaction used; record: null */
    QV_COREDUMP_FIRST = 1,     /* before anything is written; arg: 0. May fill log_path. A result other than 0 keeps the
                                  handlers armed and omits the warning of the death */
    QV_COREDUMP_LAST = 2,      /* before the log is closed; arg: its descriptor */
    QV_COREDUMP_BACKTRACE = 4, /* after the backtrace, not for signals 51 and 52; arg: the log's descriptor */
};

/** A result other than 0 ends the walk over the callbacks. Callbacks of phases 1, 2 and 4 must be signal-safe. */
typedef long (*qv_coredump_callback)(unsigned int phase, unsigned long arg, void *record);

/* GCC may reorder variables unless this attribute forbids it; clang keeps the order of the source. */
#if defined(__GNUC__) && !defined(__clang__)
#define QV_IN_SOURCE_ORDER no_reorder
#else
#define QV_IN_SOURCE_ORDER
#endif

/* Keeps an entry when the linker drops what nothing refers to. */
#if defined(__has_attribute)
#if __has_attribute(retain)
#define QV_RETAIN retain,
#endif
#endif
#ifndef QV_RETAIN
#define QV_RETAIN
#endif

/* Not const: a constant pointer lies in a read-only section in some objects and in a writable one in others (those that
 * are position-independent). Not every linker joins the two, and the bounds are those of one. */

/**
 * Places `fn` in the callback table of the executable that this is compiled into. Use it at file scope. The entries of
 * a source are called in their order there, those of different sources in link order.
 *
 * There is one table a process, the executable's. In a shared object (a plug-in, say) the macro only fills a section of
 * that object: nothing calls its entries. A plug-in takes part in dumps through a callback of its host that knows it.
 */
#define QV_COREDUMP_CALLBACK(fn)                                                                                       \
    __attribute__((used, QV_RETAIN section("qv_coredump_callbacks"),                                                   \
                   QV_IN_SOURCE_ORDER)) static qv_coredump_callback qv_coredump_entry_##fn = fn

/* ---- arming ---- */

/**
 * Records the main thread's stack (stack_info.h), then arms the handlers with 14 as the attach signal.
 *
 * It takes these signals from the host, whose own handlers for them are replaced: SIGALRM, SIGABRT, SIGSEGV, SIGBUS,
 * SIGILL, 51, 52, SIGUSR2 and SIGHUP. Forked children have the same handlers; a program that a child executes starts
 * with the defaults, and ignores SIGHUP.
 * @return what install_sighandler2() returns
 */
QV_API void *install_sighandler(void);

/**
 * Arms the crash handler for `sig`, SIGABRT, SIGSEGV, SIGBUS, SIGILL, 51 and 52, in this order; calls the callbacks'
 * phase 0; loads the thread's table of executable mappings; routes SIGUSR2 to signal_mtrace() and ignores SIGHUP.
 * A signal that cannot be armed is reported on the console and skipped.
 * @param sig  the attach signal. A fault signal given here counts as a dump request from then on: the process would
 *             return to its fault for ever.
 * @return the former SIGHUP disposition
 */
QV_API void *install_sighandler2(int sig);

/**
 * Arms signal_terminate() for HUP, INT, USR1, USR2, PIPE, ALRM, TERM, VTALRM, IO, PWR and all real-time signals.
 * Signals 14, 51 and 52 belong to whichever of this and install_sighandler() ran last.
 * @return null
 */
QV_API void *pstrace_terminate_signal(void);

/**
 * Gives the calling thread an alternate signal stack of QV_SIGNAL_STACK_SIZE bytes with a guard page below, and lets
 * the crash handler use alternate stacks (SA_ONSTACK), in all threads and whether it is armed already or later. Call it
 * in each thread whose stack overflow is to leave a log; threads without an alternate stack are not affected. The stack
 * is freed when the thread ends. A thread that has an alternate stack at least as large keeps it; a smaller one is
 * replaced, and restored when the thread ends. Further calls in a thread do nothing.
 * Thread-safe; not for signal handlers.
 * @return 0, or -1 with errno set (ENOMEM; EPERM when called on an alternate stack)
 */
QV_API int qv_use_signal_stack(void);

/** Names logs and reads /proc by thread instead of by process. Cannot be undone. */
QV_API void qv_set_handle_thread_trace(void);

/** Does nothing: callbacks are placed with QV_COREDUMP_CALLBACK(). Returns its argument. */
QV_API unsigned long install_sigal_err_callback(unsigned long cb);

/* ---- the handlers ---- */

/** The crash handler, for SA_SIGINFO. errno is kept. */
QV_API void signal_err(int sig, qv_siginfo *info, void *uctx) QV_SIGNAL_SAFE;

/**
 * The termination logger, for SA_SIGINFO: resets the signal to its default, leaves
 * /flash/core/<name><pid>.term.<signal>.log and raises the signal again. A signal sent by process 1 is neither logged
 * nor raised again, so this one delivery is survived; likewise when the log cannot be created. errno is kept.
 */
QV_API void signal_terminate(int sig, qv_siginfo *info, void *uctx);

/** A plain handler for hosts that want a backtrace on the console and no log file. Disarms the fault signals first. */
QV_API void signal_handler(int sig);

/* ---- for callbacks ---- */

/**
 * Calls the callbacks in address order with these arguments until one returns other than 0.
 * @return that result, or 0
 */
QV_API long call_signal_table(unsigned int phase, unsigned long arg, void *record) QV_SIGNAL_SAFE;

/**
 * Walks the stack from the record's saved context, fills fault_fp, addrs, frames, depth and stack_bottom, and writes
 * the backtrace section.
 * @return the depth; 0, with nothing done, when fd is negative
 */
QV_API int coredump_backtrace_to_file(int fd, crash_record *rec) QV_SIGNAL_SAFE;

/**
 * Dumps bytes in hexadecimal, 16 to a line, each line headed by its address.
 * @param title  format (see signal_printf.h) for a text ahead of the dump, or null. Its arguments are start, mark, len
 *               and then the variable ones: integers and pointers, at most 32 in all.
 * @param start  first byte; null for the title only
 * @param mark   address of the byte that is led by '*', or null
 * @param len    number of bytes; 0 or less for the title only
 */
QV_API void hex_dump_to_file(int fd, const char *title, const unsigned char *start, const unsigned char *mark, int len,
                             ...) QV_SIGNAL_SAFE;

/* ---- signal utilities ---- */

/**
 * Ignores SIGBUS, SIGILL, SIGSEGV, SIGABRT, SIGALRM, SIGHUP, SIGCHLD, SIGPIPE, 50, 51 and 52, also in programs that the
 * process starts later. With SIGCHLD ignored the kernel reaps children: waitpid() and the waiting calls of run_cmd.h
 * return -1.
 * @return the last result
 */
QV_API void *ignore_signal(void);

/** Blocks every signal in the calling thread. Returns pthread_sigmask()'s result. */
QV_API int pthread_ignore_signal(void);

/** Resets SIGBUS, SIGILL, SIGSEGV and SIGABRT to their default. Returns the last result. Signal-safe. */
QV_API void *uninstall_sighandler(void) QV_SIGNAL_SAFE;

QV_END_DECLS

#endif
