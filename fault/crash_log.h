// SPDX-License-Identifier: Apache-2.0
// crash_log.h - the log files of the signal handlers: names, folders, content. All of it is signal-safe.
#ifndef LIBCOMMON_FAULT_CRASH_LOG_H
#define LIBCOMMON_FAULT_CRASH_LOG_H

#include "base/unique_fd.h"
#include "sighandler.h"

namespace fault {

// What a log is about: the word in its file name.
enum class log_kind { coredump, attach, term };

// Writes "<folder>/<name><id>.<kind>.<sig>.log" into rec->log_path, cut at its size.
void set_default_path(crash_record *rec, const char *folder, log_kind kind);

// True when the folder is there or could be made. Two threads may die at once: the folder that the other one has just
// made is no failure. On failure errno tells why.
bool ensure_folder(const char *folder);
bool folder_exists(const char *folder);

// An older log of the same name is not cut: what it holds beyond the new text may be the only trace of the first crash.
base::unique_fd open_log(const char *path);

// Everything ahead of the backtrace: who died of what, the registers, fault address and state.
void write_log_head(int fd, const crash_record &rec);

} // namespace fault

#endif
