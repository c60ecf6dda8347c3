// SPDX-License-Identifier: Apache-2.0
#include "memory_source.h"

#include <sys/uio.h>

namespace qvstat {

namespace {

// On AArch64 the top byte of a pointer to the heap may be a tag. User addresses never need it.
constexpr std::uint64_t kAddressBits = ~std::uint64_t{0} >> 8;

} // namespace

bool process_memory::read(std::uint64_t address, void *to, std::size_t size) const
{
    auto *at = static_cast<char *>(to);
    address &= kAddressBits;
    while (size > 0) {
        iovec local = {at, size};
        iovec remote = {reinterpret_cast<void *>(address), size};
        ssize_t copied = ::process_vm_readv(process_, &local, 1, &remote, 1, 0);
        if (copied <= 0)
            return false;
        at += copied;
        address += static_cast<std::uint64_t>(copied);
        size -= static_cast<std::size_t>(copied);
    }
    return true;
}

} // namespace qvstat
