// SPDX-License-Identifier: Apache-2.0
// member_object.hpp - finds the object that holds a link or node, for the typed views.
#ifndef LIBCOMMON_CXX_MEMBER_OBJECT_HPP
#define LIBCOMMON_CXX_MEMBER_OBJECT_HPP

#include <cstddef>
#include <type_traits>

namespace qv::detail {

// Member is a pointer to a member M of T or of a non-virtual base class of T: the member's offset in T must not depend
// on the object.
template <auto Member, typename M, typename T>
concept member_of = std::is_convertible_v<decltype(Member), M T::*>;

// Bytes from the start of a T to its member. A constant after optimisation.
template <typename T, auto Member>
std::ptrdiff_t member_offset()
{
    alignas(T) static char room[sizeof(T)];
    return reinterpret_cast<char *>(&(reinterpret_cast<T *>(room)->*Member)) - room;
}

template <typename T, auto Member, typename M>
T *object_of(M *member)
{
    return reinterpret_cast<T *>(reinterpret_cast<char *>(member) - member_offset<T, Member>());
}

} // namespace qv::detail

#endif
