// SPDX-License-Identifier: Apache-2.0
// exported_variable.h - the library's uses of an exported variable whose name is a plain word, such as `mutex`.
//
// In a process a name means its first definition, and the executable comes first. Two kinds of definition can be there:
//
//     a copy          Code that reads a library's variable directly makes the linker copy it into the executable. The
//                     copy replaces the library's variable for everybody, and a relocation of the executable says so.
//     the host's own  A variable or function of the host that happens to have the name. It is not for the library.
//
// So the library uses each such variable through a pointer: to the copy if the executable has one, else to the
// library's own definition, which it finds by a hidden second name.
#ifndef LIBCOMMON_UTIL_EXPORTED_VARIABLE_H
#define LIBCOMMON_UTIL_EXPORTED_VARIABLE_H

namespace qv {

// Whether a relocation of the executable copies a library's variable to this address.
bool is_copy_in_executable(const void *address);

template <typename T>
class exported_variable {
public:
    // @param own  the library's definition, by its hidden name
    explicit constexpr exported_variable(T &own) : in_use_{&own} {}
    exported_variable(const exported_variable &) = delete;
    exported_variable &operator=(const exported_variable &) = delete;

    // Once, at load, before another thread uses the variable.
    // @param first  the first definition in the process, by the exported name
    void choose(T &first)
    {
        if (&first != in_use_ && is_copy_in_executable(&first))
            in_use_ = &first;
    }

    T &operator*() const { return *in_use_; }

private:
    T *in_use_;
};

} // namespace qv

#endif
