// SPDX-License-Identifier: Apache-2.0
// A library that opens a module beside the program while the program starts, before the other libraries are
// initialised. A sanitizer's dlopen() does not know whose $ORIGIN is meant, so the path is complete.
#include <climits>
#include <dlfcn.h>
#include <string>
#include <unistd.h>

extern "C" void *opened_at_start;
void *opened_at_start = nullptr;

namespace {

[[gnu::constructor]] void open_module()
{
    char program[PATH_MAX] = {};
    if (::readlink("/proc/self/exe", program, sizeof program - 1) < 0)
        return;
    std::string path = program;
    path.replace(path.rfind('/') + 1, std::string::npos, "walk_plugin_512.so");
    opened_at_start = ::dlopen(path.c_str(), RTLD_NOW);
}

} // namespace
