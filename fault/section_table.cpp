// SPDX-License-Identifier: Apache-2.0
// The calling thread's table of executable mappings. What needs the loader is in section_placement.cpp.
#include "fault/section_table.h"

#include "base/cancel_guard.h"
#include "base/errno_guard.h"
#include "base/unique_fd.h"
#include "console_print.h"
#include "fault/backtrace_internal.h"
#include "fault/line_reader.h"
#include "signal_printf.h"

#include <csignal>
#include <cstddef>
#include <cstring>
#include <fcntl.h>
#include <pthread.h>

extern "C" {
__thread struct section_record section_rec[QV_SECTION_MAX];
int qv_handle_thread;
}

static_assert(sizeof(section_record) == 24 && offsetof(section_record, end) == 8);

namespace qv::fault {

constinit section_placement placement{};

namespace {

constexpr std::size_t kPathSize = 64;

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

int open_process_maps()
{
    char path[kPathSize];
    if (qv_handle_thread != 0)
        signal_snprintf(path, sizeof path, "/proc/%u/task/%u/maps", ::getpid(), thread_id());
    else
        signal_snprintf(path, sizeof path, "/proc/%u/maps", ::getpid());
    return ::open(path, O_RDONLY);
}

// Permissions read "rwxp": code is executable and not writable, whether readable or not.
bool is_code_mapping(const mapping_line &mapping)
{
    const char *permissions = mapping.permissions;
    return permissions[0] != '\0' && permissions[1] == '-' && permissions[2] == 'x' && mapping.start != 0 &&
           mapping.start < mapping.end;
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

int load_section_table(section_record *table)
{
    if (table == nullptr)
        return -1;
    base::errno_guard keep;
    base::cancel_guard no_cancellation;
    std::memset(table, 0, QV_SECTION_MAX * sizeof *table);
    base::unique_fd fd(open_process_maps());
    if (!fd)
        return -1;

    hfgets_state reader = {};
    reader.fd = fd.get();
    char line[kLineSize];
    std::size_t count = 0;
    while (hfgets(line, &reader) != nullptr) {
        // Reported only when another line follows the last record that fits, whatever that line is.
        if (count == QV_SECTION_MAX) {
            console_print("procps_read_maps, exec section number large than %u.\n", QV_SECTION_MAX);
            break;
        }
        mapping_line mapping;
        if (parse_mapping(line, &mapping) && is_code_mapping(mapping))
            table[count++] = {mapping.start, mapping.end, 0};
    }
    return 0;
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
