// SPDX-License-Identifier: Apache-2.0
#include "fault/stack_scan.h"

#include "backtrace.h"
#include "fault/machine_context.h"

namespace qv::fault {

bool follows_call(safe_memory *code, unsigned long address)
{
    constexpr unsigned long kLowestCode = 65536; // nothing is mapped below
    unsigned char before[kLongestCall];
    return address > kLowestCode && is_dynamic_lib(address) != 0 &&
           code->copy(address - sizeof before, before, sizeof before) == sizeof before &&
           ends_in_call(before + sizeof before);
}

} // namespace qv::fault
