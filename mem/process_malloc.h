// SPDX-License-Identifier: Apache-2.0
// process_malloc.h - which malloc() the process has: the library's, the C library's or another allocator's.
//
// A separate unit: in the static archive the symbol malloc is renamed in interposition.o, but here it must mean the
// process's malloc().
#ifndef LIBCOMMON_MEM_PROCESS_MALLOC_H
#define LIBCOMMON_MEM_PROCESS_MALLOC_H

#include "mem/hook_table.h"

namespace qv::hooks {

// Set by the library's malloc() when its thread is in `inside`: proves that the process's malloc() is the library's.
extern bool malloc_was_called_inside;

// Both run once, at load.
bool is_malloc_of_the_library();
size_source find_size_source();

} // namespace qv::hooks

#endif
