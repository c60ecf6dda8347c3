// SPDX-License-Identifier: Apache-2.0
// Any name through both conversions with any buffer size: nothing is written beyond, and text that fits ends in a zero.
#include "ifname.h"

#include <cstdint>
#include <cstdlib>
#include <cstring>
#include <string>

namespace {

void convert(int (*conversion)(const char *, char *, int), const std::string &name, int room)
{
    constexpr int kHaRoom = 16; // "ha" is written whatever the size
    auto size = static_cast<std::size_t>(name == "ha" && room < kHaRoom ? kHaRoom : room);
    auto *out = static_cast<char *>(std::malloc(size != 0 ? size : 1));
    int result = conversion(name.c_str(), out, room);
    if (result == 0 && std::memchr(out, 0, size) == nullptr)
        std::abort();
    std::free(out);
}

} // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t *data, std::size_t size)
{
    if (size < 1)
        return 0;
    std::string name(reinterpret_cast<const char *>(data) + 1, size - 1);
    name = name.c_str();
    convert(ifpname2unixname, name, data[0] % 64);
    convert(unixname2ifpname, name, data[0] % 64);
    ifpname2vfg(name.c_str());
    return 0;
}
