// SPDX-License-Identifier: Apache-2.0
// Asks for the lock-free search for modules. Runs while the library is loaded, never in a handler.
#include "fault/find_object.h"

#include <cstddef>
#include <dlfcn.h>

using namespace qv;

#if __GLIBC_PREREQ(2, 35)
static_assert(offsetof(fault::found_object, start) == offsetof(dl_find_object, dlfo_map_start));
static_assert(offsetof(fault::found_object, end) == offsetof(dl_find_object, dlfo_map_end));
static_assert(offsetof(fault::found_object, map) == offsetof(dl_find_object, dlfo_link_map));
static_assert(offsetof(fault::found_object, unwind_index) == offsetof(dl_find_object, dlfo_eh_frame));
static_assert(sizeof(fault::found_object) >= sizeof(dl_find_object));

// The search in a static program. Weak and hidden: null unless the program contains the C library.
// NOLINTNEXTLINE(readability-redundant-declaration): for the attributes
extern "C" [[gnu::weak, gnu::visibility("hidden")]] decltype(_dl_find_object) _dl_find_object;
#endif

namespace qv::fault {
namespace {

find_object_function look_for_find_object()
{
#if __GLIBC_PREREQ(2, 35)
    if (::_dl_find_object != nullptr)
        return reinterpret_cast<find_object_function>(::_dl_find_object);
#endif
    return reinterpret_cast<find_object_function>(::dlsym(RTLD_DEFAULT, "_dl_find_object"));
}

[[gnu::constructor]] void ask_for_find_object()
{
    find_object = look_for_find_object();
}

} // namespace
} // namespace qv::fault
