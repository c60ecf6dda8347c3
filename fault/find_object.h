// SPDX-License-Identifier: Apache-2.0
// find_object.h - the dynamic loader's lock-free search for the module at an address.
#ifndef LIBCOMMON_FAULT_FIND_OBJECT_H
#define LIBCOMMON_FAULT_FIND_OBJECT_H

#include <link.h>

namespace qv::fault {

// As _dl_find_object() fills it. Declared here because the headers of older C libraries lack it.
struct found_object {
    unsigned long long flags;
    void *start;
    void *end;
    link_map *map;
    void *unwind_index;          // .eh_frame_hdr
    unsigned long long rest[15]; // fewer are used
};

using find_object_function = int (*)(void *address, found_object *found);

// _dl_find_object() of glibc 2.35 and later, or null. Written once, while the library is loaded: a reference by name,
// even a weak one, would carry that version and keep the library from being loaded with an older one.
extern find_object_function find_object;

} // namespace qv::fault

#endif
