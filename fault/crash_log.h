// SPDX-License-Identifier: Apache-2.0
// crash_log.h - the log files of the signal handlers: names, folders, content. All of it is signal-safe.
#ifndef LIBCOMMON_FAULT_CRASH_LOG_H
#define LIBCOMMON_FAULT_CRASH_LOG_H

#include "base/unique_fd.h"
#include "sighandler.h"

namespace qv::fault {

// What a log is about: the word in its file name.
enum class log_kind { coredump, attach, term };

// Writes "<folder>/<name><id>.<kind>.<sig>.log" into rec->log_path, cut at its size.
void set_default_path(crash_record *rec, const char *folder, log_kind kind);

// True when the folder exists or could be created. Two threads may die at once: a folder that the other one has just
// created is no failure. On failure errno says why.
bool ensure_folder(const char *folder);
bool folder_exists(const char *folder);

// Does not truncate an older log of the same name: its text beyond the new end may be the only trace of the first
// crash.
base::unique_fd open_log(const char *path);

// Writes everything before the backtrace: process, signal, registers, fault address and state word.
void write_log_head(int fd, const crash_record &rec);

} // namespace qv::fault

#endif
