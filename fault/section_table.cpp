// SPDX-License-Identifier: Apache-2.0
// The calling thread's table of executable mappings. What needs the loader is in section_placement.cpp.
#include "fault/section_table.h"

#include "base/errno_guard.h"
#include "fault/backtrace_internal.h"

#include <csignal>
#include <pthread.h>

namespace qv::fault {

constinit section_placement placement{};

namespace {

unsigned long thread_pointer()
{
    return reinterpret_cast<unsigned long>(__builtin_thread_pointer());
}

// The tables to borrow; their memory is not touched until a handler needs one. A slot belongs to the thread whose
// pointer it holds, until that handler returns. If a callback leaves the handler by siglongjmp(), the slot stays the
// thread's and serves its next handler. Other threads reuse it after the thread has ended.
struct borrowed_table {
    std::atomic<unsigned long> owner; // 0: free
    std::atomic<pid_t> owner_id;
    section_record sections[QV_SECTION_MAX];
};

constexpr int kBorrowedTables = 16;
constinit borrowed_table borrowed[kBorrowedTables]{};

borrowed_table *find_borrowed()
{
    unsigned long thread = thread_pointer();
    for (borrowed_table &table : borrowed) {
        if (table.owner.load(std::memory_order_relaxed) == thread)
            return &table;
    }
    return nullptr;
}

bool has_ended(pid_t thread)
{
    base::errno_guard keep;
    return thread != 0 && ::syscall(SYS_tgkill, ::getpid(), thread, 0) == -1 && errno == ESRCH;
}

borrowed_table *borrow()
{
    for (bool from_ended : {false, true}) {
        for (borrowed_table &table : borrowed) {
            unsigned long owner = table.owner.load();
            if (from_ended ? !has_ended(table.owner_id.load()) : owner != 0)
                continue;
            if (!table.owner.compare_exchange_strong(owner, thread_pointer()))
                continue;
            table.owner_id.store(thread_id());
            return &table;
        }
    }
    return nullptr;
}

} // namespace

section_record *section_table()
{
    section_placement::kind kind = placement.where.load(std::memory_order_acquire);
    if (kind == section_placement::kind::with_thread)
        return reinterpret_cast<section_record *>(thread_pointer() + placement.distance);
    if (kind == section_placement::kind::by_key) {
        if (void *table = ::pthread_getspecific(placement.key))
            return static_cast<section_record *>(table);
    }
    borrowed_table *table = find_borrowed();
    return table != nullptr ? table->sections : nullptr;
}

handler_section_table::handler_section_table()
{
    is_borrowed_ = section_table() == nullptr && borrow() != nullptr;
    if (borrowed_table *table = is_borrowed_ ? nullptr : find_borrowed())
        table->owner_id.store(thread_id()); // the slot was left by an earlier thread with the same thread pointer
    load_section_table(section_table());
}

handler_section_table::~handler_section_table()
{
    if (!is_borrowed_)
        return;
    if (borrowed_table *table = find_borrowed()) {
        table->owner_id.store(0);
        table->owner.store(0);
    }
}

} // namespace qv::fault
