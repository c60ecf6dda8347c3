// SPDX-License-Identifier: Apache-2.0
// 64-bit byte order: reversed on any processor, also where host and network order agree.
#include "encoding.h"

extern "C" {

uint64_t qv_ntoh64(uint64_t v)
{
    return __builtin_bswap64(v);
}

uint64_t qv_hton64(uint64_t v)
{
    return qv_ntoh64(v);
}

} // extern "C"
