// SPDX-License-Identifier: Apache-2.0
// section_rec's thread-local descriptor on x86-64.
#include "fault/section_table.h"

#if defined(__x86_64__)

namespace qv::fault {

bool is_section_table_at(unsigned long distance)
{
    const unsigned long *descriptor;
    asm("lea section_rec@tlsdesc(%%rip), %0" : "=a"(descriptor)); // linkers expect this register
    return reinterpret_cast<unsigned long>(descriptor) == distance || descriptor[1] == distance;
}

} // namespace qv::fault

#endif
