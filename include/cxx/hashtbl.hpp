// SPDX-License-Identifier: Apache-2.0
// hashtbl.hpp - a typed view of the intrusive hash table for C++ hosts.
//
// The table of the C functions, owned, with the object's type and the place of its link known to the compiler. A view
// holds only the C table's pointer, and the C functions may be used on get() too. Lookups and walks are inline.
//
//     struct session { unsigned id; hashtbl_link link; };
//     qv::intrusive_table<session, &session::link> table(qv_hashtbl_get_log2(100000));
//     table.insert(qv_hash_uint32(s->id, 0), *s);
//     session *found = table.find(hash, [&](const session &other) { return other.id == id; });
//
// Callbacks are anything that std::invoke() accepts: lambdas, functions, member pointers. They may throw: the lookup or
// walk then ends, and the table stays as the callback left it.
#ifndef LIBCOMMON_CXX_HASHTBL_HPP
#define LIBCOMMON_CXX_HASHTBL_HPP

#include "../hashtbl.h"
#include "member_object.hpp"
#include "owner.hpp"

#include <concepts>
#include <cstddef>
#include <functional>
#include <type_traits>
#include <utility>

namespace qv {

// Link is the pointer to the objects' hashtbl_link, which may lie in a base class of T. The table does not own the
// objects; a table that is destroyed while it holds objects does not touch them.
template <typename T, auto Link>
requires detail::member_of<Link, hashtbl_link, T>
class intrusive_table : public detail::owner<hashtbl, hashtbl_destroy> {
public:
    // Empty, or no table at all (it then converts to false and must not be used) as hashtbl_init() fails.
    explicit intrusive_table(unsigned log_size) : owner(hashtbl_init(log_size, link_offset(), 0)) {}

    std::size_t size() const { return get()->count; }
    bool empty() const { return get()->count == 0; }

    void insert(unsigned hash, T &object) { hashtbl_insert(get(), hash, &object); }

    // Returns whether the object was in the bucket of this hash and has been removed.
    bool remove(unsigned hash, T &object)
    {
        const std::size_t before = size();
        hashtbl_remove(get(), hash, &object);
        return size() != before;
    }

    // The newest object with this hash for which match(object) holds, or null.
    template <typename Match>
    requires std::predicate<Match &, T &> T *find(unsigned hash, Match &&match) { return find_as<T>(hash, match); }
    template <typename Match>
    requires std::predicate<Match &, const T &>
    const T *find(unsigned hash, Match &&match) const { return find_as<const T>(hash, match); }

    // Calls visit(object) -> bool for each object; true goes on. Returns false when the visit was stopped. No object
    // may be removed meanwhile.
    template <typename Visit>
    requires std::predicate<Visit &, T &>
    bool for_each(Visit &&visit) { return for_each_as<T>(visit); }
    template <typename Visit>
    requires std::predicate<Visit &, const T &>
    bool for_each(Visit &&visit) const { return for_each_as<const T>(visit); }

    // Calls visit(object), which may remove or free its object.
    template <typename Visit>
    requires std::invocable<Visit &, T &>
    void for_each_safe(Visit &&visit)
    {
        for (std::size_t i = 0; i < used_buckets(); i++)
            visit_chain(get()->buckets[i], visit);
    }

    // Empties the table, then hands each object to release(object), which may free it, or insert it here again. Objects
    // that are left when release throws are in no table.
    template <typename Release>
    requires std::invocable<Release &, T &>
    void clear(Release &&release)
    {
        hashtbl_link *objects = detach();
        visit_chain(objects, release);
    }

private:
    static unsigned link_offset() { return static_cast<unsigned>(detail::member_offset<T, Link>()); }
    static T &object_of(hashtbl_link *link) { return *detail::object_of<T, Link>(link); }

    // Number of buckets to walk: none of an empty table.
    std::size_t used_buckets() const { return empty() ? 0 : std::size_t{1} << get()->log_size; }

    template <typename U, typename Match>
    U *find_as(unsigned hash, Match &match) const
    {
        const unsigned mask = (1U << get()->log_size) - 1;
        for (hashtbl_link *link = get()->buckets[hash & mask]; link != nullptr; link = link->next) {
            if (link->hash != hash)
                continue;
            U &object = object_of(link);
            if (std::invoke(match, object))
                return &object;
        }
        return nullptr;
    }

    template <typename U, typename Visit>
    bool for_each_as(Visit &visit) const
    {
        for (std::size_t i = 0; i < used_buckets(); i++) {
            for (hashtbl_link *link = get()->buckets[i]; link != nullptr; link = link->next) {
                U &object = object_of(link);
                if (!std::invoke(visit, object))
                    return false;
            }
        }
        return true;
    }

    template <typename Visit>
    static void visit_chain(hashtbl_link *link, Visit &visit)
    {
        while (link != nullptr) {
            hashtbl_link *next = link->next;
            std::invoke(visit, object_of(link));
            link = next;
        }
    }

    // Empties the table. Returns its objects as one chain, bucket by bucket.
    hashtbl_link *detach()
    {
        hashtbl_link *first = nullptr;
        hashtbl_link **end = &first;
        const std::size_t buckets = used_buckets();
        for (std::size_t i = 0; i < buckets; i++) {
            *end = std::exchange(get()->buckets[i], nullptr);
            while (*end != nullptr)
                end = &(*end)->next;
        }
        get()->count = 0;
        return first;
    }
};

} // namespace qv

#endif
