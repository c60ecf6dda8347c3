// SPDX-License-Identifier: Apache-2.0
// section_rec's thread-local descriptor on AArch64.
#include "fault/section_table.h"

#if defined(__aarch64__)

namespace qv::fault {

bool is_section_table_at(unsigned long distance)
{
    // Linkers replace this sequence, with these registers, as a whole.
    register const unsigned long *descriptor asm("x0");
    asm("adrp x0, :tlsdesc:section_rec\n\t"
        "ldr x1, [x0, :tlsdesc_lo12:section_rec]\n\t"
        "add x0, x0, :tlsdesc_lo12:section_rec"
        : "=r"(descriptor)
        :
        : "x1");
    return reinterpret_cast<unsigned long>(descriptor) == distance || descriptor[1] == distance;
}

} // namespace qv::fault

#endif
