// SPDX-License-Identifier: Apache-2.0
// hashtbl.hpp - a typed view of the intrusive hash table for C++ hosts.
//
// The table of the C functions, owned, with the object's type and the place of its link known to the compiler and
// lambdas for callbacks. Nothing is kept besides the C table's pointer; every operation is one call of the C function.
//
//     struct session { unsigned id; hashtbl_link link; };
//     qv::intrusive_table<session, &session::link> table(qv_hashtbl_get_log2(100000));
//     table.insert(qv_hash_uint32(s->id, 0), *s);
//     session *found = table.find(hash, [&](const session &other) { return other.id == id; });
#ifndef LIBCOMMON_CXX_HASHTBL_HPP
#define LIBCOMMON_CXX_HASHTBL_HPP

#include "../hashtbl.h"

#include <cstddef>
#include <type_traits>
#include <utility>

namespace qv {

template <typename T, hashtbl_link T::*Link>
class intrusive_table {
public:
    // Empty, or no table at all (it then converts to false and must not be used) as hashtbl_init() fails.
    explicit intrusive_table(unsigned log_size) : table_(hashtbl_init(log_size, link_offset(), 0)) {}
    ~intrusive_table()
    {
        if (table_ != nullptr)
            hashtbl_destroy(table_);
    }
    intrusive_table(intrusive_table &&other) noexcept : table_(std::exchange(other.table_, nullptr)) {}
    intrusive_table &operator=(intrusive_table &&other) noexcept
    {
        std::swap(table_, other.table_);
        return *this;
    }

    explicit operator bool() const { return table_ != nullptr; }
    hashtbl *get() const { return table_; }
    std::size_t size() const { return table_->count; }

    void insert(unsigned hash, T &object) { hashtbl_insert(table_, hash, &object); }
    void remove(unsigned hash, T &object) { hashtbl_remove(table_, hash, &object); }

    // match(const T &) -> bool
    template <typename Match>
    T *find(unsigned hash, Match &&match) const
    {
        auto call = [](void *object, void *key) -> int { return as_callable<Match>(key)(as_object(object)) ? 1 : 0; };
        return static_cast<T *>(hashtbl_find(table_, argument(match), hash, call));
    }

    // visit(T &) -> bool: true goes on. Returns false when the visit was stopped. No object may leave meanwhile.
    template <typename Visit>
    bool for_each(Visit &&visit) const
    {
        auto call = [](void *object, void *arg) -> int { return as_callable<Visit>(arg)(as_object(object)) ? 0 : 1; };
        return hashtbl_traverse_each(table_, call, argument(visit)) == 0;
    }

    // visit(T &) may remove or free its object.
    template <typename Visit>
    void for_each_safe(Visit &&visit)
    {
        auto call = [](void *object, void *arg) -> int { return as_callable<Visit>(arg)(as_object(object)), 0; };
        hashtbl_traverse_each_safe(table_, call, argument(visit));
    }

    // Empties the table, handing each object to release(T &), which may free it.
    template <typename Release>
    void clear(Release &&release)
    {
        auto call = [](void *object, void *arg) { as_callable<Release>(arg)(as_object(object)); };
        hashtbl_free_all_objects(table_, call, argument(release));
    }

private:
    static T &as_object(void *object) { return *static_cast<T *>(object); }

    template <typename Callable>
    static std::remove_reference_t<Callable> &as_callable(void *arg)
    {
        return *static_cast<std::remove_reference_t<Callable> *>(arg);
    }

    template <typename Callable>
    static void *argument(Callable &callable)
    {
        return const_cast<void *>(static_cast<const void *>(&callable));
    }

    static unsigned link_offset()
    {
        alignas(T) static char room[sizeof(T)];
        auto *link = reinterpret_cast<char *>(&(reinterpret_cast<T *>(room)->*Link));
        return static_cast<unsigned>(link - room);
    }

    hashtbl *table_;
};

} // namespace qv

#endif
