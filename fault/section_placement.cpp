// SPDX-License-Identifier: Apache-2.0
// Determines where section_rec lies, and creates a thread's table. Runs while the library is loaded and in ordinary
// code: an access to section_rec by its name may call the loader and allocate.
#include "backtrace.h"

#include "fault/backtrace_internal.h"
#include "fault/section_table.h"

using namespace qv;

namespace qv::fault {
namespace {

// Another library's constructor may call this before the library's own one does. Two threads cannot be here at once:
// the first call happens while the library is loaded.
void find_placement()
{
    using kind = section_placement::kind;
    if (placement.where.load(std::memory_order_acquire) != kind::unknown)
        return;
    unsigned long distance =
        reinterpret_cast<unsigned long>(section_rec) - reinterpret_cast<unsigned long>(__builtin_thread_pointer());
    kind found = kind::unreachable;
    if (is_section_table_at(distance)) {
        placement.distance = distance;
        found = kind::with_thread;
    } else if (::pthread_key_create(&placement.key, nullptr) == 0) {
        found = kind::by_key;
    }
    placement.where.store(found, std::memory_order_release);
}

[[gnu::constructor]] void find_placement_at_load()
{
    find_placement();
}

// The calling thread's table; a thread without one gets it.
section_record *make_section_table()
{
    find_placement();
    if (section_record *table = section_table())
        return table;
    if (placement.where.load(std::memory_order_relaxed) == section_placement::kind::by_key)
        ::pthread_setspecific(placement.key, section_rec);
    return section_rec;
}

} // namespace
} // namespace qv::fault

extern "C" int procps_read_maps(void)
{
    return fault::load_section_table(fault::make_section_table());
}
