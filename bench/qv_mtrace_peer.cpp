// SPDX-License-Identifier: Apache-2.0
// The minimum of counting every block: malloc() and free() in a shared object. They read a hook variable, which a host
// may set, and count calls and bytes of the block's size class in thread-local variables. No thread may end, nothing is
// reported and nobody forks.
#include "bench/qv_mtrace_peer.h"

#include <bit>
#include <cstdint>

extern "C" {
void *__libc_malloc(std::size_t size);
void __libc_free(void *block);
}

namespace bench {
namespace {

struct counters {
    std::uint32_t calls, bytes;
};

[[gnu::tls_model("initial-exec")]] thread_local counters allocated[32], released[32];
void *hook = nullptr;

void count(counters (&by_class)[32], void *block)
{
    asm volatile("" : "+r"(block)); // the compiler takes the header word before the block for out of bounds
    auto size = static_cast<std::uint32_t>(static_cast<std::size_t *>(block)[-1] & ~std::size_t{7});
    counters &own = by_class[std::bit_width(size | 1) - 1];
    own.calls++;
    own.bytes += size;
}

} // namespace

void *counting_malloc(std::size_t size)
{
    if (__atomic_load_n(&hook, __ATOMIC_RELAXED) != nullptr)
        return nullptr;
    void *block = __libc_malloc(size);
    if (block != nullptr)
        count(allocated, block);
    return block;
}

void counting_free(void *block)
{
    if (__atomic_load_n(&hook, __ATOMIC_RELAXED) == nullptr && block != nullptr)
        count(released, block);
    __libc_free(block);
}

} // namespace bench
