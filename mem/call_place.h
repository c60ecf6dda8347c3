// SPDX-License-Identifier: Apache-2.0
// call_place.h - where a call came from, as lines of the trace file have it.
//
// Found without the dynamic loader's locks: a thread that loads a library, starts a thread or ends one holds them while
// it allocates. Places that were found are kept, since a look-up reads the whole symbol table of the module.
#ifndef LIBCOMMON_MEM_CALL_PLACE_H
#define LIBCOMMON_MEM_CALL_PLACE_H

#include <cstddef>

namespace call_place {

// "@ FILE:(SYMBOL+0xOFFSET)[0xADDRESS] ", the address as the file has it; "@ [0xADDRESS] " where no module is known.
// Cut to the size.
// @return the length
std::size_t write(char *to, std::size_t size, const void *caller);

void after_fork_in_child();

} // namespace call_place

#endif
