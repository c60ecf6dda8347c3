// SPDX-License-Identifier: Apache-2.0
// The validators of strings, each on a copy that ends with its terminator.
#include "ip_addr.h"

#include <cstddef>
#include <cstdint>
#include <cstdlib>
#include <cstring>

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t *data, std::size_t size)
{
    auto *text = static_cast<char *>(std::malloc(size + 1));
    if (size != 0)
        std::memcpy(text, data, size);
    text[size] = '\0';

    int email = validate_email_address_str(text);
    if (email != 0 && email != -1)
        std::abort();
    if (email == 0 && (std::strchr(text, '@') == nullptr || std::strchr(text, '.') == nullptr))
        std::abort();
    int address = validate_ipv4_host_address_str(text);
    if (address != -1 && std::strlen(text) > 15)
        std::abort();
    std::free(text);
    return 0;
}
