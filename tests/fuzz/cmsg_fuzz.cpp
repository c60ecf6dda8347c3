// SPDX-License-Identifier: Apache-2.0
// Control data of any shape through the walk, which ends and stays within the exactly allocated buffer.
#include "base/cmsg_walk.h"

#include <array>
#include <cstdint>
#include <cstdlib>
#include <cstring>

using namespace qv;

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t *data, std::size_t size)
{
    if (size < 1)
        return 0;
    std::size_t used = data[0]; // what the kernel reports, which may be more or less than the buffer
    std::size_t capacity = size - 1;
    auto *buffer = static_cast<unsigned char *>(std::malloc(capacity != 0 ? capacity : 1));
    std::memcpy(buffer, data + 1, capacity);

    std::size_t steps = 0;
    unsigned sum = 0;
    for (base::cmsg_walk message(buffer, used, capacity); message; message.next()) {
        sum += message.data<std::array<unsigned char, 20>>()[19];
        if (++steps > capacity / sizeof(base::cmsg_header))
            std::abort();
    }
    std::free(buffer);
    return sum == ~0U ? 1 : 0;
}
