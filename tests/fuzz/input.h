// SPDX-License-Identifier: Apache-2.0
// input.h - operations and their arguments, read from a fuzzer's bytes.
#pragma once

#include <cstddef>
#include <cstdint>
#include <cstdlib>
#include <string>

namespace fuzz {

inline void require(bool holds)
{
    if (!holds)
        std::abort();
}

// Reads zeros once the bytes are used up.
class Input {
public:
    Input(const std::uint8_t *data, std::size_t size) : at_(data), end_(data + size) {}
    bool empty() const { return at_ == end_; }
    std::uint8_t byte() { return empty() ? std::uint8_t{0} : *at_++; }
    unsigned below(unsigned bound) { return byte() % bound; }
    std::uint32_t word()
    {
        std::uint32_t value = 0;
        for (int i = 0; i < 4; i++)
            value = value << 8 | byte();
        return value;
    }
    // Up to a zero byte or the end.
    std::string text()
    {
        std::string result;
        while (!empty()) {
            auto c = static_cast<char>(byte());
            if (c == '\0')
                break;
            result += c;
        }
        return result;
    }

private:
    const std::uint8_t *at_;
    const std::uint8_t *end_;
};

} // namespace fuzz
