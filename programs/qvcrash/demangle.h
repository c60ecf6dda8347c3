// SPDX-License-Identifier: Apache-2.0
// demangle.h - C++ names as they were written.
#ifndef QVCRASH_DEMANGLE_H
#define QVCRASH_DEMANGLE_H

#include <cstdlib>
#include <cxxabi.h>
#include <string>

namespace qvcrash {

/** The name as it was written, or unchanged when it is not a mangled one. */
inline std::string demangle(const std::string &name)
{
    int status = -1;
    char *text = abi::__cxa_demangle(name.c_str(), nullptr, nullptr, &status);
    std::string result = status == 0 ? text : name;
    std::free(text);
    return result;
}

} // namespace qvcrash

#endif
