// SPDX-License-Identifier: Apache-2.0
// zeroed_malloc.h - zeroed blocks from malloc().
#ifndef LIBCOMMON_CONTAINER_ZEROED_MALLOC_H
#define LIBCOMMON_CONTAINER_ZEROED_MALLOC_H

#include <cstddef>
#include <cstdlib>
#include <cstring>

namespace qv::container {

// From this size on the C library gets a separate block from the system, whose pages are zeroed when first touched;
// zeroing it here would commit all of it, up to 16 GiB for the largest hash table.
inline constexpr std::size_t kLargeBlock = std::size_t{1} << 20;

// For free(); null when there is no memory.
inline void *zeroed_malloc(std::size_t size)
{
    if (size >= kLargeBlock)
        return std::calloc(size, 1);
    void *block = std::malloc(size);
    if (block != nullptr)
        std::memset(block, 0, size);
    return block;
}

} // namespace qv::container

#endif
