// SPDX-License-Identifier: Apache-2.0
// The function that the header-only part of the standard library calls when a precondition is violated. The C++ run
// time that defines it is not linked. An optimised build removes the impossible calls and so the references; an
// unoptimised build keeps them.
#include <cstdlib>

// The symbol of std::__throw_out_of_range_fmt(). A definition in namespace std would be exported, because the
// library's declaration of it has default visibility.
extern "C" [[noreturn, gnu::visibility("hidden")]] void
libcommon_throw_out_of_range(const char *, ...) __asm__("_ZSt24__throw_out_of_range_fmtPKcz");

void libcommon_throw_out_of_range(const char *, ...)
{
    std::abort();
}
