// SPDX-License-Identifier: Apache-2.0
// section_rec's thread-local descriptor on x86-64.
#include "fault/section_table.h"

#if defined(__x86_64__)

namespace qv::fault {

unsigned long section_descriptor_word()
{
    const unsigned long *descriptor;
    asm("lea section_rec@tlsdesc(%%rip), %0" : "=a"(descriptor)); // linkers expect this register
    return descriptor[1];
}

} // namespace qv::fault

#endif
