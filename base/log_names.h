// SPDX-License-Identifier: Apache-2.0
// log_names.h - what the names of logs are made of, for the library, which writes them, and qvcrash, which reads them.
#ifndef LIBCOMMON_BASE_LOG_NAMES_H
#define LIBCOMMON_BASE_LOG_NAMES_H

namespace qv::base {

// "<name><id>.<word>.<signal>.log"
inline constexpr const char *kCoredumpWord = "coredump"; // a fatal signal
inline constexpr const char *kAttachWord = "attach";     // a dump request
inline constexpr const char *kTermWord = "term";         // a termination signal

// The signals of dump requests: fixed numbers, agreed with the tools that send them, whatever the C library's SIGRTMIN
// is.
inline constexpr int kAttachSignal = 14; // unless the host chooses another one
inline constexpr int kDumpFileSignal = 51;
inline constexpr int kBacktraceSignal = 52;

} // namespace qv::base

#endif
