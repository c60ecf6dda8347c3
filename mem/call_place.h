// SPDX-License-Identifier: Apache-2.0
// call_place.h - names the place of a call for a line of the trace file.
//
// Does not use the dynamic loader's locks: a thread that loads a library, starts a thread or ends one holds them while
// it allocates. Keeps the places that it found, since a look-up reads the whole symbol table of the module.
#ifndef LIBCOMMON_MEM_CALL_PLACE_H
#define LIBCOMMON_MEM_CALL_PLACE_H

#include <cstddef>

namespace qv::call_place {

// Writes "@ FILE:(SYMBOL+0xOFFSET)[0xADDRESS] ", with the address as in the file; "@ [0xADDRESS] " where no module is
// known. Cuts the text to the size and returns its length.
std::size_t write(char *to, std::size_t size, const void *caller);

void after_fork_in_child();

} // namespace qv::call_place

#endif
