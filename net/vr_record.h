// SPDX-License-Identifier: Apache-2.0
// vr_record.h - a record of a request to the appliance kernel: fields by their offsets, at any alignment. The library
// fills and reads its own records, the stand-in kernel those of its callers.
#ifndef LIBCOMMON_NET_VR_RECORD_H
#define LIBCOMMON_NET_VR_RECORD_H

#include <cstddef>
#include <cstring>

namespace qv::vr_abi {

// Does not own the bytes, and does not know how many there are: every offset comes from vr_abi.h.
class record_view {
public:
    explicit record_view(void *bytes) : bytes_(static_cast<unsigned char *>(bytes)) {}

    template <typename T>
    T get(std::size_t offset) const
    {
        T value;
        std::memcpy(&value, bytes_ + offset, sizeof value);
        return value;
    }

    template <typename T>
    void put(std::size_t offset, const T &value)
    {
        std::memcpy(bytes_ + offset, &value, sizeof value);
    }

    char *text(std::size_t offset) { return reinterpret_cast<char *>(bytes_ + offset); }
    const char *text(std::size_t offset) const { return reinterpret_cast<const char *>(bytes_ + offset); }

private:
    unsigned char *bytes_;
};

} // namespace qv::vr_abi

#endif
