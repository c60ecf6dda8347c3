// SPDX-License-Identifier: Apache-2.0
// next_function.h - the function that a test's replacement hides.
#ifndef LIBCOMMON_TESTS_NEXT_FUNCTION_H
#define LIBCOMMON_TESTS_NEXT_FUNCTION_H

#include <dlfcn.h>

namespace support {

// The next definition of the name after the test program's, as the dynamic linker finds it.
//
//     static auto real = support::next_function<std::time_t(std::time_t *)>("time");
template <typename Function>
Function *next_function(const char *name)
{
    return reinterpret_cast<Function *>(::dlsym(RTLD_NEXT, name));
}

} // namespace support

#endif
