// SPDX-License-Identifier: Apache-2.0
// pointer_hash.h - multiplicative hash of addresses for the tables that are used inside malloc().
#ifndef LIBCOMMON_MEM_POINTER_HASH_H
#define LIBCOMMON_MEM_POINTER_HASH_H

#include <cstdint>

namespace qv::mem {

// The top `bits` bits of the product with 2^64 divided by the golden ratio. Addresses are multiples of an alignment, so
// their low bits do not differ; those of the product that depend on all bits are the top ones.
inline unsigned pointer_hash(std::uintptr_t address, int bits)
{
    return static_cast<unsigned>(address * 0x9E3779B97F4A7C15 >> (64 - bits));
}

} // namespace qv::mem

#endif
