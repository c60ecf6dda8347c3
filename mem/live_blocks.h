// SPDX-License-Identifier: Apache-2.0
// live_blocks.h - full tracing: a record of each live block, and the hooks that keep the records.
//
// The exported `mutex` protects the table, its counters and the installation of the hooks. With `mutex` held, nothing
// allocates except through the allocator below the hooks.
#ifndef LIBCOMMON_MEM_LIVE_BLOCKS_H
#define LIBCOMMON_MEM_LIVE_BLOCKS_H

#include "mem/block_table.h"
#include "mem/hook_table.h"
#include "util/exported_variable.h"

#include <cstdint>
#include <ctime>
#include <pthread.h>

namespace qv::live_blocks {

// The exported `mutex`.
extern constinit exported_variable<pthread_mutex_t> table_mutex;

class table_lock {
public:
    table_lock() { pthread_mutex_lock(&*table_mutex); }
    ~table_lock() { pthread_mutex_unlock(&*table_mutex); }
    table_lock(const table_lock &) = delete;
    table_lock &operator=(const table_lock &) = delete;
};

struct tracing_state {
    block_table *table = nullptr; // null before the first start and after a reset
    std::uint32_t blocks = 0;     // in the table
    std::uint32_t bytes = 0;
    std::uint32_t allocs = 0;
    std::uint32_t frees = 0;
    std::uint32_t reallocs = 0;
    std::uint32_t unmatched_frees = 0; // of blocks that are not in the table
    std::uint32_t unmatched_reallocs = 0;
    std::uint32_t allocs_by_realloc = 0;
    std::uint32_t frees_by_realloc = 0;
};

// Protected by `mutex`.
extern constinit tracing_state state;

extern const hooks::own_set kHooks;

// The time of records: seconds of the wall clock.
inline std::uint64_t now()
{
    return static_cast<std::uint64_t>(std::time(nullptr));
}

// Loads the unwinder, which allocates and waits for the dynamic loader.
void prepare_chains();

// Installs the hooks. Takes the fresh table, and sets the pointer to null, if there is no table.
void start(block_table *&fresh);

// Clears the counters. Returns the table, which the caller frees; null if there is none.
block_table *remove_table();

tracing_state read_state();

void before_fork();
void after_fork_in_parent();
void after_fork_in_child();

} // namespace qv::live_blocks

#endif
