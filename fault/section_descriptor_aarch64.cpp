// SPDX-License-Identifier: Apache-2.0
// section_rec's thread-local descriptor on AArch64.
#include "fault/section_table.h"

#if defined(__aarch64__)

namespace qv::fault {

unsigned long section_descriptor_word()
{
    const unsigned long *descriptor;
    asm("adrp %0, :tlsdesc:section_rec\n\tadd %0, %0, :tlsdesc_lo12:section_rec" : "=r"(descriptor));
    return descriptor[1];
}

} // namespace qv::fault

#endif
