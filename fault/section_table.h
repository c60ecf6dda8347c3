// SPDX-License-Identifier: Apache-2.0
// section_table.h - the calling thread's table of executable mappings, reached without the loader. Signal-safe.
//
// section_rec is thread-local. An access to it by its name may call the dynamic loader, which takes a lock and
// allocates: always when the library was loaded by dlopen(), and after any dlopen() of a library with thread-local
// data. A handler can do neither. The 3 KiB are too many for the small reserve that would let dlopen() place them with
// the thread.
//
// So the table's place is determined while the library is loaded:
//
//     linked by the program    at the same distance from every thread's pointer
//     loaded by dlopen()       at the thread's value of a pthread key, which ordinary code sets when it first loads the
//                              table; a handler on a thread without a value borrows a table
#ifndef LIBCOMMON_FAULT_SECTION_TABLE_H
#define LIBCOMMON_FAULT_SECTION_TABLE_H

#include "backtrace.h"

#include <atomic>
#include <pthread.h>

namespace qv::fault {

// Written once, while the library is loaded; `where` last.
struct section_placement {
    enum class kind {
        unknown,     // the library is being loaded
        with_thread, // `distance` from each thread's pointer
        by_key,      // the thread's value of `key`
        unreachable, // there was no key left: no thread has a table
    };
    std::atomic<kind> where;
    unsigned long distance;
    pthread_key_t key;
};

extern section_placement placement;

// The calling thread's table of QV_SECTION_MAX records, or null when it has none yet.
section_record *section_table();

// Fills a table of QV_SECTION_MAX records from /proc, as procps_read_maps() does. Null is ignored.
int load_section_table(section_record *table);

// Gives the calling thread a freshly loaded table during a handler's run. When all tables are borrowed, there is none,
// and every address counts as code.
class handler_section_table {
public:
    handler_section_table();
    ~handler_section_table();
    handler_section_table(const handler_section_table &) = delete;
    handler_section_table &operator=(const handler_section_table &) = delete;

private:
    bool is_borrowed_ = false;
};

// Whether section_rec is at this distance from the thread pointer in every thread. Static TLS: the second word of the
// descriptor is the distance, or the linker has replaced the descriptor's address by it. One file per architecture.
bool is_section_table_at(unsigned long distance);

} // namespace qv::fault

#endif
