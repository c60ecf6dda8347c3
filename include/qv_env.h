/* SPDX-License-Identifier: Apache-2.0 */
/* qv_env.h - settings that outlive the process: one name=value file shared by all processes.
 *
 * The store is the text file /tmp/qvenv, one line "name=value" for each setting. What one process sets, for example at
 * boot, every other can read later, until a reboot clears /tmp. Nothing is quoted and nothing removes a setting.
 *
 *     qv_setenv("slot", "3", 1);
 *     const char *slot = qv_getenv("slot");       // null when nobody has set it
 *
 * Names are searched anywhere in the text: "B=" is also found within a line "AB=1". Setting B then removes "B=1" from
 * that line and joins its rest, "A", to the next one. Choose names so that no name ends in another, and values without
 * "=" or newline: neither is refused, and a newline makes a second line that reads as a setting.
 *
 * Each call opens the file, holds a record lock on the whole of it for its duration (shared to read, exclusive to
 * write) and waits for that lock, so calls of different processes never mix. Such locks belong to the process: its
 * threads must exclude each other, readers too because of the common result buffer; and a process that closes any
 * descriptor of the file drops the lock that it holds through another. A signal handler without SA_RESTART that runs
 * during the wait for the lock makes the call fail. Not for signal handlers.
 */
#ifndef LIBCOMMON_QV_ENV_H
#define LIBCOMMON_QV_ENV_H

#include "libcommon_api.h"

QV_BEGIN_DECLS

/* The store's file, and the lengths that qv_setenv() accepts at most. */
#define QV_ENV_FILE "/tmp/qvenv"
#define QV_ENV_NAME_MAX 30
#define QV_ENV_VALUE_MAX 64

/**
 * Sets or drops a record lock on a whole file, also on what is appended to it later.
 * @param fd    the file, open for reading to share the lock, for writing to hold it exclusively
 * @param type  F_RDLCK, F_WRLCK or F_UNLCK of <fcntl.h>
 * @param wait  non-zero: wait until the lock is free; 0: fail at once
 * @return what fcntl() returned: -1, with errno, on failure
 */
QV_API int file_lock(int fd, short type, int wait);

/** Drops this process's record locks on a file. @return as file_lock() */
QV_API int file_unlock(int fd);

/**
 * Stores a setting at the end of the store, which is made (mode 0644) if missing. An older record of the name is
 * removed, from the place where the name is found to the end of that line; the following lines move up.
 * @param name       at most 30 characters
 * @param value      at most 64 characters; one of exactly 64 is stored, but qv_getenv() does not see it
 * @param overwrite  0: leave an existing record alone
 * @return 0; -2 when the name is present and overwrite is 0; -1 when name or value are too long, the file cannot be
 * opened, locked or read, or memory runs out. A failed write goes unnoticed.
 */
QV_API int qv_setenv(const char *name, const char *value, int overwrite);

/**
 * Reads a setting from the store.
 * @param name  name and '=' are cut to 31 characters for the search, so that a longer name matches without the '='
 * @return its value, up to the end of its line, in a buffer that lasts until the next call of this function or
 * qv_getenv_filename(); null when there is none, or the store cannot be opened, locked or read. A value of exactly 64
 * characters reads as absent; a longer one, from another writer, is cut to 65.
 */
QV_API char *qv_getenv(const char *name);

/**
 * Reads a setting from any file of the store's format, as qv_getenv(), but with a stricter match: only the first
 * occurrence of the name in the text counts, and an '=' must follow directly. The name is not cut.
 * @param path  the file, which is only read
 */
QV_API char *qv_getenv_filename(const char *path, const char *name);

QV_END_DECLS

#endif
