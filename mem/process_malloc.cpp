// SPDX-License-Identifier: Apache-2.0
#include "mem/process_malloc.h"

#include <cstdint>
#include <cstdlib>

using namespace qv;

namespace qv::hooks {
namespace {

// The C library's malloc() has two names. Another allocator's has the first name only.
bool is_malloc_of_the_c_library()
{
#if LIBCOMMON_MALLOC_HOOKS
    return intercepting || &std::malloc == &__libc_malloc;
#else
    return false;
#endif
}

// Memory tagging: the tag is the top byte of a pointer, and the C library never gives a block the tag 0.
bool are_blocks_tagged()
{
    constexpr int kTagShift = 56;
    inside_scope scope;
    void *block = std::malloc(1);
    auto address = reinterpret_cast<std::uintptr_t>(block);
    std::free(block);
    return address >> kTagShift != 0;
}

} // namespace

bool malloc_was_called_inside = false;

bool is_malloc_of_the_library()
{
#if LIBCOMMON_MALLOC_HOOKS
    inside_scope scope;
    malloc_was_called_inside = false;
    std::free(std::malloc(1));
    return malloc_was_called_inside;
#else
    return false;
#endif
}

size_source find_size_source()
{
    if (!is_malloc_of_the_c_library())
        return size_source::usable_and_word;
    return are_blocks_tagged() ? size_source::usable_and_header : size_source::header;
}

} // namespace qv::hooks
