// SPDX-License-Identifier: Apache-2.0
// owner.hpp - what the owning views have in common: a record of the C interface that is destroyed with its view.
#ifndef LIBCOMMON_CXX_OWNER_HPP
#define LIBCOMMON_CXX_OWNER_HPP

#include <utility>

namespace qv::detail {

// A record from a C function, or null when that function failed or the record was moved away. Moving in exchanges the
// records of both views, so that the old one is destroyed with the other view.
template <typename Record, auto Destroy>
class owner {
public:
    explicit operator bool() const { return record_ != nullptr; }
    Record *get() const { return record_; }

protected:
    explicit owner(Record *record) : record_(record) {}
    ~owner()
    {
        if (record_ != nullptr)
            Destroy(record_);
    }
    owner(owner &&other) noexcept : record_(std::exchange(other.record_, nullptr)) {}
    owner &operator=(owner &&other) noexcept
    {
        std::swap(record_, other.record_);
        return *this;
    }

private:
    Record *record_;
};

} // namespace qv::detail

#endif
