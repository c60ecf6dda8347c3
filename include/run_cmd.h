/* SPDX-License-Identifier: Apache-2.0 */
/* run_cmd.h - starting other programs from a daemon.
 *
 * Each call forks; the child closes every descriptor above standard error, optionally restores the default action of
 * SIGINT, and becomes the program. Nothing else is changed: other signal dispositions, the mask, the
 * environment and the working folder are inherited. What the caller ignores, the program ignores: after
 * ignore_signal() of sighandler.h that is SIGPIPE and SIGHUP too, and because SIGCHLD is among them the calls that wait
 * return -1 although the program ran. A command line is cut at blanks and tabs, at most 32 words, without
 * quoting: for a shell's rules there is run_shell().
 *
 *     int status = run_shellcmd("/sbin/ip", "ip link set eth0 up", 1, 1);
 *     if (status == -1 || !WIFEXITED(status) || WEXITSTATUS(status) != 0) ...
 *
 * Wait statuses come raw, as waitpid() stores them. A wait that a signal handler interrupts goes on, so that no waiting
 * call leaves a zombie. A child whose program cannot be started prints "execv PATH error: ..." with console_print(),
 * also to the console, and calls exit(-1), status 255, which a program may also return by itself; that runs the
 * caller's atexit() functions in the child. Pending text in the caller's stdio streams belongs to the caller: a process
 * without other threads writes it before the fork, and no child writes it. Not for signal handlers; a caller with
 * threads risks that a child whose program cannot be started waits for a lock that a thread held at the fork.
 */
#ifndef LIBCOMMON_RUN_CMD_H
#define LIBCOMMON_RUN_CMD_H

#include "libcommon_api.h"

#include <sys/types.h>

QV_BEGIN_DECLS

/**
 * Closes every open descriptor of the calling process from 3 up. Console output opens its devices again with the next
 * message, and the debug trace its file with the next prefix; a trace of allocations ends.
 * @return 0, or -1, after a console message, when the process's descriptor folder below /proc cannot be opened. If only
 * a free descriptor is missing for that, all are closed nevertheless
 */
QV_API int close_extra_fds(void);

/**
 * Runs a program.
 * @param path        the program's file, no search
 * @param argv        its arguments, argv[0] included, null at the end
 * @param wait        non-zero: wait for its end; 0: return at once, the caller reaps the child
 * @param dfl_sigint  non-zero: the program starts with the default action of SIGINT
 * @return the wait status (wait non-zero) or 0; -1 when the fork (after a console message) or the wait failed
 */
QV_API int run_execv(const char *path, char *const argv[], int wait, int dfl_sigint);

/**
 * Runs a program with the words of a command line as its arguments.
 * @param path     the program's file; the first word of cmdline becomes argv[0]
 * @param cmdline  words between blanks and tabs. With more than 32 of them, or 32 followed by blanks, a warning goes to
 *                 standard output and the program still runs, with the first 32
 * @return as run_execv(); -1 also when there is no memory for a long command line
 */
QV_API int run_shellcmd(const char *path, const char *cmdline, int wait, int dfl_sigint);

/**
 * Runs a program without waiting for it.
 * @param pid  receives the child's id; unchanged on failure
 * @return 0, or -1, after a console message, when the fork failed
 */
QV_API int run_execv_ex(const char *path, char *const argv[], int dfl_sigint, pid_t *pid);

/** run_execv_ex() with the words of a command line, which are as in run_shellcmd(). */
QV_API int run_shellcmd_ex(const char *path, const char *cmdline, int dfl_sigint, pid_t *pid);

/**
 * Polls whether a child started by one of the _ex functions has ended; never blocks.
 * @param status  receives its raw wait status when it has
 * @return the child's id when it has ended, 0 while it runs, -1 on error
 */
QV_API pid_t run_shellcmd_ex_wait(pid_t pid, int *status);

/**
 * Runs a command through /bin/sh -c and waits for it.
 * @return the wait status, or -1 when the fork or the wait failed. When /bin/sh cannot be started the CHILD returns -1
 * too, after a line on standard output, and continues in the caller's code: a caller that gets -1 compares getpid().
 */
QV_API int run_shell(const char *cmd);

QV_END_DECLS

#endif
