/* SPDX-License-Identifier: Apache-2.0 */
/* crash_details.h - adds details to crash logs beyond registers and a backtrace, for hosts that ask for them.
 *
 * One line at file scope of the host makes its crash logs and dumps carry details after the ordinary text: who sent the
 * signal, times, the C library's abort message, notes of the host, every module with its build id, every thread with
 * what it waits for, the top of the stack, memory and limits:
 *
 *     #include <crash_details.h>
 *
 *     QV_CRASH_DETAILS;
 *
 * The details are plain lines, the most valuable first, each written as soon as it is known: a second fault costs only
 * the rest. qvcrash(1) reads them; docs/crash-logs.md explains them for people.
 *
 * A thread may leave a note for the log of a later crash:
 *
 *     qv_crash_note("serving request %u of %s", request, client);
 */
#ifndef LIBCOMMON_CRASH_DETAILS_H
#define LIBCOMMON_CRASH_DETAILS_H

#include "libcommon_api.h"
#include "sighandler.h"

QV_BEGIN_DECLS

/** How many bytes of a note are kept, the terminating zero included. */
#define QV_CRASH_NOTE_SIZE 128

/** How many threads can have a note at the same time. */
#define QV_CRASH_NOTE_THREADS 256

/** Places the callback below in the host's callback table. Use it once, at file scope, followed by a semicolon. */
#define QV_CRASH_DETAILS QV_COREDUMP_CALLBACK(qv_crash_details)

/**
 * Writes the details of a crash or a dump request when it is called with phase QV_COREDUMP_LAST, and prepares for it
 * with phase QV_COREDUMP_INSTALLED. Does nothing in the other phases. Placed by QV_CRASH_DETAILS; a callback of the
 * host may call it too.
 * @return 0
 */
QV_API long qv_crash_details(unsigned int phase, unsigned long arg, void *record) QV_SIGNAL_SAFE;

/**
 * Leaves a note of the calling thread for the details of a later log. It replaces the thread's former note. A note that
 * is longer than QV_CRASH_NOTE_SIZE - 1 bytes is cut; an empty one removes the thread's note. Takes no lock and
 * allocates nothing, but formats as printf() does: not for signal handlers. Does nothing when QV_CRASH_NOTE_THREADS
 * other threads that are alive have notes.
 */
QV_API void qv_crash_note(const char *format, ...) QV_PRINTF(1, 2);

/**
 * Notes which modules are loaded now. Modules of an earlier note that are gone when a log is written are listed there
 * as unloaded, so that an address in one of them can be attributed. Installing the handlers does so too; a host that
 * loads plug-ins calls it after each dlopen(). At most 64 modules are kept. Not for signal handlers.
 */
QV_API void qv_crash_note_modules(void);

/**
 * Lets further signals that end a process leave crash logs: SIGFPE, SIGTRAP and SIGSYS, and, by an alternate stack for
 * the calling thread (see qv_use_signal_stack()), its stack overflow. Call it after install_sighandler().
 * @return 0, or -1 with errno set when a handler or the stack could not be installed; the others are
 */
QV_API int qv_crash_more_signals(void);

/** The signal that asks a thread for its call chain, as a fixed number like those of the dump requests. */
#define QV_CRASH_WALK_SIGNAL 53

/**
 * Lets the details of dump requests have each thread's call chain, by frame records as in the backtrace. Without it
 * they have what can be read from outside: the place in the kernel and candidates from the stack. Logs of crashes are
 * as before. Each thread in turn gets QV_CRASH_WALK_SIGNAL and walks its own stack in a handler. The thread that writes
 * the dump waits for 500 ms for each and for 2 s for all of them. Threads that block the signal are skipped, and so are
 * those with less than 16 KiB of stack left. A handler that comes too late writes nowhere. System calls that handlers
 * interrupt (poll(), nanosleep(), epoll_wait() and others, see signal(7)) fail with EINTR in the threads that are
 * asked; the rest is restarted.
 *
 * Any thread may call it, once or more often. It installs a handler for the whole process.
 * @return 0, or -1 with errno set: EBUSY when the host uses the signal
 */
QV_API int qv_crash_walk_threads(void);

QV_END_DECLS

#endif
