// SPDX-License-Identifier: Apache-2.0
// Memory that runs out when a test says so. Only one source of a test program may include this: it defines malloc
// and calloc.
#pragma once

#include "support/next_function.h"

#include <cstddef>
#include <cstdlib>
#include <malloc.h> // declares malloc() noexcept, which it may do only before the definition here

namespace support {

inline int allocations_left = -1; // -1: any number

inline bool take_allocation()
{
    if (allocations_left == 0)
        return false;
    allocations_left -= allocations_left > 0;
    return true;
}

} // namespace support

extern "C" void *malloc(std::size_t size)
{
    static auto real = support::next_function<void *(std::size_t)>("malloc");
    return support::take_allocation() ? real(size) : nullptr;
}

extern "C" void *calloc(std::size_t count, std::size_t size)
{
    static auto real = support::next_function<void *(std::size_t, std::size_t)>("calloc");
    return support::take_allocation() ? real(count, size) : nullptr;
}
