// SPDX-License-Identifier: Apache-2.0
// What the header-only part of the standard library calls when a contract is violated. The C++ run time that defines
// these functions is not linked. An optimised build drops the calls that cannot happen, and with them the references;
// an unoptimised build keeps both.
#include <cstdlib>

// The symbol of std::__throw_out_of_range_fmt(). A definition in std would be exported: its declaration says so.
extern "C" [[noreturn, gnu::visibility("hidden")]] void
libcommon_throw_out_of_range(const char *, ...) __asm__("_ZSt24__throw_out_of_range_fmtPKcz");

void libcommon_throw_out_of_range(const char *, ...)
{
    std::abort();
}
