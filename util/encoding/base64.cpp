// SPDX-License-Identifier: Apache-2.0
// Base64 encoding and decoding. Whole runs of groups go through base64_bulk.h, which picks the instructions; the rest
// at the ends, and everything irregular, goes through the group loops here, which decide every result.
#include "encoding.h"

#include "util/encoding/base64_alphabet.h"
#include "util/encoding/base64_bulk.h"

#include <algorithm>
#include <array>
#include <cctype>
#include <climits>
#include <cstring>

using namespace qv;

const char Base64[65] = LIBCOMMON_BASE64_ALPHABET;

namespace {

constexpr char kPad = '=';
constexpr std::size_t kLineLength = 72; // characters before a newline in mail
constexpr std::size_t kBytes = 3;       // of a group
constexpr std::size_t kCharacters = 4;  // of a group

// The value of each character, -1 outside the alphabet.
constexpr std::array<signed char, 256> kValues = [] {
    std::array<signed char, 256> values{};
    values.fill(-1);
    for (signed char i = 0; i < 64; i++)
        values[static_cast<unsigned char>(base64::kAlphabet[i])] = i;
    return values;
}();

int value_of(char c)
{
    return kValues[static_cast<unsigned char>(c)];
}

bool is_space(char c)
{
    return std::isspace(static_cast<unsigned char>(c)) != 0;
}

const char *skip_space(const char *text)
{
    while (is_space(*text))
        text++;
    return text;
}

// ---- encoding ----

// Text that grows in the caller's buffer. A group is written whole or not at all.
class encoder {
public:
    encoder(char *target, std::size_t size) : target_(target), size_(size) {}

    // Writes as many whole groups as there are and fit. Returns the number of bytes encoded.
    std::size_t put_groups(const unsigned char *src, std::size_t length)
    {
        std::size_t groups = std::min(length / kBytes, (size_ - length_) / kCharacters);
        base64::encode_groups(src, groups, target_ + length_);
        length_ += groups * kCharacters;
        return groups * kBytes;
    }

    bool put_padded(const unsigned char *src, std::size_t bytes)
    {
        if (size_ - length_ < kCharacters)
            return false;
        unsigned char whole[kBytes] = {};
        std::memcpy(whole, src, bytes);
        base64::encode_groups(whole, 1, target_ + length_);
        std::memset(target_ + length_ + bytes + 1, kPad, kBytes - bytes);
        length_ += kCharacters;
        return true;
    }

    bool put_newline()
    {
        if (length_ == size_)
            return false;
        target_[length_++] = '\n';
        return true;
    }

    int finish()
    {
        if (length_ == size_ || length_ > INT_MAX)
            return -1;
        target_[length_] = '\0';
        return static_cast<int>(length_);
    }

private:
    char *target_;
    std::size_t size_;
    std::size_t length_ = 0; // never above size_
};

int encode(const unsigned char *src, std::size_t length, char *target, std::size_t size, bool for_mail)
{
    constexpr std::size_t kLineBytes = kLineLength / kCharacters * kBytes;
    encoder out(target, size);
    while (length >= kBytes) {
        std::size_t wanted = for_mail ? std::min(length, kLineBytes) : length;
        std::size_t taken = out.put_groups(src, wanted);
        if (taken != wanted / kBytes * kBytes)
            return -1;
        src += taken;
        length -= taken;
        if (for_mail && taken == kLineBytes && !out.put_newline())
            return -1;
    }
    if (length > 0 && !out.put_padded(src, length))
        return -1;
    return out.finish();
}

// ---- decoding ----

// Bytes that grow in the caller's buffer, or are only counted. place_ is the position in the group of four: each place
// but the first completes a byte, each but the last begins the next one, and both bytes must fit.
class decoder {
public:
    decoder(unsigned char *target, std::size_t size) : target_(target), size_(size) {}

    bool put(unsigned value)
    {
        if (target_ != nullptr && !store(value))
            return false;
        if (place_ != 0)
            count_++;
        place_ = (place_ + 1) % kCharacters;
        return true;
    }

    // Writes whole groups while they are regular and fit. Returns the number of characters decoded.
    std::size_t put_groups(const char *src, const char *end)
    {
        if (place_ != 0 || target_ == nullptr)
            return 0;
        auto there = static_cast<std::size_t>(end - src) / kCharacters;
        std::size_t groups = base64::decode_groups(src, std::min(there, (size_ - count_) / kBytes), target_ + count_);
        count_ += groups * kBytes;
        return groups * kCharacters;
    }

    unsigned place() const { return place_; }

    // Whether the incomplete byte before the padding has bits set.
    bool leaves_bits_over() const { return target_ != nullptr && target_[count_] != 0; }

    int count() const { return count_ <= INT_MAX ? static_cast<int>(count_) : -1; }

private:
    bool store(unsigned value)
    {
        static constexpr unsigned kTaken[kCharacters] = {0, 2, 4, 6}; // bits of value that complete a byte
        unsigned taken = kTaken[place_];
        bool begins_next = place_ != kCharacters - 1;
        std::size_t next = count_ + (place_ != 0 ? 1 : 0);
        if ((begins_next ? next : count_) >= size_)
            return false;
        if (place_ != 0)
            target_[count_] = static_cast<unsigned char>(target_[count_] | value >> (6 - taken));
        if (begins_next)
            target_[next] = static_cast<unsigned char>(value << (2 + taken));
        return true;
    }

    unsigned char *target_;
    std::size_t size_;
    std::size_t count_ = 0; // bytes complete
    unsigned place_ = 0;
};

// Checks the text after the first '=', which is in the place of the group where the decoder stopped.
int finish_padded(const char *rest, const decoder &out)
{
    if (out.place() < 2)
        return -1;
    if (out.place() == 2) {
        rest = skip_space(rest);
        if (*rest++ != kPad)
            return -1;
    }
    if (*skip_space(rest) != '\0' || out.leaves_bits_over())
        return -1;
    return out.count();
}

} // namespace

extern "C" {

int b64_ntop(const unsigned char *src, size_t srclength, char *target, size_t targsize)
{
    return encode(src, srclength, target, targsize, false);
}

int b64_ntop_email(const unsigned char *src, size_t srclength, char *target, size_t targsize)
{
    return encode(src, srclength, target, targsize, true);
}

int b64_pton(const char *src, unsigned char *target, size_t targsize)
{
    const char *end = src + std::strlen(src);
    decoder out(target, targsize);
    for (;;) {
        src += out.put_groups(src, end);
        char c = *src;
        if (c == '\0')
            return out.place() == 0 ? out.count() : -1;
        src++;
        if (is_space(c))
            continue;
        if (c == kPad)
            return finish_padded(src, out);
        int value = value_of(c);
        if (value < 0 || !out.put(static_cast<unsigned>(value)))
            return -1;
    }
}

} // extern "C"
