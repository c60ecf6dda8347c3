// SPDX-License-Identifier: Apache-2.0
// idpool.hpp - identifier pools for C++ hosts: owned, with optional results and range-for over what is allocated.
//
//     qv::id_pool sessions("session", 1, 100000);
//     if (std::optional<int> id = sessions.allocate())
//         ...
//     for (int id : sessions) ...                            // ascending
#ifndef LIBCOMMON_CXX_IDPOOL_HPP
#define LIBCOMMON_CXX_IDPOOL_HPP

#include "../idpool.h"

#include <climits>
#include <cstddef>
#include <iterator>
#include <optional>
#include <utility>

namespace qv {

class id_pool {
public:
    // Over the identifiers that are allocated as it goes; freeing the one it stands on is fine.
    class iterator {
    public:
        using iterator_category = std::input_iterator_tag;
        using value_type = int;
        using difference_type = std::ptrdiff_t;
        using pointer = const int *;
        using reference = int;

        iterator() = default;
        iterator(const idpool *pool, int from) : pool_(pool) { seek(from); }
        int operator*() const { return id_; }
        iterator &operator++()
        {
            if (id_ == INT_MAX)
                pool_ = nullptr;
            else
                seek(id_ + 1);
            return *this;
        }
        void operator++(int) { ++*this; }
        bool operator==(const iterator &other) const
        {
            return pool_ == other.pool_ && (pool_ == nullptr || id_ == other.id_);
        }

    private:
        void seek(int from)
        {
            if (idpool_get_next_allocated_id(pool_, from, &id_) != 0)
                pool_ = nullptr;
        }
        const idpool *pool_ = nullptr; // null behind the last
        int id_ = 0;
    };

    // Or no pool at all (it then converts to false and must not be used), as idpool_create() fails.
    id_pool(const char *name, int min, int max) : pool_(idpool_create(name, min, max)) {}
    ~id_pool() { idpool_destroy(pool_); }
    id_pool(id_pool &&other) noexcept : pool_(std::exchange(other.pool_, nullptr)) {}
    id_pool &operator=(id_pool &&other) noexcept
    {
        std::swap(pool_, other.pool_);
        return *this;
    }

    explicit operator bool() const { return pool_ != nullptr; }
    idpool *get() const { return pool_; }

    std::optional<int> allocate()
    {
        int id;
        return idpool_alloc_id(pool_, &id) == 0 ? std::optional(id) : std::nullopt;
    }
    std::optional<int> allocate_lowest()
    {
        int id;
        return idpool_alloc_id_slow(pool_, &id) == 0 ? std::optional(id) : std::nullopt;
    }
    bool allocate(int id) { return idpool_alloc_specific_id(pool_, id) == 0; }
    bool free(int id) { return idpool_free_id(pool_, id) == 0; }
    bool contains(int id) const { return idpool_is_id_allocated(pool_, id) == 1; }

    iterator begin() const { return {pool_, pool_->min_id}; }
    iterator end() const { return {}; }

private:
    idpool *pool_;
};

} // namespace qv

#endif
