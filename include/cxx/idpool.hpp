// SPDX-License-Identifier: Apache-2.0
// idpool.hpp - identifier pools for C++ hosts: owned, with optional results and range-for over the allocated
// identifiers.
//
//     qv::id_pool sessions("session", 1, 100000);
//     if (std::optional<int> id = sessions.allocate())
//         ...
//     for (int id : sessions) ...                            // ascending
#ifndef LIBCOMMON_CXX_IDPOOL_HPP
#define LIBCOMMON_CXX_IDPOOL_HPP

#include "../idpool.h"
#include "owner.hpp"

#include <bit>
#include <cstddef>
#include <cstdint>
#include <iterator>
#include <optional>

namespace qv {

class id_pool : public detail::owner<idpool, idpool_destroy> {
public:
    // Walks the allocated identifiers. Each step reads the bitmap, so the current identifier may be freed. It is a
    // forward iterator in the sense of C++20; for older algorithms it is an input iterator, because its references are
    // values.
    class iterator {
    public:
        using iterator_concept = std::forward_iterator_tag;
        using iterator_category = std::input_iterator_tag;
        using value_type = int;
        using difference_type = std::ptrdiff_t;
        using pointer = const int *;
        using reference = int;

        iterator() = default;
        // Starts at the lowest allocated identifier that is not below `from`; at the end when from is out of range.
        iterator(const idpool *pool, int from) : pool_(pool) { seek(std::int64_t{from} - pool->min_id); }
        int operator*() const { return id_; }
        iterator &operator++()
        {
            seek(std::int64_t{id_} - pool_->min_id + 1);
            return *this;
        }
        iterator operator++(int)
        {
            iterator before = *this;
            ++*this;
            return before;
        }
        bool operator==(const iterator &other) const
        {
            return pool_ == other.pool_ && (pool_ == nullptr || id_ == other.id_);
        }

    private:
        // Moves to the first set bit from this offset on, within the range that idpool_get_next_allocated_id()
        // searches.
        void seek(std::int64_t offset)
        {
            const std::int64_t last = std::int64_t{pool_->max_id} - pool_->min_id;
            std::int64_t word = offset / kWordBits;
            if (offset >= 0 && offset <= last && word < pool_->words) {
                std::uint32_t set = pool_->bitmap[word] & (UINT32_MAX << (offset % kWordBits));
                while (set == 0 && ++word < pool_->words)
                    set = pool_->bitmap[word];
                offset = set != 0 ? word * kWordBits + std::countr_zero(set) : last + 1;
                if (offset <= last) {
                    id_ = static_cast<int>(pool_->min_id + offset);
                    return;
                }
            }
            pool_ = nullptr;
        }

        static constexpr std::int64_t kWordBits = 32;

        const idpool *pool_ = nullptr; // null after the last
        int id_ = 0;
    };

    // Or no pool at all (it then converts to false and must not be used), as idpool_create() fails.
    id_pool(const char *name, int min, int max) : owner(idpool_create(name, min, max)) {}

    std::optional<int> allocate()
    {
        int id;
        return idpool_alloc_id(get(), &id) == 0 ? std::optional(id) : std::nullopt;
    }
    std::optional<int> allocate_lowest()
    {
        int id;
        return idpool_alloc_id_slow(get(), &id) == 0 ? std::optional(id) : std::nullopt;
    }
    bool allocate(int id) { return idpool_alloc_specific_id(get(), id) == 0; }
    bool free(int id) { return idpool_free_id(get(), id) == 0; }
    bool contains(int id) const { return idpool_is_id_allocated(get(), id) == 1; }

    iterator begin() const { return {get(), get()->min_id}; }
    iterator end() const { return {}; }
};

static_assert(std::forward_iterator<id_pool::iterator> && !std::bidirectional_iterator<id_pool::iterator>);

} // namespace qv

#endif
