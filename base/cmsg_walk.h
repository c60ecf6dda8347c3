// SPDX-License-Identifier: Apache-2.0
// cmsg_walk.h - walks and writes control messages without leaving the control buffer.
//
// The C library's own walk no longer checks that the next message fits, so a length that a broken peer or kernel sends
// could lead out of the buffer. Here every length is compared with what remains before anything is added to it.
#ifndef LIBCOMMON_BASE_CMSG_WALK_H
#define LIBCOMMON_BASE_CMSG_WALK_H

#include <algorithm>
#include <cstddef>
#include <cstdint>
#include <cstring>
#include <span>

namespace qv::base {

// The kernel's header of a control message on 64-bit machines; the data follows it, padded to a multiple of 8 bytes.
struct cmsg_header {
    std::uint64_t length; // of header and data, without the padding
    std::int32_t level;
    std::int32_t type;
};
static_assert(sizeof(cmsg_header) == 16);

// The length of a message with its padding.
constexpr std::uint64_t padded_cmsg(std::uint64_t length)
{
    return (length + 7) & ~std::uint64_t{7};
}

// Writes a message with one T as data; returns its length with the padding.
template <typename T>
std::size_t put_cmsg(unsigned char *out, int level, int type, const T &data)
{
    cmsg_header header = {sizeof header + sizeof data, level, type};
    std::memcpy(out, &header, sizeof header);
    std::memcpy(out + sizeof header, &data, sizeof data);
    return padded_cmsg(header.length);
}

// Messages in buffer[0, used), which may be less than the buffer's capacity.
class cmsg_walk {
public:
    // What of the next message must fit into the buffer for the walk to go on.
    enum class fit {
        padded, // all of it with its padding: for received messages
        header, // its header: for callers that check every length, as the kernel does on a send
    };

    cmsg_walk(const void *buffer, std::size_t used, std::size_t capacity, fit required = fit::padded)
        : buffer_(static_cast<const unsigned char *>(buffer)), end_(buffer == nullptr ? 0 : std::min(used, capacity)),
          capacity_(capacity), required_(required)
    {
        read_header();
    }

    // Whether there is a current message.
    explicit operator bool() const { return at_ + sizeof header_ <= end_; }

    std::uint64_t length() const { return header_.length; }
    bool is(int level, int type) const { return header_.level == level && header_.type == type; }
    int level() const { return header_.level; }
    int type() const { return header_.type; }

    // The message with its header, cut at the end of the control data.
    std::span<const unsigned char> bytes() const
    {
        return {buffer_ + at_, static_cast<std::size_t>(std::min<std::uint64_t>(header_.length, end_ - at_))};
    }

    // The data as a T, whatever length the message claims; zero where it would lie beyond the buffer.
    template <typename T>
    T data() const
    {
        T value{};
        std::size_t from = at_ + sizeof header_;
        std::memcpy(&value, buffer_ + from, std::min(sizeof value, capacity_ - from));
        return value;
    }

    // A current length below that of a header ends the walk: nothing says where the next one would start.
    void next()
    {
        std::uint64_t left = end_ - at_;
        if (header_.length < sizeof header_ || header_.length > left) {
            at_ = end_;
            return;
        }
        at_ += std::min<std::uint64_t>(padded_cmsg(header_.length), left);
        read_header();
        if (required_ == fit::padded && *this &&
            (header_.length > end_ - at_ || padded_cmsg(header_.length) > end_ - at_))
            at_ = end_;
    }

private:
    void read_header()
    {
        if (*this)
            std::memcpy(&header_, buffer_ + at_, sizeof header_);
    }

    const unsigned char *buffer_;
    std::size_t end_;
    std::size_t capacity_;
    fit required_;
    std::size_t at_ = 0;
    cmsg_header header_{};
};

} // namespace qv::base

#endif
