// SPDX-License-Identifier: Apache-2.0
// Any format into a buffer of any size: the text ends inside the buffer, and its length is the result.
#include "signal_printf.h"

#include <algorithm>
#include <cstdint>
#include <cstdlib>
#include <cstring>
#include <memory>
#include <string>

namespace {

constexpr std::size_t kArguments = 16;

// Every argument points to writable text, so each conversion may use any of them, also %n and %s.
struct arguments {
    char text[kArguments][32];

    arguments()
    {
        for (std::size_t i = 0; i < kArguments; i++)
            std::snprintf(text[i], sizeof text[i], "%*zu", static_cast<int>(2 * i), i);
    }
};

} // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t *data, std::size_t size)
{
    if (size < 2)
        return 0;
    int room = (data[0] << 8 | data[1]) % 1100;
    std::string format(reinterpret_cast<const char *>(data) + 2, size - 2);
    format = format.c_str();
    if (std::count(format.begin(), format.end(), '%') > static_cast<std::ptrdiff_t>(kArguments))
        return 0;

    auto out = std::make_unique<char[]>(static_cast<std::size_t>(std::max(room, 1)));
    arguments args;
    auto &t = args.text;
    int length = signal_snprintf(out.get(), room, format.c_str(), t[0], t[1], t[2], t[3], t[4], t[5], t[6], t[7], t[8],
                                 t[9], t[10], t[11], t[12], t[13], t[14], t[15]);
    if (room < 1 ? length != 0 : length < 0 || length >= room || out[static_cast<std::size_t>(length)] != '\0')
        std::abort();
    return 0;
}
