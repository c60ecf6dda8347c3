// SPDX-License-Identifier: Apache-2.0
// crash_notes.h - the threads' notes for a crash log. Reading them is signal-safe.
#ifndef LIBCOMMON_FAULT_CRASH_NOTES_H
#define LIBCOMMON_FAULT_CRASH_NOTES_H

namespace qv::fault {

// What an object cache found before it ends the process.
struct cache_misuse {
    const char *cache;    // its name, or null for no cache
    int code;             // an mcache_error_code
    unsigned long object; // 0 for none
    unsigned long guard;  // the word after the object; 0 when it was not read
};

// Kept for the details of the log that follows.
void note_cache_misuse(const cache_misuse &misuse);

// Writes a line for what a cache found, if any did.
void report_cache_misuse(int fd);

// Writes a line for each note of a thread that is alive in this process.
void report_notes(int fd);

} // namespace qv::fault

#endif
