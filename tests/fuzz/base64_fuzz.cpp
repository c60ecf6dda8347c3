// SPDX-License-Identifier: Apache-2.0
// Any text through the base64 decoder. The first byte of the input chooses how much too small the buffer is.
#include "encoding.h"

#include <cstdint>
#include <cstdlib>
#include <cstring>
#include <string>
#include <vector>

namespace {

void require(bool holds)
{
    if (!holds)
        std::abort();
}

// Decoded data, encoded again, decodes to the same.
void check_round_trip(const unsigned char *bytes, std::size_t length)
{
    std::vector<char> text(length * 2 + 8);
    int characters = b64_ntop_email(bytes, length, text.data(), text.size());
    require(characters >= 0 && text[static_cast<std::size_t>(characters)] == '\0');
    std::vector<unsigned char> again(length + 2);
    require(b64_pton(text.data(), again.data(), again.size()) == static_cast<int>(length));
    require(std::memcmp(again.data(), bytes, length) == 0);
}

} // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t *data, std::size_t size)
{
    if (size == 0)
        return 0;
    std::string text(reinterpret_cast<const char *>(data) + 1, size - 1);
    std::size_t enough = text.size() + 1;
    // The blocks have exactly their size, so that the sanitizer detects any access outside them.
    std::vector<char> exact_text(text.c_str(), text.c_str() + std::strlen(text.c_str()) + 1);
    std::vector<unsigned char> room(enough - data[0] % enough);

    int counted = b64_pton(exact_text.data(), nullptr, 0);
    int decoded = b64_pton(exact_text.data(), room.data(), room.size());
    require(decoded == -1 || decoded == counted);
    if (decoded > 0)
        check_round_trip(room.data(), static_cast<std::size_t>(decoded));
    return 0;
}
